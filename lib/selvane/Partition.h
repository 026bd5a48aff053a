// Partition: a block-device partition that the library mounts, remounts, reformats and checks.
//
// The public operations are implemented once here, over four primitives that a concrete partition
// supplies (do_mount, do_unmount, do_erase, do_fsck); the primitives report by boolean and the
// operations turn a failure into std::runtime_error with a fixed text. The mount point is the only
// record of a mount: empty means "not mounted by this object". Temporary mount directories made
// by mount("") are never removed. Not thread-safe; one owner drives a partition at a time.
#ifndef SELVANE_PARTITION_H
#define SELVANE_PARTITION_H

#include <selvane/Export.h>

#include <boost/noncopyable.hpp>
#include <string>

namespace selvane {

class SELVANE_EXPORT Partition : private boost::noncopyable {
 public:
  Partition();
  // Does not unmount; a concrete partition's destructor may, and may throw while doing so.
  virtual ~Partition() noexcept(false) = default;

  // Mounts on path, or on a new "/tmp/ota-mount-XXXXXX" directory when path is empty, after
  // releasing a mount of this object; returns the mount point. The mode is applied twice: a mount,
  // then a remount with the same mode. Throws "Failed to mount partition" (or the texts of unmount
  // and "Failed to create a temporary directory").
  std::string mount(std::string path, bool readOnly);
  // Throws "Failed to unmount" and stays mounted when the primitive fails; no-op when unmounted.
  void unmount();
  // No-ops unless mounted in the other mode. Throw "Failed to remount partition RW" / "... RO".
  void remount_rw();
  void remount_ro();
  // Makes a new filesystem and mounts it again where and how it was, if it was mounted.
  // Throws "Failed to erase" (the partition is left unmounted).
  void erase();
  // Checks the filesystem; on success mounts it again where it was. A failed check leaves the
  // partition unmounted and throws nothing.
  bool checkAndRepair();

  // The current mount point, empty when not mounted by this object.
  std::string getMountPoint() const;
  // The mode of the last successful mount or remount.
  bool isReadOnly() const;

 protected:
  // flags: MS_RDONLY and/or MS_REMOUNT, i.e. 0, 1, 32 or 33.
  virtual bool do_mount(const std::string& mountpoint, unsigned long flags) = 0;
  virtual bool do_unmount(const std::string& mountpoint) = 0;
  virtual bool do_erase() = 0;
  virtual bool do_fsck() = 0;

 private:
  std::string mountpoint;
  bool readOnly;
};

}  // namespace selvane

#endif
