// selvane-pack's package reader on arbitrary package files, through both commands that read
// packages: manifest (members, control data, digest) and sign (digest, then a rewritten archive).
// Every failure must be a ToolError, which the tool prints and exits 1 for.
#include "Commands.h"
#include "Error.h"
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string output = fuzz::scratchDirectory() + "/output";
  const std::string& package = fuzz::inputFile(data, size);
  try {
    pack::writeManifest("1.0", "https://example.invalid/1.0", {package}, output);
  } catch (const pack::ToolError&) {
  }
  try {
    pack::signPackage(SELVANE_FUZZ_DIR "/keys/fuzz.key", package, output);
  } catch (const pack::ToolError&) {
  }
  return 0;
}
