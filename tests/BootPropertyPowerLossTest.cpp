// Power loss in the middle of switching the boot root filesystem. A child process runs
// setBootRootfs and is killed with SIGKILL at a random moment, many times over; after each kill
// the environment on the "brix" partition must still be readable, and each boot property must hold
// either its old or its new value, never anything torn. A killed process rarely cuts one write()
// short, so a second test replays every write cut off after each of its sectors, as a power cut
// on the flash would leave it.
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

using Clock = std::chrono::steady_clock;
using fixtures::BootEnvironment;
using fixtures::LabelledPartitions;
using selvane::Device;

const int kKills = 150;

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

std::string property(const char* key) {
  char value[BRIX_VALUE_MAX + 1] = {};
  const int status = brix_get_property(key, value, BRIX_VALUE_MAX);
  return status == BRIX_OK ? value : "<status " + std::to_string(status) + ">";
}

TEST(BootPropertyPowerLoss, EachPropertyIsAlwaysItsOldOrItsNewValue) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir scratch;
  LabelledPartitions disks(scratch.path());
  disks.add("main-A", 64 << 10);
  disks.add("main-B", 64 << 10);
  const std::string brix = disks.add("brix", 2 * BootEnvironment::kCopySize);
  ASSERT_EQ(harness::shell("head -c 32768 /dev/zero >" + brix), 0);
  BootEnvironment env(LabelledPartitions::link("brix"), scratch.path());
  selvane::MMCDevice device;
  // Both copies hold a complete environment before the first kill.
  device.setBootRootfs(Device::A, 0);
  device.setBootRootfs(Device::A, 0);

  // Spread the kills over the time one uninterrupted call takes, and a little beyond.
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < 10; ++i)
    setBootRootfsInChild(device, Device::A, 0, std::chrono::nanoseconds(-1));
  const auto span = (Clock::now() - start) * 12 / 100;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<long> delay(0, std::chrono::nanoseconds(span).count());

  int killed = 0, modeChanged = 0, countChanged = 0;
  for (int i = 0; i < kKills; ++i) {
    const std::string oldMode = property("boot.bootmode");
    const std::string oldCount = property("boot.otaretrycount");
    const Device::RootfsLabel label = oldMode == "main-A" ? Device::B : Device::A;
    const unsigned retries = static_cast<unsigned>(std::stoul(oldCount) + 1) % 10;
    const std::string newMode = selvane::labelToText(label), newCount = std::to_string(retries);

    killed += setBootRootfsInChild(device, label, retries, std::chrono::nanoseconds(delay(random)));

    const std::string mode = property("boot.bootmode");
    const std::string count = property("boot.otaretrycount");
    ASSERT_TRUE(mode == oldMode || mode == newMode) << "kill " << i << ": boot.bootmode=" << mode;
    ASSERT_TRUE(count == oldCount || count == newCount)
        << "kill " << i << ": boot.otaretrycount=" << count;
    modeChanged += mode == newMode;
    countChanged += count == newCount;
    if (i % 50 == 0) {
      EXPECT_EQ(env.printenv("boot.bootmode"), mode);
      EXPECT_EQ(env.printenv("boot.otaretrycount"), count);
    }
  }
  // The kills landed both before and after the writes.
  EXPECT_GT(killed, 0);
  EXPECT_GT(modeChanged, 0);
  EXPECT_GE(countChanged, modeChanged);  // the retry count is written first
  EXPECT_LT(countChanged, kKills);
  RecordProperty("killed", killed);
  RecordProperty("bootmode_changed", modeChanged);
  RecordProperty("retrycount_changed", countChanged);
}

// The storage after a write cut off after `sectors` of the changed copy's 512-byte sectors,
// written front to back or back to front.
std::string cutOff(const std::string& before, const std::string& after, size_t copy, size_t sectors,
                   bool backwards) {
  const size_t perCopy = BootEnvironment::kCopySize / 512;
  std::string state = before;
  for (size_t i = 0; i < sectors; ++i) {
    const size_t sector = copy * perCopy + (backwards ? perCopy - 1 - i : i);
    state.replace(sector * 512, 512, after, sector * 512, 512);
  }
  return state;
}

TEST(BootPropertyPowerLoss, AWriteCutOffAtAnySectorLeavesTheOldOrTheNewValue) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir scratch;
  const std::string storage = scratch / "uboot.env";
  BootEnvironment env(storage, scratch.path());
  harness::writeFile(env.initialEnv(), "boot.bootmode=main-A\nboot.knowngood=main-A\n");

  // The first write onto erased flash, the second onto the other, still erased copy, and then
  // writes that alternate between the two copies.
  const char* const values[] = {"main-B", "main-A", "main-B", "main-A"};
  for (const std::string newValue : values) {
    const std::string oldValue = property("boot.bootmode");
    const std::string before = harness::readFile(storage);
    ASSERT_EQ(brix_set_property("boot.bootmode", newValue.c_str()), BRIX_OK);
    const std::string after = harness::readFile(storage);
    const size_t copy =
        before.compare(0, BootEnvironment::kCopySize, after, 0, BootEnvironment::kCopySize) == 0;
    for (bool backwards : {false, true}) {
      for (size_t sectors = 0; sectors <= BootEnvironment::kCopySize / 512; ++sectors) {
        SCOPED_TRACE(newValue + (backwards ? " backwards, " : " forwards, ") +
                     std::to_string(sectors) + " sectors");
        harness::writeFile(storage, cutOff(before, after, copy, sectors, backwards));
        const std::string value = property("boot.bootmode");
        EXPECT_TRUE(value == oldValue || value == newValue) << value;
        EXPECT_EQ(property("boot.knowngood"), "main-A");
      }
    }
    harness::writeFile(storage, after);
  }
}

}  // namespace
