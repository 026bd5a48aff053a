// Low-level work that device implementations share: wiping block devices, halting the machine and
// reading the device number behind a path.
//
// evictDataAndHalt() overwrites every listed device with zeros, syncs and halts; it never reports
// a failure (each one is logged and the next device is wiped) and returns only if the halt request
// is refused. getDeviceID() throws std::runtime_error("Failed to stat <path>").
#ifndef SELVANE_DEVICECOMMON_H
#define SELVANE_DEVICECOMMON_H

#include <selvane/Export.h>

#include <sys/types.h>

#include <string>

namespace selvane {

// partitions: paths (symbolic links are resolved) ending with a null entry; null means none.
SELVANE_EXPORT void evictDataAndHalt(const char** partitions);

// Asks the kernel to halt the machine; returns only if it refuses.
SELVANE_EXPORT void doHalt();

// For a block device node, the number of the device itself; otherwise the number of the device
// holding the file. So getDeviceID("/") equals the ID of the partition mounted as the root.
SELVANE_EXPORT dev_t getDeviceID(const std::string& path);

}  // namespace selvane

#endif
