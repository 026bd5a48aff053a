#include "Plan.h"

#include <fcntl.h>
#include <selvane/OpenInRoot.h>
#include <unistd.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <set>

namespace update {

uint64_t Plan::installBytes() const {
  uint64_t bytes = 0;
  for (const selvane::Package& package : install) bytes += package.getSize();
  return bytes;
}

std::vector<std::string> Plan::removals() const {
  std::vector<std::string> all = remove;
  all.insert(all.end(), removeLast.begin(), removeLast.end());
  return all;
}

namespace {

// The package tool runs as the root's /usr/bin/opkg-cl, a script for the root's /bin/sh; /bin/sh
// is often a link to a multi-call binary, which counts too.
std::set<std::string> essentialFiles(const std::string& rootPath) {
  std::set<std::string> files = {"/bin/sh", "/usr/bin/opkg-cl"};
  char target[256];
  const ssize_t length = readlink((rootPath + "/bin/sh").c_str(), target, sizeof target - 1);
  if (length > 0) {
    target[length] = '\0';
    files.insert(target[0] == '/' ? std::string(target) : "/bin/" + std::string(target));
  }
  return files;
}

// Calls visit with each path in the opkg file list of name, read inside the root, until it
// returns false.
void forEachListed(const std::string& rootPath, const std::string& name,
                   const std::function<bool(const std::string&)>& visit) {
  const int fd = selvane::OpenInRoot(rootPath, "/var/lib/opkg/info/" + name + ".list",
                                     O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return;
  FILE* list = fdopen(fd, "r");
  if (list == nullptr) {
    close(fd);
    return;
  }
  char line[4096];
  bool more = true;
  while (more && std::fgets(line, sizeof line, list) != nullptr) {
    std::string path = line;
    if (!path.empty() && path.back() == '\n') path.pop_back();
    more = visit(path);
  }
  std::fclose(list);
}

bool listsAnyOf(const std::string& rootPath, const std::string& name,
                const std::set<std::string>& files) {
  bool found = false;
  forEachListed(rootPath, name, [&](const std::string& path) {
    found = files.count(path) != 0;
    return !found;
  });
  return found;
}

}  // namespace

void keepEssentialsToLast(Plan& plan, const std::string& rootPath) {
  const std::set<std::string> files = essentialFiles(rootPath);
  const auto last = std::stable_partition(
      plan.remove.begin(), plan.remove.end(),
      [&](const std::string& name) { return !listsAnyOf(rootPath, name, files); });
  plan.removeLast.insert(plan.removeLast.end(), last, plan.remove.end());
  plan.remove.erase(last, plan.remove.end());
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

uint64_t freedBytes(const Plan& plan, const std::string& rootPath,
                    const std::map<std::string, std::string>& installed) {
  std::vector<std::string> names = plan.removals();
  for (const selvane::Package& package : plan.install)
    if (installed.count(package.getName())) names.push_back(package.getName());
  uint64_t bytes = 0;
  for (const std::string& name : names) {
    forEachListed(rootPath, name, [&](const std::string& path) {
      const int fd = selvane::OpenInRoot(rootPath, path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
      struct stat st;
      if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1)
        bytes += static_cast<uint64_t>(st.st_blocks) * 512;
      if (fd >= 0) close(fd);
      return true;
    });
  }
  return bytes;
}

}  // namespace update
