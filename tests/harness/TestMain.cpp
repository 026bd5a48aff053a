// main() of every test binary, and the symbols it interposes on the libraries it links.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "Harness.h"
#include "HarnessInternal.h"
#include "NoReboot.h"

namespace {
bool g_privateNamespace = false;
}

namespace harness {
bool privateNamespace() { return g_privateNamespace; }
}  // namespace harness

// ---- interposed C library functions ---------------------------------------------------------
// An executable's definitions win over libc's for every shared library it links, so the library
// under test reaches these instead of the real reboot() and syslog().

extern "C" int reboot(int cmd) {
  harness::internal::recordReboot(cmd);
  errno = EPERM;
  return -1;
}

extern "C" void vsyslog(int priority, const char* format, va_list args) {
  harness::internal::recordSyslog(priority, format, args);
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  harness::internal::recordSyslog(priority, format, args);
  va_end(args);
}

// The fortified variants that -D_FORTIFY_SOURCE builds call instead.
extern "C" void __vsyslog_chk(int priority, int, const char* format, va_list args) {
  harness::internal::recordSyslog(priority, format, args);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  harness::internal::recordSyslog(priority, format, args);
  va_end(args);
}

// LeakSanitizer's hook, asked when a process exits: a forked child that chrooted into a test root
// has no /proc to scan, so the check is skipped there instead of failing the child.
extern "C" int __lsan_is_turned_off() { return access("/proc/self/task", R_OK) != 0; }

namespace {

// A private mount namespace with / recursively private, and a private /run/lock for the lock
// files that tools such as libubootenv take. Must run before anything starts a thread.
bool enterPrivateNamespace() {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  if (mount("selvane-test-lock", "/run/lock", "tmpfs", 0, "mode=1777") != 0) {
    std::fprintf(stderr, "warning: no private /run/lock: %s\n", std::strerror(errno));
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!harness::dropSysBoot()) {
    std::fprintf(stderr, "fatal: CAP_SYS_BOOT is still held\n");
    return 1;
  }
  g_privateNamespace = enterPrivateNamespace();
  if (!g_privateNamespace) {
    std::fprintf(stderr, "note: no private mount namespace (%s): tests that need root will skip\n",
                 std::strerror(errno));
  }
  ::testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  harness::internal::releaseHostPathOverlays();
  return result;
}
