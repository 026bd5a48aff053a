// Temporary files and directories that clean up after themselves.
#include <selvane/RecursiveRemovalDirectory.h>
#include <selvane/TemporaryDirectory.h>
#include <selvane/TemporaryFile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "Harness.h"

namespace {

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

template <typename Body>
std::string thrownText(Body body) {
  try {
    body();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

const std::regex kGenerated("/tmp/tmp\\.[A-Za-z0-9]{6}");

}  // namespace

TEST(TemporaryDirectory, MakesAFreshPrivateDirectoryAndRemovesItEmpty) {
  std::string path;
  {
    selvane::TemporaryDirectory dir;
    path = dir.getPath();
    EXPECT_TRUE(std::regex_match(path, kGenerated)) << path;
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0700u);
  }
  EXPECT_FALSE(exists(path));
}

TEST(TemporaryDirectory, KeepsADirectoryThatIsNotEmpty) {
  harness::LogCapture log;
  std::string path;
  {
    selvane::TemporaryDirectory dir;
    path = dir.getPath();
    harness::writeFile(path + "/left", "");
  }
  EXPECT_TRUE(exists(path + "/left"));
  EXPECT_EQ(log.texts(), (std::vector<std::string>{"W TemporaryDirectory:remove:path=" + path +
                                                   ",errno=39:Failed to erase directory"}));
  harness::shell("rm -rf '" + path + "'");
}

TEST(TemporaryDirectory, TakesAGivenPathOnlyWhenUsable) {
  harness::LogCapture log;
  harness::ScratchDir scratch;
  const std::string existing = scratch / "existing", file = scratch / "file";
  const std::string plain = scratch / "plain";
  ASSERT_EQ(mkdir(existing.c_str(), 0755), 0);
  harness::writeFile(file, "", 0755);  // searchable, so only the type check refuses it
  harness::writeFile(plain, "", 0600);

  EXPECT_EQ(thrownText([&] { selvane::TemporaryDirectory d(existing, false); }),
            "Failed to create temporary directory: " + existing);
  EXPECT_TRUE(log.contains("E TemporaryDirectory:createPath:errno=17,path=" + existing +
                           ":Failed to create directory at path"));
  EXPECT_EQ(thrownText([&] { selvane::TemporaryDirectory d(scratch / "a/b", true); }),
            "Failed to create temporary directory: " + scratch / "a/b");
  EXPECT_EQ(thrownText([&] { selvane::TemporaryDirectory d(file, true); }),
            "Cannot use path as a temporary directory:  " + file);
  EXPECT_TRUE(log.contains("E TemporaryDirectory:isdir:path=" + file + ":Path is not a directory"));
  EXPECT_EQ(thrownText([&] { selvane::TemporaryDirectory d(plain, true); }),
            "Cannot use path as a temporary directory:  " + plain);
  EXPECT_TRUE(log.contains("E TemporaryDirectory:access:errno=13,path=" + plain +
                           ":Failed to check access to file or directory"));
  EXPECT_TRUE(exists(file)) << "a refused path is left alone";
  {
    selvane::TemporaryDirectory accepted(existing, true);
    EXPECT_EQ(accepted.getPath(), existing);
  }
  EXPECT_FALSE(exists(existing)) << "an accepted directory goes too, once empty";
}

TEST(TemporaryDirectory, StoresThePathResolved) {
  harness::ScratchDir scratch;
  ASSERT_EQ(mkdir((scratch / "real").c_str(), 0755), 0);
  ASSERT_EQ(symlink("real", (scratch / "link").c_str()), 0);
  selvane::TemporaryDirectory viaLink(scratch / "link/sub", false);
  EXPECT_EQ(viaLink.getPath(), scratch / "real/sub");

  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(scratch.path().c_str()), 0);
  selvane::TemporaryDirectory relative("rel", false);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ(relative.getPath(), scratch / "rel");
}

TEST(RecursiveRemovalDirectory, RemovesEverythingBelowButNotWhatLinksPointAt) {
  harness::LogCapture log;
  harness::ScratchDir outside;
  harness::writeFile(outside / "target", "keep");
  std::string path;
  {
    selvane::RecursiveRemovalDirectory dir;
    path = dir.getPath();
    ASSERT_EQ(
        harness::shell("mkdir -p '" + path + "/a/b/c' && touch '" + path + "/a/b/c/f' '" + path +
                       "/top' && ln -s '" + outside.path() + "' '" + path +
                       "/a/dirlink' && ln -s '" + outside / "target" + "' '" + path + "/filelink'"),
        0);
  }
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(harness::readFile(outside / "target"), "keep");
  EXPECT_EQ(log.startingWith("D RecursiveRemovalDirectory:remove:file_path=").size(), 7u);
  EXPECT_TRUE(log.contains("D RecursiveRemovalDirectory:remove:file_path=" + path +
                           "/a/b/c/f:Removing file"));
}

TEST(RecursiveRemovalDirectory, AcceptsAnExistingDirectory) {
  harness::ScratchDir scratch;
  const std::string path = scratch / "scratch";
  ASSERT_EQ(harness::shell("mkdir -p '" + path + "/old' && touch '" + path + "/old/file'"), 0);
  { selvane::RecursiveRemovalDirectory dir(path, true); }
  EXPECT_FALSE(exists(path));
}

TEST(TemporaryFile, MakesAFreshEmptyFileAndUnlinksIt) {
  std::string path;
  {
    selvane::TemporaryFile file;
    path = file.getPath();
    EXPECT_TRUE(std::regex_match(path, kGenerated)) << path;
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
  }
  EXPECT_FALSE(exists(path));
}

TEST(TemporaryFile, CreatesOrEmptiesAGivenPath) {
  harness::LogCapture log;
  harness::ScratchDir scratch;
  const std::string path = scratch / "file";
  harness::writeFile(path, "old content");
  EXPECT_EQ(thrownText([&] { selvane::TemporaryFile f(path, false); }),
            "Failed to create file: " + path);
  EXPECT_EQ(
      log.texts(),
      (std::vector<std::string>{"W TemporaryFile:open:flags=194,errno=17:Failed to open file"}));
  EXPECT_EQ(harness::readFile(path), "old content") << "a refused file is left alone";
  {
    selvane::TemporaryFile emptied(path, true);
    EXPECT_EQ(harness::readFile(path), "");
  }
  EXPECT_FALSE(exists(path));
  EXPECT_EQ(thrownText([&] { selvane::TemporaryFile f(scratch / "no/dir", true); }),
            "Failed to create file: " + scratch / "no/dir");
  EXPECT_TRUE(log.contains("W TemporaryFile:open:flags=578,errno=2:Failed to open file"));
}
