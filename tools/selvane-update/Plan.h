// What an update has to do to bring a root filesystem to a release.
#ifndef SELVANE_UPDATE_PLAN_H
#define SELVANE_UPDATE_PLAN_H

#include <selvane/Manifest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace update {

struct Plan {
  std::vector<std::string> remove;        // installed, but no longer in the release
  std::vector<std::string> removeLast;    // the same, holding the shell or the package tool
  std::vector<selvane::Package> install;  // new in the release, or at another version
  std::vector<std::string> unchanged;     // installed at the release's version: no download
  bool empty() const { return remove.empty() && removeLast.empty() && install.empty(); }
  std::vector<std::string> removals() const;  // remove, then removeLast
  uint64_t installBytes() const;
};

// Compares the release with what is installed, by package name and version.
Plan makePlan(const selvane::Manifest& release,
              const std::map<std::string, std::string>& installed);

// Moves the removals that would take away the shell or the package tool of the root at rootPath
// (by the files their opkg lists name) to removeLast: those are removed after the installs, so
// that the package tool, which runs in that root under its shell, keeps working until then.
void keepEssentialsToLast(Plan& plan, const std::string& rootPath);

// What the packages of a plan take once unpacked is estimated as their download size times this
// factor (gzip rarely packs a root filesystem's files tighter than 2:1).
const uint64_t kUnpackFactor = 2;

// The disk space that the files of the packages a plan removes or replaces take in the root at
// rootPath (regular files with a single link, by their opkg lists, read inside the root).
uint64_t freedBytes(const Plan& plan, const std::string& rootPath,
                    const std::map<std::string, std::string>& installed);

}  // namespace update

#endif
