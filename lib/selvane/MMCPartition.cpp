#include "selvane/MMCPartition.h"

#include <sys/mount.h>

#include <cerrno>

#include "Log.h"
#include "selvane/Executor.h"

namespace selvane {

MMCPartition::MMCPartition(const std::string& devicePath) : devicePath(devicePath) {}

MMCPartition::~MMCPartition() noexcept(false) { unmount(); }

const std::string& MMCPartition::getDevicePath() const { return devicePath; }

bool MMCPartition::do_mount(const std::string& mountpoint, unsigned long flags) {
  const int status = ::mount(devicePath.c_str(), mountpoint.c_str(), "ext3", flags, nullptr);
  if (status != 0) {
    const int err = errno;
    SELVANE_LOG_E("MMCPartition:mount:dev=%s,location=%s,errno=%d:Failed to mount device",
                  devicePath.c_str(), mountpoint.c_str(), err);
  }
  SELVANE_LOG_I("MMCPartition:do_mount:status=%d,mount_flags=%lu:mount status", status, flags);
  return status == 0;
}

bool MMCPartition::do_unmount(const std::string& mountpoint) {
  const int status = umount(mountpoint.c_str());
  if (status != 0) {
    const int err = errno;
    SELVANE_LOG_E("MMCPartition:umount:errno=%d:Failed to unmount", err);
  }
  SELVANE_LOG_I("MMCPartition:do_unmount:status=%d:umount status", status);
  return status == 0;
}

bool MMCPartition::do_erase() {
  const char* argv[] = {"/sbin/mkfs.ext3", "-v", devicePath.c_str(), nullptr};
  Executor mkfs(argv, nullptr);
  if (mkfs.waitExecute(0) != 0) {
    SELVANE_LOG_E("MMCPartition:do_erase:device=%s:Failed to erase partition", devicePath.c_str());
    return false;
  }
  SELVANE_LOG_I("MMCPartition:do_erase:device=%s:Partition erased", devicePath.c_str());
  return true;
}

bool MMCPartition::do_fsck() { return true; }

}  // namespace selvane
