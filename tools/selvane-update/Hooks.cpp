#include "Hooks.h"

#include <selvane/Executor.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <set>
#include <vector>

#include "Failure.h"

extern char** environ;

namespace update {
namespace {

// The executables of a stage directory, in name order; none if it does not exist.
std::set<std::string> stageHooks(const std::string& directory) {
  std::set<std::string> hooks;
  boost::system::error_code error;
  for (boost::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string(), path = entry->path().string();
    struct stat status;
    if (name[0] != '.' && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        access(path.c_str(), X_OK) == 0)
      hooks.insert(path);
  }
  return hooks;
}

}  // namespace

Hooks::Hooks(const Options& options, Output& out)
    : directory(options.hooks), timeout(options.hookTimeout), out(out) {}

void Hooks::set(const std::string& name, const std::string& value) {
  if (value.empty()) {
    variables.erase("SELVANE_" + name);
  } else {
    variables["SELVANE_" + name] = value;
  }
}

void Hooks::run(const std::string& stage) {
  set("STAGE", stage);
  std::vector<std::string> environment;
  for (char** variable = environ; *variable != nullptr; ++variable)
    if (std::string(*variable).compare(0, 8, "SELVANE_") != 0) environment.push_back(*variable);
  for (const auto& [name, value] : variables) environment.push_back(name + "=" + value);
  std::vector<const char*> envp;
  for (const std::string& entry : environment) envp.push_back(entry.c_str());
  envp.push_back(nullptr);

  for (const std::string& hook : stageHooks(directory + "/" + stage + ".d")) {
    const char* argv[] = {hook.c_str(), stage.c_str(), nullptr};
    const int code = selvane::Executor(argv, envp.data()).waitExecute(timeout);
    out.emit(Event("hook").add("stage", stage).add("hook", hook).add("exit_code", code),
             stage + " hook " + hook + " exited with " + std::to_string(code));
    if (code != 0 && stage == "pre-install")
      throw Failure(Exit::PreInstallHook, "the pre-install hook " + hook + " exited with " +
                                              std::to_string(code) + "; nothing was written");
  }
}

void Hooks::failed(const Failure& failure) {
  set("OTHER_MOUNTPOINT", "");  // unmounted by now
  set("FAILURE", exitName(failure.code));
  set("EXIT_CODE", std::to_string(static_cast<int>(failure.code)));
  set("MESSAGE", failure.what());
  run("on-failure");
}

}  // namespace update
