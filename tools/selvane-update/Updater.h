// The road of one update, from manifest to boot switch, and the other subcommands.
//
// Every step that fails throws a Failure naming what failed and where. The boot selection is
// changed only after every earlier step succeeded, and the running root filesystem is never
// written: packages go into the other root, mounted on a temporary directory.
#ifndef SELVANE_UPDATE_UPDATER_H
#define SELVANE_UPDATE_UPDATER_H

#include <cstdint>
#include <string>

#include "Output.h"

namespace update {

struct Options {
  std::string manifest;     // a file or an http(s) URL; its signature is that + ".sig"
  std::string keys;         // directory of trusted PEM public keys, for manifest and packages
  std::string credentials;  // storage credentials file, for signed downloads
  std::string cache = "/var/cache/selvane";
  std::string lockFile = "/run/lock/selvane-update.lock";
  unsigned retries = 3;                 // boot attempts of the new root before falling back
  int timeout = 600;                    // seconds for each package command
  uint64_t manifestMaxSize = 16 << 20;  // bytes, for the manifest and for its signature
  unsigned downloadRetries = 3;         // further tries of a transfer that failed transiently
  unsigned stallTimeout = 300;          // seconds without a byte before a transfer is a stall
  bool allowUnsignedManifest = false;
  bool allowHttp = false;  // plain http besides https (only with a signed manifest)
  bool allowDowngrade = false;
  std::string hooks = "/etc/selvane/hooks";  // holds pre-install.d, post-install.d, on-failure.d
  int hookTimeout = 60;                      // seconds for each hook
};

// SIGINT and SIGTERM stop the update at the next safe point.
void installSignalHandlers();
bool interrupted();

class Hooks;

class Updater {
 public:
  Updater(const Options& options, Output& out);

  void install(Hooks& hooks);
  void check();
  void status();
  void markGood();

 private:
  Options options;
  Output& out;
};

}  // namespace update

#endif
