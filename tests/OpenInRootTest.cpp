// OpenInRoot in a root full of links that point outside it, up and around, as a tampered root
// filesystem would hold them.
#include <fcntl.h>
#include <selvane/OpenInRoot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Harness.h"

namespace {

class OpenInRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(harness::shell("mkdir -p " + harness::quote(root() + "/etc") + " " +
                             harness::quote(dir / "made")),
              0);
    harness::writeFile(dir / "secret", "host secret");
    harness::writeFile(root() + "/secret", "root secret");
    harness::writeFile(root() + "/etc/x", "root etc/x");
    link("abs", dir / "secret");                // to the host file, by its host path
    link("up", "../../../../../../../secret");  // above the root
    link("etc-link", "/etc");                   // a directory, absolute
    link("top", "/");
    link("dev-zero", "/dev/zero");
    link("loop-a", "loop-b");
    link("loop-b", "/loop-a");
    link("dangling", dir / "made/new");
    for (int i = 0; i < 40; ++i)
      link("chain" + std::to_string(i), i == 39 ? "/etc/x" : "chain" + std::to_string(i + 1));
    link("chain-41", "chain0");
  }

  std::string root() const { return dir / "root"; }
  void link(const std::string& name, const std::string& target) {
    ASSERT_EQ(symlink(target.c_str(), (root() + "/" + name).c_str()), 0) << name;
  }
  // What the opened descriptor reads, or the errno text of a failed open.
  std::string opened(const std::string& path, int flags) {
    const int fd = selvane::OpenInRoot(root(), path, flags | O_CLOEXEC, 0600);
    if (fd < 0) return std::strerror(errno);
    char buffer[256];
    const ssize_t count = read(fd, buffer, sizeof buffer);
    close(fd);
    return count < 0 ? "read: " + std::string(std::strerror(errno)) : std::string(buffer, count);
  }

  harness::ScratchDir dir;
};

TEST_F(OpenInRootTest, LinksAndDotDotResolveInsideTheRoot) {
  const struct {
    std::string path;
    int flags;
    std::string expected;  // content read, or the errno text
  } cases[] = {
      {"/etc/x", O_RDONLY, "root etc/x"},
      {"etc/x", O_RDONLY, "root etc/x"},
      {"../../../etc/x", O_RDONLY, "root etc/x"},
      {"/etc/../../etc/./x", O_RDONLY, "root etc/x"},
      {"etc-link/x", O_RDONLY, "root etc/x"},
      {"top/top/etc-link/../etc/x", O_RDONLY, "root etc/x"},
      {"up", O_RDONLY, "root secret"},
      {"abs", O_RDONLY, std::strerror(ENOENT)},  // no such file at that path inside the root
      {"dev-zero", O_RDONLY, std::strerror(ENOENT)},
      {"loop-a", O_RDONLY, std::strerror(ELOOP)},
      {"chain0", O_RDONLY, "root etc/x"},  // 40 links
      {"chain-41", O_RDONLY, std::strerror(ELOOP)},
      {"abs", O_RDONLY | O_NOFOLLOW, std::strerror(ELOOP)},
      {"etc/x/y", O_RDONLY, std::strerror(ENOTDIR)},
      {"etc/x/", O_RDONLY, std::strerror(ENOTDIR)},
      {"", O_RDONLY, std::strerror(ENOENT)},
      {"/", O_RDONLY | O_DIRECTORY, "read: " + std::string(std::strerror(EISDIR))},
      {"dangling", O_WRONLY | O_CREAT | O_EXCL, std::strerror(EEXIST)},
  };
  for (const auto& c : cases) EXPECT_EQ(opened(c.path, c.flags), c.expected) << c.path;

  // The link to a host file reaches the file at the same path inside the root.
  ASSERT_EQ(harness::shell("mkdir -p " + harness::quote(root() + dir.path())), 0);
  harness::writeFile(root() + dir / "secret", "decoy");
  EXPECT_EQ(opened("abs", O_RDONLY), "decoy");

  // Creating through a dangling absolute link creates inside the root, and only there.
  ASSERT_EQ(harness::shell("mkdir -p " + harness::quote(root() + dir / "made")), 0);
  const int fd = selvane::OpenInRoot(root(), "dangling", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  close(fd);
  struct stat status;
  EXPECT_EQ(stat((root() + dir / "made/new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_NE(stat((dir / "made/new").c_str(), &status), 0);
}

}  // namespace
