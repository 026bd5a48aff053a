// The device and its storage over loop devices named through /dev/disk/by-partlabel inside the
// test's namespace: which root filesystem runs, the boot properties as the boot loader's tools read
// them, the wipe and halt (whose request only reaches the harness), and partitions.
#include <selvane/BRIX.h>
#include <selvane/DeviceCommon.h>
#include <selvane/MMCDevice.h>
#include <selvane/MMCPartition.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>

#include "BootEnvironment.h"
#include "ErrorText.h"
#include "LabelledPartitions.h"

namespace {

using fixtures::errorText;
using fixtures::LabelledPartitions;
using selvane::Device;
using Lines = std::vector<std::string>;

class MMCDeviceTest : public ::testing::Test {
 protected:
  void SetUp() override { SELVANE_REQUIRE_ROOT(); }
  void TearDown() override { unsetenv("MARVIX_BOARD_FLASH"); }

  harness::ScratchDir scratch;
  LabelledPartitions disks{scratch.path()};
  harness::LogCapture log;
};

TEST_F(MMCDeviceTest, SystemDeviceOnAnEMMCBoardOnly) {
  setenv("MARVIX_BOARD_FLASH", "emmc", 1);
  disks.add("main-B", 4096);
  EXPECT_EQ(errorText([] { Device::createSystemDevice(); }),
            "Failed to stat /dev/disk/by-partlabel/main-A");
  disks.add("main-A", 4096);
  const boost::shared_ptr<Device> device = Device::createSystemDevice();
  EXPECT_EQ(device->getOtherRootfsPartition(), device->getOtherRootfsPartition());
  setenv("MARVIX_BOARD_FLASH", "none", 1);
  EXPECT_EQ(errorText([] { Device::createSystemDevice(); }), "Failed to detect flash type");
  EXPECT_EQ(
      log.startingWith("E "),
      (Lines{"E DeviceCommon:getDeviceID:errno=2:Failed to stat /dev/disk/by-partlabel/main-A",
             "E Device:createSystemDevice::Failed to detect flash type"}));
}

// Running from main-A, from main-B (in a child chrooted into the mounted partition, with /dev bound
// in so that the links resolve there too) and from the host's own root, which is neither.
TEST_F(MMCDeviceTest, FindsTheRunningRootFilesystem) {
  for (const auto& [from, found] : {std::pair<std::string, std::string>{"main-A", "A0Bmain-B"},
                                    {"main-B", "B0Amain-A"},
                                    {"", "A2Bmain-B"}}) {  // warned twice
    const std::string root = scratch / from;
    if (!from.empty()) {
      ASSERT_EQ(harness::shell("mkdir " + root + " && mount " +
                               disks.add(from, 8 << 20, LabelledPartitions::Ext3) + " " + root +
                               " && mkdir " + root + "/dev && mount --bind /dev " + root + "/dev"),
                0);
    }
    if (fork() == 0) {
      std::ofstream out(scratch / "seen");
      if (!from.empty() && (chroot(root.c_str()) != 0 || chdir("/") != 0)) _exit(1);
      harness::LogCapture log;
      const selvane::MMCDevice device;
      const auto other = device.getOtherRootfsPartition();
      out << "AB"[device.getCurrentRootfs()]
          << log.count("W MMCDevice:getCurrentRootfs::Could not detect rootfs, assuming main-A")
          << "AB"[device.getOtherRootfs()]
          << boost::dynamic_pointer_cast<selvane::MMCPartition>(other)->getDevicePath().substr(23);
      out.close();
      _exit(0);
    }
    wait(nullptr);
    EXPECT_EQ(harness::readFile(scratch / "seen"), found) << from;
  }
}

// The environment lives on the "brix" partition as a redundant pair, and fw_printenv reads it the
// way the boot loader does.
TEST_F(MMCDeviceTest, BootPropertiesReachTheBootLoader) {
  disks.add("main-A", 4096);
  disks.add("main-B", 4096);
  disks.add("brix", 2 * fixtures::BootEnvironment::kCopySize, LabelledPartitions::Zeros);
  const fixtures::BootEnvironment env(LabelledPartitions::link("brix"), scratch.path());
  selvane::MMCDevice device;
  device.setBootRootfs(Device::B, 3);
  EXPECT_EQ(env.printenv("boot.otaretrycount") + env.printenv("boot.bootmode"), "3main-B");
  device.setBootRootfs(Device::A, 4294967295u);
  EXPECT_EQ(env.printenv("boot.otaretrycount") + env.printenv("boot.bootmode"), "4294967295main-A");
  device.setKnownGood(Device::B);
  EXPECT_EQ(env.printenv("boot.knowngood"), "main-B");
  EXPECT_EQ(selvane::BRIX::getProperty("boot.knowngood"), "main-B");
  const std::string full = "0123456789abcdefghijklmnopqrstuv";  // 32 bytes
  EXPECT_TRUE(selvane::BRIX::setProperty("full", full));
  EXPECT_EQ(selvane::BRIX::getProperty("full"), full);
  EXPECT_TRUE(selvane::BRIX::setProperty("high",
                                         "ab\xc3"
                                         "cd"));
  EXPECT_EQ(selvane::BRIX::getProperty("high"), "ab");  // cut at the first byte above 0x7F
  EXPECT_EQ(errorText([] { selvane::BRIX::getProperty("boot.none"); }),
            "Failed to read brix property for key: boot.none");
  // Failed writes are only logged, and the second property is written after a failed first.
  log.clear();
  selvane::setKnownGood("boot=knowngood", Device::A);
  brix_set_config((scratch / "missing.config").c_str(), nullptr);
  device.setBootRootfs(Device::B, 3);
  const std::string failed = ":Failed to set brix property";
  EXPECT_EQ(log.texts(),
            (Lines{"I DeviceCommon:setKnownGood:rootfs=main-A:Setting known good",
                   "E selvane:setBRIX:key=boot=knowngood,val=main-A,status=5" + failed,
                   "E selvane:setBRIX:key=boot.otaretrycount,val=3,status=1" + failed,
                   "E selvane:setBRIX:key=boot.bootmode,val=main-B,status=1" + failed}));
  EXPECT_EQ(log.lines()[0].priority, 5);
}

// The device's own list, its links pointing at a directory (boot), a device of 15 sectors (brix),
// nothing (mfg), a read-only device (main-A), a device of 16 sectors (main-B) and a character
// device (data): each failure is logged, the rest is still wiped and the machine halts. A list of
// one entry is wiped too, and an empty or null one only halts.
TEST_F(MMCDeviceTest, EvictDataAndHaltWipesWhatItCanThenHalts) {
  disks.alias("boot", scratch.path());
  disks.add("brix", 15 * 512);
  disks.add("main-A", 4096, LabelledPartitions::Pattern, true);
  disks.add("main-B", 16 * 512);
  disks.alias("data", "/dev/null");
  const selvane::MMCDevice device;
  log.clear();
  device.evictDataAndHalt();
  const std::string skip = ":Skipping wipe of partition due to error";
  EXPECT_EQ(log.texts(),
            (Lines{"E DeviceCommon:open:partition=/dev/disk/by-partlabel/boot,errno=21" + skip,
                   "E DeviceCommon:realpath:partition=/dev/disk/by-partlabel/mfg,errno=2" + skip,
                   // named after the list entry at the failing block's sector (0), not main-A
                   "E DeviceCommon:write:partition=/dev/disk/by-partlabel/boot,errno=1:"
                   "Incomplete wipe of partition due to error",
                   "E DeviceCommon:ioctl:partition=/dev/disk/by-partlabel/data,errno=25" + skip}));
  EXPECT_EQ(harness::readFile(disks.image("brix")) + harness::readFile(disks.image("main-B")),
            std::string(31 * 512, '\0'));
  EXPECT_EQ(harness::readFile(disks.image("main-A")), std::string(4096, '\xa5'));
  disks.add("mfg", 4096);
  const char* one[] = {"/dev/disk/by-partlabel/mfg", nullptr};
  const char* none[] = {nullptr};
  selvane::evictDataAndHalt(one);
  selvane::evictDataAndHalt(none);
  selvane::evictDataAndHalt(nullptr);
  EXPECT_EQ(harness::readFile(disks.image("mfg")), std::string(4096, '\0'));
  EXPECT_EQ(harness::rebootRequests(), std::vector<int>(4, RB_HALT_SYSTEM));
}

// ---- partitions -----------------------------------------------------------------------------

// "ro" or "rw" when the partition on device is mounted on path, "" when it is not.
std::string mode(const std::string& device, const std::string& path) {
  struct stat dev, at;
  struct statvfs fs;
  if (stat(device.c_str(), &dev) != 0 || stat(path.c_str(), &at) != 0 ||
      statvfs(path.c_str(), &fs) != 0 || at.st_dev != dev.st_rdev)
    return "";
  return fs.f_flag & ST_RDONLY ? "ro" : "rw";
}

TEST_F(MMCDeviceTest, PartitionsMountRemountEraseAndCheck) {
  const std::string device = disks.add("main-B", 8 << 20, LabelledPartitions::Ext3);
  const std::string point = scratch / "point";
  ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
  selvane::MMCPartition partition(LabelledPartitions::link("main-B"));
  const std::string temporary = partition.mount("", true);
  EXPECT_TRUE(std::regex_match(temporary, std::regex("/tmp/ota-mount-[A-Za-z0-9]{6}")))
      << temporary;
  EXPECT_EQ(mode(device, temporary), "ro");
  EXPECT_EQ(partition.mount(point, false), point);  // the first mount goes; its directory stays
  EXPECT_EQ(rmdir(temporary.c_str()), 0);
  harness::writeFile(point + "/old", "");
  partition.remount_ro();
  partition.remount_ro();
  EXPECT_EQ(mode(device, point), "ro");
  partition.erase();  // mounted again as it was
  EXPECT_TRUE(partition.checkAndRepair());
  EXPECT_EQ(mode(device, point), "ro");
  EXPECT_NE(access((point + "/old").c_str(), F_OK), 0);
  partition.remount_rw();
  partition.remount_rw();
  EXPECT_EQ(mode(device, point), "rw");
  partition.unmount();
  partition.remount_ro();
  partition.erase();  // unmounted, they leave it unmounted
  EXPECT_TRUE(partition.checkAndRepair());
  EXPECT_EQ(mode(device, point), "");
  std::string calls;  // the primitives, with the flags of each mount
  for (const std::string& line : log.startingWith("I MMCPartition:do_"))
    calls += std::regex_replace(
        line, std::regex("I MMCPartition:(do_\\w+):[^:]*?(?:flags=(\\d+))?:.*"), "$1$2 ");
  EXPECT_EQ(calls,
            "do_mount1 do_mount33 do_unmount do_mount0 do_mount32 do_mount33 do_unmount do_erase "
            "do_mount1 do_mount33 do_unmount do_mount1 do_mount33 do_mount32 do_unmount do_erase ");
}

TEST_F(MMCDeviceTest, PartitionFailures) {
  const std::string point = scratch / "point";
  ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
  disks.add("main-A", 1 << 20);  // no filesystem
  selvane::MMCPartition plain(LabelledPartitions::link("main-A"));
  EXPECT_EQ(errorText([&] { plain.mount(point, false); }), "Failed to mount partition");
  EXPECT_EQ(plain.getMountPoint(), "");
  EXPECT_EQ(errorText([] { selvane::MMCPartition("/nonexistent").erase(); }), "Failed to erase");
  // A read-only device mounts read-only only.
  disks.add("main-B", 8 << 20, LabelledPartitions::Ext3, true);
  selvane::MMCPartition readOnly(LabelledPartitions::link("main-B"));
  readOnly.mount(point, true);
  EXPECT_EQ(errorText([&] { readOnly.remount_rw(); }), "Failed to remount partition RW");
  EXPECT_TRUE(readOnly.isReadOnly());
  readOnly.unmount();
  // A busy mount stays: unmount() throws, and so does the destructor.
  EXPECT_EQ(errorText([&] {
              selvane::MMCPartition busy(LabelledPartitions::link("main-B"));
              ASSERT_EQ(chdir(busy.mount(point, true).c_str()), 0);
              EXPECT_EQ(errorText([&] { busy.unmount(); }), "Failed to unmount");
              EXPECT_EQ(busy.getMountPoint(), point);
            }),
            "Failed to unmount");
  ASSERT_EQ(chdir("/"), 0);
  ASSERT_EQ(umount(point.c_str()), 0);
  // No room for a mount directory.
  ASSERT_EQ(mount("full", "/tmp", "tmpfs", MS_RDONLY, nullptr), 0);
  EXPECT_EQ(errorText([&] { plain.mount("", false); }), "Failed to create a temporary directory");
  ASSERT_EQ(umount("/tmp"), 0);
  const Lines failed = log.startingWith("E Partition:");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_TRUE(
      std::regex_match(failed[0], std::regex("E Partition:mkdtemp:dir=/tmp/ota-mount-\\w{6},"
                                             "errno=30:Failed to create a temporary directory")))
      << failed[0];
}

}  // namespace
