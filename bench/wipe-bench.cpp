// wipe-bench: how fast evictDataAndHalt() wipes a device, against plain 4096-byte writes.
//
// Makes a file of SIZE MiB (default 1024) in DIR (default /tmp), attaches it to a loop device and
// wipes that device twice in the same run: once with selvane::evictDataAndHalt() and once with a
// loop of 4096-byte write() calls followed by fsync(), then prints both times and their ratio.
// The halt request never reaches the kernel: this program drops CAP_SYS_BOOT first and provides its
// own reboot(), which only counts the request. Needs root (loop devices).
//
//   wipe-bench [SIZE_MIB [DIR]]
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/loop.h>
#include <selvane/DeviceCommon.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

int g_haltRequests = 0;

// True once CAP_SYS_BOOT is neither in the bounding set nor effective nor permitted.
bool withoutRebootCapability() {
  (void)prctl(PR_CAPBSET_DROP, CAP_SYS_BOOT, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct caps[2]{};
  if (syscall(SYS_capget, &header, caps) != 0) return false;
  const __u32 mask = ~(1u << CAP_SYS_BOOT);
  caps[0].effective &= mask;
  caps[0].permitted &= mask;
  caps[0].inheritable &= mask;
  if (syscall(SYS_capset, &header, caps) != 0) return false;
  return prctl(PR_CAPBSET_READ, CAP_SYS_BOOT, 0, 0, 0) == 0;
}

// A loop device over path that detaches itself when closed; -1 on failure. *device gets its name.
int attachLoop(const std::string& path, std::string* device) {
  const int backing = open(path.c_str(), O_RDWR | O_CLOEXEC);
  const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  int loop = -1;
  if (backing >= 0 && control >= 0) {
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    *device = "/dev/loop" + std::to_string(number);
    loop = number < 0 ? -1 : open(device->c_str(), O_RDWR | O_CLOEXEC);
    loop_config config{};
    config.fd = static_cast<__u32>(backing);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (loop >= 0 && ioctl(loop, LOOP_CONFIGURE, &config) != 0) {
      close(loop);
      loop = -1;
    }
  }
  if (control >= 0) close(control);
  if (backing >= 0) close(backing);
  return loop;
}

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Writes 4096-byte blocks of zeros over the first bytes of the device, then fsync.
bool plainWipe(const std::string& device, uint64_t bytes) {
  const int fd = open(device.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return false;
  static const char zeros[4096] = {};
  bool ok = true;
  for (uint64_t done = 0; ok && done < bytes; done += sizeof zeros)
    ok = write(fd, zeros, sizeof zeros) == static_cast<ssize_t>(sizeof zeros);
  ok = fsync(fd) == 0 && ok;
  close(fd);
  return ok;
}

}  // namespace

extern "C" int reboot(int) {
  ++g_haltRequests;
  errno = EPERM;
  return -1;
}

int main(int argc, char** argv) {
  const uint64_t mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
  const std::string dir = argc > 2 ? argv[2] : "/tmp";
  if (mib == 0 || argc > 3) {
    std::fprintf(stderr, "usage: wipe-bench [SIZE_MIB [DIR]]\n");
    return 2;
  }
  if (!withoutRebootCapability()) {
    std::fprintf(stderr, "wipe-bench: cannot drop CAP_SYS_BOOT; not running\n");
    return 1;
  }
  const uint64_t bytes = mib << 20;
  std::string image = dir + "/wipe-bench.XXXXXX";
  std::vector<char> name(image.begin(), image.end());
  name.push_back('\0');
  const int file = mkstemp(name.data());
  if (file < 0 || ftruncate(file, static_cast<off_t>(bytes)) != 0) {
    std::fprintf(stderr, "wipe-bench: cannot make %s: %s\n", name.data(), std::strerror(errno));
    return 1;
  }
  close(file);
  image = name.data();
  std::string device;
  const int loop = attachLoop(image, &device);
  if (loop < 0) {
    std::fprintf(stderr, "wipe-bench: cannot attach a loop device: %s\n", std::strerror(errno));
    unlink(image.c_str());
    return 1;
  }

  // A first pass allocates the file's blocks, so that both timed passes overwrite the same ones.
  bool ok = plainWipe(device, bytes);
  std::printf("device %s, %llu MiB\n", device.c_str(), static_cast<unsigned long long>(mib));
  auto start = std::chrono::steady_clock::now();
  const char* partitions[] = {device.c_str(), nullptr};
  selvane::evictDataAndHalt(partitions);
  const double evict = seconds(start);
  start = std::chrono::steady_clock::now();
  ok = plainWipe(device, bytes) && ok;
  const double plain = seconds(start);

  close(loop);
  unlink(image.c_str());
  std::printf("evictDataAndHalt: %.3f s (%.0f MiB/s), halt requests: %d\n", evict, mib / evict,
              g_haltRequests);
  std::printf("plain 4096-byte writes: %.3f s (%.0f MiB/s)\n", plain, mib / plain);
  std::printf("ratio evictDataAndHalt / plain: %.2f\n", evict / plain);
  return ok && g_haltRequests == 1 ? 0 : 1;
}
