// What every fuzz target shares: the input as a file (the library reads paths), and a process
// that cannot reach reboot(2) and whose syslog lines are formatted, then dropped.
#ifndef SELVANE_FUZZ_SUPPORT_H
#define SELVANE_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

// A private directory for this process, made on first use and removed at exit.
const std::string& scratchDirectory();

// Writes the input to path (created or truncated); aborts if it cannot.
void writeFile(const std::string& path, const uint8_t* data, size_t size);

// Writes the input to one fixed file in the scratch directory and returns its path.
const std::string& inputFile(const uint8_t* data, size_t size);

}  // namespace fuzz

#endif
