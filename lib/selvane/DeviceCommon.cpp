#include "selvane/DeviceCommon.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "Log.h"

namespace selvane {
namespace {

const size_t kWipeBlockSize = 4096;
const unsigned long kSectorsPerBlock = kWipeBlockSize / 512;

size_t countEntries(const char** partitions) {
  size_t count = 0;
  while (partitions[count] != nullptr) ++count;
  return count;
}

// The name a failed write is reported under: the list entry at the position of the sector counter.
// Past the end of the list there is no such entry, and the device being written stands in.
const char* writeFailureName(const char** partitions, size_t entries, unsigned long sector,
                             const char* current) {
  return sector < entries ? partitions[sector] : current;
}

// Writes the zero block over the whole device, 8 sectors at a time; the last block is written
// whole even when the device ends inside it. Stops at the first failed write.
void zeroDevice(int fd, unsigned long sectors, const char* zeros, const char** partitions,
                size_t entries, const char* current) {
  for (unsigned long sector = 0; sector < sectors; sector += kSectorsPerBlock) {
    if (write(fd, zeros, kWipeBlockSize) == -1) {
      const int err = errno;
      SELVANE_LOG_E(
          "DeviceCommon:write:partition=%s,errno=%d:Incomplete wipe of partition due to error",
          writeFailureName(partitions, entries, sector, current), err);
      return;
    }
  }
}

void wipePartition(const char* partition, const char* zeros, const char** partitions,
                   size_t entries) {
  char resolved[PATH_MAX];
  if (realpath(partition, resolved) == nullptr) {
    SELVANE_LOG_E(
        "DeviceCommon:realpath:partition=%s,errno=%d:Skipping wipe of partition due to error",
        partition, errno);
    return;
  }
  const int fd = open(resolved, O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    SELVANE_LOG_E("DeviceCommon:open:partition=%s,errno=%d:Skipping wipe of partition due to error",
                  partition, errno);
    return;
  }
  unsigned long sectors = 0;
  if (ioctl(fd, BLKGETSIZE, &sectors) != 0) {
    const int err = errno;
    SELVANE_LOG_E(
        "DeviceCommon:ioctl:partition=%s,errno=%d:Skipping wipe of partition due to error",
        partition, err);
    close(fd);
    return;
  }
  zeroDevice(fd, sectors, zeros, partitions, entries, partition);
  fsync(fd);
  close(fd);
}

}  // namespace

void evictDataAndHalt(const char** partitions) {
  if (partitions != nullptr && partitions[0] != nullptr) {
    static const char zeros[kWipeBlockSize] = {};
    const size_t entries = countEntries(partitions);
    for (size_t i = 0; i < entries; ++i) wipePartition(partitions[i], zeros, partitions, entries);
  }
  sync();
  doHalt();
}

void doHalt() { reboot(RB_HALT_SYSTEM); }

dev_t getDeviceID(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    SELVANE_LOG_E("DeviceCommon:getDeviceID:errno=%d:Failed to stat %s", errno, path.c_str());
    throw std::runtime_error("Failed to stat " + path);
  }
  return S_ISBLK(st.st_mode) ? st.st_rdev : st.st_dev;
}

}  // namespace selvane
