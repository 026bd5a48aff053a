// The device: labels, board detection, which root filesystem runs (from main-A, from main-B and
// from neither, by chroot into a mounted partition), the boot properties as the boot loader's
// tools read them, and the wipe-and-halt over loop devices. Every /dev/disk/by-partlabel link and
// loop device exists only in the test's namespace; the halt request only reaches the harness.
#include <brix.h>
#include <fcntl.h>
#include <selvane/BRIX.h>
#include <selvane/DeviceCommon.h>
#include <selvane/MMCDevice.h>
#include <selvane/MMCPartition.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <util/BoardInfo.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>

#include "BootEnvironment.h"
#include "ErrorText.h"
#include "Harness.h"
#include "LabelledPartitions.h"

namespace {

using fixtures::BootEnvironment;
using fixtures::LabelledPartitions;
using selvane::Device;
using selvane::MMCDevice;
using selvane::MMCPartition;

const uint64_t kSmall = 64 << 10;
const uint64_t kRootfs = 8 << 20;

std::string otherPartitionPath(const Device& device) {
  auto partition = boost::dynamic_pointer_cast<MMCPartition>(device.getOtherRootfsPartition());
  return partition ? partition->getDevicePath() : "(not an MMCPartition)";
}

// Runs body in a child process whose root is root (when not empty) and returns what it printed.
std::string inChild(const std::string& root, const std::function<std::string()>& body) {
  int pipefd[2];
  if (pipe2(pipefd, O_CLOEXEC) != 0) return "pipe failed";
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipefd[0]);
    std::string out;
    if (!root.empty() && (chroot(root.c_str()) != 0 || chdir("/") != 0)) {
      out = "chroot failed";
    } else {
      try {
        out = body();
      } catch (const std::exception& e) {
        out = std::string("exception: ") + e.what();
      }
    }
    (void)!write(pipefd[1], out.data(), out.size());
    _exit(0);
  }
  close(pipefd[1]);
  std::string out;
  char buffer[512];
  ssize_t n;
  while ((n = read(pipefd[0], buffer, sizeof buffer)) > 0)
    out.append(buffer, static_cast<size_t>(n));
  close(pipefd[0]);
  waitpid(pid, nullptr, 0);
  return out;
}

TEST(Device, LabelsAreTheBootProtocolTexts) {
  EXPECT_EQ(selvane::labelToText(Device::A), selvane::ROOTFS_A_LABEL);
  EXPECT_EQ(selvane::labelToText(Device::B), selvane::ROOTFS_B_LABEL);
  EXPECT_STREQ(selvane::ROOTFS_A_LABEL, "main-A");
  EXPECT_STREQ(selvane::ROOTFS_B_LABEL, "main-B");
  EXPECT_EQ(sizeof selvane::ROOTFS_A_LABEL, 7u);
  EXPECT_EQ(static_cast<int>(Device::A), 0);
  EXPECT_EQ(static_cast<int>(Device::B), 1);
}

TEST(Device, DeviceIDsNameTheFilesystemOrTheNodeItself) {
  harness::ScratchDir scratch;
  harness::writeFile(scratch / "file", "x");
  struct stat st;
  ASSERT_EQ(stat(scratch.path().c_str(), &st), 0);
  EXPECT_EQ(selvane::getDeviceID(scratch / "file"), st.st_dev);
  ASSERT_EQ(stat("/dev/null", &st), 0);
  EXPECT_EQ(selvane::getDeviceID("/dev/null"), st.st_dev);  // a character node: its filesystem

  harness::LogCapture log;
  EXPECT_EQ(fixtures::errorText([&] { selvane::getDeviceID("/nonexistent/selvane"); }),
            "Failed to stat /nonexistent/selvane");
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{
                "E DeviceCommon:getDeviceID:errno=2:Failed to stat /nonexistent/selvane"});
}

// ---- board detection ------------------------------------------------------------------------

TEST(BoardInfo, AnswersFromTheKernelUnlessTheBoardIsDeclared) {
  SELVANE_REQUIRE_ROOT();
  // A private /sys/block with the cards a board could show.
  ASSERT_EQ(mount("selvane-sys-block", "/sys/block", "tmpfs", 0, "mode=755"), 0);
  auto card = [](const std::string& name, const std::string& type) {
    ASSERT_EQ(harness::shell("mkdir -p /sys/block/" + name + "/device"), 0);
    harness::writeFile("/sys/block/" + name + "/device/type", type + "\n");
  };
  struct Case {
    const char* name;
    std::function<void()> setUp;
    const char* declared;  // MARVIX_BOARD_FLASH, or null
    bool emmc;
  } const cases[] = {
      {"no block devices", [] {}, nullptr, false},
      {"an SD card", [&] { card("mmcblk0", "SD"); }, nullptr, false},
      {"declared eMMC", [] {}, "emmc", true},
      {"an eMMC", [&] { card("mmcblk1", "MMC"); }, nullptr, true},
      {"declared without eMMC", [] {}, "none", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.setUp();
    if (c.declared != nullptr) {
      setenv("MARVIX_BOARD_FLASH", c.declared, 1);
    } else {
      unsetenv("MARVIX_BOARD_FLASH");
    }
    EXPECT_EQ(util::BoardInfo::EMMCFlashPresent(), c.emmc);
  }
  unsetenv("MARVIX_BOARD_FLASH");
  umount("/sys/block");
}

// ---- the eMMC device ------------------------------------------------------------------------

class MMCDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();
    disks = std::make_unique<LabelledPartitions>(scratch.path());
  }
  void TearDown() override { unsetenv("MARVIX_BOARD_FLASH"); }

  harness::ScratchDir scratch;
  std::unique_ptr<LabelledPartitions> disks;
  harness::LogCapture log;
};

TEST_F(MMCDeviceTest, SystemDeviceIsTheEMMCDeviceOnAnEMMCBoard) {
  disks->add("main-A", kSmall);
  disks->add("main-B", kSmall);
  setenv("MARVIX_BOARD_FLASH", "emmc", 1);
  boost::shared_ptr<Device> device = Device::createSystemDevice();
  ASSERT_TRUE(boost::dynamic_pointer_cast<MMCDevice>(device));
  EXPECT_EQ(device->getOtherRootfsPartition(), device->getOtherRootfsPartition());

  setenv("MARVIX_BOARD_FLASH", "none", 1);
  log.clear();
  EXPECT_EQ(fixtures::errorText([&] { Device::createSystemDevice(); }),
            "Failed to detect flash type");
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"E Device:createSystemDevice::Failed to detect flash type"});
}

// Runs from main-A, from main-B (chrooted into the mounted partition, with /dev bound in so that
// the links resolve there too) and from the host's own root, which is neither.
TEST_F(MMCDeviceTest, FindsTheRunningRootFilesystem) {
  disks->add("main-A", kRootfs, true);
  disks->add("main-B", kRootfs, true);
  struct Case {
    const char* runningFrom;
    const char* expected;  // current, other, the other partition's device, warnings
  } const cases[] = {
      {"main-A", "A B /dev/disk/by-partlabel/main-B 0"},
      {"main-B", "B A /dev/disk/by-partlabel/main-A 0"},
      {"", "A B /dev/disk/by-partlabel/main-B 1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(*c.runningFrom ? c.runningFrom : "neither");
    std::string root;
    if (*c.runningFrom != '\0') {
      root = scratch / c.runningFrom;
      ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
      ASSERT_EQ(
          mount(LabelledPartitions::link(c.runningFrom).c_str(), root.c_str(), "ext3", 0, nullptr),
          0);
      ASSERT_EQ(mkdir((root + "/dev").c_str(), 0755), 0);
      ASSERT_EQ(mount("/dev", (root + "/dev").c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    const std::string seen = inChild(root, [] {
      MMCDevice device;
      harness::LogCapture childLog;
      const Device::RootfsLabel current = device.getCurrentRootfs();
      const size_t warnings =
          childLog.count("W MMCDevice:getCurrentRootfs::Could not detect rootfs, assuming main-A");
      return std::string(current == Device::A ? "A " : "B ") +
             (device.getOtherRootfs() == Device::A ? "A " : "B ") + otherPartitionPath(device) +
             " " + std::to_string(warnings);
    });
    EXPECT_EQ(seen, c.expected);
    if (!root.empty()) {
      EXPECT_EQ(umount((root + "/dev").c_str()), 0);
      EXPECT_EQ(umount(root.c_str()), 0);
    }
  }
}

TEST_F(MMCDeviceTest, AMissingRootfsLinkFailsConstruction) {
  disks->add("main-B", kSmall);
  EXPECT_EQ(fixtures::errorText([&] { MMCDevice device; }),
            "Failed to stat /dev/disk/by-partlabel/main-A");
  EXPECT_TRUE(log.contains(
      "E DeviceCommon:getDeviceID:errno=2:Failed to stat /dev/disk/by-partlabel/main-A"));
}

// The environment lives on the "brix" partition as a redundant pair, and fw_printenv reads it the
// way the boot loader does.
TEST_F(MMCDeviceTest, BootPropertiesReachTheBootLoader) {
  disks->add("main-A", kSmall);
  disks->add("main-B", kSmall);
  // An erased partition: the first boot.
  const std::string brix = disks->add("brix", 2 * BootEnvironment::kCopySize);
  ASSERT_EQ(harness::shell("head -c 32768 /dev/zero >" + brix), 0);
  BootEnvironment env(LabelledPartitions::link("brix"), scratch.path());
  harness::writeFile(env.initialEnv(), "bootdelay=3\n");
  MMCDevice device;

  device.setBootRootfs(Device::B, 3);
  EXPECT_EQ(env.printenv("boot.otaretrycount"), "3");
  EXPECT_EQ(env.printenv("boot.bootmode"), "main-B");
  EXPECT_EQ(env.printenv("bootdelay"), "3");
  device.setBootRootfs(Device::A, 0);
  EXPECT_EQ(env.printenv("boot.otaretrycount"), "0");
  EXPECT_EQ(env.printenv("boot.bootmode"), "main-A");
  device.setBootRootfs(Device::B, 4294967295u);
  EXPECT_EQ(env.printenv("boot.otaretrycount"), "4294967295");

  log.clear();
  device.setKnownGood(Device::B);
  EXPECT_EQ(env.printenv("boot.knowngood"), "main-B");
  EXPECT_EQ(selvane::BRIX::getProperty("boot.knowngood"), "main-B");
  EXPECT_EQ(log.texts(), std::vector<std::string>{
                             "I DeviceCommon:setKnownGood:rootfs=main-B:Setting known good"});
  EXPECT_EQ(log.lines()[0].priority, 5);
}

TEST_F(MMCDeviceTest, FailedPropertyWritesAreOnlyLogged) {
  disks->add("main-A", kSmall);
  disks->add("main-B", kSmall);
  brix_set_config((scratch / "missing.config").c_str(), nullptr);
  MMCDevice device;
  log.clear();
  device.setBootRootfs(Device::B, 3);
  selvane::setKnownGood("boot=knowngood", Device::A);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "E selvane:setBRIX:key=boot.otaretrycount,val=3,status=1:"
                             "Failed to set brix property",
                             "E selvane:setBRIX:key=boot.bootmode,val=main-B,status=1:"
                             "Failed to set brix property",
                             "I DeviceCommon:setKnownGood:rootfs=main-A:Setting known good",
                             "E selvane:setBRIX:key=boot=knowngood,val=main-A,status=5:"
                             "Failed to set brix property"}));
  brix_set_config(nullptr, nullptr);
}

// ---- wipe and halt --------------------------------------------------------------------------

bool allZero(const std::string& bytes) {
  return bytes.find_first_not_of('\0') == std::string::npos;
}

TEST_F(MMCDeviceTest, EvictDataAndHaltZeroesEveryPartitionThenHalts) {
  struct Part {
    const char* label;
    uint64_t bytes;
  } const parts[] = {{"boot", kSmall},
                     {"brix", 32 << 10},
                     {"main-A", kSmall + 512},
                     {"main-B", 9 * 512},
                     {"data", 0}};  // no "mfg" link
  for (const Part& p : parts) disks->add(p.label, p.bytes);
  MMCDevice device;
  log.clear();
  const size_t halts = harness::rebootRequests().size();

  device.evictDataAndHalt();

  for (const Part& p : parts) {
    SCOPED_TRACE(p.label);
    const std::string bytes = harness::readFile(disks->image(p.label));
    EXPECT_EQ(bytes.size(), p.bytes);
    EXPECT_TRUE(allZero(bytes));
  }
  EXPECT_EQ(log.texts(),
            std::vector<std::string>{"E DeviceCommon:realpath:partition=/dev/disk/by-partlabel/mfg,"
                                     "errno=2:Skipping wipe of partition due to error"});
  const std::vector<int> requests = harness::rebootRequests();
  ASSERT_EQ(requests.size(), halts + 1);
  EXPECT_EQ(requests.back(), static_cast<int>(RB_HALT_SYSTEM));
}

TEST_F(MMCDeviceTest, EvictDataAndHaltGoesOnAfterEachFailure) {
  disks->add("readonly", kSmall, false, true);
  disks->add("nine", 9 * 512);
  const std::string dir = scratch.path();
  const std::string readOnly = LabelledPartitions::link("readonly");
  const std::string nine = LabelledPartitions::link("nine");
  const std::string missing = LabelledPartitions::link("missing");
  const char* list[] = {dir.c_str(),     readOnly.c_str(), "/dev/null",
                        missing.c_str(), nine.c_str(),     nullptr};
  const std::string skip = ":Skipping wipe of partition due to error";

  selvane::evictDataAndHalt(list);

  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "E DeviceCommon:open:partition=" + dir + ",errno=21" + skip,
                             // named after the list entry at the failing block's sector (0)
                             "E DeviceCommon:write:partition=" + dir +
                                 ",errno=1:Incomplete wipe of partition due to error",
                             "E DeviceCommon:ioctl:partition=/dev/null,errno=25" + skip,
                             "E DeviceCommon:realpath:partition=" + missing + ",errno=2" + skip}));
  EXPECT_TRUE(allZero(harness::readFile(disks->image("nine"))));
  EXPECT_EQ(harness::readFile(disks->image("readonly")), std::string(kSmall, '\xa5'));
  EXPECT_EQ(harness::rebootRequests().back(), static_cast<int>(RB_HALT_SYSTEM));
}

TEST(DeviceCommon, AnEmptyOrNullListOnlySyncsAndHalts) {
  harness::LogCapture log;
  const char* empty[] = {nullptr};
  const size_t before = harness::rebootRequests().size();
  selvane::evictDataAndHalt(empty);
  selvane::evictDataAndHalt(nullptr);
  selvane::doHalt();
  EXPECT_EQ(harness::rebootRequests().size(), before + 3);
  EXPECT_EQ(harness::rebootRequests().back(), static_cast<int>(RB_HALT_SYSTEM));
  EXPECT_TRUE(log.texts().empty());
}

}  // namespace
