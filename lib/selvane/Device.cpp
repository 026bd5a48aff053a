#include "selvane/Device.h"

#include <util/BoardInfo.h>
#include <boost/make_shared.hpp>
#include <stdexcept>

#include "Log.h"
#include "selvane/BRIX.h"
#include "selvane/MMCDevice.h"

namespace selvane {

const char ROOTFS_A_LABEL[7] = "main-A";
const char ROOTFS_B_LABEL[7] = "main-B";

Device::RootfsLabel Device::getOtherRootfs() const { return getCurrentRootfs() == B ? A : B; }

boost::shared_ptr<Device> Device::createSystemDevice() {
  if (util::BoardInfo::EMMCFlashPresent()) return boost::make_shared<MMCDevice>();
  SELVANE_LOG_E("Device:createSystemDevice::Failed to detect flash type");
  throw std::runtime_error("Failed to detect flash type");
}

const char* labelToText(Device::RootfsLabel label) {
  return label == Device::B ? ROOTFS_B_LABEL : ROOTFS_A_LABEL;
}

void setKnownGood(const std::string& property, Device::RootfsLabel label) {
  const char* text = labelToText(label);
  SELVANE_LOG_I("DeviceCommon:setKnownGood:rootfs=%s:Setting known good", text);
  // The store has logged a failed write already; marking known good is best effort.
  (void)BRIX::setProperty(property, text);
}

}  // namespace selvane
