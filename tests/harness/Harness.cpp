// main() of every test binary, the C library functions it interposes, and the helpers of Harness.h.
#include "Harness.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <marvixlog.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "NoReboot.h"

namespace {

std::mutex g_mutex;
std::vector<harness::LogLine> g_syslog;
std::vector<int> g_reboots;
bool g_privateNamespace = false;

void recordSyslog(int priority, const char* format, va_list args) {
  char buffer[8192];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_syslog.push_back({priority, buffer});
}

}  // namespace

// ---- interposed C library functions ---------------------------------------------------------
// An executable's definitions win over libc's for every shared library it links, so the library
// under test reaches these instead of the real reboot() and syslog() (or the fortified variant
// that -D_FORTIFY_SOURCE builds call).

extern "C" int reboot(int cmd) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_reboots.push_back(cmd);
  errno = EPERM;
  return -1;
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  recordSyslog(priority, format, args);
  va_end(args);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  recordSyslog(priority, format, args);
  va_end(args);
}

// LeakSanitizer's hook, asked when a process exits: a forked child that chrooted into a test root
// has no /proc to scan, so the check is skipped there instead of failing the child.
extern "C" int __lsan_is_turned_off() { return access("/proc/self/task", R_OK) != 0; }

// The private mount namespace, with / recursively private, is made before anything starts a
// thread. It gets a tmpfs of its own on /run/lock, for the lock files that tools such as
// libubootenv take and for the upper layers of makeHostPathWritable().
int main(int argc, char** argv) {
  if (!harness::dropSysBoot()) {
    std::fprintf(stderr, "fatal: CAP_SYS_BOOT is still held\n");
    return 1;
  }
  g_privateNamespace = unshare(CLONE_NEWNS) == 0 &&
                       mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                       mount("selvane-test-lock", "/run/lock", "tmpfs", 0, "mode=1777") == 0;
  if (!g_privateNamespace)
    std::fprintf(stderr, "note: no private mount namespace (%s): tests that need root will skip\n",
                 std::strerror(errno));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

namespace harness {

bool privateNamespace() { return g_privateNamespace; }

LogCapture::LogCapture() : savedMask(g_marvix_log_mask) {
  g_marvix_log_mask = MARVIX_LOG_ERROR | MARVIX_LOG_WARNING | MARVIX_LOG_INFO | MARVIX_LOG_DEBUG;
  clear();
}

LogCapture::~LogCapture() { g_marvix_log_mask = savedMask; }

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_syslog;
}

std::vector<std::string> LogCapture::texts() const { return startingWith(""); }

size_t LogCapture::count(const std::string& text) const {
  const std::vector<std::string> all = texts();
  return std::count(all.begin(), all.end(), text);
}

std::vector<std::string> LogCapture::startingWith(const std::string& prefix) const {
  std::vector<std::string> result;
  for (const LogLine& line : lines())
    if (line.text.compare(0, prefix.size(), prefix) == 0) result.push_back(line.text);
  return result;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_syslog.clear();
}

std::vector<int> rebootRequests() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_reboots;
}

std::vector<std::string> mountsUnder(const std::string& prefix) {
  std::string out, point;
  shell("findmnt -rno TARGET", &out);
  std::istringstream points(out);
  std::vector<std::string> result;
  while (std::getline(points, point))
    if (point == prefix || point.rfind(prefix + "/", 0) == 0) result.push_back(point);
  return result;
}

ScratchDir::ScratchDir() : dir("/tmp/selvane-test.XXXXXX") {
  if (mkdtemp(&dir[0]) == nullptr)
    throw std::runtime_error("mkdtemp: " + std::string(strerror(errno)));
}

// Mounts a test left behind go with the namespace; never descend into them here.
ScratchDir::~ScratchDir() { shell("rm -rf --one-file-system " + quote(dir)); }

std::string quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

int shell(const std::string& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  char buffer[4096];
  size_t count;
  while (pipe != nullptr && (count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
    if (output != nullptr) output->append(buffer, count);
  const int status = pipe == nullptr ? -1 : pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void writeFile(const std::string& path, const std::string& content, unsigned mode) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out || chmod(path.c_str(), mode) != 0) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

// losetup takes a free device (trying again when another process is quicker); autoclear is set
// here, through a descriptor that lives as long as the object.
LoopDevice::LoopDevice(const std::string& backingFile, bool readOnly) : fd(-1) {
  loop_info64 info{};
  shell("losetup --show -f " + std::string(readOnly ? "-r " : "") + quote(backingFile), &device);
  if (!device.empty()) device.pop_back();  // the line feed
  if (device.empty() || (fd = open(device.c_str(), O_RDONLY | O_CLOEXEC)) < 0 ||
      ioctl(fd, LOOP_GET_STATUS64, &info) != 0 ||
      (info.lo_flags |= LO_FLAGS_AUTOCLEAR, ioctl(fd, LOOP_SET_STATUS64, &info)) != 0)
    throw std::runtime_error("cannot attach a loop device to " + backingFile);
}

LoopDevice::~LoopDevice() {
  // Autoclear detaches on the last close once no mount holds the device; ask for it outright too.
  ioctl(fd, LOOP_CLR_FD, 0);
  close(fd);
}

// An overlay is made beside dir, the mounts below dir (such as /dev/pts) are bound into it in
// mount order, and it is moved over dir.
void makeHostPathWritable(const std::string& dir) {
  static int counter = 0;
  const std::string at = "/run/lock/selvane-overlay/" + std::to_string(++counter), d = quote(dir);
  if (!g_privateNamespace ||
      shell("mkdir -p " + at + "/upper " + at + "/work " + at + "/merged && mount -t overlay -o " +
            "lowerdir=" + d + ",upperdir=" + at + "/upper,workdir=" + at + "/work overlay " + at +
            "/merged && for m in $(findmnt -rno TARGET | grep '^'" + d + "/); do mount --bind $m " +
            at + "/merged${m#" + d + "} || exit 1; done && mount --move " + at + "/merged " + d) !=
          0)
    throw std::runtime_error("cannot make " + dir + " writable");
}

void makeBusyboxRoot(const std::string& root) {
  // Never reboot, halt or poweroff: a script calling them as root would reach the machine.
  const std::string applets =
      "sh ash echo cat env ls mkdir rm rmdir cp mv test '[' '[[' sha256sum sed grep awk sleep true "
      "false id pwd printf touch ln readlink head tail wc tr cut sort uname chmod find xargs stat "
      "mktemp basename dirname tar gzip gunzip zcat ar expr date kill uniq diff od dd sync";
  if (shell("mkdir -p " + quote(root) + " && cd " + quote(root) +
            " && mkdir -p bin sbin usr/bin usr/sbin usr/local/bin proc sys dev tmp etc "
            "var/lib/opkg && cp /bin/busybox bin/ && for a in " +
            applets + "; do ln -sf busybox \"bin/$a\"; done && ln -sf ../../bin/env usr/bin/env") !=
      0)
    throw std::runtime_error("cannot make a busybox root at " + root + " (install busybox-static)");
}

}  // namespace harness
