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
  std::vector<selvane::Package> install;  // new in the release, or at another version
  std::vector<std::string> unchanged;     // installed at the release's version: no download
  bool empty() const { return remove.empty() && install.empty(); }
  uint64_t installBytes() const;
};

// Compares the release with what is installed, by package name and version.
Plan makePlan(const selvane::Manifest& release,
              const std::map<std::string, std::string>& installed);

}  // namespace update

#endif
