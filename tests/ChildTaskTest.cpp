// Child processes: results, time limits, argument and environment vectors, chroot.
#include <marvixlog.h>
#include <selvane/ChildTask.h>
#include <selvane/ChrootExecutor.h>
#include <selvane/Executor.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>

#include "Harness.h"

namespace {

using Clock = std::chrono::steady_clock;

// Runs a function in the forked child.
class FunctionTask : public selvane::ChildTask {
 public:
  explicit FunctionTask(std::function<int()> body) : body(std::move(body)) {}
  int childTask() override { return body(); }

 private:
  std::function<int()> body;
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

TEST(ChildTask, MapsEveryWayAChildCanEnd) {
  harness::LogCapture log;
  struct Case {
    const char* what;
    std::function<int()> body;
    int timeout;
    int expected;
    const char* line;  // the result line, with the pid left out
  } cases[] = {
      {"exit code 3", [] { return 3; }, 0, 3, ",status=3:Child exited"},
      {"no limit given as -5", [] { return 0; }, -5, 0, ",status=0:Child exited"},
      {"abort()", []() -> int { std::abort(); }, 0, 134, ",status=134:Child signaled"},
      {"an exception stays in the child", []() -> int { throw std::runtime_error("in child"); }, 0,
       255, ",status=255:Child exited"},
      {"SIGTERM", [] { return raise(SIGTERM); }, 0, 143, ",status=143:Child signaled"},
  };
  for (const Case& c : cases) {
    log.clear();
    FunctionTask task(c.body);
    EXPECT_EQ(task.waitExecute(c.timeout), c.expected) << c.what;
    EXPECT_EQ(log.count("D ChildTask:waitExecute:timeout=" + std::to_string(c.timeout) +
                        ":Running child task"),
              1u)
        << c.what;
    const bool exited = std::string(c.line).find("exited") != std::string::npos;
    const auto results = log.startingWith(exited ? "D ChildTask:result:pid_result="
                                                 : "E ChildTask:result:pid_result=");
    ASSERT_EQ(results.size(), 1u) << c.what;
    EXPECT_NE(results[0].find(c.line), std::string::npos) << c.what << ": " << results[0];
  }
}

TEST(ChildTask, TheSameObjectRunsAgain) {
  int runs = 0;
  FunctionTask task([&runs] { return 10 + ++runs; });  // the child's increment stays in the child
  EXPECT_EQ(task.waitExecute(0), 11);
  EXPECT_EQ(task.waitExecute(0), 11);
}

// One binary-wide sleep covers both sides of the one-second poll.
TEST(ChildTask, PollsOnceASecondAndKillsAtTheLimit) {
  harness::LogCapture log;
  FunctionTask quick([] { return 0; });
  Clock::time_point start = Clock::now();
  EXPECT_EQ(quick.waitExecute(60), 0);
  const double quickSeconds = secondsSince(start);
  EXPECT_GE(quickSeconds, 1.0) << "the first poll comes one second after the start";
  EXPECT_LT(quickSeconds, 2.0);

  FunctionTask stuck([] {
    sleep(30);
    return 0;
  });
  start = Clock::now();
  EXPECT_EQ(stuck.waitExecute(2), 137);
  const double stuckSeconds = secondsSince(start);
  EXPECT_GE(stuckSeconds, 2.0);
  EXPECT_LT(stuckSeconds, 3.9);
  const auto kills = log.startingWith("W ChildTask:kill:pid=");
  ASSERT_EQ(kills.size(), 1u);
  EXPECT_NE(kills[0].find(":Timeout exceeded, killing child"), std::string::npos);
  EXPECT_EQ(log.startingWith("E ChildTask:result:").size(), 1u);
}

TEST(ChildTask, AnUnwaitableChildIsAWaitFailure) {
  harness::LogCapture log;
  // With SIGCHLD ignored the kernel reaps children itself, so waitpid() finds none.
  struct sigaction ignore {
  }, saved{};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &saved);
  FunctionTask task([] { return 0; });
  try {
    task.waitExecute(0);
    ADD_FAILURE() << "expected an exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Failed to waitpid");
  }
  sigaction(SIGCHLD, &saved, nullptr);
  EXPECT_TRUE(log.contains("E ChildTask:waitpid_error:pid_result=-1,errno=" +
                           std::to_string(ECHILD) + ":Failed to wait for child"));
}

TEST(Executor, LogsTheCommandLineOverTheStreamsInitialText) {
  harness::LogCapture log;
  const char* configure[] = {"/usr/bin/opkg-cl", "configure", nullptr};
  selvane::Executor a(configure, nullptr);
  // A short command line overwrites only the start of "Command:".
  const char* shortArgv[] = {"/x", nullptr};
  selvane::Executor b(shortArgv, nullptr);
  const char* noArgv[] = {nullptr};
  selvane::Executor c(noArgv, nullptr);
  const char* env[] = {"A=1", "B=2", nullptr};
  const char* emptyEnv[] = {nullptr};
  selvane::Executor d(configure, env);
  selvane::Executor e(configure, emptyEnv);
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{
                "D Executor:Executor:: /usr/bin/opkg-cl configure",
                "D Executor:Executor:: /xmand:",
                "D Executor:Executor::Command:",
                "D Executor:Executor:: /usr/bin/opkg-cl configure ; with Environment: A=1 B=2",
                "D Executor:Executor:: /usr/bin/opkg-cl configure ; with Environment:",
            }));
}

TEST(Executor, LogsNothingWhenDebugIsOff) {
  harness::LogCapture log;
  g_marvix_log_mask &= ~MARVIX_LOG_DEBUG;
  const char* argv[] = {"/bin/true", nullptr};
  selvane::Executor executor(argv, nullptr);
  EXPECT_TRUE(log.texts().empty());
}

TEST(Executor, RunsProgramsWithTheGivenEnvironment) {
  setenv("SELVANE_INHERITED", "yes", 1);
  const char* inherits[] = {"/bin/sh", "-c", "test \"$SELVANE_INHERITED\" = yes", nullptr};
  EXPECT_EQ(selvane::Executor(inherits, nullptr).waitExecute(0), 0);

  const char* onlyEnvp[] = {"/bin/sh", "-c",
                            "test -z \"$SELVANE_INHERITED\" && test \"$GIVEN\" = 1", nullptr};
  const char* env[] = {"GIVEN=1", nullptr};
  EXPECT_EQ(selvane::Executor(onlyEnvp, env).waitExecute(0), 0);

  const char* emptyEnv[] = {nullptr};
  const char* noVars[] = {"/bin/sh", "-c", "test -z \"$SELVANE_INHERITED$GIVEN\"", nullptr};
  EXPECT_EQ(selvane::Executor(noVars, emptyEnv).waitExecute(0), 0);

  const char* status[] = {"/bin/sh", "-c", "exit 42", nullptr};
  EXPECT_EQ(selvane::Executor(status, nullptr).waitExecute(0), 42);
  unsetenv("SELVANE_INHERITED");
}

TEST(Executor, AFailedExecGives255) {
  const char* missing[] = {"/nonexistent/program", nullptr};
  EXPECT_EQ(selvane::Executor(missing, nullptr).waitExecute(0), 255);
  const char* noProgram[] = {nullptr};
  EXPECT_EQ(selvane::Executor(noProgram, nullptr).waitExecute(0), 255);
  const char* relative[] = {"true", nullptr};  // no PATH search
  EXPECT_EQ(selvane::Executor(relative, nullptr).waitExecute(0), 255);
}

TEST(ChrootExecutor, AMissingRootEndsWithItsErrno) {
  harness::LogCapture log;
  const char* argv[] = {"/bin/true", nullptr};
  selvane::ChrootExecutor executor("/nonexistent/root", argv, nullptr);
  EXPECT_EQ(log.count("D Executor:Executor:: /bin/true"), 1u) << "the root is not logged";
  EXPECT_EQ(executor.waitExecute(0), geteuid() == 0 ? ENOENT : EPERM);
}

TEST(ChrootExecutor, RunsInsideTheRootFromItsTop) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir dir;
  const std::string root = dir / "root";
  harness::makeBusyboxRoot(root);
  harness::writeFile(root + "/etc/only-in-root", "x");
  const char* argv[] = {"/bin/sh", "-c",
                        "test \"$(pwd)\" = / && test -e /etc/only-in-root && test \"$USER\" = root",
                        nullptr};
  const char* env[] = {"USER=root", nullptr};
  EXPECT_EQ(selvane::ChrootExecutor(root, argv, env).waitExecute(0), 0);

  const char* missing[] = {"/usr/bin/opkg-cl", nullptr};
  EXPECT_EQ(selvane::ChrootExecutor(root, missing, env).waitExecute(0), 255);
}
