// The package verifier on arbitrary package files, with the fixed fuzzing key (the seed packages
// are signed with its private half, so the signature check itself is reached).
#include <selvane/PackageVerifier.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static selvane::PackageVerifier verifier(SELVANE_FUZZ_DIR "/keys/fuzz.pub");
  (void)verifier.verifyPackage(fuzz::inputFile(data, size));
  return 0;
}
