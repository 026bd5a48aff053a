#include "selvane/MMCDevice.h"

#include <boost/make_shared.hpp>
#include <string>

#include "Log.h"
#include "selvane/BRIX.h"
#include "selvane/DeviceCommon.h"
#include "selvane/MMCPartition.h"

namespace selvane {
namespace {

const char ROOTFS_A_DEVICE[] = "/dev/disk/by-partlabel/main-A";
const char ROOTFS_B_DEVICE[] = "/dev/disk/by-partlabel/main-B";

const char* wipe_mmcblks[] = {"/dev/disk/by-partlabel/boot",
                              "/dev/disk/by-partlabel/brix",
                              "/dev/disk/by-partlabel/mfg",
                              "/dev/disk/by-partlabel/main-A",
                              "/dev/disk/by-partlabel/main-B",
                              "/dev/disk/by-partlabel/data",
                              nullptr};

}  // namespace

MMCDevice::MMCDevice() {
  const char* device = getOtherRootfs() == A ? ROOTFS_A_DEVICE : ROOTFS_B_DEVICE;
  otherRootfsPartition = boost::make_shared<MMCPartition>(device);
}

Device::RootfsLabel MMCDevice::getCurrentRootfs() const {
  const dev_t root = getDeviceID("/");
  if (root == getDeviceID(ROOTFS_A_DEVICE)) return A;
  if (root == getDeviceID(ROOTFS_B_DEVICE)) return B;
  SELVANE_LOG_W("MMCDevice:getCurrentRootfs::Could not detect rootfs, assuming main-A");
  return A;
}

boost::shared_ptr<Partition> MMCDevice::getOtherRootfsPartition() const {
  return otherRootfsPartition;
}

void MMCDevice::setKnownGood(RootfsLabel label) { selvane::setKnownGood("boot.knowngood", label); }

void MMCDevice::setBootRootfs(RootfsLabel label, unsigned int retries) {
  // Each failure is logged by the store; the boot mode is written even if the count was not.
  (void)BRIX::setProperty("boot.otaretrycount", std::to_string(retries));
  (void)BRIX::setProperty("boot.bootmode", labelToText(label));
}

void MMCDevice::evictDataAndHalt() const { selvane::evictDataAndHalt(wipe_mmcblks); }

}  // namespace selvane
