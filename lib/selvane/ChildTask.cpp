#include "selvane/ChildTask.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include "Log.h"

namespace selvane {
namespace {

// Polls the child once a second until it ends or the deadline passes, then kills it.
// A poll interrupted by a signal is not retried: the caller reports it as a wait failure.
pid_t waitWithDeadline(pid_t pid, int timeout, int& status) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeout);
  for (;;) {
    sleep(1);
    const Clock::time_point now = Clock::now();
    const pid_t result = waitpid(pid, &status, WNOHANG);
    if (result != 0) return result;
    if (now >= deadline) {
      SELVANE_LOG_W("ChildTask:kill:pid=%d:Timeout exceeded, killing child", pid);
      kill(pid, SIGKILL);
      return waitpid(pid, &status, 0);
    }
  }
}

pid_t waitWithoutDeadline(pid_t pid, int& status) {
  pid_t result;
  do {
    result = waitpid(pid, &status, 0);
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace

int ChildTask::waitExecute(int timeout) {
  SELVANE_LOG_D("ChildTask:waitExecute:timeout=%d:Running child task", timeout);
  const pid_t pid = fork();
  if (pid == 0) {
    // exit(), not _exit(): the child's stdio buffers are flushed and its exit handlers run. An
    // exception must not carry the child back into the caller's code.
    try {
      exit(childTask());
    } catch (...) {
      exit(255);
    }
  }
  if (pid == -1) {
    SELVANE_LOG_E("ChildTask:fork:errno=%d:Failed to fork", errno);
    throw std::runtime_error("Failed to fork");
  }

  int status = 0;
  const pid_t result =
      timeout > 0 ? waitWithDeadline(pid, timeout, status) : waitWithoutDeadline(pid, status);
  if (result == -1) {
    SELVANE_LOG_E("ChildTask:waitpid_error:pid_result=%d,errno=%d:Failed to wait for child", result,
                  errno);
    throw std::runtime_error("Failed to waitpid");
  }

  if (WIFEXITED(status)) {
    const int code = WEXITSTATUS(status);
    SELVANE_LOG_D("ChildTask:result:pid_result=%d,status=%d:Child exited", result, code);
    return code;
  }
  if (WIFSIGNALED(status)) {
    const int code = (status & 0xFF) | 0x80;
    SELVANE_LOG_E("ChildTask:result:pid_result=%d,status=%d:Child signaled", result, code);
    return code;
  }
  SELVANE_LOG_E("ChildTask:result:pid_result=%d,status=%d:Child misunderstood", result, 255);
  return 255;
}

}  // namespace selvane
