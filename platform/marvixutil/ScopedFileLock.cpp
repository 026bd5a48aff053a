#include "util/ScopedFileLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace util {
namespace {

[[noreturn]] void fail(const char* what, const std::string& path, int err) {
  throw ScopedFileLockError(std::string(what) + " " + path + ": " + std::strerror(err));
}

// Opens the lock file for writing, creating it if need be. A lock file that exists on a read-only
// file system (or one we may not write) is still good for a shared lock.
int openLockFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 && (errno == EROFS || errno == EACCES)) {
    const int first = errno;
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) errno = first;  // the file is missing because we may not make it
  }
  return fd;
}

// opkg locks its lock file with a POSIX record lock, which flock(2) would not see: take one too.
// Exclusive when the file is open for writing, shared on a read-only file system.
int setLock(int fd, short type) {
  struct flock range {};
  range.l_type = type;
  range.l_whence = SEEK_SET;
  int result;
  do {
    result = fcntl(fd, F_SETLKW, &range);
  } while (result != 0 && errno == EINTR);
  return result;
}

}  // namespace

ScopedFileLock::ScopedFileLock(const std::string& path, Deferral deferral)
    : path(path), fd(-1), locked(false) {
  if (deferral == LockNow) lock();
}

ScopedFileLock::~ScopedFileLock() {
  unlock();
  if (fd >= 0) close(fd);
}

void ScopedFileLock::lock() {
  if (locked) return;
  if (fd < 0) {
    fd = openLockFile(path);
    if (fd < 0) {
      const int err = errno;
      fail("Cannot open lock file", path, err);
    }
  }
  const bool writable = (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
  if (setLock(fd, writable ? F_WRLCK : F_RDLCK) != 0) {
    const int err = errno;
    close(fd);  // a constructor that throws runs no destructor
    fd = -1;
    fail("Cannot lock", path, err);
  }
  locked = true;
}

void ScopedFileLock::unlock() {
  if (!locked) return;
  setLock(fd, F_UNLCK);
  locked = false;
}

}  // namespace util
