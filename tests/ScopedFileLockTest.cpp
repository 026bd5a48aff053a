// util::ScopedFileLock, the platform's advisory file lock, seen from another process.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <util/ScopedFileLock.h>

#include <string>

#include "ErrorText.h"
#include "Harness.h"

namespace {

// True when another process could take an exclusive record lock on path right now.
bool freeForOthers(const std::string& path) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    _exit(fd >= 0 && fcntl(fd, F_GETLK, &probe) == 0 && probe.l_type == F_UNLCK ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(ScopedFileLock, HoldsTheFileForItsLifetime) {
  harness::ScratchDir dir;
  const std::string path = dir / "lock";
  {
    util::ScopedFileLock lock(path, util::ScopedFileLock::LockNow);
    EXPECT_TRUE(lock.isLocked());
    EXPECT_FALSE(freeForOthers(path));
  }
  EXPECT_TRUE(freeForOthers(path));

  util::ScopedFileLock deferred(path, util::ScopedFileLock::DeferLock);
  EXPECT_TRUE(freeForOthers(path));
  deferred.lock();
  deferred.lock();  // a second call changes nothing
  EXPECT_FALSE(freeForOthers(path));
  deferred.unlock();
  EXPECT_TRUE(freeForOthers(path));
}

TEST(ScopedFileLock, ErrorsNameThePathAndTheReason) {
  harness::ScratchDir dir;
  const std::pair<std::string, const char*> cases[] = {
      {dir / "missing/lock", "No such file or directory"}, {dir.path(), "Is a directory"}};
  for (const auto& [path, reason] : cases) {
    const std::string message =
        fixtures::errorText([&] { util::ScopedFileLock(path, util::ScopedFileLock::LockNow); });
    EXPECT_NE(message.find(path), std::string::npos) << message;
    EXPECT_NE(message.find(reason), std::string::npos) << message;
  }
}

TEST(ScopedFileLock, LocksAnExistingFileOnAReadOnlyFileSystem) {
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
  EXPECT_THROW(util::ScopedFileLock(dir / "new", util::ScopedFileLock::LockNow),
               util::ScopedFileLockError);
  ASSERT_EQ(umount(dir.path().c_str()), 0);
}

}  // namespace
