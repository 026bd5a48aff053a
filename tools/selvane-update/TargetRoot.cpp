#include "TargetRoot.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <selvane/OpenInRoot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <set>
#include <stdexcept>
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

// root's /etc, reached as root's own system reaches it: links in it stay inside root.
int openEtc(const std::string& root) {
  return selvane::OpenInRoot(root.empty() ? "/" : root, "/etc", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
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

// Reading the data member of a package: the outer (ar) archive hands its bytes on.
struct ArchiveFree {
  void operator()(archive* handle) const { archive_read_free(handle); }
};
using Archive = std::unique_ptr<archive, ArchiveFree>;

struct MemberSource {
  archive* outer;
  char buffer[65536];
};

la_ssize_t readMember(archive*, void* source, const void** data) {
  MemberSource* member = static_cast<MemberSource*>(source);
  *data = member->buffer;
  return archive_read_data(member->outer, member->buffer, sizeof member->buffer);
}

// The directories the data member of package creates or writes into, below its root.
std::set<std::string> dataDirectories(const std::string& package) {
  Archive outer(archive_read_new());
  archive_read_support_format_ar(outer.get());
  if (archive_read_open_filename(outer.get(), package.c_str(), 65536) != ARCHIVE_OK)
    throw std::runtime_error(archive_error_string(outer.get()));
  archive_entry* entry = nullptr;
  while (archive_read_next_header(outer.get(), &entry) == ARCHIVE_OK) {
    if (std::strcmp(archive_entry_pathname(entry), "data.tar.gz") != 0) continue;
    auto source = std::make_unique<MemberSource>();
    source->outer = outer.get();
    Archive data(archive_read_new());
    archive_read_support_filter_gzip(data.get());
    archive_read_support_format_tar(data.get());
    if (archive_read_open(data.get(), source.get(), nullptr, readMember, nullptr) != ARCHIVE_OK)
      throw std::runtime_error(archive_error_string(data.get()));
    std::set<std::string> directories;
    int status;
    while ((status = archive_read_next_header(data.get(), &entry)) == ARCHIVE_OK) {
      const char* name = archive_entry_pathname(entry);
      std::string path = std::string("/") + (name != nullptr ? name : "");
      while (path.size() > 1 && path.back() == '/') path.pop_back();
      if (archive_entry_filetype(entry) != AE_IFDIR) path.erase(path.rfind('/'));
      directories.insert(path);
    }
    if (status != ARCHIVE_EOF) throw std::runtime_error(archive_error_string(data.get()));
    return directories;
  }
  throw std::runtime_error("no data.tar.gz");
}

}  // namespace

void checkPackagePaths(const std::string& root, const std::string& package,
                       const std::string& what) {
  std::set<std::string> directories;
  try {
    directories = dataDirectories(package);
  } catch (const std::runtime_error& e) {
    throw Failure(Exit::Install, "cannot read the files of " + what + ": " + e.what());
  }
  for (const std::string& directory : directories) {
    const std::string link = linkOut(root, directory);
    if (!link.empty()) {
      throw Failure(Exit::UnsafeRoot, link + " in the other root (" + root +
                                          ") is a link that leads out of it, where " + what +
                                          " installs " + directory + "; nothing was written");
    }
  }
}

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
  const Descriptor etc(openEtc(root));
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
  const Descriptor etc(openEtc(root));
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
  const Descriptor etc(openEtc(root));
  if (etc.get() < 0 && errno == ENOENT) return;
  if (etc.get() < 0 || (unlinkat(etc.get(), kReleaseName, 0) != 0 && errno != ENOENT))
    throw Failure(Exit::Install, "cannot remove " + root + kReleaseFile);
}

bool hasSanityCheck(const std::string& root) {
  struct stat st;
  return lstat((root + kSanityCheckScript).c_str(), &st) == 0;
}

}  // namespace update
