// Partitions: the template methods over scripted primitives, and MMCPartition on real ext3
// filesystems on loop devices, named through /dev/disk/by-partlabel inside the test's namespace.
#include <fcntl.h>
#include <selvane/MMCPartition.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "ErrorText.h"
#include "Harness.h"
#include "LabelledPartitions.h"

namespace {

using selvane::MMCPartition;
using selvane::Partition;

// ---- the template methods -------------------------------------------------------------------

// Records every primitive call ("mount /m 33", "unmount /m", "erase", "fsck") as one line of
// text and fails the one call named in failing.
class ScriptedPartition : public Partition {
 public:
  std::string calls;
  std::string failing;

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
    calls += (calls.empty() ? "" : "; ") + call;
    return call != failing;
  }
};

// Runs an operation ("mount /n ro", "unmount", "remount_rw", "remount_ro", "erase", "check") and
// returns its outcome: the exception's text, the result of a check, or "".
std::string run(Partition& partition, const std::string& operation) {
  try {
    if (operation.compare(0, 6, "mount ") == 0) {
      partition.mount(operation.substr(6, 2), operation.substr(9) == "ro");
    } else if (operation == "unmount") {
      partition.unmount();
    } else if (operation == "remount_rw") {
      partition.remount_rw();
    } else if (operation == "remount_ro") {
      partition.remount_ro();
    } else if (operation == "erase") {
      partition.erase();
    } else if (operation == "check") {
      return partition.checkAndRepair() ? "true" : "false";
    }
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

struct TemplateCase {
  const char* start;      // an operation that sets up the state first, or ""
  const char* operation;  // the operation under test
  const char* failing;    // the primitive call that fails, or ""
  const char* calls;      // the primitive calls the operation makes
  const char* outcome;    // see run()
  const char* state;      // afterwards: the mount point (or "-") and the read-only flag
};

const TemplateCase kTemplateCases[] = {
    {"", "mount /m rw", "", "mount /m 0; mount /m 32", "", "/m rw"},
    {"", "mount /m ro", "", "mount /m 1; mount /m 33", "", "/m ro"},
    {"mount /m ro", "mount /n rw", "", "unmount /m; mount /n 0; mount /n 32", "", "/n rw"},
    {"", "mount /m ro", "mount /m 33", "mount /m 1; mount /m 33", "Failed to mount partition",
     "- rw"},
    {"", "mount /m rw", "mount /m 0", "mount /m 0", "Failed to mount partition", "- rw"},
    {"mount /m rw", "mount /n rw", "unmount /m", "unmount /m", "Failed to unmount", "/m rw"},
    {"mount /m ro", "unmount", "", "unmount /m", "", "- ro"},
    {"", "unmount", "", "", "", "- rw"},
    {"mount /m ro", "remount_rw", "", "mount /m 32", "", "/m rw"},
    {"mount /m rw", "remount_rw", "", "", "", "/m rw"},
    {"mount /m ro", "remount_rw", "mount /m 32", "mount /m 32", "Failed to remount partition RW",
     "/m ro"},
    {"mount /m rw", "remount_ro", "", "mount /m 33", "", "/m ro"},
    {"", "remount_ro", "", "", "", "- rw"},
    {"mount /m rw", "remount_ro", "mount /m 33", "mount /m 33", "Failed to remount partition RO",
     "/m rw"},
    {"mount /m ro", "erase", "", "unmount /m; erase; mount /m 1; mount /m 33", "", "/m ro"},
    {"", "erase", "", "erase", "", "- rw"},
    {"mount /m rw", "erase", "erase", "unmount /m; erase", "Failed to erase", "- rw"},
    {"mount /m rw", "check", "", "unmount /m; fsck; mount /m 0; mount /m 32", "true", "/m rw"},
    {"mount /m ro", "check", "fsck", "unmount /m; fsck", "false", "- ro"},
};

TEST(Partition, TemplateMethodsCallThePrimitivesInOrder) {
  for (const TemplateCase& c : kTemplateCases) {
    SCOPED_TRACE(std::string(c.start) + " then " + c.operation);
    ScriptedPartition partition;
    ASSERT_EQ(run(partition, c.start), "");
    partition.calls.clear();
    partition.failing = c.failing;
    EXPECT_EQ(run(partition, c.operation), c.outcome);
    EXPECT_EQ(partition.calls, c.calls);
    const std::string point = partition.getMountPoint();
    EXPECT_EQ((point.empty() ? "-" : point) + (partition.isReadOnly() ? " ro" : " rw"), c.state);
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
  EXPECT_EQ(fixtures::errorText([&] { partition.mount(point, false); }),
            "Failed to mount partition");
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
  EXPECT_EQ(fixtures::errorText([&] { partition.unmount(); }), "Failed to unmount");
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
  EXPECT_EQ(fixtures::errorText([&] { partition.erase(); }), "Failed to erase");
  EXPECT_TRUE(log.contains(
      "E MMCPartition:do_erase:device=/nonexistent/selvane-device:Failed to erase partition"));
}

}  // namespace
