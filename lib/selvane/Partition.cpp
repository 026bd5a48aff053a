#include "selvane/Partition.h"

#include <stdlib.h>
#include <sys/mount.h>

#include <cerrno>
#include <stdexcept>

#include "Log.h"

namespace selvane {
namespace {

std::string makeTemporaryMountDirectory() {
  char dir[] = "/tmp/ota-mount-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    const int err = errno;
    SELVANE_LOG_E("Partition:mkdtemp:dir=%s,errno=%d:Failed to create a temporary directory", dir,
                  err);
    throw std::runtime_error("Failed to create a temporary directory");
  }
  return dir;
}

}  // namespace

Partition::Partition() : readOnly(false) {}

std::string Partition::mount(std::string path, bool readOnly) {
  unmount();
  if (path.empty()) path = makeTemporaryMountDirectory();
  mountpoint = path;
  const unsigned long flags = readOnly ? MS_RDONLY : 0;
  // The second call applies the mode once more as a remount, right after the first mount.
  if (!do_mount(mountpoint, flags) || !do_mount(mountpoint, flags | MS_REMOUNT)) {
    mountpoint.clear();
    throw std::runtime_error("Failed to mount partition");
  }
  this->readOnly = readOnly;
  return mountpoint;
}

void Partition::unmount() {
  if (mountpoint.empty()) return;
  if (!do_unmount(mountpoint)) throw std::runtime_error("Failed to unmount");
  mountpoint.clear();
}

void Partition::remount_rw() {
  if (!readOnly || mountpoint.empty()) return;
  if (!do_mount(mountpoint, MS_REMOUNT)) throw std::runtime_error("Failed to remount partition RW");
  readOnly = false;
}

void Partition::remount_ro() {
  if (readOnly || mountpoint.empty()) return;
  if (!do_mount(mountpoint, MS_REMOUNT | MS_RDONLY))
    throw std::runtime_error("Failed to remount partition RO");
  readOnly = true;
}

void Partition::erase() {
  const std::string previous = mountpoint;
  unmount();
  if (!do_erase()) throw std::runtime_error("Failed to erase");
  if (!previous.empty()) mount(previous, readOnly);
}

bool Partition::checkAndRepair() {
  const std::string previous = mountpoint;
  unmount();
  const bool ok = do_fsck();
  if (ok && !previous.empty()) mount(previous, readOnly);
  return ok;
}

std::string Partition::getMountPoint() const { return mountpoint; }

bool Partition::isReadOnly() const { return readOnly; }

}  // namespace selvane
