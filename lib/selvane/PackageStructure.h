// CheckPackageStructure: the shape of an opkg package file, checked before its signature is.
//
// PackageVerifier reads the first member of each name it signs and ignores everything else, while
// an installer may unpack another member of the same name. A package passes this check only when
// its ar archive holds exactly one each of "debian-binary", "control.tar.gz", "data.tar.gz" and
// "signature", in any order, and no other member; then what was signed is all there is to install.
#ifndef SELVANE_PACKAGESTRUCTURE_H
#define SELVANE_PACKAGESTRUCTURE_H

#include <selvane/Export.h>
#include <string>

namespace selvane {

// True when packagePath is a regular file and an ar archive of exactly those four members.
// Otherwise logs one line naming the missing, duplicate or unexpected member (or why the archive
// cannot be read) and answers false. Reads the member headers only; never throws.
[[nodiscard]] SELVANE_EXPORT bool CheckPackageStructure(const std::string& packagePath);

}  // namespace selvane

#endif
