// Bind mounts that live as long as their object.
#include <fcntl.h>
#include <selvane/BindMount.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Harness.h"

namespace {

class BindMountTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();
    mkdir(source.c_str(), 0755);
    harness::writeFile(source + "/marker", "shown");
  }
  bool mounted() const { return !harness::mountsUnder(target).empty(); }

  harness::ScratchDir dir;
  const std::string source = dir / "source";
  const std::string target = dir / "target";
};

}  // namespace

TEST_F(BindMountTest, ShowsTheSourceWhileTheObjectLives) {
  harness::LogCapture log;
  {
    selvane::BindMount bind(source, target, true);
    EXPECT_TRUE(bind.isMounted());
    EXPECT_TRUE(mounted());
    EXPECT_EQ(harness::readFile(target + "/marker"), "shown");
    EXPECT_TRUE(bind.mount()) << "a second mount() is a no-op";
    EXPECT_EQ(harness::mountsUnder(target).size(), 1u);
  }
  EXPECT_FALSE(mounted());
  EXPECT_TRUE(log.texts().empty());
  struct stat st;
  EXPECT_EQ(stat(target.c_str(), &st), 0) << "a directory mount() created stays";
}

TEST_F(BindMountTest, MountsOnlyWhenAsked) {
  selvane::BindMount bind(source, target, false);
  EXPECT_FALSE(bind.isMounted());
  EXPECT_FALSE(mounted());
  EXPECT_TRUE(bind.unmount()) << "nothing mounted is nothing to undo";
  ASSERT_TRUE(bind.mount());
  ASSERT_TRUE(bind.unmount());
  EXPECT_FALSE(bind.isMounted());
  EXPECT_FALSE(mounted());
}

TEST_F(BindMountTest, ReportsDestinationsItCannotUse) {
  harness::LogCapture log;
  const std::string orphan = dir / "missing/parent";
  const std::string file = dir / "file";
  harness::writeFile(file, "");
  struct Case {
    std::string destination;
    std::string warning;
  } cases[] = {
      {"", "W BindMount:ensureDirectory:dir=,errno=:Empty path specified"},
      {orphan, "W BindMount:ensureDirectory:dir=" + orphan + ",errno=2:mkdir failed"},
      {file, "W BindMount:ensureDirectory:dir=" + file +
                 ",errno=:Destination exists and is not a directory"},
      {file + "/below", "W BindMount:ensureDirectory:dir=" + file + "/below,errno=20:Bad path"},
  };
  for (const Case& c : cases) {
    log.clear();
    selvane::BindMount bind(source, c.destination, true);
    EXPECT_FALSE(bind.isMounted()) << c.destination;
    EXPECT_EQ(log.texts(),
              (std::vector<std::string>{
                  c.warning, "E BindMount:mount:errno=,src=" + source + ",dest=" + c.destination +
                                 ":No such destination exists or could be created"}));
  }
}

TEST_F(BindMountTest, ReportsAFailedMount) {
  harness::LogCapture log;
  selvane::BindMount bind(dir / "no-source", target, true);
  EXPECT_FALSE(bind.isMounted());
  EXPECT_TRUE(log.contains("E BindMount:mount:errno=2,src=" + dir / "no-source" +
                           ",dest=" + target + ":Failed to bind mount directory"));
}

TEST_F(BindMountTest, AcceptsAMountPointSomeoneElseUnmounted) {
  harness::LogCapture log;
  {
    selvane::BindMount bind(source, target, true);
    ASSERT_EQ(umount(target.c_str()), 0);
  }
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{"W BindMount:unmount:errno=22,mountpoint=" + target +
                                      ":Mount point appears to be unmounted..."}));
}

TEST_F(BindMountTest, StaysMountedWhenBusy) {
  harness::LogCapture log;
  auto bind = std::make_unique<selvane::BindMount>(source, target, true);
  ASSERT_EQ(chdir(target.c_str()), 0);  // a working directory inside keeps the mount busy
  EXPECT_FALSE(bind->unmount());
  EXPECT_TRUE(bind->isMounted());
  EXPECT_TRUE(
      log.contains("E BindMount:unmount:errno=16,mountpoint=" + target + ":Failed to unmount"));
  ASSERT_EQ(chdir("/"), 0);
  bind.reset();
  EXPECT_FALSE(mounted());
}

TEST_F(BindMountTest, TheDestructorReportsWhatItCouldNotUndo) {
  harness::LogCapture log;
  {
    selvane::BindMount bind(source, target, true);
    ASSERT_EQ(chdir(target.c_str()), 0);
  }
  ASSERT_EQ(chdir("/"), 0);
  EXPECT_TRUE(log.contains("E BindMount:~BindMount:dest=" + target + ":Failed to unmount"));
  EXPECT_EQ(umount(target.c_str()), 0);
}
