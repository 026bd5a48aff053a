// MMCPartition: an ext3 filesystem on an eMMC partition, named by its device path.
//
// Mounts with mount(2), reformats with "/sbin/mkfs.ext3 -v <device>" and has no check of its own
// (do_fsck succeeds, so checkAndRepair() amounts to unmount and mount again). The destructor
// unmounts a partition this object mounted, and throws "Failed to unmount" if that fails. Through
// boost::shared_ptr (as the device hands it out) that exception cannot be caught: releasing the
// last owner of a busy mount ends the process. Call unmount() before letting the partition go.
#ifndef SELVANE_MMCPARTITION_H
#define SELVANE_MMCPARTITION_H

#include <selvane/Export.h>

#include <selvane/Partition.h>

#include <string>

namespace selvane {

class SELVANE_EXPORT MMCPartition : public Partition {
 public:
  explicit MMCPartition(const std::string& devicePath);
  ~MMCPartition() noexcept(false) override;

  const std::string& getDevicePath() const;

  bool do_mount(const std::string& mountpoint, unsigned long flags) override;
  bool do_unmount(const std::string& mountpoint) override;
  bool do_erase() override;
  bool do_fsck() override;

 private:
  const std::string devicePath;
};

}  // namespace selvane

#endif
