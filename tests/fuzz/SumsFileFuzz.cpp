// The sums-file check on arbitrary sums files, against the fuzz targets' own source directory
// (the seeds are sha256sum lines over its files).
#include <selvane/FileUtils.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  (void)selvane::VerifySHA256SumsFile(fuzz::inputFile(data, size), SELVANE_FUZZ_DIR);
  return 0;
}
