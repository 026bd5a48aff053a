#include "TargetRoot.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <vector>

#include "Failure.h"

namespace update {

const char kReleaseFile[] = "/etc/selvane-release";
const char kSanityCheckScript[] = "/usr/local/bin/ota-sanity-check.sh";

namespace {

const char kReleaseName[] = "selvane-release";
const char kReleaseTemporary[] = "selvane-release.new";
const char kOpkgInfo[] = "/var/lib/opkg/info";

// Written, bound or locked in the other root by the update or the library; their parents with them.
const char* const kWrittenPaths[] = {
    "/etc/selvane-release",
    "/etc/selvane-release.new",
    "/var/lib/opkg/lock",
    "/var/lib/opkg/status",
    "/var/lib/opkg/lists",
    "/var/lib/opkg/info",
    "/var/local/lib/selvane",
    "/proc",
    "/sys",
    "/dev",
    "/tmp",
    "/usr/local/bin/ota-sanity-check.sh",
    "/usr/bin/opkg-cl",
};

std::deque<std::string> components(const std::string& path) {
  std::deque<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    const size_t slash = std::min(path.find('/', start), path.size());
    if (slash > start) parts.push_back(path.substr(start, slash - start));
    start = slash + 1;
  }
  return parts;
}

// Follows path below root as the running system would, up to the deepest part that exists.
// Returns "" if it stays inside root, else the link (as root names it) that leads out: an
// absolute link, one with ".." above root, or one of a loop of links.
std::string linkOut(const std::string& root, const std::string& path) {
  std::deque<std::string> pending = components(path);
  std::vector<std::string> reached;  // resolved directories below root
  std::string lastLink;              // the link whose target is being followed
  int links = 0;
  while (!pending.empty()) {
    const std::string part = pending.front();
    pending.pop_front();
    if (part == ".") continue;
    std::string inside;
    for (const std::string& directory : reached) inside += "/" + directory;
    if (part == "..") {
      if (reached.empty()) return lastLink.empty() ? path : lastLink;
      reached.pop_back();
      continue;
    }
    inside += "/" + part;
    struct stat st;
    if (lstat((root + inside).c_str(), &st) != 0) return "";  // nothing further exists yet
    if (!S_ISLNK(st.st_mode)) {
      reached.push_back(part);
      continue;
    }
    std::vector<char> target(static_cast<size_t>(st.st_size) + 2);
    const ssize_t length = readlink((root + inside).c_str(), target.data(), target.size() - 1);
    if (length < 0 || ++links > 40 || target[0] == '/') return inside;
    std::deque<std::string> through = components(std::string(target.data(), length));
    pending.insert(pending.begin(), through.begin(), through.end());
    lastLink = inside;
  }
  return "";
}

// A directory of root, opened without following a link at any step.
int openDirectory(const std::string& root, const std::string& path) {
  int fd = open(root.empty() ? "/" : root.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  for (const std::string& part : components(path)) {
    if (fd < 0) break;
    const int next = openat(fd, part.c_str(), O_DIRECTORY | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    const int error = errno;
    close(fd);
    fd = next;
    errno = error;
  }
  return fd;
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd(fd) {}
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd; }

 private:
  int fd;
};

}  // namespace

void checkContained(const std::string& root) {
  std::vector<std::string> paths(std::begin(kWrittenPaths), std::end(kWrittenPaths));
  if (DIR* info = opendir((root + kOpkgInfo).c_str())) {
    while (const dirent* entry = readdir(info))
      if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
        paths.push_back(std::string(kOpkgInfo) + "/" + entry->d_name);
    closedir(info);
  }
  for (const std::string& path : paths) {
    const std::string link = linkOut(root, path);
    if (!link.empty()) {
      throw Failure(Exit::UnsafeRoot, link + " in the other root (" + root +
                                          ") is a link that leads out of it" +
                                          (link == path ? "" : " (on the way to " + path + ")") +
                                          "; nothing was written");
    }
  }
}

std::string readRelease(const std::string& root) {
  const Descriptor etc(openDirectory(root, "/etc"));
  if (etc.get() < 0) return "";
  const Descriptor file(
      openat(etc.get(), kReleaseName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (file.get() < 0 || fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return "";
  char text[256];
  const ssize_t length = read(file.get(), text, sizeof text);
  if (length <= 0) return "";
  const std::string content(text, static_cast<size_t>(length));
  return content.substr(0, content.find('\n'));
}

void writeRelease(const std::string& root, const std::string& version) {
  const std::string path = root + kReleaseFile;
  const Descriptor etc(openDirectory(root, "/etc"));
  if (etc.get() < 0)
    throw Failure(Exit::Install, "cannot open " + root + "/etc to record the release");
  unlinkat(etc.get(), kReleaseTemporary, 0);
  const Descriptor file(openat(etc.get(), kReleaseTemporary,
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  const std::string line = version + "\n";
  if (file.get() < 0 ||
      write(file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) ||
      fsync(file.get()) != 0 ||
      renameat(etc.get(), kReleaseTemporary, etc.get(), kReleaseName) != 0) {
    unlinkat(etc.get(), kReleaseTemporary, 0);
    throw Failure(Exit::Install, "cannot record the release in " + path);
  }
}

void forgetRelease(const std::string& root) {
  const Descriptor etc(openDirectory(root, "/etc"));
  if (etc.get() < 0 && errno == ENOENT) return;
  if (etc.get() < 0 || (unlinkat(etc.get(), kReleaseName, 0) != 0 && errno != ENOENT))
    throw Failure(Exit::Install, "cannot remove " + root + kReleaseFile);
}

bool hasSanityCheck(const std::string& root) {
  struct stat st;
  return lstat((root + kSanityCheckScript).c_str(), &st) == 0;
}

}  // namespace update
