#include "selvane/OpenInRoot.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <deque>
#include <vector>

#include "UniqueFd.h"

namespace selvane {
namespace {

// As many links as Linux follows in one path lookup.
constexpr int kMaxLinkHops = 40;

// Puts the components of path in front of pending, in order; "" and "." name no step.
void pushComponents(const std::string& path, std::deque<std::string>& pending) {
  std::vector<std::string> components;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string name = path.substr(start, end - start);
    if (!name.empty() && name != ".") components.push_back(name);
    start = end + 1;
  }
  pending.insert(pending.begin(), components.begin(), components.end());
}

bool isSymlinkAt(int dir, const std::string& name) {
  struct stat status;
  return fstatat(dir, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

bool readLinkAt(int dir, const std::string& name, std::string& target) {
  std::vector<char> buffer(256);
  for (;;) {
    const ssize_t length = readlinkat(dir, name.c_str(), buffer.data(), buffer.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) < buffer.size()) {
      target.assign(buffer.data(), static_cast<size_t>(length));
      return true;
    }
    buffer.resize(buffer.size() * 2);
  }
}

}  // namespace

int OpenInRoot(const std::string& root, const std::string& path, int flags, mode_t mode) {
  if (path.empty()) {
    errno = ENOENT;
    return -1;
  }
  const UniqueFd rootDir(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!rootDir) return -1;
  // A trailing slash names a directory, as for open(2).
  if (path.back() == '/' && (flags & O_CREAT) == 0) flags |= O_DIRECTORY;
  std::deque<std::string> pending;
  pushComponents(path, pending);
  std::vector<UniqueFd> directories;  // the directories walked below root, innermost last
  const auto current = [&] {
    return directories.empty() ? rootDir.get() : directories.back().get();
  };
  int hops = 0;
  while (!pending.empty()) {
    const std::string name = pending.front();
    pending.pop_front();
    if (name == "..") {
      if (!directories.empty()) directories.pop_back();
      continue;
    }
    if (pending.empty()) {
      // The last component, opened as asked, but never through a link the kernel follows.
      // O_CREAT with O_EXCL refuses an existing link (EEXIST) rather than following it.
      const bool mayFollow =
          (flags & O_NOFOLLOW) == 0 && (flags & (O_CREAT | O_EXCL)) != (O_CREAT | O_EXCL);
      const int fd = openat(current(), name.c_str(), flags | O_NOFOLLOW, mode);
      const int error = errno;
      if (!mayFollow || !isSymlinkAt(current(), name)) {
        errno = error;
        return fd;
      }
      if (fd >= 0) close(fd);  // O_PATH opens the link itself
    } else {
      UniqueFd step(openat(current(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
      struct stat status;
      if (!step || fstat(step.get(), &status) != 0) return -1;
      if (S_ISDIR(status.st_mode)) {
        directories.push_back(std::move(step));
        continue;
      }
      if (!S_ISLNK(status.st_mode)) {
        errno = ENOTDIR;
        return -1;
      }
    }
    // name is a symbolic link: its target takes its place, read as the root's system reads it.
    std::string target;
    if (++hops > kMaxLinkHops) {
      errno = ELOOP;
      return -1;
    }
    if (!readLinkAt(current(), name, target)) return -1;
    if (!target.empty() && target[0] == '/') directories.clear();
    pushComponents(target, pending);
  }
  // The path ends at a directory (root itself, or after "..").
  return openat(current(), ".", flags, mode);
}

}  // namespace selvane
