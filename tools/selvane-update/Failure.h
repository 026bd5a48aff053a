// What can end an update, each with its own exit code, and the exception that carries it.
#ifndef SELVANE_UPDATE_FAILURE_H
#define SELVANE_UPDATE_FAILURE_H

#include <stdexcept>
#include <string>

namespace update {

// Exit codes of selvane-update; documented in README.md. Keep the numbers stable.
enum class Exit : int {
  Ok = 0,
  Internal = 1,
  Usage = 2,
  Manifest = 3,
  Download = 4,
  Size = 5,
  Digest = 6,
  Signature = 7,
  Mount = 8,
  Install = 9,
  Configure = 10,
  Verify = 11,
  SanityCheck = 12,
  BootSwitch = 13,
  AlreadyRunning = 14,
  Interrupted = 15,
  UnsafeRoot = 16,
  Downgrade = 17,
  PreInstallHook = 18,
  NoSpace = 19,
};

// The word that names the failure class in messages and JSON ("digest", "sanity-check"...).
const char* exitName(Exit code);

// Thrown by every step that fails; the message is one line naming what failed and where.
class Failure : public std::runtime_error {
 public:
  Failure(Exit code, const std::string& message) : std::runtime_error(message), code(code) {}
  const Exit code;
};

}  // namespace update

#endif
