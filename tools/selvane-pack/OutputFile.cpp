#include "OutputFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Error.h"

namespace pack {

void throwSystemError(const std::string& what, int error) {
  throw ToolError(what + ": " + std::strerror(error));
}

OutputFile::OutputFile(const std::string& path) : destination(path), target(path) {
  // An existing symbolic link keeps pointing at the new file: its target is what gets replaced.
  if (char* resolved = realpath(path.c_str(), nullptr)) {
    target = resolved;
    free(resolved);
  }
  std::string pattern = target + ".XXXXXX";
  fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) throwSystemError("cannot create " + path, errno);
  temporary = pattern;
}

OutputFile::~OutputFile() {
  if (fd >= 0) close(fd);
  if (!temporary.empty()) unlink(temporary.c_str());
}

void OutputFile::write(const std::string& data) {
  const char* next = data.data();
  size_t left = data.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, next, left);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throwSystemError("cannot write " + destination, errno);
    next += written;
    left -= static_cast<size_t>(written);
  }
}

void OutputFile::commit(mode_t mode) {
  if (fchmod(fd, mode) != 0 || fsync(fd) != 0)
    throwSystemError("cannot write " + destination, errno);
  const int closed = close(fd);
  fd = -1;
  if (closed != 0) throwSystemError("cannot write " + destination, errno);
  if (rename(temporary.c_str(), target.c_str()) != 0)
    throwSystemError("cannot write " + destination, errno);
  temporary.clear();
}

mode_t defaultFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace pack
