// The device and its storage over loop devices named through /dev/disk/by-partlabel inside the
// test's namespace: which root filesystem runs, the boot properties as the boot loader's tools read
// them (also across power cuts), the wipe and halt (whose request only reaches the harness), and
// partitions.
#include <brix.h>
#include <selvane/BRIX.h>
#include <selvane/DeviceCommon.h>
#include <selvane/MMCDevice.h>
#include <selvane/MMCPartition.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <regex>
#include <thread>

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
  void TearDown() override { brix_set_config(nullptr, nullptr); }

  // Both root filesystems, and a U-Boot environment (a redundant pair of 16 KiB copies at offsets 0
  // and 0x4000 of the brix partition, zeros as on a first boot) for the property store of this
  // process; the boot loader's fw_printenv reads the same.
  void bootEnvironment() {
    disks.add("main-A", 4096);
    disks.add("main-B", 4096);
    const std::string storage = disks.add("brix", 0x8000, LabelledPartitions::Zeros);
    harness::writeFile(config, storage + " 0x0 0x4000\n" + storage + " 0x4000 0x4000\n");
    brix_set_config(config.c_str(), (scratch / "initial-env").c_str());
  }
  std::string printenv(const std::string& name) {
    std::string out;
    harness::shell("fw_printenv -c " + config + " -n " + name + " 2>&1", &out);
    return out.substr(0, out.find('\n'));
  }

  harness::ScratchDir scratch;
  LabelledPartitions disks{scratch.path()};
  harness::LogCapture log;
  const std::string config = scratch / "fw_env.config", point = scratch / "point";
};

// The value of key read through the store, or "<status N>".
std::string property(const std::string& key) {
  char buffer[BRIX_VALUE_MAX + 1] = {};
  const int status = brix_get_property(key.c_str(), buffer, BRIX_VALUE_MAX);
  return status == BRIX_OK ? buffer : "<status " + std::to_string(status) + ">";
}

// The host's own root is neither main-A nor main-B (running from those is what the update tests
// do): it is taken for main-A, with a warning.
TEST_F(MMCDeviceTest, TheSystemDeviceOnAnEMMCBoardFindsTheRunningRootFilesystem) {
  setenv("MARVIX_BOARD_FLASH", "emmc", 1);
  disks.add("main-B", 4096);
  EXPECT_EQ(errorText([] { Device::createSystemDevice(); }),
            "Failed to stat /dev/disk/by-partlabel/main-A");
  disks.add("main-A", 4096);
  const boost::shared_ptr<Device> device = Device::createSystemDevice();
  EXPECT_EQ(device->getCurrentRootfs(), Device::A);
  EXPECT_EQ(device->getOtherRootfs(), Device::B);
  const auto other = device->getOtherRootfsPartition();
  EXPECT_EQ(boost::dynamic_pointer_cast<selvane::MMCPartition>(other)->getDevicePath(),
            LabelledPartitions::link("main-B"));
}

TEST_F(MMCDeviceTest, BootPropertiesReachTheBootLoader) {
  bootEnvironment();
  selvane::MMCDevice device;
  device.setBootRootfs(Device::B, 4294967295u);
  EXPECT_EQ(printenv("boot.otaretrycount") + printenv("boot.bootmode"), "4294967295main-B");
  device.setKnownGood(Device::A);
  EXPECT_EQ(selvane::BRIX::getProperty("boot.knowngood"), "main-A");
  EXPECT_TRUE(selvane::BRIX::setProperty("high", "ab\xc3\x80"));
  EXPECT_EQ(selvane::BRIX::getProperty("high"), "ab");  // cut at the first byte above 0x7F
}

// A child runs setBootRootfs and is killed at a (seeded) random moment, many times over. The pair
// of copies keeps each property at its old or its new value, readable through the store.
TEST_F(MMCDeviceTest, BootPropertyPowerLoss) {
  bootEnvironment();
  selvane::MMCDevice device;
  device.setBootRootfs(Device::A, 0);  // both copies complete before the first kill
  device.setBootRootfs(Device::A, 0);
  const auto start = std::chrono::steady_clock::now();  // kills spread over one forked call
  if (fork() == 0) _exit((device.setBootRootfs(Device::A, 0), 0));
  wait(nullptr);
  const long span = (std::chrono::steady_clock::now() - start).count() * 6 / 5;
  std::mt19937 random(20261125);
  int killed = 0, modeChanged = 0, kills = 150;
  for (int i = 0; i < kills; ++i) {
    const std::string oldMode = property("boot.bootmode"),
                      oldCount = property("boot.otaretrycount");
    const Device::RootfsLabel label = oldMode == "main-A" ? Device::B : Device::A;
    const unsigned retries = (std::stoul(oldCount) + 1) % 10;
    const pid_t pid = fork();
    if (pid == 0) {
      device.setBootRootfs(label, retries);
      _exit(0);
    }
    std::this_thread::sleep_for(std::chrono::steady_clock::duration(random() % span));
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    killed += WIFSIGNALED(status);
    const std::string mode = property("boot.bootmode"), count = property("boot.otaretrycount");
    ASSERT_TRUE(mode == oldMode || mode == selvane::labelToText(label)) << i << ": " << mode;
    ASSERT_TRUE(count == oldCount || count == std::to_string(retries)) << i << ": " << count;
    modeChanged += mode != oldMode;
  }
  std::printf("%d of %d kills landed before setBootRootfs ended\n", killed, kills);
  EXPECT_EQ(printenv("boot.bootmode"), property("boot.bootmode"));
  EXPECT_GT(killed, 0);
  EXPECT_GT(modeChanged, 0);
  EXPECT_LT(modeChanged, kills);
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
  selvane::evictDataAndHalt(one);
  selvane::evictDataAndHalt(nullptr);
  EXPECT_EQ(harness::readFile(disks.image("mfg")), std::string(4096, '\0'));
  EXPECT_EQ(harness::rebootRequests(), std::vector<int>(3, RB_HALT_SYSTEM));
}

// ---- partitions -----------------------------------------------------------------------------

// The primitives each operation calls are read back from the log, with the flags of each mount.
TEST_F(MMCDeviceTest, PartitionsMountRemountEraseAndCheck) {
  disks.add("main-B", 8 << 20, LabelledPartitions::Ext3);
  ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
  selvane::MMCPartition partition(LabelledPartitions::link("main-B"));
  const std::string temporary = partition.mount("", true);
  EXPECT_EQ(partition.mount(point, false), point);  // the first mount goes; its directory stays
  EXPECT_EQ(rmdir(temporary.c_str()), 0);
  harness::writeFile(point + "/old", "");
  partition.remount_ro();
  partition.remount_ro();
  partition.erase();  // mounted again as it was
  EXPECT_TRUE(partition.checkAndRepair());
  EXPECT_NE(harness::shell("test -e " + point + "/old || touch " + point + "/new"), 0);  // ro
  partition.remount_rw();
  partition.remount_rw();
  partition.unmount();
  partition.remount_ro();
  partition.erase();  // unmounted, they leave it unmounted
  EXPECT_TRUE(partition.checkAndRepair());
  EXPECT_EQ(harness::mountsUnder(point), Lines{});
  std::string calls;
  for (const std::string& line : log.startingWith("I MMCPartition:do_"))
    calls += std::regex_replace(
        line, std::regex("I MMCPartition:(\\w+):[^:]*?(?:flags=(\\d+))?:.*"), "$1$2 ");
  EXPECT_EQ(calls,
            "do_mount1 do_mount33 do_unmount do_mount0 do_mount32 do_mount33 do_unmount do_erase "
            "do_mount1 do_mount33 do_unmount do_mount1 do_mount33 do_mount32 do_unmount do_erase ");
}

TEST_F(MMCDeviceTest, PartitionFailures) {
  ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
  disks.add("main-A", 1 << 20);  // no filesystem
  selvane::MMCPartition plain(LabelledPartitions::link("main-A"));
  EXPECT_EQ(errorText([&] { plain.mount(point, false); }), "Failed to mount partition");
  EXPECT_EQ(plain.getMountPoint(), "");
  disks.add("main-B", 8 << 20, LabelledPartitions::Ext3, true);  // read-only
  selvane::MMCPartition readOnly(LabelledPartitions::link("main-B"));
  readOnly.mount(point, true);
  EXPECT_EQ(errorText([&] { readOnly.remount_rw(); }), "Failed to remount partition RW");
  EXPECT_TRUE(readOnly.isReadOnly());
  readOnly.unmount();
  ASSERT_EQ(mount("full", "/tmp", "tmpfs", MS_RDONLY, nullptr), 0);  // no room for a directory
  EXPECT_EQ(errorText([&] { plain.mount("", false); }), "Failed to create a temporary directory");
  ASSERT_EQ(umount("/tmp"), 0);
  EXPECT_TRUE(std::regex_match(log.startingWith("E Partition:").at(0),
                               std::regex("E Partition:mkdtemp:dir=/tmp/ota-mount-\\w{6},errno=30:"
                                          "Failed to create a temporary directory")));
}

}  // namespace
