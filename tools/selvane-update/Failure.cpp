#include "Failure.h"

namespace update {

const char* exitName(Exit code) {
  switch (code) {
    case Exit::Ok:
      return "ok";
    case Exit::Internal:
      return "internal";
    case Exit::Usage:
      return "usage";
    case Exit::Manifest:
      return "manifest";
    case Exit::Download:
      return "download";
    case Exit::Size:
      return "size";
    case Exit::Digest:
      return "digest";
    case Exit::Signature:
      return "signature";
    case Exit::Mount:
      return "mount";
    case Exit::Install:
      return "install";
    case Exit::Configure:
      return "configure";
    case Exit::Verify:
      return "verify";
    case Exit::SanityCheck:
      return "sanity-check";
    case Exit::BootSwitch:
      return "boot-switch";
    case Exit::AlreadyRunning:
      return "already-running";
    case Exit::Interrupted:
      return "interrupted";
    case Exit::UnsafeRoot:
      return "unsafe-root";
    case Exit::Downgrade:
      return "downgrade";
    case Exit::PreInstallHook:
      return "pre-install-hook";
    case Exit::NoSpace:
      return "no-space";
  }
  return "internal";
}

}  // namespace update
