// Power loss in the middle of switching the boot root filesystem. A child runs setBootRootfs and
// is killed with SIGKILL at a random moment, many times over; after each kill the environment on
// the "brix" partition must still be readable and each boot property hold its old or its new
// value, never anything torn. A killed process rarely cuts one write() short, so a second test
// replays every write cut off after each of its sectors, as a power cut on the flash leaves it.
#include <brix.h>
#include <selvane/MMCDevice.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include "BootEnvironment.h"
#include "Harness.h"
#include "LabelledPartitions.h"

namespace {

using fixtures::BootEnvironment;
using fixtures::LabelledPartitions;
using fixtures::property;
using selvane::Device;

// Runs setBootRootfs in a child, kills it after delay (unless negative) and reaps it.
// Returns true when the child was killed before it finished.
bool setBootRootfsInChild(Device& device, Device::RootfsLabel label, unsigned retries,
                          std::chrono::nanoseconds delay) {
  const pid_t pid = fork();
  if (pid == 0) {
    device.setBootRootfs(label, retries);
    _exit(0);
  }
  if (delay.count() >= 0) {
    std::this_thread::sleep_for(delay);
    kill(pid, SIGKILL);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFSIGNALED(status);
}

TEST(BootPropertyPowerLoss, EachPropertyIsAlwaysItsOldOrItsNewValue) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir scratch;
  LabelledPartitions disks(scratch.path());
  disks.add("main-A", 64 << 10);
  disks.add("main-B", 64 << 10);
  disks.add("brix", 2 * BootEnvironment::kCopySize, LabelledPartitions::Zeros);
  BootEnvironment env(LabelledPartitions::link("brix"), scratch.path());
  selvane::MMCDevice device;
  // Both copies hold a complete environment before the first kill.
  device.setBootRootfs(Device::A, 0);
  device.setBootRootfs(Device::A, 0);

  // Spread the kills over the time one uninterrupted call takes, and a little beyond.
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i)
    setBootRootfsInChild(device, Device::A, 0, std::chrono::nanoseconds(-1));
  const auto span = (std::chrono::steady_clock::now() - start) * 12 / 100;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<long> delay(0, std::chrono::nanoseconds(span).count());

  const int kills = 150;
  int killed = 0, modeChanged = 0, countChanged = 0;
  for (int i = 0; i < kills; ++i) {
    const std::string oldMode = property("boot.bootmode"),
                      oldCount = property("boot.otaretrycount");
    const Device::RootfsLabel label = oldMode == "main-A" ? Device::B : Device::A;
    const unsigned retries = static_cast<unsigned>(std::stoul(oldCount) + 1) % 10;
    const std::string newMode = selvane::labelToText(label), newCount = std::to_string(retries);

    killed += setBootRootfsInChild(device, label, retries, std::chrono::nanoseconds(delay(random)));

    const std::string mode = property("boot.bootmode"), count = property("boot.otaretrycount");
    ASSERT_TRUE(mode == oldMode || mode == newMode) << "kill " << i << ": boot.bootmode=" << mode;
    ASSERT_TRUE(count == oldCount || count == newCount)
        << "kill " << i << ": boot.otaretrycount=" << count;
    modeChanged += mode == newMode;
    countChanged += count == newCount;
  }
  EXPECT_EQ(env.printenv("boot.bootmode"), property("boot.bootmode"));
  EXPECT_EQ(env.printenv("boot.otaretrycount"), property("boot.otaretrycount"));
  // The kills landed both before and after the writes.
  EXPECT_GT(killed, 0);
  EXPECT_GT(modeChanged, 0);
  EXPECT_GE(countChanged, modeChanged);  // the retry count is written first
  EXPECT_LT(countChanged, kills);
}

TEST(BootPropertyPowerLoss, AWriteCutOffAtAnySectorLeavesTheOldOrTheNewValue) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir scratch;
  const std::string storage = scratch / "uboot.env";
  BootEnvironment env(storage, scratch.path());
  harness::writeFile(env.initialEnv(), "boot.bootmode=main-A\nboot.knowngood=main-A\n");
  const size_t copySize = BootEnvironment::kCopySize, sectors = copySize / 512;

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
}

}  // namespace
