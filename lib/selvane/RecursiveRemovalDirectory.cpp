#include "selvane/RecursiveRemovalDirectory.h"

#include <ftw.h>

#include <cstdio>

#include "Log.h"

namespace selvane {
namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW* walk) {
  if (walk->level == 0) return 0;  // the top directory goes in ~TemporaryDirectory
  SELVANE_LOG_D("RecursiveRemovalDirectory:remove:file_path=%s:Removing file", path);
  return std::remove(path);
}

}  // namespace

RecursiveRemovalDirectory::RecursiveRemovalDirectory() = default;

RecursiveRemovalDirectory::RecursiveRemovalDirectory(const std::string& path, bool allowExisting)
    : TemporaryDirectory(path, allowExisting) {}

RecursiveRemovalDirectory::~RecursiveRemovalDirectory() {
  nftw(getPath().c_str(), removeEntry, 64, FTW_PHYS | FTW_DEPTH);
}

}  // namespace selvane
