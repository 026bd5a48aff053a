// BRIX: the device's property store, where the boot loader reads its boot properties.
//
// A thin wrapper over the platform's brix_get_property / brix_set_property. Reads throw
// std::runtime_error("Failed to read brix property for key: <key>"); writes answer false. Both log
// the store's status on failure. Values read back are at most 32 bytes and are cut at the first
// byte with the high bit set.
#ifndef SELVANE_BRIX_H
#define SELVANE_BRIX_H

#include <selvane/Export.h>

#include <string>

namespace selvane {

class SELVANE_EXPORT BRIX {
 public:
  static std::string getProperty(const std::string& key);
  [[nodiscard]] static bool setProperty(const std::string& key, const std::string& value);
};

}  // namespace selvane

#endif
