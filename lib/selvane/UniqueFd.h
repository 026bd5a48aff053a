// UniqueFd: owns one file descriptor and closes it when it goes (internal, not installed).
#ifndef SELVANE_UNIQUEFD_H
#define SELVANE_UNIQUEFD_H

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace selvane {

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }

  int get() const { return fd; }
  explicit operator bool() const { return fd >= 0; }
  int release() {
    const int owned = fd;
    fd = -1;
    return owned;
  }
  void reset(int next = -1) {
    if (fd >= 0) close(fd);
    fd = next;
  }

 private:
  int fd;
};

// Reads until size bytes are in or the file ends, retrying on EINTR. The count, or -1 on an error.
inline ssize_t ReadFully(int fd, void* buffer, size_t size) {
  size_t total = 0;
  while (total < size) {
    const ssize_t count = read(fd, static_cast<char*>(buffer) + total, size - total);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    total += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(total);
}

}  // namespace selvane

#endif
