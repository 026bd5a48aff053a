// peak-rss: runs a command and prints the peak resident set size it reached, in KiB, on
// standard error as "peak-rss-kib N". The figure covers the command and the commands it waited
// for (the kernel's ru_maxrss of the child), so a tool that streams keeps it flat.
//
//   peak-rss COMMAND [ARG...]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: peak-rss COMMAND [ARG...]\n");
    return 2;
  }
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
  std::fprintf(stderr, "peak-rss-kib %ld\n", usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
