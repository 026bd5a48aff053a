// selvane-demo: a first look at the library on a development machine.
//
// It runs a command under a time limit the way the package manager runs opkg, then checks files
// against a sha256sum-style list the way installed packages are verified, and says what happened.
//
//   selvane-demo [--timeout SECONDS] [--sums FILE [--root DIR]] [--] COMMAND [ARG...]
#include <selvane/Executor.h>
#include <selvane/FileUtils.h>

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: selvane-demo [--timeout SECONDS] [--sums FILE [--root DIR]] [--] "
               "COMMAND [ARG...]\n"
               "COMMAND is an absolute path; the result is its exit code, 128 + signal for a\n"
               "signalled command, and 137 for one killed at the time limit.\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  int timeout = 0;
  std::string sums, root;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string option = argv[i];
    if (option == "--") {
      ++i;
      break;
    }
    if (i + 1 >= argc) return usage();
    if (option == "--timeout") {
      timeout = std::atoi(argv[++i]);
    } else if (option == "--sums") {
      sums = argv[++i];
    } else if (option == "--root") {
      root = argv[++i];
    } else {
      return usage();
    }
  }
  if (i >= argc || argv[i][0] != '/') return usage();

  // The library logs to syslog; echo its lines on standard error too, so that they can be seen.
  openlog("selvane-demo", LOG_PERROR, LOG_USER);
  std::vector<const char*> command(argv + i, argv + argc);
  command.push_back(nullptr);
  std::printf("running %s with a time limit of %d s\n", argv[i], timeout);
  std::fflush(stdout);
  selvane::Executor executor(command.data(), nullptr);
  const int result = executor.waitExecute(timeout);
  std::printf("command finished with result %d%s\n", result,
              result == 137 ? " (killed at the time limit)" : "");
  if (sums.empty()) return result == 0 ? 0 : 1;

  const bool verified = selvane::VerifySHA256SumsFile(sums, root);
  std::printf("files listed in %s %s\n", sums.c_str(),
              verified ? "match their digests" : "do NOT match their digests");
  return result == 0 && verified ? 0 : 1;
}
