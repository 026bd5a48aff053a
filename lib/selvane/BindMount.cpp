#include "selvane/BindMount.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>

#include "Log.h"

namespace selvane {
namespace {

// Makes sure the mount point exists as a directory, creating only its last component.
bool ensureDirectory(const std::string& dir) {
  if (dir.empty()) {
    SELVANE_LOG_W("BindMount:ensureDirectory:dir=,errno=:Empty path specified");
    return false;
  }
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    const int err = errno;
    if (err != ENOENT) {
      SELVANE_LOG_W("BindMount:ensureDirectory:dir=%s,errno=%d:Bad path", dir.c_str(), err);
      return false;
    }
    if (mkdir(dir.c_str(), 0755) != 0) {
      SELVANE_LOG_W("BindMount:ensureDirectory:dir=%s,errno=%d:mkdir failed", dir.c_str(), errno);
      return false;
    }
    return true;
  }
  if (!S_ISDIR(st.st_mode)) {
    SELVANE_LOG_W(
        "BindMount:ensureDirectory:dir=%s,errno=:Destination exists and is not a directory",
        dir.c_str());
    return false;
  }
  return true;
}

}  // namespace

BindMount::BindMount(const std::string& source, const std::string& destination, bool mountNow)
    : source(source), destination(destination), mounted(false) {
  if (mountNow) (void)mount();
}

BindMount::~BindMount() {
  if (!unmount()) {
    SELVANE_LOG_E("BindMount:~BindMount:dest=%s:Failed to unmount", destination.c_str());
  }
}

bool BindMount::mount() {
  if (mounted) return true;
  if (!ensureDirectory(destination)) {
    SELVANE_LOG_E(
        "BindMount:mount:errno=,src=%s,dest=%s:No such destination exists or could be created",
        source.c_str(), destination.c_str());
    return false;
  }
  if (::mount(source.c_str(), destination.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    SELVANE_LOG_E("BindMount:mount:errno=%d,src=%s,dest=%s:Failed to bind mount directory", errno,
                  source.c_str(), destination.c_str());
    return false;
  }
  mounted = true;
  return true;
}

bool BindMount::unmount() {
  if (!mounted) return true;
  if (umount(destination.c_str()) != 0) {
    const int err = errno;
    if (err != EINVAL) {
      SELVANE_LOG_E("BindMount:unmount:errno=%d,mountpoint=%s:Failed to unmount", err,
                    destination.c_str());
      return false;
    }
    SELVANE_LOG_W("BindMount:unmount:errno=%d,mountpoint=%s:Mount point appears to be unmounted...",
                  err, destination.c_str());
  }
  mounted = false;
  return true;
}

bool BindMount::isMounted() const { return mounted; }

}  // namespace selvane
