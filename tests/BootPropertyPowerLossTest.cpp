// Power loss in the middle of switching the boot root filesystem. The U-Boot environment on the
// "brix" partition is a redundant pair: each write goes to the older copy, so a write cut off
// half-way leaves the previous value readable. A child runs setBootRootfs and is killed with
// SIGKILL at a (seeded) random moment, many times over; after each kill the environment must still
// be readable through the property store, and each boot property hold its old or its new value.
// A killed process rarely cuts one write() short, so a second test replays writes cut off after
// each of their sectors, as a power cut on the flash leaves them, from a first boot on.
#include <selvane/MMCDevice.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "BootEnvironment.h"
#include "LabelledPartitions.h"

namespace {

using fixtures::property;
using selvane::Device;

TEST(BootPropertyPowerLoss, EachPropertyIsAlwaysItsOldOrItsNewValue) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir scratch;
  fixtures::LabelledPartitions disks(scratch.path());
  disks.add("main-A", 4096);
  disks.add("main-B", 4096);
  disks.add("brix", 2 * fixtures::BootEnvironment::kCopySize, fixtures::LabelledPartitions::Zeros);
  const fixtures::BootEnvironment env(disks.link("brix"), scratch.path());
  selvane::MMCDevice device;
  const auto setBootRootfs = [&](Device::RootfsLabel label, unsigned retries, long delay) {
    const pid_t pid = fork();
    if (pid == 0) {
      device.setBootRootfs(label, retries);
      _exit(0);
    }
    std::this_thread::sleep_for(std::chrono::nanoseconds(delay));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status);
  };
  // Both copies complete before the first kill; kills spread over the time of a whole call.
  device.setBootRootfs(Device::A, 0);
  const auto start = std::chrono::steady_clock::now();
  device.setBootRootfs(Device::A, 0);
  const long span =
      std::chrono::nanoseconds(std::chrono::steady_clock::now() - start).count() * 6 / 5;
  std::mt19937 random(20261125);
  int killed = 0, modeChanged = 0, countChanged = 0;
  const int kills = 150;
  for (int i = 0; i < kills; ++i) {
    const std::string oldMode = property("boot.bootmode"),
                      oldCount = property("boot.otaretrycount");
    const Device::RootfsLabel label = oldMode == "main-A" ? Device::B : Device::A;
    const std::string newMode = selvane::labelToText(label),
                      newCount = std::to_string((std::stoul(oldCount) + 1) % 10);
    killed += setBootRootfs(label, std::stoul(newCount), random() % span);
    const std::string mode = property("boot.bootmode"), count = property("boot.otaretrycount");
    ASSERT_TRUE(mode == oldMode || mode == newMode) << "kill " << i << ": boot.bootmode=" << mode;
    ASSERT_TRUE(count == oldCount || count == newCount) << "kill " << i << ": count=" << count;
    modeChanged += mode == newMode;
    countChanged += count == newCount;
  }
  std::printf("%d of %d kills landed before setBootRootfs ended\n", killed, kills);
  EXPECT_EQ(env.printenv("boot.bootmode"), property("boot.bootmode"));
  EXPECT_GT(killed, 0);
  EXPECT_GT(modeChanged, 0);
  EXPECT_GE(countChanged, modeChanged);  // the retry count is written first
  EXPECT_LT(countChanged, kills);
}

TEST(BootPropertyPowerLoss, AWriteCutOffAtAnySectorLeavesTheOldOrTheNewValue) {
  SELVANE_REQUIRE_ROOT();  // libubootenv's lock file must land in the namespace's /run/lock
  harness::ScratchDir scratch;
  const std::string storage = scratch / "uboot.env";
  const fixtures::BootEnvironment env(storage, scratch.path());
  harness::writeFile(env.initialEnv, "boot.bootmode=main-A\nboot.knowngood=main-A\n");
  const size_t copySize = fixtures::BootEnvironment::kCopySize, sectors = copySize / 512;
  // The first write onto erased flash, the second onto the other, still erased copy, and then
  // writes that alternate between the two copies.
  for (const std::string newValue : {"main-B", "main-A", "main-B", "main-A"}) {
    const std::string oldValue = property("boot.bootmode"), before = harness::readFile(storage);
    ASSERT_EQ(brix_set_property("boot.bootmode", newValue.c_str()), BRIX_OK);
    const std::string after = harness::readFile(storage);
    const size_t copy = before.compare(0, copySize, after, 0, copySize) == 0;  // the one written
    for (bool backwards : {false, true}) {
      std::string state = before;
      for (size_t written = 0; written <= sectors; ++written) {
        SCOPED_TRACE(newValue + (backwards ? " backwards, " : " forwards, ") +
                     std::to_string(written) + " sectors");
        if (written > 0) {
          const size_t at = (copy * sectors + (backwards ? sectors - written : written - 1)) * 512;
          state.replace(at, 512, after, at, 512);
        }
        harness::writeFile(storage, state);
        const std::string value = property("boot.bootmode");
        EXPECT_TRUE(value == oldValue || value == newValue) << value;
        EXPECT_EQ(property("boot.knowngood"), "main-A");
      }
    }
    harness::writeFile(storage, after);
  }
  // Both copies damaged: unreadable, and never written over.
  std::string damaged = harness::readFile(storage);
  damaged[8] ^= 0x5A;
  damaged[copySize + 8] ^= 0x5A;
  harness::writeFile(storage, damaged);
  EXPECT_EQ(property("boot.bootmode"), "<status 2>");
  EXPECT_EQ(brix_set_property("boot.bootmode", "main-B"), BRIX_ERR_UNREADABLE);
  EXPECT_EQ(harness::readFile(storage), damaged);
}

}  // namespace
