#include "selvane/TemporaryDirectory.h"

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "Log.h"

namespace selvane {
namespace {

[[noreturn]] void throwUnusable(const std::string& path) {
  throw std::runtime_error("Cannot use path as a temporary directory:  " + path);
}

// An existing directory is usable when we may read, write and search it.
void checkUsable(const std::string& path) {
  if (access(path.c_str(), R_OK | W_OK | X_OK) != 0) {
    SELVANE_LOG_E(
        "TemporaryDirectory:access:errno=%d,path=%s:Failed to check access to file or directory",
        errno, path.c_str());
    throwUnusable(path);
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    SELVANE_LOG_E(
        "TemporaryDirectory:stat:errno=%d,path=%s:Failed to stat existing file or directory", errno,
        path.c_str());
    throwUnusable(path);
  }
  if (!S_ISDIR(st.st_mode)) {
    SELVANE_LOG_E("TemporaryDirectory:isdir:path=%s:Path is not a directory", path.c_str());
    throwUnusable(path);
  }
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  char buffer[] = "/tmp/tmp.XXXXXX";
  if (mkdtemp(buffer) == nullptr) {
    SELVANE_LOG_E("TemporaryDirectory:create:errno=%d:Failed to create directory", errno);
    throw std::runtime_error("Failed to create temporary directory");
  }
  path = buffer;
}

TemporaryDirectory::TemporaryDirectory(const std::string& path, bool allowExisting) : path(path) {
  if (mkdir(path.c_str(), 0700) != 0) {
    const int err = errno;
    if (err != EEXIST || !allowExisting) {
      SELVANE_LOG_E(
          "TemporaryDirectory:createPath:errno=%d,path=%s:Failed to create directory at path", err,
          path.c_str());
      throw std::runtime_error("Failed to create temporary directory: " + path);
    }
    checkUsable(path);
  }
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) {
    SELVANE_LOG_E(
        "TemporaryDirectory:realpath:path=%s,errno=%d:Failed to determine the absolute path",
        path.c_str(), errno);
    removeDirectory();
    return;
  }
  this->path = resolved;
}

TemporaryDirectory::~TemporaryDirectory() { removeDirectory(); }

std::string TemporaryDirectory::getPath() const { return path; }

void TemporaryDirectory::removeDirectory() const {
  if (rmdir(path.c_str()) != 0) {
    SELVANE_LOG_W("TemporaryDirectory:remove:path=%s,errno=%d:Failed to erase directory",
                  path.c_str(), errno);
  }
}

}  // namespace selvane
