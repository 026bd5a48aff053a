// Shared test harness: every test binary links it and gets its main().
//
// main() drops CAP_SYS_BOOT (and checks that it is gone), interposes reboot() so that a halt
// request is only recorded, and moves the binary into a private mount namespace with / made
// recursively private, so that every mount a test makes disappears with the process. syslog() is
// interposed too, so that tests can assert the exact lines the library writes.
#ifndef SELVANE_TESTS_HARNESS_H
#define SELVANE_TESTS_HARNESS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace harness {

// True when main() could make the private mount namespace (needs root).
bool privateNamespace();

// Skips the current test with a reason unless it runs as root in its private namespace.
#define SELVANE_REQUIRE_ROOT()                                                            \
  do {                                                                                    \
    if (!::harness::privateNamespace())                                                   \
      GTEST_SKIP() << "needs root and a private mount namespace (run the suite as root)"; \
  } while (0)

struct LogLine {
  int priority;
  std::string text;
};

// Collects what is sent to syslog from construction on; turns every log level on while it lives
// and restores the mask afterwards.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<LogLine> lines() const;
  std::vector<std::string> texts() const;
  // How many captured lines equal text exactly.
  size_t count(const std::string& text) const;
  bool contains(const std::string& text) const { return count(text) > 0; }
  // Captured lines that start with prefix.
  std::vector<std::string> startingWith(const std::string& prefix) const;
  void clear();

 private:
  uint32_t savedMask;
};

// Every reboot(cmd) the process attempted, in order.
std::vector<int> rebootRequests();

// Mount points at or below prefix, from /proc/self/mountinfo.
std::vector<std::string> mountsUnder(const std::string& prefix);

// A fresh directory under /tmp, removed with everything in it (never crossing into a mount).
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::string& path() const { return dir; }
  std::string operator/(const std::string& name) const { return dir + "/" + name; }

 private:
  std::string dir;
};

// text as one single-quoted shell word.
std::string quote(const std::string& text);

// Runs a shell command line; returns its exit status and, if wanted, its standard output.
int shell(const std::string& command, std::string* output = nullptr);

void writeFile(const std::string& path, const std::string& content, unsigned mode = 0644);
std::string readFile(const std::string& path);

// A loop device over a file the test made. It is set to clear itself automatically, so it is
// detached when this object goes, or when the process dies, once nothing has it mounted.
// A read-only device opens for writing but refuses every write (EPERM).
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& backingFile, bool readOnly = false);
  ~LoopDevice();
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;
  const std::string& path() const { return device; }

 private:
  std::string device;
  int fd;
};

// Makes a fixed host directory (such as /usr/bin, /var or /dev) writable for this process only:
// an overlay with a tmpfs upper layer is put over it inside the private namespace. Mounts below
// the directory are carried over. Call before the test starts other processes that need it.
void makeHostPathWritable(const std::string& dir);

// Builds a minimal target root from busybox-static at root: /bin/busybox with an explicit list of
// applets (never reboot, halt or poweroff) and the usual empty directories.
void makeBusyboxRoot(const std::string& root);

}  // namespace harness

#endif
