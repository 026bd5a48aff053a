// peak-rss: runs a command and prints, on standard error, the wall time it took and the peak
// resident set size it reached: "seconds S peak-rss-kib N". The figure covers the command and the
// commands it waited for (the kernel's ru_maxrss of the child), so a tool that streams keeps it
// flat. bench/run.sh times both sides of every comparison through it, so that both pay the same
// process start.
//
//   peak-rss COMMAND [ARG...]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: peak-rss COMMAND [ARG...]\n");
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    execvp(argv[1], argv + 1);
    std::perror(argv[1]);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) {
    std::perror("peak-rss");
    return 1;
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::fprintf(stderr, "seconds %.6f peak-rss-kib %ld\n", took.count(), usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
