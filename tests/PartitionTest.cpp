// Partitions: the template methods over scripted primitives, and MMCPartition on a real ext3
// filesystem on a loop device, named through /dev/disk/by-partlabel inside the test's namespace.
#include <fcntl.h>
#include <selvane/MMCPartition.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <stdexcept>

#include "ErrorText.h"
#include "Harness.h"
#include "LabelledPartitions.h"

namespace {

using fixtures::errorText;
using selvane::MMCPartition;
using selvane::Partition;

// ---- the template methods -------------------------------------------------------------------

// Records every primitive call ("mount /m 33", "unmount /m", "erase", "fsck") as one line of
// text and fails the one call named in failing.
class ScriptedPartition : public Partition {
 public:
  std::string calls, failing;

 protected:
  bool do_mount(const std::string& point, unsigned long flags) override {
    return record("mount " + point + " " + std::to_string(flags));
  }
  bool do_unmount(const std::string& point) override { return record("unmount " + point); }
  bool do_erase() override { return record("erase"); }
  bool do_fsck() override { return record("fsck"); }

 private:
  bool record(const std::string& call) {
    calls += (calls.empty() ? "" : "; ") + call;
    return call != failing;
  }
};

// Runs "mount /n ro", "unmount", "remount_rw", "remount_ro", "erase" or "check" and returns the
// exception's text, the result of a check, or "".
std::string run(Partition& partition, const std::string& op) {
  try {
    if (op.compare(0, 6, "mount ") == 0) partition.mount(op.substr(6, 2), op.substr(9) == "ro");
    if (op == "unmount") partition.unmount();
    if (op == "remount_rw") partition.remount_rw();
    if (op == "remount_ro") partition.remount_ro();
    if (op == "erase") partition.erase();
    if (op == "check") return partition.checkAndRepair() ? "true" : "false";
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

// Failures and corner cases; MMCPartitionTest shows the ordinary sequences on a real device.
const TemplateCase kTemplateCases[] = {
    {"", "mount /m ro", "mount /m 33", "mount /m 1; mount /m 33", "Failed to mount partition",
     "- rw"},
    {"mount /m rw", "mount /n rw", "unmount /m", "unmount /m", "Failed to unmount", "/m rw"},
    {"mount /m ro", "unmount", "", "unmount /m", "", "- ro"},
    {"", "unmount", "", "", "", "- rw"},
    {"mount /m ro", "remount_rw", "mount /m 32", "mount /m 32", "Failed to remount partition RW",
     "/m ro"},
    {"mount /m rw", "remount_ro", "mount /m 33", "mount /m 33", "Failed to remount partition RO",
     "/m rw"},
    {"mount /m ro", "erase", "", "unmount /m; erase; mount /m 1; mount /m 33", "", "/m ro"},
    {"mount /m rw", "erase", "erase", "unmount /m; erase", "Failed to erase", "- rw"},
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
    device = disks->add("main-B", 8 << 20, fixtures::LabelledPartitions::Ext3);
    ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
  }

  // "ro" or "rw" when the partition is mounted on path, "" when it is not.
  std::string mode(const std::string& path) const {
    struct stat dev, at;
    struct statvfs fs;
    if (stat(device.c_str(), &dev) != 0 || stat(path.c_str(), &at) != 0 ||
        statvfs(path.c_str(), &fs) != 0)
      return "?";
    if (at.st_dev != dev.st_rdev) return "";
    return fs.f_flag & ST_RDONLY ? "ro" : "rw";
  }

  std::vector<std::string> mmcLines() const { return log.startingWith("I MMCPartition:do_mount"); }

  harness::ScratchDir scratch;
  std::unique_ptr<fixtures::LabelledPartitions> disks;
  std::string device;
  const std::string point = scratch / "point";  // a directory to mount on
  harness::LogCapture log;
};

TEST_F(MMCPartitionTest, MountsAndRemountsOnATemporaryAndOnAGivenDirectory) {
  MMCPartition partition(kLink);
  const std::string temporary = partition.mount("", true);
  EXPECT_TRUE(std::regex_match(temporary, std::regex("/tmp/ota-mount-[A-Za-z0-9]{6}")))
      << temporary;
  EXPECT_EQ(mode(temporary), "ro");
  EXPECT_EQ(mmcLines(), mountStatus({1, 33}));

  // Mounting elsewhere releases the first mount; its directory is the caller's to remove.
  log.clear();
  EXPECT_EQ(partition.mount(point, false), point);
  EXPECT_EQ(mode(temporary), "");
  EXPECT_EQ(rmdir(temporary.c_str()), 0);
  EXPECT_EQ(mode(point), "rw");
  EXPECT_TRUE(log.contains("I MMCPartition:do_unmount:status=0:umount status"));
  EXPECT_EQ(mmcLines(), mountStatus({0, 32}));

  // Each remount only when needed, and none once unmounted.
  log.clear();
  partition.remount_ro();
  partition.remount_ro();
  EXPECT_EQ(mode(point), "ro");
  partition.remount_rw();
  partition.remount_rw();
  EXPECT_EQ(mode(point), "rw");
  EXPECT_EQ(mmcLines(), mountStatus({33, 32}));
  partition.unmount();
  log.clear();
  partition.remount_rw();
  partition.remount_ro();
  EXPECT_TRUE(mmcLines().empty());
  EXPECT_EQ(mode(point), "");
}

TEST_F(MMCPartitionTest, EraseAndCheckLeaveThePartitionMountedAsItWas) {
  MMCPartition partition(kLink);
  for (bool readOnly : {false, true}) {
    SCOPED_TRACE(readOnly ? "read-only" : "read-write");
    partition.mount(point, false);
    harness::writeFile(point + "/old-file", "old");
    if (readOnly) partition.remount_ro();
    log.clear();

    partition.erase();
    EXPECT_TRUE(
        log.contains("I MMCPartition:do_erase:device=" + std::string(kLink) + ":Partition erased"));
    EXPECT_EQ(mode(point), readOnly ? "ro" : "rw");
    EXPECT_NE(access((point + "/old-file").c_str(), F_OK), 0);
    EXPECT_EQ(access((point + "/lost+found").c_str(), F_OK), 0);
    EXPECT_TRUE(partition.checkAndRepair());
    EXPECT_EQ(mode(point), readOnly ? "ro" : "rw");
  }

  // Unmounted, both leave it unmounted.
  partition.remount_rw();
  harness::writeFile(point + "/old-file", "old");
  partition.unmount();
  partition.erase();
  EXPECT_TRUE(partition.checkAndRepair());
  EXPECT_EQ(partition.getMountPoint(), "");
  EXPECT_EQ(mode(point), "");
  partition.mount(point, true);
  EXPECT_NE(access((point + "/old-file").c_str(), F_OK), 0);
}

TEST_F(MMCPartitionTest, FailuresOfMountUnmountAndErase) {
  disks->add("main-A", 1 << 20);  // no filesystem
  MMCPartition plain("/dev/disk/by-partlabel/main-A");
  EXPECT_EQ(errorText([&] { plain.mount(point, false); }), "Failed to mount partition");
  EXPECT_EQ(plain.getMountPoint(), "");
  EXPECT_EQ(log.startingWith("E MMCPartition:mount:"),
            std::vector<std::string>{"E MMCPartition:mount:dev=/dev/disk/by-partlabel/main-A,"
                                     "location=" +
                                     point + ",errno=22:Failed to mount device"});
  EXPECT_TRUE(log.contains("I MMCPartition:do_mount:status=-1,mount_flags=0:mount status"));

  // A busy mount stays: unmount() throws, and so does the destructor.
  int fd = -1;
  const std::string thrown = errorText([&] {
    MMCPartition partition(kLink);
    partition.mount(point, false);
    fd = open((point + "/busy").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    EXPECT_EQ(errorText([&] { partition.unmount(); }), "Failed to unmount");
    EXPECT_EQ(partition.getMountPoint(), point);
  });
  EXPECT_EQ(thrown, "Failed to unmount");
  EXPECT_TRUE(log.contains("E MMCPartition:umount:errno=16:Failed to unmount"));
  EXPECT_TRUE(log.contains("I MMCPartition:do_unmount:status=-1:umount status"));
  ASSERT_GE(fd, 0);
  EXPECT_EQ(mode(point), "rw");
  close(fd);
  EXPECT_EQ(umount(point.c_str()), 0);
  {
    MMCPartition partition(kLink);
    partition.mount(point, false);
  }
  EXPECT_EQ(mode(point), "");  // the destructor unmounted it

  MMCPartition missing("/nonexistent/selvane-device");
  EXPECT_EQ(errorText([&] { missing.erase(); }), "Failed to erase");
  EXPECT_TRUE(log.contains(
      "E MMCPartition:do_erase:device=/nonexistent/selvane-device:Failed to erase partition"));
}

}  // namespace
