// The installed-package list read from arbitrary opkg status files in a target root.
#include <selvane/PackageManager.h>
#include <sys/stat.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string root = fuzz::scratchDirectory() + "/root";
  static selvane::PackageManager manager = [] {
    for (const char* dir : {"", "/var", "/var/lib", "/var/lib/opkg"})
      mkdir((root + dir).c_str(), 0700);
    return selvane::PackageManager(root);
  }();
  fuzz::writeFile(root + "/var/lib/opkg/status", data, size);
  manager.refreshInstalledPackages();
  for (const auto& entry : manager.getInstalledPackages()) (void)entry.second.size();
  return 0;
}
