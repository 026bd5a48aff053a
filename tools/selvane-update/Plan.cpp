#include "Plan.h"

#include <set>

namespace update {

uint64_t Plan::installBytes() const {
  uint64_t bytes = 0;
  for (const selvane::Package& package : install) bytes += package.getSize();
  return bytes;
}

Plan makePlan(const selvane::Manifest& release,
              const std::map<std::string, std::string>& installed) {
  Plan plan;
  std::set<std::string> inRelease;
  for (const selvane::Package& package : release.getPackages()) {
    inRelease.insert(package.getName());
    const auto found = installed.find(package.getName());
    if (found != installed.end() && found->second == package.getVersion()) {
      plan.unchanged.push_back(package.getName());
    } else {
      plan.install.push_back(package);
    }
  }
  for (const auto& [name, version] : installed) {
    if (!inRelease.count(name)) plan.remove.push_back(name);
  }
  return plan;
}

}  // namespace update
