// Child processes, bind mounts, temporary paths, SHA-256 checks, paths resolved inside a root that
// holds links out of it (as a tampered root filesystem would), and the guards of the harness.
#include <fcntl.h>
#include <linux/capability.h>
#include <marvixlog.h>
#include <selvane/BindMount.h>
#include <selvane/ChrootExecutor.h>
#include <selvane/FileUtils.h>
#include <selvane/OpenInRoot.h>
#include <selvane/RecursiveRemovalDirectory.h>
#include <selvane/TemporaryFile.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <regex>

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
  EXPECT_EQ(log.startingWith("W ChildTask:kill:pid=").size(), 1u);
  EXPECT_EQ(log.startingWith("E ChildTask:result:pid_result=").size(), 2u);
}

TEST(ChildTask, AnUnwaitableChildIsAWaitFailure) {
  harness::LogCapture log;
  std::signal(SIGCHLD, SIG_IGN);  // the kernel reaps children itself: waitpid() finds none
  EXPECT_EQ(errorText([] { FunctionTask([] { return 0; }).waitExecute(0); }), "Failed to waitpid");
  EXPECT_TRUE(log.contains("E ChildTask:waitpid_error:pid_result=-1,errno=" +
                           std::to_string(ECHILD) + ":Failed to wait for child"));
}

TEST(Executor, RunsTheProgramWithExactlyTheGivenEnvironment) {
  harness::LogCapture log;
  setenv("INHERITED", "yes", 1);
  const char* inherits[] = {"/bin/sh", "-c", "test \"$INHERITED\" = yes", nullptr};
  const char* onlyGiven[] = {"/bin/sh", "-c", "test -z \"$INHERITED\" && exit $GIVEN", nullptr};
  const char* env[] = {"GIVEN=42", nullptr};
  const char* relative[] = {"true", nullptr};  // no PATH search: the exec fails
  EXPECT_EQ(selvane::Executor(inherits, nullptr).waitExecute(0), 0);
  EXPECT_EQ(selvane::Executor(onlyGiven, env).waitExecute(0), 42);
  EXPECT_EQ(selvane::Executor(relative, nullptr).waitExecute(0), 255);
  // The command line overwrites the stream's initial "Command:".
  EXPECT_EQ(log.startingWith("D Executor:"),
            (Lines{"D Executor:Executor:: /bin/sh -c test \"$INHERITED\" = yes",
                   "D Executor:Executor:: /bin/sh -c test -z \"$INHERITED\" && exit $GIVEN ; "
                   "with Environment: GIVEN=42",
                   "D Executor:Executor:: truend:"}));
}

TEST(ChrootExecutor, RunsInsideTheRootFromItsTop) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir dir;
  harness::makeBusyboxRoot(dir / "root");
  harness::writeFile(dir / "root/etc/only-here", "");
  const char* argv[] = {"/bin/sh", "-c", "test \"$(pwd)\" = / && test -e /etc/only-here", nullptr};
  const char* missing[] = {"/usr/bin/opkg-cl", nullptr};
  EXPECT_EQ(selvane::ChrootExecutor(dir / "root", argv, nullptr).waitExecute(0), 0);
  EXPECT_EQ(selvane::ChrootExecutor(dir / "root", missing, nullptr).waitExecute(0), 255);
  EXPECT_EQ(selvane::ChrootExecutor(dir / "none", argv, nullptr).waitExecute(0), ENOENT);
}

TEST(BindMountTest, ShowsTheSourceWhileTheObjectLivesAndReportsWhatItCannotDo) {
  SELVANE_REQUIRE_ROOT();
  harness::LogCapture log;
  harness::ScratchDir dir;
  const std::string target = dir / "target";
  {
    selvane::BindMount bind(dir.path(), target, false);
    EXPECT_TRUE(bind.unmount());  // nothing to undo
    EXPECT_TRUE(bind.mount());
    EXPECT_TRUE(bind.mount());  // already mounted: nothing more
    EXPECT_EQ(harness::mountsUnder(target), Lines{target});
  }
  EXPECT_EQ(harness::mountsUnder(target), Lines{});
  EXPECT_EQ(log.texts(), Lines{});
  {
    selvane::BindMount bind(dir.path(), target, true);
    ASSERT_EQ(chdir(target.c_str()), 0);  // a working directory inside keeps it busy
    EXPECT_FALSE(bind.unmount());
    EXPECT_TRUE(bind.isMounted());
  }
  ASSERT_EQ(chdir("/"), 0);
  ASSERT_EQ(umount(target.c_str()), 0);
  {
    selvane::BindMount bind(dir.path(), target, true);
    ASSERT_EQ(umount(target.c_str()), 0);  // by someone else: only a warning
  }
  EXPECT_FALSE(selvane::BindMount(dir.path(), dir / "a/b", true).isMounted());
  EXPECT_FALSE(selvane::BindMount(dir / "none", target, true).isMounted());
  const std::string busy =
      "E BindMount:unmount:errno=16,mountpoint=" + target + ":Failed to unmount";
  EXPECT_EQ(log.texts(),
            (Lines{busy, busy, "E BindMount:~BindMount:dest=" + target + ":Failed to unmount",
                   "W BindMount:unmount:errno=22,mountpoint=" + target +
                       ":Mount point appears to be unmounted...",
                   "W BindMount:ensureDirectory:dir=" + dir / "a/b,errno=2:mkdir failed",
                   "E BindMount:mount:errno=,src=" + dir.path() + ",dest=" + dir / "a/b" +
                       ":No such destination exists or could be created",
                   "E BindMount:mount:errno=2,src=" + dir / "none,dest=" + target +
                       ":Failed to bind mount directory"}));
}

// ---- temporary paths ------------------------------------------------------------------------

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST(TemporaryDirectory, MakesAPrivateDirectoryAndRemovesItOnlyEmpty) {
  harness::LogCapture log;
  std::string path;
  {
    selvane::TemporaryDirectory dir;
    path = dir.getPath();
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/tmp\\.[A-Za-z0-9]{6}"))) << path;
    struct stat st;
    EXPECT_EQ(stat(path.c_str(), &st) == 0 ? st.st_mode : 0u, S_IFDIR | 0700u);
    harness::writeFile(path + "/left", "");
  }
  EXPECT_EQ(log.texts(), Lines{"W TemporaryDirectory:remove:path=" + path +
                               ",errno=39:Failed to erase directory"});
  EXPECT_EQ(unlink((path + "/left").c_str()), 0);
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

TEST(TemporaryFile, CreatesEmptiesAndUnlinks) {
  harness::LogCapture log;
  std::string path;
  {
    selvane::TemporaryFile file;
    path = file.getPath();
    harness::writeFile(path, "old");
    EXPECT_EQ(errorText([&] { selvane::TemporaryFile f(path, false); }),
              "Failed to create file: " + path);
    selvane::TemporaryFile emptied(path, true);
    EXPECT_EQ(harness::readFile(path), "");
  }
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(log.texts(), Lines{"W TemporaryFile:open:flags=194,errno=17:Failed to open file"});
}

TEST(RecursiveRemovalDirectory, RemovesEverythingBelowButNotWhatLinksPointAt) {
  harness::LogCapture log;
  harness::ScratchDir dir;
  const std::string top = dir / "top";
  ASSERT_EQ(harness::shell("mkdir -p " + top + "/a/b && touch " + top + "/a/b/f " + dir / "keep" +
                           " && ln -s " + dir.path() + " " + top + "/link"),
            0);
  { selvane::RecursiveRemovalDirectory removal(top, true); }
  EXPECT_FALSE(exists(top));
  EXPECT_TRUE(exists(dir / "keep"));
  EXPECT_EQ(log.startingWith("D RecursiveRemovalDirectory:remove:file_path=").size(), 4u);
  EXPECT_TRUE(
      log.contains("D RecursiveRemovalDirectory:remove:file_path=" + top + "/a/b/f:Removing file"));
}

// ---- sizes and SHA-256 checks ---------------------------------------------------------------

// SHA-256 of "hello\n" and of nothing.
const std::string kHello = "5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03";
const std::string kEmpty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

TEST(FileUtilsTest, SizesAndDigests) {
  harness::LogCapture log;
  harness::ScratchDir dir;
  harness::writeFile(dir / "zeros", std::string(100000, '\0'));  // more than one read
  EXPECT_TRUE(selvane::VerifySHA256Sum(
      dir / "zeros", "9192C25B734FCBADBE32DADC28089C60DB0E39F90CC20CE2E5733F57261ACC0C"));
  EXPECT_EQ(selvane::GetFileSize(dir / "zeros"), 100000);
  harness::writeFile(dir / "hello", "hello\n");
  std::string oneDigit = kHello;
  oneDigit[5] = 'c';
  for (const std::string& wrong : {oneDigit, kHello.substr(1), kHello + "0"})
    EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "hello", wrong)) << wrong;
  EXPECT_FALSE(selvane::VerifySHA256Sum("", kEmpty));
  EXPECT_EQ(log.texts(), Lines{});
  EXPECT_EQ(selvane::GetFileSize(dir / "missing"), -1);
  EXPECT_EQ(log.startingWith("E FileUtils:getFileSize:reason=exception,what=").size(), 1u);

  const std::string sums = dir / "list";
  const std::pair<std::string, std::string> cases[] = {
      // content, the message ("" passes)
      {"", ""},
      {kHello + "  hello\n" + kHello + " */hello", ""},
      {kHello + "  hello\n\n", "Unexpected end of file"},
      {" " + kHello + "  hello\n", "Failed to parse sha256sum"},
      {kHello + " \thello\n", "Invalid mode character"},
      {kHello + "  \n", "Failed to parse path"},
      {kEmpty + "  hello\n \n", "Checksum mismatch"},  // the first failure ends the check
  };
  for (const auto& [content, message] : cases) {
    log.clear();
    harness::writeFile(sums, content);
    EXPECT_EQ(selvane::VerifySHA256SumsFile(sums, dir.path()), message.empty()) << content;
    const std::string at = " FileUtils:VerifySHA256SumsFile:filepath=" + sums + ":";
    const Lines failed{(message[0] == 'C' ? "W" : "E") + at + message,
                       "D" + at + "Verification failed"};
    EXPECT_EQ(log.texts(), message.empty() ? Lines{} : failed);
  }
  harness::writeFile(sums, kHello + "  " + dir / "hello");
  EXPECT_TRUE(selvane::VerifySHA256SumsFile(sums, ""));
  EXPECT_FALSE(selvane::VerifySHA256SumsFile(dir / "none", dir.path()));
  EXPECT_TRUE(log.contains("E FileUtils:VerifySHA256SumsFile:filepath=" + dir / "none" +
                           ":Failed to open sha256sums file"));
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
                                        {kEmpty + "  fifo", false}}) {
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

TEST(Harness, HostPathsBecomeWritableOnlyInsideTheTest) {
  SELVANE_REQUIRE_ROOT();
  harness::makeHostPathWritable("/dev");
  ASSERT_EQ(mkdir("/dev/disk-harness-test", 0755), 0);
  EXPECT_FALSE(harness::mountsUnder("/dev/pts").empty());
  std::string out;  // PID 1's mount namespace never sees the new name
  harness::shell("nsenter -t 1 -m test -e /dev/disk-harness-test && echo leaked", &out);
  EXPECT_EQ(out, "");
}

}  // namespace
