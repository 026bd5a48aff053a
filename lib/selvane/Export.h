// SELVANE_EXPORT marks what libselvane offers its users. The library is built with hidden
// visibility, so every class, function and constant without this mark stays inside it.
#ifndef SELVANE_EXPORT_H
#define SELVANE_EXPORT_H

#define SELVANE_EXPORT __attribute__((visibility("default")))

#endif
