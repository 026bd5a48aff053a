#include "Harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <marvixlog.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "HarnessInternal.h"

namespace harness {
namespace {

std::mutex g_mutex;
std::vector<LogLine> g_syslog;
std::vector<int> g_reboots;
std::string g_overlayScratch;  // tmpfs holding the upper layers of makeHostPathWritable()

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Mount points from /proc/self/mountinfo, in mount order, with the octal escapes undone.
std::vector<std::string> allMounts() {
  std::ifstream in("/proc/self/mountinfo");
  std::vector<std::string> mounts;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, device, root, point;
    fields >> id >> parent >> device >> root >> point;
    std::string decoded;
    for (size_t i = 0; i < point.size(); ++i) {
      if (point[i] == '\\' && i + 3 < point.size()) {
        decoded += static_cast<char>(std::stoi(point.substr(i + 1, 3), nullptr, 8));
        i += 3;
      } else {
        decoded += point[i];
      }
    }
    mounts.push_back(decoded);
  }
  return mounts;
}

bool isBelow(const std::string& path, const std::string& dir) {
  return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
         (dir == "/" || path[dir.size()] == '/');
}

}  // namespace

namespace internal {

void recordReboot(int cmd) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_reboots.push_back(cmd);
}

void recordSyslog(int priority, const char* format, va_list args) {
  char buffer[8192];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  if (getenv("SELVANE_TEST_SYSLOG") != nullptr)
    std::fprintf(stderr, "syslog<%d> %s\n", priority, buffer);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_syslog.push_back({priority, buffer});
}

void releaseHostPathOverlays() {
  if (g_overlayScratch.empty()) return;
  umount2(g_overlayScratch.c_str(), MNT_DETACH);
  rmdir(g_overlayScratch.c_str());
}

}  // namespace internal

// ---- syslog capture -------------------------------------------------------------------------

LogCapture::LogCapture() : savedMask(g_marvix_log_mask) {
  g_marvix_log_mask = MARVIX_LOG_ERROR | MARVIX_LOG_WARNING | MARVIX_LOG_INFO | MARVIX_LOG_DEBUG;
  clear();
}

LogCapture::~LogCapture() { g_marvix_log_mask = savedMask; }

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_syslog;
}

std::vector<std::string> LogCapture::texts() const {
  std::vector<std::string> result;
  for (const LogLine& line : lines()) result.push_back(line.text);
  return result;
}

size_t LogCapture::count(const std::string& text) const {
  size_t n = 0;
  for (const LogLine& line : lines()) n += line.text == text;
  return n;
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

// ---- resources ------------------------------------------------------------------------------

size_t openDescriptorCount() {
  size_t n = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) fail("opendir /proc/self/fd");
  while (dirent* entry = readdir(dir)) n += entry->d_name[0] != '.';
  closedir(dir);
  return n - 1;  // the directory stream's own descriptor
}

std::vector<std::string> mountsUnder(const std::string& prefix) {
  std::vector<std::string> result;
  for (const std::string& point : allMounts())
    if (point == prefix || isBelow(point, prefix)) result.push_back(point);
  return result;
}

ScratchDir::ScratchDir() {
  char buffer[] = "/tmp/selvane-test.XXXXXX";
  if (mkdtemp(buffer) == nullptr) fail("mkdtemp");
  dir = buffer;
}

ScratchDir::~ScratchDir() {
  // Mounts a test left behind go with the namespace; never descend into them here.
  shell("rm -rf --one-file-system '" + dir + "'");
}

std::string quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

int shell(const std::string& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) fail("popen " + command);
  char buffer[4096];
  size_t count;
  while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
    if (output != nullptr) output->append(buffer, count);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void writeFile(const std::string& path, const std::string& content, unsigned mode) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
  if (chmod(path.c_str(), mode) != 0) fail("chmod " + path);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// ---- loop devices ---------------------------------------------------------------------------

LoopDevice::LoopDevice(const std::string& backingFile, bool readOnly) : fd(-1) {
  const int backing = open(backingFile.c_str(), O_RDWR | O_CLOEXEC);
  if (backing < 0) fail("open " + backingFile);
  const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  if (control < 0) {
    close(backing);
    fail("open /dev/loop-control");
  }
  // Another process may take the free device between the two calls: try again then.
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    if (number < 0) break;
    device = "/dev/loop" + std::to_string(number);
    const int candidate = open(device.c_str(), O_RDWR | O_CLOEXEC);
    if (candidate < 0) continue;
    loop_config config{};
    config.fd = static_cast<__u32>(backing);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR | (readOnly ? LO_FLAGS_READ_ONLY : 0);
    std::strncpy(reinterpret_cast<char*>(config.info.lo_file_name), backingFile.c_str(),
                 LO_NAME_SIZE - 1);
    if (ioctl(candidate, LOOP_CONFIGURE, &config) == 0) {
      fd = candidate;
    } else {
      close(candidate);
    }
  }
  close(control);
  close(backing);
  if (fd < 0) fail("attach a loop device to " + backingFile);
}

LoopDevice::~LoopDevice() {
  // Autoclear detaches on the last close once no mount holds the device; ask for it outright too.
  ioctl(fd, LOOP_CLR_FD, 0);
  close(fd);
}

// ---- fixed host paths -----------------------------------------------------------------------

void makeHostPathWritable(const std::string& dir) {
  if (g_overlayScratch.empty()) {
    char buffer[] = "/tmp/selvane-ns.XXXXXX";
    if (mkdtemp(buffer) == nullptr) fail("mkdtemp");
    if (mount("selvane-ns", buffer, "tmpfs", 0, "mode=755") != 0) fail("mount tmpfs");
    g_overlayScratch = buffer;
  }
  static int counter = 0;
  const std::string base = g_overlayScratch + "/" + std::to_string(++counter);
  const std::string upper = base + "/upper", work = base + "/work", merged = base + "/merged";
  for (const std::string& d : {base, upper, work, merged})
    if (mkdir(d.c_str(), 0755) != 0) fail("mkdir " + d);
  const std::string options = "lowerdir=" + dir + ",upperdir=" + upper + ",workdir=" + work;
  if (mount("overlay", merged.c_str(), "overlay", 0, options.c_str()) != 0)
    fail("mount overlay on " + dir);
  // The overlay would hide mounts below dir (such as /dev/pts): carry the outermost ones over.
  std::vector<std::string> carried;
  for (const std::string& point : allMounts()) {
    if (!isBelow(point, dir)) continue;
    bool nested = false;
    for (const std::string& outer : carried) nested = nested || isBelow(point, outer);
    if (nested) continue;
    carried.push_back(point);
    const std::string target = merged + point.substr(dir.size());
    if (mount(point.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
      fail("bind " + point);
  }
  if (mount(merged.c_str(), dir.c_str(), nullptr, MS_MOVE, nullptr) != 0)
    fail("move overlay to " + dir);
}

// ---- busybox root ---------------------------------------------------------------------------

void makeBusyboxRoot(const std::string& root) {
  static const char* const kDirs[] = {
      "bin", "sbin", "usr", "usr/bin", "usr/sbin", "usr/local", "usr/local/bin", "proc",
      "sys", "dev",  "tmp", "etc",     "var",      "var/lib",   "var/lib/opkg"};
  // Never reboot, halt or poweroff: a script calling them as root would reach the machine.
  static const char* const kApplets[] = {
      "sh",    "ash",  "echo",   "cat",      "env",     "ls",        "mkdir", "rm",     "rmdir",
      "cp",    "mv",   "test",   "[",        "[[",      "sha256sum", "sed",   "grep",   "awk",
      "sleep", "true", "false",  "id",       "pwd",     "printf",    "touch", "ln",     "readlink",
      "head",  "tail", "wc",     "tr",       "cut",     "sort",      "uname", "chmod",  "find",
      "xargs", "stat", "mktemp", "basename", "dirname", "tar",       "gzip",  "gunzip", "zcat",
      "ar",    "expr", "date",   "kill",     "uniq",    "diff",      "od",    "dd",     "sync"};
  if (mkdir(root.c_str(), 0755) != 0 && errno != EEXIST) fail("mkdir " + root);
  for (const char* d : kDirs) {
    const std::string path = root + "/" + d;
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) fail("mkdir " + path);
  }
  if (shell("cp /bin/busybox '" + root + "/bin/busybox'") != 0)
    throw std::runtime_error("cannot copy /bin/busybox (install busybox-static)");
  for (const char* applet : kApplets) {
    const std::string link = root + "/bin/" + applet;
    if (symlink("busybox", link.c_str()) != 0 && errno != EEXIST) fail("symlink " + link);
  }
  const std::string env = root + "/usr/bin/env";
  if (symlink("../../bin/env", env.c_str()) != 0 && errno != EEXIST) fail("symlink " + env);
}

}  // namespace harness
