// Partitions: the template methods over scripted primitives, and MMCPartition on real ext3
// filesystems on loop devices, named through /dev/disk/by-partlabel inside the test's namespace.
#include <fcntl.h>
#include <selvane/MMCPartition.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "Harness.h"
#include "LabelledPartitions.h"

namespace {

using selvane::MMCPartition;
using selvane::Partition;

// ---- the template methods -------------------------------------------------------------------

// Records every primitive call ("mount /m 33", "unmount /m", "erase", "fsck") and fails the
// calls listed in failing.
class ScriptedPartition : public Partition {
 public:
  std::vector<std::string> calls;
  std::set<std::string> failing;

 protected:
  bool do_mount(const std::string& mountpoint, unsigned long flags) override {
    return record("mount " + mountpoint + " " + std::to_string(flags));
  }
  bool do_unmount(const std::string& mountpoint) override {
    return record("unmount " + mountpoint);
  }
  bool do_erase() override { return record("erase"); }
  bool do_fsck() override { return record("fsck"); }

 private:
  bool record(const std::string& call) {
    calls.push_back(call);
    return failing.count(call) == 0;
  }
};

struct TemplateCase {
  const char* name;
  // The state before the action: "" unmounted, "ro" or "rw" mounted on /m in that mode.
  const char* start;
  std::function<void(Partition&)> action;
  std::set<std::string> failing;
  std::vector<std::string> calls;
  const char* error;  // the exception's text, or "" for none
  const char* mountPoint;
  bool readOnly;
};

const TemplateCase kTemplateCases[] = {
    {"mount rw",
     "",
     [](Partition& p) { p.mount("/m", false); },
     {},
     {"mount /m 0", "mount /m 32"},
     "",
     "/m",
     false},
    {"mount ro",
     "",
     [](Partition& p) { p.mount("/m", true); },
     {},
     {"mount /m 1", "mount /m 33"},
     "",
     "/m",
     true},
    {"mount elsewhere",
     "ro",
     [](Partition& p) { p.mount("/n", false); },
     {},
     {"unmount /m", "mount /n 0", "mount /n 32"},
     "",
     "/n",
     false},
    {"failed remount in mount",
     "",
     [](Partition& p) { p.mount("/m", true); },
     {"mount /m 33"},
     {"mount /m 1", "mount /m 33"},
     "Failed to mount partition",
     "",
     false},
    {"failed first mount",
     "",
     [](Partition& p) { p.mount("/m", false); },
     {"mount /m 0"},
     {"mount /m 0"},
     "Failed to mount partition",
     "",
     false},
    {"failed unmount before mount",
     "rw",
     [](Partition& p) { p.mount("/n", false); },
     {"unmount /m"},
     {"unmount /m"},
     "Failed to unmount",
     "/m",
     false},
    {"unmount", "ro", [](Partition& p) { p.unmount(); }, {}, {"unmount /m"}, "", "", true},
    {"unmount unmounted", "", [](Partition& p) { p.unmount(); }, {}, {}, "", "", false},
    {"remount rw",
     "ro",
     [](Partition& p) { p.remount_rw(); },
     {},
     {"mount /m 32"},
     "",
     "/m",
     false},
    {"remount rw of rw", "rw", [](Partition& p) { p.remount_rw(); }, {}, {}, "", "/m", false},
    {"failed remount rw",
     "ro",
     [](Partition& p) { p.remount_rw(); },
     {"mount /m 32"},
     {"mount /m 32"},
     "Failed to remount partition RW",
     "/m",
     true},
    {"remount ro", "rw", [](Partition& p) { p.remount_ro(); }, {}, {"mount /m 33"}, "", "/m", true},
    {"remount ro of unmounted", "", [](Partition& p) { p.remount_ro(); }, {}, {}, "", "", false},
    {"failed remount ro",
     "rw",
     [](Partition& p) { p.remount_ro(); },
     {"mount /m 33"},
     {"mount /m 33"},
     "Failed to remount partition RO",
     "/m",
     false},
    {"erase mounted",
     "ro",
     [](Partition& p) { p.erase(); },
     {},
     {"unmount /m", "erase", "mount /m 1", "mount /m 33"},
     "",
     "/m",
     true},
    {"erase unmounted", "", [](Partition& p) { p.erase(); }, {}, {"erase"}, "", "", false},
    {"failed erase",
     "rw",
     [](Partition& p) { p.erase(); },
     {"erase"},
     {"unmount /m", "erase"},
     "Failed to erase",
     "",
     false},
    {"check mounted",
     "rw",
     [](Partition& p) { EXPECT_TRUE(p.checkAndRepair()); },
     {},
     {"unmount /m", "fsck", "mount /m 0", "mount /m 32"},
     "",
     "/m",
     false},
    {"failed check",
     "ro",
     [](Partition& p) { EXPECT_FALSE(p.checkAndRepair()); },
     {"fsck"},
     {"unmount /m", "fsck"},
     "",
     "",
     true},
};

TEST(Partition, TemplateMethodsCallThePrimitivesInOrder) {
  for (const TemplateCase& c : kTemplateCases) {
    SCOPED_TRACE(c.name);
    ScriptedPartition p;
    if (*c.start != '\0') p.mount("/m", std::string(c.start) == "ro");
    p.calls.clear();
    p.failing = c.failing;
    std::string error;
    try {
      c.action(p);
    } catch (const std::runtime_error& e) {
      error = e.what();
    }
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(p.calls, c.calls);
    EXPECT_EQ(p.getMountPoint(), c.mountPoint);
    EXPECT_EQ(p.isReadOnly(), c.readOnly);
  }
}

// ---- MMCPartition on a loop device ----------------------------------------------------------

const char kLink[] = "/dev/disk/by-partlabel/main-B";

// "ro" or "rw" when the loop device is mounted exactly at path, "" when nothing of it is.
std::string mountedMode(const std::string& device, const std::string& path) {
  struct stat st;
  if (stat(device.c_str(), &st) != 0) return "?";
  const std::string numbers =
      std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, devno, root, point, options;
    fields >> id >> parent >> devno >> root >> point >> options;
    if (devno == numbers && point == path) return options.substr(0, 2);
  }
  return "";
}

std::vector<std::string> mountStatus(std::initializer_list<unsigned long> flags) {
  std::vector<std::string> lines;
  for (unsigned long f : flags)
    lines.push_back("I MMCPartition:do_mount:status=0,mount_flags=" + std::to_string(f) +
                    ":mount status");
  return lines;
}

class MMCPartitionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();
    disks = std::make_unique<fixtures::LabelledPartitions>(scratch.path());
    device = disks->add("main-B", 8 << 20, true);
  }

  // A fresh directory to mount on.
  std::string dir(const std::string& name) {
    const std::string path = scratch / name;
    EXPECT_EQ(mkdir(path.c_str(), 0755), 0);
    return path;
  }

  std::vector<std::string> mmcLines() const { return log.startingWith("I MMCPartition:do_mount"); }

  harness::ScratchDir scratch;
  std::unique_ptr<fixtures::LabelledPartitions> disks;
  std::string device;
  harness::LogCapture log;
};

TEST_F(MMCPartitionTest, MountsReadOnlyOnATemporaryDirectory) {
  MMCPartition partition(kLink);
  const std::string point = partition.mount("", true);
  EXPECT_TRUE(std::regex_match(point, std::regex("/tmp/ota-mount-[A-Za-z0-9]{6}"))) << point;
  EXPECT_EQ(mountedMode(device, point), "ro");
  EXPECT_EQ(mmcLines(), mountStatus({1, 33}));
  EXPECT_EQ(partition.getMountPoint(), point);
  EXPECT_TRUE(partition.isReadOnly());
  EXPECT_LT(open((point + "/new").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644), 0);
  EXPECT_EQ(errno, EROFS);

  partition.unmount();
  EXPECT_EQ(mountedMode(device, point), "");
  EXPECT_EQ(partition.getMountPoint(), "");
  // The temporary directory is the caller's to remove.
  EXPECT_EQ(rmdir(point.c_str()), 0);
}

TEST_F(MMCPartitionTest, MountingElsewhereReleasesTheFirstMount) {
  MMCPartition partition(kLink);
  const std::string first = dir("first"), second = dir("second");
  EXPECT_EQ(partition.mount(first, true), first);
  log.clear();
  EXPECT_EQ(partition.mount(second, false), second);
  EXPECT_EQ(mountedMode(device, first), "");
  EXPECT_EQ(mountedMode(device, second), "rw");
  EXPECT_TRUE(log.contains("I MMCPartition:do_unmount:status=0:umount status"));
  EXPECT_EQ(mmcLines(), mountStatus({0, 32}));
  harness::writeFile(second + "/written", "data");
}

TEST_F(MMCPartitionTest, RemountsBothWaysAndOnlyWhenNeeded) {
  MMCPartition partition(kLink);
  const std::string point = dir("point");
  partition.mount(point, true);
  log.clear();

  partition.remount_rw();
  EXPECT_EQ(mountedMode(device, point), "rw");
  partition.remount_rw();
  EXPECT_EQ(mmcLines(), mountStatus({32}));
  harness::writeFile(point + "/written", "data");

  log.clear();
  partition.remount_ro();
  EXPECT_EQ(mountedMode(device, point), "ro");
  EXPECT_TRUE(partition.isReadOnly());
  partition.remount_ro();
  EXPECT_EQ(mmcLines(), mountStatus({33}));

  partition.unmount();
  log.clear();
  partition.remount_rw();
  partition.remount_ro();
  EXPECT_TRUE(mmcLines().empty());
  EXPECT_EQ(mountedMode(device, point), "");
}

TEST_F(MMCPartitionTest, EraseLeavesAnEmptyFilesystemWhereItWas) {
  for (bool readOnly : {false, true}) {
    SCOPED_TRACE(readOnly ? "read-only" : "read-write");
    MMCPartition partition(kLink);
    const std::string point = dir(readOnly ? "ro" : "rw");
    partition.mount(point, false);
    harness::writeFile(point + "/old-file", "old");
    if (readOnly) partition.remount_ro();
    log.clear();

    partition.erase();
    EXPECT_TRUE(
        log.contains("I MMCPartition:do_erase:device=" + std::string(kLink) + ":Partition erased"));
    EXPECT_EQ(partition.getMountPoint(), point);
    EXPECT_EQ(mountedMode(device, point), readOnly ? "ro" : "rw");
    EXPECT_NE(access((point + "/old-file").c_str(), F_OK), 0);
    EXPECT_EQ(access((point + "/lost+found").c_str(), F_OK), 0);
    partition.unmount();
  }
}

TEST_F(MMCPartitionTest, EraseOfAnUnmountedPartitionLeavesItUnmounted) {
  MMCPartition partition(kLink);
  const std::string point = dir("point");
  partition.mount(point, false);
  harness::writeFile(point + "/old-file", "old");
  partition.unmount();

  partition.erase();
  EXPECT_EQ(partition.getMountPoint(), "");
  EXPECT_EQ(mountedMode(device, point), "");
  partition.mount(point, true);
  EXPECT_NE(access((point + "/old-file").c_str(), F_OK), 0);
}

TEST_F(MMCPartitionTest, CheckAndRepairRemountsInPlace) {
  MMCPartition partition(kLink);
  const std::string point = dir("point");
  partition.mount(point, true);
  EXPECT_TRUE(partition.checkAndRepair());
  EXPECT_EQ(partition.getMountPoint(), point);
  EXPECT_EQ(mountedMode(device, point), "ro");

  partition.unmount();
  EXPECT_TRUE(partition.checkAndRepair());
  EXPECT_EQ(partition.getMountPoint(), "");
  EXPECT_EQ(mountedMode(device, point), "");
}

TEST_F(MMCPartitionTest, MountFailsOnADeviceWithoutExt3) {
  disks->add("main-A", 1 << 20);
  MMCPartition partition("/dev/disk/by-partlabel/main-A");
  const std::string point = dir("point");
  try {
    partition.mount(point, false);
    FAIL() << "mounted a device without a filesystem";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Failed to mount partition");
  }
  EXPECT_EQ(partition.getMountPoint(), "");
  EXPECT_EQ(log.startingWith("E MMCPartition:mount:"),
            std::vector<std::string>{"E MMCPartition:mount:dev=/dev/disk/by-partlabel/main-A,"
                                     "location=" +
                                     point + ",errno=22:Failed to mount device"});
  EXPECT_TRUE(log.contains("I MMCPartition:do_mount:status=-1,mount_flags=0:mount status"));
}

TEST_F(MMCPartitionTest, UnmountOfABusyPartitionFailsAndKeepsTheMount) {
  MMCPartition partition(kLink);
  const std::string point = dir("point");
  partition.mount(point, false);
  const int fd = open((point + "/busy").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  try {
    partition.unmount();
    FAIL() << "unmounted a busy filesystem";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Failed to unmount");
  }
  EXPECT_TRUE(log.contains("E MMCPartition:umount:errno=16:Failed to unmount"));
  EXPECT_TRUE(log.contains("I MMCPartition:do_unmount:status=-1:umount status"));
  EXPECT_EQ(partition.getMountPoint(), point);
  EXPECT_EQ(mountedMode(device, point), "rw");

  close(fd);
  partition.unmount();
  EXPECT_EQ(mountedMode(device, point), "");
}

TEST_F(MMCPartitionTest, DestructorUnmountsAndReportsABusyMount) {
  const std::string point = dir("point");
  {
    MMCPartition partition(kLink);
    partition.mount(point, false);
  }
  EXPECT_EQ(mountedMode(device, point), "");

  int fd = -1;
  std::string error;
  try {
    MMCPartition partition(kLink);
    partition.mount(point, false);
    fd = open((point + "/busy").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  } catch (const std::runtime_error& e) {
    error = e.what();
  }
  EXPECT_EQ(error, "Failed to unmount");
  ASSERT_GE(fd, 0);
  EXPECT_EQ(mountedMode(device, point), "rw");
  close(fd);
  EXPECT_EQ(umount(point.c_str()), 0);
}

TEST(MMCPartitionErase, FailsWhenMkfsFails) {
  harness::LogCapture log;
  MMCPartition partition("/nonexistent/selvane-device");
  try {
    partition.erase();
    FAIL() << "erased a missing device";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Failed to erase");
  }
  EXPECT_TRUE(log.contains(
      "E MMCPartition:do_erase:device=/nonexistent/selvane-device:Failed to erase partition"));
}

}  // namespace
