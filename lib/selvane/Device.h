// Device: the abstract A/B device the update daemon works with.
//
// A device knows which of its two root filesystems is running, hands out the partition of the other
// one, tells the boot loader which root filesystem to boot next (and how often to retry it), marks
// a root filesystem as known good, and wipes itself and halts. Device::createSystemDevice() returns
// the device of the machine it runs on; on a board without eMMC flash it throws
// std::runtime_error("Failed to detect flash type"). The free functions below are shared by every
// device implementation.
#ifndef SELVANE_DEVICE_H
#define SELVANE_DEVICE_H

#include <selvane/Export.h>

#include <boost/shared_ptr.hpp>
#include <string>

namespace selvane {

class Partition;

// The texts the boot loader reads from the boot properties; part of the boot protocol.
SELVANE_EXPORT extern const char ROOTFS_A_LABEL[7];
SELVANE_EXPORT extern const char ROOTFS_B_LABEL[7];

class SELVANE_EXPORT Device {
 public:
  enum RootfsLabel { A = 0, B = 1 };

  virtual ~Device() = default;

  virtual RootfsLabel getCurrentRootfs() const = 0;
  // The root filesystem that is not running: A when B runs, B otherwise.
  virtual RootfsLabel getOtherRootfs() const;
  virtual boost::shared_ptr<Partition> getOtherRootfsPartition() const = 0;
  virtual void setKnownGood(RootfsLabel label) = 0;
  virtual void setBootRootfs(RootfsLabel label, unsigned int retries) = 0;
  virtual void evictDataAndHalt() const = 0;

  // The device of the running machine, shared with the caller.
  static boost::shared_ptr<Device> createSystemDevice();
};

// ROOTFS_A_LABEL or ROOTFS_B_LABEL itself (never a copy).
SELVANE_EXPORT const char* labelToText(Device::RootfsLabel label);

// Writes the label's text into the named boot property. A failed write is only logged.
SELVANE_EXPORT void setKnownGood(const std::string& property, Device::RootfsLabel label);

}  // namespace selvane

#endif
