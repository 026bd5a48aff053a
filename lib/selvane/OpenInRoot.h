// OpenInRoot: open(2) of a path as the system installed under a root directory sees it.
//
// The path is resolved one component at a time below root, as if root were "/": ".." never climbs
// above root, and symbolic links are followed inside root, an absolute target starting again at
// root. So nothing outside root is ever reached, whatever links a tampered root holds. This is the
// resolution of openat2(2) with RESOLVE_IN_ROOT, done with openat(2) and O_NOFOLLOW, so that it
// also works on kernels and emulators without openat2.
#ifndef SELVANE_OPENINROOT_H
#define SELVANE_OPENINROOT_H

#include <selvane/Export.h>
#include <sys/types.h>

#include <string>

namespace selvane {

// Opens path (absolute or not, both taken from root) with open(2)'s flags and mode: O_CREAT creates
// the last component in the directory it resolves to, and a last component that is a symbolic link
// is followed (inside root) unless flags hold O_NOFOLLOW. At most 40 links are followed (then
// ELOOP). Returns the new descriptor, or -1 with errno set; an empty path gives ENOENT.
SELVANE_EXPORT int OpenInRoot(const std::string& root, const std::string& path, int flags,
                              mode_t mode = 0);

}  // namespace selvane

#endif
