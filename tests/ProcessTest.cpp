// Child processes (results, time limits, argument and environment vectors, chroot), bind mounts,
// and the guards of the test harness itself.
#include <linux/capability.h>
#include <marvixlog.h>
#include <selvane/BindMount.h>
#include <selvane/ChrootExecutor.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <regex>
#include <tuple>

#include "ErrorText.h"
#include "Harness.h"

namespace {

using Lines = std::vector<std::string>;

struct FunctionTask : selvane::ChildTask {  // runs body in the forked child
  explicit FunctionTask(std::function<int()> body) : body(std::move(body)) {}
  int childTask() override { return body(); }
  std::function<int()> body;
};

TEST(ChildTask, MapsEveryEndOfTheChildAndKillsItAtTheLimit) {
  harness::LogCapture log;
  EXPECT_EQ(FunctionTask([] { return 3; }).waitExecute(-5), 3);  // no limit
  EXPECT_EQ(FunctionTask([]() -> int { std::abort(); }).waitExecute(0), 134);
  EXPECT_EQ(FunctionTask([]() -> int { throw 1; }).waitExecute(0), 255);  // stays in the child
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(FunctionTask([] { return 7; }).waitExecute(60), 7);  // seen at the first poll, at 1 s
  EXPECT_EQ(FunctionTask([] { return sleep(30); }).waitExecute(2), 137);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  EXPECT_GE(seconds.count(), 3.0);
  EXPECT_LT(seconds.count(), 5.9);
  std::string all;  // the log without pids
  for (const std::string& line : log.texts())
    all += std::regex_replace(line, std::regex("pid(_result)?=\\d+"), "pid") + "\n";
  for (const char* line : {"D ChildTask:waitExecute:timeout=-5:Running child task\n"
                           "D ChildTask:result:pid,status=3:Child exited\n",
                           "E ChildTask:result:pid,status=134:Child signaled\n",
                           "W ChildTask:kill:pid:Timeout exceeded, killing child\n"
                           "E ChildTask:result:pid,status=137:Child signaled\n"})
    EXPECT_NE(all.find(line), std::string::npos) << line;
}

TEST(ChildTask, AnUnwaitableChildIsAWaitFailure) {
  harness::LogCapture log;
  std::signal(SIGCHLD, SIG_IGN);  // the kernel reaps children itself: waitpid() finds none
  EXPECT_EQ(fixtures::errorText([] { FunctionTask([] { return 0; }).waitExecute(0); }),
            "Failed to waitpid");
  std::signal(SIGCHLD, SIG_DFL);
  EXPECT_TRUE(log.contains("E ChildTask:waitpid_error:pid_result=-1,errno=" +
                           std::to_string(ECHILD) + ":Failed to wait for child"));
}

TEST(Executor, LogsTheCommandLineOverTheStreamsInitialText) {
  harness::LogCapture log;
  const char* configure[] = {"/usr/bin/opkg-cl", "configure", nullptr};
  const char* shortArgv[] = {"/x", nullptr};  // overwrites only the start of "Command:"
  const char* none[] = {nullptr};
  const char* env[] = {"A=1", "B=2", nullptr};
  for (const auto& [argv, envp] : {std::pair<const char**, const char**>{configure, nullptr},
                                   {shortArgv, nullptr},
                                   {none, env}})
    (void)selvane::Executor(argv, envp);
  g_marvix_log_mask &= ~MARVIX_LOG_DEBUG;  // and nothing without the debug level
  (void)selvane::Executor(configure, nullptr);
  EXPECT_EQ(log.texts(), (Lines{"D Executor:Executor:: /usr/bin/opkg-cl configure",
                                "D Executor:Executor:: /xmand:",
                                "D Executor:Executor:: ; with Environment: A=1 B=2"}));
}

TEST(Executor, RunsTheProgramWithExactlyTheGivenEnvironment) {
  setenv("INHERITED", "yes", 1);
  const char* inherits[] = {"/bin/sh", "-c", "test \"$INHERITED\" = yes", nullptr};
  const char* onlyGiven[] = {"/bin/sh", "-c", "test -z \"$INHERITED\" && exit $GIVEN", nullptr};
  const char* missing[] = {"/nonexistent/program", nullptr};
  const char* relative[] = {"true", nullptr};  // no PATH search
  const char* env[] = {"GIVEN=42", nullptr};
  for (const auto& [argv, envp, expected] :
       {std::tuple<const char**, const char**, int>{inherits, nullptr, 0},
        {onlyGiven, env, 42},
        {missing, nullptr, 255},
        {relative, nullptr, 255}})
    EXPECT_EQ(selvane::Executor(argv, envp).waitExecute(0), expected) << argv[0];
}

TEST(ChrootExecutor, RunsInsideTheRootFromItsTop) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir dir;
  harness::makeBusyboxRoot(dir / "root");
  harness::writeFile(dir / "root/etc/only-in-root", "x");
  const char* argv[] = {"/bin/sh", "-c", "test \"$(pwd)\" = / && test -e /etc/only-in-root",
                        nullptr};
  const char* missing[] = {"/usr/bin/opkg-cl", nullptr};
  EXPECT_EQ(selvane::ChrootExecutor(dir / "root", argv, nullptr).waitExecute(0), 0);
  EXPECT_EQ(selvane::ChrootExecutor(dir / "root", missing, nullptr).waitExecute(0), 255);
  EXPECT_EQ(selvane::ChrootExecutor(dir / "none", argv, nullptr).waitExecute(0), ENOENT);
}

// ---- bind mounts ----------------------------------------------------------------------------

class BindMountTest : public ::testing::Test {
 protected:
  void SetUp() override { SELVANE_REQUIRE_ROOT(); }
  size_t mounts() const { return harness::mountsUnder(target).size(); }

  harness::ScratchDir dir;
  const std::string target = dir / "target";
  harness::LogCapture log;
};

TEST_F(BindMountTest, ShowsTheSourceWhileTheObjectLives) {
  harness::writeFile(dir / "marker", "shown");
  {
    selvane::BindMount bind(dir.path(), target, false);
    EXPECT_TRUE(bind.unmount());  // nothing to undo
    EXPECT_EQ(mounts(), 0u);
    EXPECT_TRUE(bind.mount());
    EXPECT_TRUE(bind.mount());  // already mounted: nothing more
    EXPECT_TRUE(bind.isMounted());
    EXPECT_EQ(mounts(), 1u);
    EXPECT_EQ(harness::readFile(target + "/marker"), "shown");
  }
  EXPECT_EQ(mounts(), 0u);
  EXPECT_EQ(access(target.c_str(), F_OK), 0);  // the directory mount() made stays
  EXPECT_EQ(log.texts(), Lines{});
}

TEST_F(BindMountTest, ReportsWhatItCannotMount) {
  harness::writeFile(dir / "file", "");
  const std::string ensure = "W BindMount:ensureDirectory:dir=";
  for (const auto& [source, destination, problem] :
       {std::tuple<std::string, std::string, std::string>{"/", "",
                                                          ensure + ",errno=:Empty path specified"},
        {"/", dir / "a/b", ensure + dir / "a/b,errno=2:mkdir failed"},
        {"/", dir / "file", ensure + dir / "file,errno=:Destination exists and is not a directory"},
        {"/", dir / "file/x", ensure + dir / "file/x,errno=20:Bad path"},
        {dir / "none", target,
         "E BindMount:mount:errno=2,src=" + dir / "none,dest=" + target +
             ":Failed to bind mount directory"}}) {
    log.clear();
    EXPECT_FALSE(selvane::BindMount(source, destination, true).isMounted());
    Lines expected{problem};
    if (problem[0] == 'W')
      expected.push_back("E BindMount:mount:errno=,src=/,dest=" + destination +
                         ":No such destination exists or could be created");
    EXPECT_EQ(log.texts(), expected);
  }
}

TEST_F(BindMountTest, ReportsWhatItCannotUndo) {
  const std::string busy =
      "E BindMount:unmount:errno=16,mountpoint=" + target + ":Failed to unmount";
  {
    selvane::BindMount bind(dir.path(), target, true);
    ASSERT_EQ(chdir(target.c_str()), 0);  // a working directory inside keeps the mount busy
    EXPECT_FALSE(bind.unmount());
    EXPECT_TRUE(bind.isMounted());
  }
  ASSERT_EQ(chdir("/"), 0);
  ASSERT_EQ(umount(target.c_str()), 0);
  EXPECT_EQ(log.texts(),
            (Lines{busy, busy, "E BindMount:~BindMount:dest=" + target + ":Failed to unmount"}));
  log.clear();
  {
    selvane::BindMount bind(dir.path(), target, true);
    ASSERT_EQ(umount(target.c_str()), 0);  // by someone else: only a warning
  }
  EXPECT_EQ(log.texts(), (Lines{"W BindMount:unmount:errno=22,mountpoint=" + target +
                                ":Mount point appears to be unmounted..."}));
}

// ---- the harness ----------------------------------------------------------------------------

TEST(Harness, RebootIsInterposedAndTheCapabilityIsGone) {
  EXPECT_EQ(prctl(PR_CAPBSET_READ, CAP_SYS_BOOT, 0, 0, 0), 0);
  EXPECT_EQ(reboot(RB_POWER_OFF), -1);
  EXPECT_EQ(harness::rebootRequests(), std::vector<int>{RB_POWER_OFF});
}

TEST(Harness, LoopDevicesAndWritableHostPathsStayInTheTest) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir dir;
  harness::writeFile(dir / "disk.img", std::string(4096, '\0'));
  const std::string attached = "losetup -j " + dir / "disk.img";
  std::string out, after;
  {
    harness::LoopDevice loop(dir / "disk.img");
    harness::shell(attached, &out);
    EXPECT_NE(out.find(loop.path()), std::string::npos);
  }
  harness::makeHostPathWritable("/dev");
  ASSERT_EQ(mkdir("/dev/disk-harness-test", 0755), 0);
  EXPECT_EQ(access("/dev/null", W_OK), 0);
  EXPECT_FALSE(harness::mountsUnder("/dev/pts").empty());
  // Neither the loop device nor, in PID 1's mount namespace, the new name is left.
  harness::shell(attached + "; nsenter -t 1 -m test -e /dev/disk-harness-test && echo leaked",
                 &after);
  EXPECT_EQ(after, "");
}

}  // namespace
