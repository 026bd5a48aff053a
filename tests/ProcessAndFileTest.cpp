// Child processes, bind mounts, temporary paths, SHA-256 checks, paths resolved inside a root that
// holds links out of it (as a tampered root filesystem would), and the guards of the harness.
#include <fcntl.h>
#include <linux/capability.h>
#include <selvane/BindMount.h>
#include <selvane/ChrootExecutor.h>
#include <selvane/FileUtils.h>
#include <selvane/OpenInRoot.h>
#include <selvane/RecursiveRemovalDirectory.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/stat.h>

#include <csignal>
#include <functional>

#include "ErrorText.h"
#include "Harness.h"

namespace {

using fixtures::errorText;
using Lines = std::vector<std::string>;

struct FunctionTask : selvane::ChildTask {  // runs body in the forked child
  explicit FunctionTask(std::function<int()> body) : body(std::move(body)) {}
  int childTask() override { return body(); }
  std::function<int()> body;
};

TEST(ChildTask, MapsEveryEndOfTheChildAndKillsItAtTheLimit) {
  EXPECT_EQ(FunctionTask([]() -> int { std::abort(); }).waitExecute(0), 134);
  EXPECT_EQ(FunctionTask([]() -> int { throw 1; }).waitExecute(0), 255);  // stays in the child
  EXPECT_EQ(FunctionTask([] { return 7; }).waitExecute(60), 7);
  EXPECT_EQ(FunctionTask([] { return sleep(30); }).waitExecute(2), 137);
}

TEST(ChildTask, AnUnwaitableChildIsAWaitFailure) {
  std::signal(SIGCHLD, SIG_IGN);  // the kernel reaps children itself: waitpid() finds none
  EXPECT_EQ(errorText([] { FunctionTask([] { return 0; }).waitExecute(0); }), "Failed to waitpid");
}

TEST(Executor, RunsTheProgramWithExactlyTheGivenEnvironment) {
  harness::LogCapture log;
  setenv("INHERITED", "yes", 1);
  const char* inherits[] = {"/bin/sh", "-c", "test \"$INHERITED\" = yes", nullptr};
  const char* onlyGiven[] = {"/bin/sh", "-c", "test -z \"$INHERITED\" && exit $GIVEN", nullptr};
  const char* env[] = {"GIVEN=42", nullptr};
  EXPECT_EQ(selvane::Executor(inherits, nullptr).waitExecute(0), 0);
  EXPECT_EQ(selvane::Executor(onlyGiven, env).waitExecute(0), 42);
  EXPECT_TRUE(log.contains("D Executor:Executor:: /bin/sh -c " + std::string(onlyGiven[2]) +
                           " ; with Environment: GIVEN=42"));
}

TEST(ChrootExecutor, RunsInsideTheRootFromItsTop) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir dir;
  harness::makeBusyboxRoot(dir / "root");
  harness::writeFile(dir / "root/etc/only-here", "");
  const char* argv[] = {"/bin/sh", "-c", "test -e etc/only-here && exit 7", nullptr};  // from /
  EXPECT_EQ(selvane::ChrootExecutor(dir / "root", argv, nullptr).waitExecute(0), 7);
  EXPECT_EQ(selvane::ChrootExecutor(dir / "none", argv, nullptr).waitExecute(0), ENOENT);
}

TEST(BindMountTest, ShowsTheSourceWhileTheObjectLivesAndReportsWhatItCannotDo) {
  SELVANE_REQUIRE_ROOT();
  harness::LogCapture log;
  harness::ScratchDir dir;
  const std::string target = dir / "target";
  {
    selvane::BindMount bind(dir.path(), target, false);
    EXPECT_TRUE(bind.mount());
    EXPECT_EQ(harness::mountsUnder(target), Lines{target});
  }
  EXPECT_EQ(harness::mountsUnder(target), Lines{});
  {
    selvane::BindMount bind(dir.path(), target, true);
    ASSERT_EQ(chdir(target.c_str()), 0);  // a working directory inside keeps it busy
    EXPECT_FALSE(bind.unmount());
    EXPECT_TRUE(bind.isMounted());
  }
  ASSERT_EQ(chdir("/"), 0);
  ASSERT_EQ(umount(target.c_str()), 0);
  const std::string busy =
      "E BindMount:unmount:errno=16,mountpoint=" + target + ":Failed to unmount";
  EXPECT_EQ(log.texts(),
            (Lines{busy, busy, "E BindMount:~BindMount:dest=" + target + ":Failed to unmount"}));
}

// ---- temporary paths ------------------------------------------------------------------------

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST(TemporaryDirectory, TakesAnExistingPathOnlyWhenAllowedAndNeverAFile) {
  harness::LogCapture log;
  const std::string path = selvane::TemporaryDirectory().getPath();
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  EXPECT_EQ(errorText([&] { selvane::TemporaryDirectory d(path, false); }),
            "Failed to create temporary directory: " + path);
  // Accepted, resolved, and removed once empty.
  EXPECT_EQ(selvane::TemporaryDirectory(path + "/../" + path.substr(5), true).getPath(), path);
  EXPECT_FALSE(exists(path));
  harness::writeFile(path, "", 0755);  // searchable: only the type check refuses it
  EXPECT_EQ(errorText([&] { selvane::TemporaryDirectory d(path, true); }),
            "Cannot use path as a temporary directory:  " + path);
  EXPECT_TRUE(log.contains("E TemporaryDirectory:isdir:path=" + path + ":Path is not a directory"));
  EXPECT_EQ(unlink(path.c_str()), 0);
}

TEST(RecursiveRemovalDirectory, RemovesEverythingBelowButNotWhatLinksPointAt) {
  harness::ScratchDir dir;
  const std::string top = dir / "top";
  ASSERT_EQ(harness::shell("mkdir -p " + top + "/a/b && touch " + top + "/a/b/f " + dir / "keep" +
                           " && ln -s " + dir.path() + " " + top + "/link"),
            0);
  { selvane::RecursiveRemovalDirectory removal(top, true); }
  EXPECT_FALSE(exists(top));
  EXPECT_TRUE(exists(dir / "keep"));
}

// ---- sizes and SHA-256 checks ---------------------------------------------------------------

// SHA-256 of "hello\n".
const std::string kHello = "5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03";

TEST(FileUtilsTest, SizesAndDigests) {
  harness::ScratchDir dir;
  harness::writeFile(dir / "zeros", std::string(100000, '\0'));  // more than one read
  const std::string digest = "9192C25B734FCBADBE32DADC28089C60DB0E39F90CC20CE2E5733F57261ACC0C";
  EXPECT_TRUE(selvane::VerifySHA256Sum(dir / "zeros", digest));
  for (const std::string& wrong : {digest.substr(0, 63) + "D", digest.substr(1), digest + "0"})
    EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "zeros", wrong)) << wrong;
  EXPECT_EQ(selvane::GetFileSize(dir / "zeros"), 100000);
  EXPECT_EQ(selvane::GetFileSize(dir / "missing"), -1);
}

// A root whose links lead out of it, to files of the host that would match: paths resolve inside
// the root (".." stops at its top, absolute link targets start there), and a sums file's entries
// count only as regular files there.
TEST(OpenInRootTest, NeverLeavesTheRoot) {
  harness::ScratchDir dir;
  const std::string root = dir / "root";
  ASSERT_EQ(
      harness::shell("mkdir -p " + root + "/etc && mkfifo " + root + "/fifo && ln -s " +
                     dir / "x " + root + "/abs && ln -s ../../../../../etc/x " + root +
                     "/up && ln -s /etc " + root + "/etc-link && ln -s /loop " + root + "/loop"),
      0);
  harness::writeFile(dir / "x", "hello\n");
  harness::writeFile(root + "/etc/x", "hello\n");
  for (const auto& [path, error] : {std::pair<std::string, int>{"../../etc/./x", 0},
                                    {"etc-link/../etc/x", 0},
                                    {"abs", ENOENT},
                                    {"loop", ELOOP},
                                    {"etc/x/", ENOTDIR}}) {
    const int fd = selvane::OpenInRoot(root, path, O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fd < 0 ? errno : 0, error) << path;
    close(fd);
  }
  for (const auto& [entry, expected] : {std::pair<std::string, bool>{kHello + "  up", true},
                                        {kHello + "  ../etc-link/x", true},
                                        {kHello + "  abs", false},
                                        {kHello + "  fifo", false}}) {
    harness::writeFile(dir / "sums", entry);
    EXPECT_EQ(selvane::VerifySHA256SumsFile(dir / "sums", root), expected) << entry;
  }
}

// ---- the harness ----------------------------------------------------------------------------

TEST(Harness, RebootIsInterposedAndTheCapabilityIsGone) {
  EXPECT_EQ(prctl(PR_CAPBSET_READ, CAP_SYS_BOOT, 0, 0, 0), 0);
  EXPECT_EQ(reboot(RB_POWER_OFF), -1);
  EXPECT_EQ(harness::rebootRequests(), std::vector<int>{RB_POWER_OFF});
}

}  // namespace
