// MMCDevice: the device of a board that keeps its partitions on eMMC flash, named by the kernel's
// links under /dev/disk/by-partlabel/.
//
// The constructor finds out which root filesystem runs (by comparing device numbers) and creates,
// without mounting it, the partition of the other one; it throws std::runtime_error("Failed to stat
// <path>") when a device number cannot be read. Boot properties are written through BRIX and never
// fail towards the caller: a rejected write is only logged.
#ifndef SELVANE_MMCDEVICE_H
#define SELVANE_MMCDEVICE_H

#include <selvane/Export.h>

#include <selvane/Device.h>

namespace selvane {

class SELVANE_EXPORT MMCDevice : public Device {
 public:
  MMCDevice();
  ~MMCDevice() override = default;

  RootfsLabel getCurrentRootfs() const override;
  // The same MMCPartition on every call.
  boost::shared_ptr<Partition> getOtherRootfsPartition() const override;
  // Writes the label's text into "boot.knowngood".
  void setKnownGood(RootfsLabel label) override;
  // Writes "boot.otaretrycount" (decimal), then "boot.bootmode" (the label's text).
  void setBootRootfs(RootfsLabel label, unsigned int retries) override;
  // Wipes boot, brix, mfg, main-A, main-B and data, then halts.
  void evictDataAndHalt() const override;

 private:
  boost::shared_ptr<Partition> otherRootfsPartition;
};

}  // namespace selvane

#endif
