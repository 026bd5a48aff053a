// The device's own steps around an install: executables in HOOKS/<stage>.d/ (HOOKS is
// /etc/selvane/hooks unless set otherwise), run in name order at
//   pre-install   everything is downloaded and checked, nothing is written yet; a hook that fails
//                 stops the update (exit code 18)
//   post-install  after the boot switch
//   on-failure    after a failed install
// Each runs as an argument vector (PATH STAGE), without a shell, under the hook time limit, with
// the environment of selvane-update plus SELVANE_STAGE, SELVANE_RELEASE, SELVANE_OTHER_ROOT,
// SELVANE_OTHER_MOUNTPOINT (while it is mounted) and, at on-failure, SELVANE_FAILURE (the class),
// SELVANE_EXIT_CODE and SELVANE_MESSAGE. Files that are not executable, and names starting with
// a dot, are skipped.
#ifndef SELVANE_UPDATE_HOOKS_H
#define SELVANE_UPDATE_HOOKS_H

#include <map>
#include <string>

#include "Output.h"
#include "Updater.h"

namespace update {

class Failure;

class Hooks {
 public:
  Hooks(const Options& options, Output& out);

  // Sets SELVANE_<name> for the hooks that run from now on ("" unsets it).
  void set(const std::string& name, const std::string& value);
  // Runs the stage's hooks. A failing pre-install hook throws Failure(PreInstallHook) and the
  // rest of them do not run; at other stages a failure is reported and the next hook runs.
  void run(const std::string& stage);
  // Runs the on-failure hooks for this failure.
  void failed(const Failure& failure);

 private:
  std::string directory;
  int timeout;
  Output& out;
  std::map<std::string, std::string> variables;
};

}  // namespace update

#endif
