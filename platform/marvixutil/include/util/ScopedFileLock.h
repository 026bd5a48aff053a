// util::ScopedFileLock: an advisory whole-file lock held for as long as the object lives.
//
// The lock file is opened (and created if it is missing and the directory allows it) and locked
// with a POSIX record lock over the whole file, the kind opkg takes on its own lock file: exclusive,
// or shared when the file can only be opened for reading (a read-only file system). Taking the
// lock blocks until other processes' conflicting locks are gone. Record locks belong to the
// process: a second lock on the same file within one process does not wait, and closing any
// descriptor of the file releases them. The destructor releases the lock and closes the file; the
// file itself is left in place. A lock file that cannot be opened or locked makes the constructor
// (or lock()) throw ScopedFileLockError with a message that names the path and the reason.
#ifndef UTIL_SCOPEDFILELOCK_H
#define UTIL_SCOPEDFILELOCK_H

#include <stdexcept>
#include <string>

namespace util {

class ScopedFileLockError : public std::runtime_error {
 public:
  explicit ScopedFileLockError(const std::string& message) : std::runtime_error(message) {}
};

class ScopedFileLock {
 public:
  // Whether the constructor takes the lock (LockNow, 0) or leaves it to lock() (DeferLock).
  enum Deferral { LockNow = 0, DeferLock = 1 };

  ScopedFileLock(const std::string& path, Deferral deferral);
  ~ScopedFileLock();
  ScopedFileLock(const ScopedFileLock&) = delete;
  ScopedFileLock& operator=(const ScopedFileLock&) = delete;

  // Blocks until the lock is held; does nothing if it already is. Throws ScopedFileLockError.
  void lock();
  // Releases the lock; the file stays open for a later lock().
  void unlock();
  bool isLocked() const { return locked; }
  const std::string& getPath() const { return path; }

 private:
  std::string path;
  int fd;
  bool locked;
};

}  // namespace util

#endif
