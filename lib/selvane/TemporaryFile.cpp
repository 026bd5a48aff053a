#include "selvane/TemporaryFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "Log.h"

namespace selvane {

TemporaryFile::TemporaryFile() {
  char buffer[] = "/tmp/tmp.XXXXXX";
  const int fd = mkstemp(buffer);
  if (fd < 0) {
    SELVANE_LOG_W("TemporaryFile:mkstemp:errno=%d:Failed to create temporary file", errno);
    throw std::runtime_error("Failed to create temporary file");
  }
  close(fd);
  path = buffer;
}

TemporaryFile::TemporaryFile(const std::string& path, bool truncate) : path(path) {
  const int flags = O_RDWR | O_CREAT | (truncate ? O_TRUNC : O_EXCL);
  const int fd = open(path.c_str(), flags | O_CLOEXEC, 0600);
  if (fd < 0) {
    SELVANE_LOG_W("TemporaryFile:open:flags=%d,errno=%d:Failed to open file", flags, errno);
    throw std::runtime_error("Failed to create file: " + path);
  }
  close(fd);
}

TemporaryFile::~TemporaryFile() { unlink(path.c_str()); }

std::string TemporaryFile::getPath() const { return path; }

}  // namespace selvane
