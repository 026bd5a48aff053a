// The other root filesystem as a place that may have been tampered with: before anything is
// written there, every path that the update or the library writes, binds or locks must resolve
// inside it, and the update's own files in it are reached as that root's own system reaches them.
#ifndef SELVANE_UPDATE_TARGETROOT_H
#define SELVANE_UPDATE_TARGETROOT_H

#include <string>

namespace update {

extern const char kReleaseFile[];        // "/etc/selvane-release"
extern const char kSanityCheckScript[];  // "/usr/local/bin/ota-sanity-check.sh"

// Throws an unsafe-root Failure naming the first such path that, followed the way the running
// system follows it, leads out of root through a link (or loops). Entries already in the opkg
// info directory count as written, since opkg rewrites them.
void checkContained(const std::string& root);

// Throws an unsafe-root Failure when a directory that opkg would create or fill in root while it
// installs the package file (what its data member holds) leads out of root through a link;
// what names the package in the message. An unreadable data member is an install Failure.
void checkPackagePaths(const std::string& root, const std::string& package,
                       const std::string& what);

// The release recorded in root ("" for the running system), or "" if none was completed.
std::string readRelease(const std::string& root);
// Records version in root's release file, written to a temporary name and renamed.
void writeRelease(const std::string& root, const std::string& version);
// Removes the record, so that a root being rewritten never claims a release.
void forgetRelease(const std::string& root);

// Whether root ("" for the running system) holds the sanity-check script, as the library sees it.
bool hasSanityCheck(const std::string& root);

}  // namespace update

#endif
