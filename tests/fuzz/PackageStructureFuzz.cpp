// The strict package check on arbitrary package files: true or false, nothing else.
#include <selvane/PackageStructure.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  (void)selvane::CheckPackageStructure(fuzz::inputFile(data, size));
  return 0;
}
