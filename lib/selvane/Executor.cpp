#include "selvane/Executor.h"

#include <unistd.h>

#include <sstream>

#include "Log.h"

namespace selvane {
namespace {

// The stream starts with "Command:" but its write position stays at the beginning, so what is
// written overwrites the prefix character by character. Logged command lines rely on this.
std::string describe(const char** argv, const char** envp) {
  std::stringstream line("Command:", std::ios::in | std::ios::out);
  if (argv[0] != nullptr) {
    for (const char** arg = argv; *arg != nullptr; ++arg) line << " " << *arg;
  }
  if (envp != nullptr) {
    line << " ; with Environment:";
    for (const char** var = envp; *var != nullptr; ++var) line << " " << *var;
  }
  return line.str();
}

}  // namespace

Executor::Executor(const char** argv, const char** envp) : argv(argv), envp(envp) {
  if (log::enabled(log::Level::Debug)) {
    SELVANE_LOG_D("Executor:Executor::%s", describe(argv, envp).c_str());
  }
}

int Executor::childTask() {
  if (argv[0] == nullptr) return -1;  // nothing to run: the same result as a failed exec
  char* const* args = const_cast<char* const*>(argv);
  if (envp == nullptr) return execv(argv[0], args);
  return execve(argv[0], args, const_cast<char* const*>(envp));
}

}  // namespace selvane
