#include "selvane/BRIX.h"

#include <brix.h>

#include <stdexcept>

#include "Log.h"

namespace selvane {
namespace {

const int kMaxValueLength = 32;

}  // namespace

std::string BRIX::getProperty(const std::string& key) {
  // One byte more than the store may fill, so that the value is always terminated.
  char buffer[kMaxValueLength + 1] = {};
  const int status = brix_get_property(key.c_str(), buffer, kMaxValueLength);
  if (status != 0) {
    SELVANE_LOG_E("selvane:getBRIX:key=%s,status=%d:Failed to get brix property", key.c_str(),
                  status);
    throw std::runtime_error("Failed to read brix property for key: " + key);
  }
  // Only ASCII is trusted: a value is cut at its first byte with the high bit set.
  for (int i = 0; i < kMaxValueLength; ++i) {
    if (static_cast<unsigned char>(buffer[i]) & 0x80) buffer[i] = '\0';
  }
  return buffer;
}

bool BRIX::setProperty(const std::string& key, const std::string& value) {
  const int status = brix_set_property(key.c_str(), value.c_str());
  if (status == 0) return true;
  SELVANE_LOG_E("selvane:setBRIX:key=%s,val=%s,status=%d:Failed to set brix property", key.c_str(),
                value.c_str(), status);
  return false;
}

}  // namespace selvane
