#include "util/ScopedFileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace util {
namespace {

[[noreturn]] void fail(const char* what, const std::string& path, int err) {
  throw ScopedFileLockError(std::string(what) + " " + path + ": " + std::strerror(err));
}

// Opens the lock file for writing, creating it if need be. A lock file that exists on a read-only
// file system (or one we may not write) is still good for locking: flock() needs no write access.
int openLockFile(const std::string& path) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 && (errno == EROFS || errno == EACCES)) fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  return fd;
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
  int result;
  do {
    result = flock(fd, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    const int err = errno;
    fail("Cannot lock", path, err);
  }
  locked = true;
}

void ScopedFileLock::unlock() {
  if (!locked) return;
  flock(fd, LOCK_UN);
  locked = false;
}

}  // namespace util
