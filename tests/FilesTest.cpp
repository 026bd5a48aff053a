// Temporary files and directories, file sizes and SHA-256 checks, paths resolved inside a root
// that holds links out of it (as a tampered root filesystem would), and the platform's file lock.
#include <fcntl.h>
#include <selvane/FileUtils.h>
#include <selvane/OpenInRoot.h>
#include <selvane/RecursiveRemovalDirectory.h>
#include <selvane/TemporaryFile.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <util/ScopedFileLock.h>

#include <cstring>
#include <regex>

#include "ErrorText.h"
#include "Harness.h"

namespace {

using fixtures::errorText;
using Lines = std::vector<std::string>;

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
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/tmp\\.[A-Za-z0-9]{6}"))) << path;
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
  ASSERT_EQ(truncate((dir / "zeros").c_str(), (4ull << 30) + 6), 0);  // sparse
  EXPECT_EQ(selvane::GetFileSize(dir / "zeros"), 6);                  // the low 32 bits
  harness::writeFile(dir / "hello", "hello\n");
  std::string oneDigit = kHello;
  oneDigit[5] = 'c';
  for (const std::string& wrong : {oneDigit, kHello.substr(1), kHello + "0"})
    EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "hello", wrong)) << wrong;
  EXPECT_FALSE(selvane::VerifySHA256Sum("", kEmpty));
  EXPECT_EQ(log.texts(), Lines{});
  EXPECT_EQ(selvane::GetFileSize(dir / "missing"), -1);
  EXPECT_EQ(log.startingWith("E FileUtils:getFileSize:reason=exception,what=").size(), 1u);

  // Sums files, entries relative to a root.
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
// the root, and a sums file's entries count only as regular files there.
TEST(OpenInRootTest, NeverLeavesTheRoot) {
  harness::ScratchDir dir;
  const std::string root = dir / "root";
  ASSERT_EQ(harness::shell("mkdir -p " + root + "/etc " + root + dir.path() + " && mkfifo " + root +
                           "/fifo"),
            0);
  harness::writeFile(dir / "x", "hello\n");
  harness::writeFile(root + "/etc/x", "hello\n");
  for (const auto& [name, target] : {std::pair<std::string, std::string>{"abs", dir / "x"},
                                     {"up", "../../../../../etc/x"},
                                     {"etc-link", "/etc"},
                                     {"loop", "/loop"},
                                     {"dangling", dir / "new"}})
    ASSERT_EQ(symlink(target.c_str(), (root + "/" + name).c_str()), 0) << name;
  const struct {
    std::string path;
    int flags;
    std::string expected;  // what is read, or the errno text
  } cases[] = {
      {"../../etc/./x", O_RDONLY, "hello\n"},
      {"etc-link/../etc/x", O_RDONLY, "hello\n"},
      {"up", O_RDONLY, "hello\n"},
      {"abs", O_RDONLY, std::strerror(ENOENT)},
      {"loop", O_RDONLY, std::strerror(ELOOP)},
      {"etc-link", O_RDONLY | O_NOFOLLOW, std::strerror(ELOOP)},
      {"etc/x/", O_RDONLY, std::strerror(ENOTDIR)},
      {"dangling", O_RDWR | O_CREAT | O_EXCL, std::strerror(EEXIST)},
      {"dangling", O_RDWR | O_CREAT, ""},
  };
  for (const auto& c : cases) {
    const int fd = selvane::OpenInRoot(root, c.path, c.flags | O_CLOEXEC, 0600);
    char buffer[64] = {};
    EXPECT_EQ(fd < 0                     ? std::strerror(errno)
              : read(fd, buffer, 63) < 0 ? "unreadable"
                                         : buffer,
              c.expected)
        << c.path;
    close(fd);
  }
  EXPECT_TRUE(exists(root + dir / "new"));  // the dangling link's target, inside the root
  EXPECT_FALSE(exists(dir / "new"));

  for (const auto& [entry, expected] : {std::pair<std::string, bool>{kHello + "  up", true},
                                        {kHello + "  ../etc-link/x", true},
                                        {kHello + "  abs", false},
                                        {kEmpty + "  fifo", false},
                                        {kEmpty + "  etc", false}}) {
    harness::writeFile(dir / "sums", entry);
    EXPECT_EQ(selvane::VerifySHA256SumsFile(dir / "sums", root), expected) << entry;
  }
}

// True when another process could take an exclusive record lock on path right now.
bool freeForOthers(const std::string& path) {
  const pid_t pid = fork();
  if (pid == 0) {
    struct flock probe {};
    probe.l_type = F_WRLCK;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    _exit(fd >= 0 && fcntl(fd, F_GETLK, &probe) == 0 && probe.l_type == F_UNLCK ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status == 0;
}

// An existing lock file on a read-only file system still locks (shared); a new one cannot be made.
TEST(ScopedFileLock, LocksOnAReadOnlyFileSystem) {
  SELVANE_REQUIRE_ROOT();
  harness::ScratchDir dir;
  harness::writeFile(dir / "lock", "");
  ASSERT_EQ(mount(dir.path().c_str(), dir.path().c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(mount(nullptr, dir.path().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr),
            0);
  {
    util::ScopedFileLock lock(dir / "lock", util::ScopedFileLock::LockNow);
    EXPECT_FALSE(freeForOthers(dir / "lock"));
  }
  EXPECT_TRUE(freeForOthers(dir / "lock"));
  EXPECT_NE(errorText([&] {
              util::ScopedFileLock(dir / "new", util::ScopedFileLock::LockNow);
            }).find(dir / "new: Read-only file system"),
            std::string::npos);
  ASSERT_EQ(umount(dir.path().c_str()), 0);
}

}  // namespace
