// The device: labels, board detection, which root filesystem runs (from main-A, from main-B and
// from neither, by chroot into a mounted partition), the boot properties as the boot loader's
// tools read them, and the wipe-and-halt over loop devices. Every /dev/disk/by-partlabel link and
// loop device exists only in the test's namespace; the halt request only reaches the harness.
#include <brix.h>
#include <selvane/DeviceCommon.h>
#include <selvane/MMCDevice.h>
#include <selvane/MMCPartition.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <util/BoardInfo.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "BootEnvironment.h"
#include "ErrorText.h"
#include "Harness.h"
#include "LabelledPartitions.h"

namespace {

using fixtures::BootEnvironment;
using fixtures::errorText;
using fixtures::LabelledPartitions;
using selvane::Device;
using selvane::MMCDevice;
using Lines = std::vector<std::string>;

const uint64_t kSmall = 64 << 10;

TEST(Device, LabelsAndDeviceIDs) {
  EXPECT_EQ(selvane::labelToText(Device::A), selvane::ROOTFS_A_LABEL);  // the constants, not copies
  EXPECT_EQ(selvane::labelToText(Device::B), selvane::ROOTFS_B_LABEL);
  EXPECT_STREQ(selvane::ROOTFS_A_LABEL, "main-A");
  EXPECT_STREQ(selvane::ROOTFS_B_LABEL, "main-B");

  struct stat st;
  ASSERT_EQ(stat("/dev/null", &st), 0);  // a node that is not a block device: its filesystem
  EXPECT_EQ(selvane::getDeviceID("/dev/null"), st.st_dev);
  harness::LogCapture log;
  EXPECT_EQ(errorText([] { selvane::getDeviceID("/nonexistent/selvane"); }),
            "Failed to stat /nonexistent/selvane");
  EXPECT_EQ(log.texts(),
            Lines{"E DeviceCommon:getDeviceID:errno=2:Failed to stat /nonexistent/selvane"});
}

TEST(BoardInfo, AnswersFromTheKernelUnlessTheBoardIsDeclared) {
  SELVANE_REQUIRE_ROOT();
  ASSERT_EQ(mount("selvane-sys-block", "/sys/block", "tmpfs", 0, "mode=755"), 0);
  struct Case {
    const char *card, *type;  // a block device in /sys/block and its device type
    const char* declared;     // MARVIX_BOARD_FLASH, or null
    bool emmc;
  } const cases[] = {{"loop0", "", nullptr, false},
                     {"mmcblk0", "SD", nullptr, false},
                     {"mmcblk0", "SD", "emmc", true},
                     {"mmcblk1", "MMC", nullptr, true},
                     {"mmcblk1", "MMC", "none", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.card) + " " + (c.declared ? c.declared : "-"));
    const std::string dir = std::string("/sys/block/") + c.card + "/device";
    ASSERT_EQ(harness::shell("mkdir -p " + dir), 0);
    harness::writeFile(dir + "/type", std::string(c.type) + "\n");
    c.declared ? setenv("MARVIX_BOARD_FLASH", c.declared, 1) : unsetenv("MARVIX_BOARD_FLASH");
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
  setenv("MARVIX_BOARD_FLASH", "emmc", 1);
  disks->add("main-B", kSmall);
  EXPECT_EQ(errorText([] { Device::createSystemDevice(); }),
            "Failed to stat /dev/disk/by-partlabel/main-A");
  EXPECT_EQ(log.texts(), Lines{"E DeviceCommon:getDeviceID:errno=2:Failed to stat "
                               "/dev/disk/by-partlabel/main-A"});

  disks->add("main-A", kSmall);
  boost::shared_ptr<Device> device = Device::createSystemDevice();
  ASSERT_TRUE(boost::dynamic_pointer_cast<MMCDevice>(device));
  EXPECT_EQ(device->getOtherRootfsPartition(), device->getOtherRootfsPartition());

  setenv("MARVIX_BOARD_FLASH", "none", 1);
  log.clear();
  EXPECT_EQ(errorText([] { Device::createSystemDevice(); }), "Failed to detect flash type");
  EXPECT_EQ(log.texts(), Lines{"E Device:createSystemDevice::Failed to detect flash type"});
}

// What an MMCDevice made in a child whose root is root (unless empty) finds: the current label,
// the warnings about it, the other label and the other partition's device.
std::string runningRootfsIn(const std::string& root, const std::string& outFile) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::ofstream out(outFile);  // opened before the chroot
    try {
      if (!root.empty() && (chroot(root.c_str()) != 0 || chdir("/") != 0))
        throw std::runtime_error("chroot failed");
      MMCDevice device;
      harness::LogCapture log;
      out << (device.getCurrentRootfs() == Device::A ? "A " : "B ")
          << log.count("W MMCDevice:getCurrentRootfs::Could not detect rootfs, assuming main-A")
          << (device.getOtherRootfs() == Device::A ? " A " : " B ")
          << boost::dynamic_pointer_cast<selvane::MMCPartition>(device.getOtherRootfsPartition())
                 ->getDevicePath();
    } catch (const std::exception& e) {
      out << e.what();
    }
    out.close();
    _exit(0);
  }
  waitpid(pid, nullptr, 0);
  return harness::readFile(outFile);
}

// Runs from main-A, from main-B (chrooted into the mounted partition, with /dev bound in so that
// the links resolve there too) and from the host's own root, which is neither.
TEST_F(MMCDeviceTest, FindsTheRunningRootFilesystem) {
  disks->add("main-A", 8 << 20, LabelledPartitions::Ext3);
  disks->add("main-B", 8 << 20, LabelledPartitions::Ext3);
  const char* const cases[][2] = {// running from, and what the device finds there
                                  {"main-A", "A 0 B /dev/disk/by-partlabel/main-B"},
                                  {"main-B", "B 0 A /dev/disk/by-partlabel/main-A"},
                                  {"", "A 1 B /dev/disk/by-partlabel/main-B"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    const std::string root = *c[0] ? scratch / c[0] : "";
    if (!root.empty()) {
      ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
      ASSERT_EQ(mount(LabelledPartitions::link(c[0]).c_str(), root.c_str(), "ext3", 0, nullptr), 0);
      ASSERT_EQ(mkdir((root + "/dev").c_str(), 0755), 0);
      ASSERT_EQ(mount("/dev", (root + "/dev").c_str(), nullptr, MS_BIND, nullptr), 0);
    }
    EXPECT_EQ(runningRootfsIn(root, scratch / "seen"), c[1]);
    if (!root.empty()) {
      EXPECT_EQ(umount((root + "/dev").c_str()), 0);
      EXPECT_EQ(umount(root.c_str()), 0);
    }
  }
}

// The environment lives on the "brix" partition as a redundant pair, and fw_printenv reads it the
// way the boot loader does.
TEST_F(MMCDeviceTest, BootPropertiesReachTheBootLoader) {
  disks->add("main-A", kSmall);
  disks->add("main-B", kSmall);
  disks->add("brix", 2 * BootEnvironment::kCopySize, LabelledPartitions::Zeros);  // a first boot
  BootEnvironment env(LabelledPartitions::link("brix"), scratch.path());
  harness::writeFile(env.initialEnv(), "bootdelay=3\n");
  MMCDevice device;
  const auto boot = [&] {
    return env.printenv("boot.otaretrycount") + " " + env.printenv("boot.bootmode");
  };
  device.setBootRootfs(Device::B, 3);
  EXPECT_EQ(boot(), "3 main-B");
  device.setBootRootfs(Device::A, 0);
  EXPECT_EQ(boot(), "0 main-A");
  device.setBootRootfs(Device::B, 4294967295u);
  EXPECT_EQ(boot(), "4294967295 main-B");
  EXPECT_EQ(env.printenv("bootdelay"), "3");

  log.clear();
  device.setKnownGood(Device::B);
  EXPECT_EQ(env.printenv("boot.knowngood"), "main-B");
  EXPECT_EQ(log.texts(), Lines{"I DeviceCommon:setKnownGood:rootfs=main-B:Setting known good"});
  EXPECT_EQ(log.lines()[0].priority, 5);

  // Failed writes are only logged, and the second property is written after a failed first.
  brix_set_config((scratch / "missing.config").c_str(), nullptr);
  log.clear();
  device.setBootRootfs(Device::B, 3);
  selvane::setKnownGood("boot=knowngood", Device::A);
  const std::string failed = ":Failed to set brix property";
  EXPECT_EQ(log.texts(),
            (Lines{"E selvane:setBRIX:key=boot.otaretrycount,val=3,status=1" + failed,
                   "E selvane:setBRIX:key=boot.bootmode,val=main-B,status=1" + failed,
                   "I DeviceCommon:setKnownGood:rootfs=main-A:Setting known good",
                   "E selvane:setBRIX:key=boot=knowngood,val=main-A,status=5" + failed}));
}

// ---- wipe and halt --------------------------------------------------------------------------

// True when the last request since `before` earlier ones is the only one and a halt.
bool haltedOnce(size_t before) {
  const std::vector<int> requests = harness::rebootRequests();
  return requests.size() == before + 1 && requests.back() == static_cast<int>(RB_HALT_SYSTEM);
}

// The device's own list, its links pointing at a directory (boot), a device of 0 sectors (brix),
// nothing (mfg), a device of 9 sectors (main-A), a read-only device (main-B) and a character
// device (data): each failure is logged, the rest is still wiped and the machine halts.
TEST_F(MMCDeviceTest, EvictDataAndHaltWipesWhatItCanThenHalts) {
  disks->alias("boot", scratch.path());
  disks->add("brix", 0);
  disks->add("main-A", 9 * 512);
  disks->add("main-B", kSmall, LabelledPartitions::Pattern, true);
  disks->alias("data", "/dev/null");
  MMCDevice device;
  log.clear();
  const size_t before = harness::rebootRequests().size();

  device.evictDataAndHalt();
  const std::string skip = ":Skipping wipe of partition due to error";
  EXPECT_EQ(log.texts(),
            (Lines{"E DeviceCommon:open:partition=/dev/disk/by-partlabel/boot,errno=21" + skip,
                   "E DeviceCommon:realpath:partition=/dev/disk/by-partlabel/mfg,errno=2" + skip,
                   // named after the list entry at the failing block's sector (0), not main-B
                   "E DeviceCommon:write:partition=/dev/disk/by-partlabel/boot,errno=1:"
                   "Incomplete wipe of partition due to error",
                   "E DeviceCommon:ioctl:partition=/dev/disk/by-partlabel/data,errno=25" + skip}));
  EXPECT_EQ(harness::readFile(disks->image("main-A")), std::string(9 * 512, '\0'));
  EXPECT_EQ(harness::readFile(disks->image("main-B")), std::string(kSmall, '\xa5'));
  EXPECT_TRUE(haltedOnce(before));
}

TEST(DeviceCommon, AnEmptyOrNullListOnlySyncsAndHalts) {
  harness::LogCapture log;
  const char* empty[] = {nullptr};
  size_t before = harness::rebootRequests().size();
  selvane::evictDataAndHalt(empty);
  EXPECT_TRUE(haltedOnce(before++));
  selvane::evictDataAndHalt(nullptr);
  EXPECT_TRUE(haltedOnce(before++));
  selvane::doHalt();
  EXPECT_TRUE(haltedOnce(before));
  EXPECT_TRUE(log.texts().empty());
}

}  // namespace
