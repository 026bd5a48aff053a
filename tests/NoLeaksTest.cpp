// Failure paths of the process and file utilities leave no descriptor, directory or mount behind.
#include <selvane/BindMount.h>
#include <selvane/ChrootExecutor.h>
#include <selvane/FileUtils.h>
#include <selvane/RecursiveRemovalDirectory.h>
#include <selvane/TemporaryDirectory.h>
#include <selvane/TemporaryFile.h>

#include <sys/mount.h>

#include <set>

#include "Harness.h"

namespace {

std::set<std::string> tmpEntries() {
  std::string listing;
  harness::shell("ls -A /tmp", &listing);
  std::set<std::string> entries;
  size_t start = 0, end;
  while ((end = listing.find('\n', start)) != std::string::npos) {
    entries.insert(listing.substr(start, end - start));
    start = end + 1;
  }
  return entries;
}

void everyFailurePath(const harness::ScratchDir& dir) {
  harness::writeFile(dir / "file", "x", 0600);
  const char* missing[] = {"/nonexistent", nullptr};
  (void)selvane::Executor(missing, nullptr).waitExecute(0);
  (void)selvane::ChrootExecutor(dir / "no-root", missing, missing).waitExecute(0);
  (void)selvane::GetFileSize(dir / "missing");
  (void)selvane::VerifySHA256Sum(dir / "missing", std::string(64, '0'));
  (void)selvane::VerifySHA256SumsFile(dir / "missing", "");
  harness::writeFile(dir / "bad.sums", std::string(64, '0') + " \tfile\n");
  (void)selvane::VerifySHA256SumsFile(dir / "bad.sums", dir.path());
  harness::writeFile(dir / "mismatch.sums", std::string(64, '0') + "  file\n");
  (void)selvane::VerifySHA256SumsFile(dir / "mismatch.sums", dir.path());
  for (const std::string& path : {dir / "file", dir / "no/parent"}) {
    try {
      selvane::TemporaryDirectory d(path, true);
    } catch (const std::runtime_error&) {
    }
    try {
      selvane::RecursiveRemovalDirectory d(path, false);
    } catch (const std::runtime_error&) {
    }
    try {
      selvane::TemporaryFile f(path + "/below", false);
    } catch (const std::runtime_error&) {
    }
  }
  selvane::BindMount noSource(dir / "no-source", dir / "target", true);
  selvane::BindMount noDestination(dir.path(), dir / "a/b", true);
}

}  // namespace

TEST(NoLeaks, FailurePathsReleaseEverything) {
  SELVANE_REQUIRE_ROOT();
  // A /tmp of our own, so that other tests running beside this one cannot change its listing.
  ASSERT_EQ(mount("no-leaks-tmp", "/tmp", "tmpfs", 0, "mode=1777"), 0);
  harness::ScratchDir dir;
  everyFailurePath(dir);  // once to settle lazily opened library state (syslog, locale)
  const size_t descriptors = harness::openDescriptorCount();
  const size_t mounts = harness::mountsUnder("/").size();
  const std::set<std::string> before = tmpEntries();
  everyFailurePath(dir);
  EXPECT_EQ(harness::openDescriptorCount(), descriptors);
  EXPECT_EQ(harness::mountsUnder("/").size(), mounts);
  EXPECT_EQ(tmpEntries(), before);
}
