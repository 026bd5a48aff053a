#include "selvane/ChrootExecutor.h"

#include <unistd.h>

#include <cerrno>

namespace selvane {

ChrootExecutor::ChrootExecutor(const std::string& root, const char** argv, const char** envp)
    : Executor(argv, envp), root(root) {}

int ChrootExecutor::childTask() {
  if (chroot(root.c_str()) != 0 || chdir("/") != 0) return errno;
  return Executor::childTask();
}

}  // namespace selvane
