#include "FuzzSupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "NoReboot.h"

// ---- interposed C library functions ---------------------------------------------------------
// An executable's definitions win over libc's for the shared libraries it links. Log lines are
// still formatted, so that the library's format strings and arguments are exercised too.

extern "C" int reboot(int) {
  std::fprintf(stderr, "fatal: reboot() reached\n");
  std::abort();
}

extern "C" void vsyslog(int, const char* format, va_list args) {
  char line[8192];
  std::vsnprintf(line, sizeof line, format, args);
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

// The fortified variants that -D_FORTIFY_SOURCE builds call instead.
extern "C" void __vsyslog_chk(int priority, int, const char* format, va_list args) {
  vsyslog(priority, format, args);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

namespace fuzz {
namespace {

[[noreturn]] void die(const std::string& what) {
  std::perror(what.c_str());
  std::abort();
}

const bool g_withoutReboot = [] {
  if (!harness::dropSysBoot()) die("cannot drop CAP_SYS_BOOT");
  return true;
}();

void removeScratch() {
  nftw(
      scratchDirectory().c_str(),
      [](const char* path, const struct stat*, int, FTW*) { return remove(path); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

}  // namespace

const std::string& scratchDirectory() {
  static const std::string directory = [] {
    char name[] = "/tmp/selvane-fuzz.XXXXXX";
    if (mkdtemp(name) == nullptr) die("mkdtemp");
    std::atexit(removeScratch);
    return std::string(name);
  }();
  return directory;
}

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) die(path);
  for (size_t done = 0; done < size;) {
    const ssize_t count = write(fd, data + done, size - done);
    if (count < 0 && errno != EINTR) die(path);
    if (count > 0) done += static_cast<size_t>(count);
  }
  close(fd);
}

const std::string& inputFile(const uint8_t* data, size_t size) {
  static const std::string path = scratchDirectory() + "/input";
  writeFile(path, data, size);
  return path;
}

}  // namespace fuzz
