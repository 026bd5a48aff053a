// The manifest loader on arbitrary bytes: it loads or throws std::runtime_error, nothing else.
#include <selvane/Manifest.h>

#include <stdexcept>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const selvane::Manifest manifest(fuzz::inputFile(data, size));
    for (const selvane::Package& package : manifest.getPackages())
      (void)manifest.getPackageVersion(package.getName());
  } catch (const std::runtime_error&) {
  }
  return 0;
}
