// What a release may say and how releases are ordered: the manifest's names, versions and digests
// are checked before any of them is used, and release versions compare as opkg compares versions.
#ifndef SELVANE_UPDATE_RELEASE_H
#define SELVANE_UPDATE_RELEASE_H

#include <selvane/Manifest.h>

#include <string>

namespace update {

// Throws a manifest Failure naming the field and the package when a package name is not made of
// [a-z0-9.+-] (starting with a letter or digit), a version not of [A-Za-z0-9.+~:-] (and not "."
// or ".."), or a SHA-256 not 64 hexadecimal digits; the release version follows the version rule.
void checkManifestFields(const selvane::Manifest& manifest);

// Below, equal to or above zero as a is older than, the same as or newer than b:
// [epoch:]upstream[-revision], epochs as numbers, the rest in Debian's order ("~" before all).
int compareVersions(const std::string& a, const std::string& b);

}  // namespace update

#endif
