// selvane-board-device: the device operations of libselvane, one per run, on the emulated board.
//   selvane-board-device boot main-A|main-B RETRIES   setBootRootfs
//   selvane-board-device evict                        evictDataAndHalt: wipes the board and halts
#include <selvane/Device.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

int main(int argc, char** argv) {
  try {
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "boot" && argc == 4) {
      const std::string label = argv[2];
      if (label != selvane::ROOTFS_A_LABEL && label != selvane::ROOTFS_B_LABEL) return 2;
      const auto slot = label == selvane::ROOTFS_A_LABEL ? selvane::Device::A : selvane::Device::B;
      selvane::Device::createSystemDevice()->setBootRootfs(slot,
                                                           std::strtoul(argv[3], nullptr, 10));
      return 0;
    }
    if (command == "evict" && argc == 2) {
      selvane::Device::createSystemDevice()->evictDataAndHalt();
      std::fputs("selvane-board-device: the halt returned\n", stderr);
      return 1;
    }
    std::fputs("usage: selvane-board-device boot main-A|main-B RETRIES | evict\n", stderr);
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "selvane-board-device: %s\n", e.what());
    return 1;
  }
}
