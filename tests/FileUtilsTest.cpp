// File sizes and SHA-256 checks.
#include <selvane/FileUtils.h>

#include "Harness.h"

namespace {

// SHA-256 of "hello\n" and of the empty file.
const std::string kHello = "5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03";
const std::string kEmpty = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class FileUtilsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    harness::writeFile(dir / "hello", "hello\n");
    harness::writeFile(dir / "empty", "");
    harness::writeFile(dir / "with blank", "hello\n");
  }
  harness::ScratchDir dir;
};

}  // namespace

TEST_F(FileUtilsTest, GetFileSize) {
  harness::LogCapture log;
  EXPECT_EQ(selvane::GetFileSize(dir / "hello"), 6);
  EXPECT_EQ(selvane::GetFileSize(dir / "empty"), 0);
  EXPECT_EQ(selvane::GetFileSize(dir / "missing"), -1);
  const auto lines = log.startingWith(
      "E FileUtils:getFileSize:reason=exception,what=boost::filesystem::file_size: ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(dir / "missing"), std::string::npos);
  EXPECT_EQ(lines[0].substr(lines[0].size() - 25), ":Failed to get file size.");
}

TEST_F(FileUtilsTest, GetFileSizeKeepsTheLow32Bits) {
  ASSERT_EQ(harness::shell("truncate -s 4294967301 '" + dir / "big" + "'"),
            0);  // 4 GiB + 5, sparse
  EXPECT_EQ(selvane::GetFileSize(dir / "big"), 5);
}

TEST_F(FileUtilsTest, VerifySHA256Sum) {
  harness::LogCapture log;
  std::string upper = kHello;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  EXPECT_TRUE(selvane::VerifySHA256Sum(dir / "hello", kHello));
  EXPECT_TRUE(selvane::VerifySHA256Sum(dir / "hello", upper));
  EXPECT_TRUE(selvane::VerifySHA256Sum(dir / "empty", kEmpty));
  EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "hello", kEmpty));
  EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "hello", kHello.substr(1)));
  EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "hello", kHello + "0"));
  EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "hello", std::string(64, 'g')));
  EXPECT_FALSE(selvane::VerifySHA256Sum(dir / "missing", kHello));
  EXPECT_FALSE(selvane::VerifySHA256Sum("", kEmpty));
  EXPECT_TRUE(log.texts().empty()) << "single-file checks log nothing";
}

TEST_F(FileUtilsTest, VerifySHA256SumLargerThanItsBuffer) {
  ASSERT_EQ(harness::shell("head -c 100000 /dev/zero > '" + dir / "zeros" + "'"), 0);
  std::string digest;
  ASSERT_EQ(harness::shell("sha256sum '" + dir / "zeros" + "' | cut -c1-64 | tr -d '\\n'", &digest),
            0);
  EXPECT_TRUE(selvane::VerifySHA256Sum(dir / "zeros", digest));
}

TEST_F(FileUtilsTest, VerifySHA256SumsFile) {
  harness::LogCapture log;
  struct Case {
    const char* what;
    std::string content;
    bool expected;
    std::string message;  // after "filepath=<sums>:", empty when the check passes
  } cases[] = {
      {"no entries", "", true, ""},
      {"text mode", kHello + "  hello\n", true, ""},
      {"binary mode", kHello + " *hello\n", true, ""},
      {"no final line feed", kHello + "  hello\n" + kEmpty + "  empty", true, ""},
      {"blank in the path", kHello + "  with blank\n", true, ""},
      {"absolute path under the root", kHello + "  /hello\n", true, ""},
      {"trailing blank line", kHello + "  hello\n\n", false, "Unexpected end of file"},
      {"digest only", kHello, false, "Unexpected end of file"},
      {"nothing after the separator", kHello + " ", false, "Unexpected end of file"},
      {"line starts with a blank", " " + kHello + "  hello\n", false, "Failed to parse sha256sum"},
      {"tab as mode", kHello + " \thello\n", false, "Invalid mode character"},
      {"empty path", kHello + "  \n", false, "Failed to parse path"},
      {"63-digit digest", kHello.substr(1) + "  hello\n", false, "Checksum mismatch"},
      {"wrong digest", kEmpty + "  hello\n", false, "Checksum mismatch"},
      {"missing file", kHello + "  gone\n", false, "Checksum mismatch"},
      {"carriage return kept in the path", kHello + "  hello\r\n", false, "Checksum mismatch"},
      {"first failure ends the check", kEmpty + "  hello\n \n", false, "Checksum mismatch"},
  };
  const std::string sums = dir / "list.sha256sums";
  for (const Case& c : cases) {
    log.clear();
    harness::writeFile(sums, c.content);
    EXPECT_EQ(selvane::VerifySHA256SumsFile(sums, dir.path()), c.expected) << c.what;
    std::vector<std::string> expectedLog;
    if (!c.message.empty()) {
      const char level = c.message == "Checksum mismatch" ? 'W' : 'E';
      expectedLog = {std::string(1, level) + " FileUtils:VerifySHA256SumsFile:filepath=" + sums +
                         ":" + c.message,
                     "D FileUtils:VerifySHA256SumsFile:filepath=" + sums + ":Verification failed"};
    }
    EXPECT_EQ(log.texts(), expectedLog) << c.what;
  }
}

TEST_F(FileUtilsTest, VerifySHA256SumsFileWithoutARootOrAList) {
  harness::LogCapture log;
  const std::string sums = dir / "abs.sha256sums";
  harness::writeFile(sums, kHello + "  " + dir / "hello" + "\n");
  EXPECT_TRUE(selvane::VerifySHA256SumsFile(sums, ""));
  EXPECT_FALSE(selvane::VerifySHA256SumsFile(dir / "none", dir.path()));
  EXPECT_EQ(log.texts(),
            (std::vector<std::string>{"E FileUtils:VerifySHA256SumsFile:filepath=" + dir / "none" +
                                      ":Failed to open sha256sums file"}));
}

// A tampered root whose entries and links lead to files of the host that would match: each entry
// is resolved inside the root, where only regular files count.
TEST_F(FileUtilsTest, VerifySHA256SumsFileResolvesEntriesInsideTheRoot) {
  const std::string root = dir / "a/root";
  ASSERT_EQ(harness::shell("mkdir -p " + harness::quote(root + "/etc") + " " +
                           harness::quote(root + "/dev") + " && mkfifo " +
                           harness::quote(root + "/dev/fifo") + " && mkdir " +
                           harness::quote(dir / "etc")),
            0);
  harness::writeFile(dir / "etc/x", "hello\n");  // what "../../etc/x" reaches from the host
  harness::writeFile(root + "/etc/hello", "hello\n");
  for (const auto& [name, target] : {std::pair<std::string, std::string>{"host", dir / "hello"},
                                     {"zero", "/dev/zero"},
                                     {"fifo", "/dev/fifo"},
                                     {"inside", "/../etc/hello"}})
    ASSERT_EQ(symlink(target.c_str(), (root + "/" + name).c_str()), 0);
  const struct {
    std::string entry;
    bool expected;
  } cases[] = {
      {kHello + "  ../../etc/x", false}, {kHello + "  host", false},
      {kEmpty + "  zero", false},        {kEmpty + "  fifo", false},
      {kEmpty + "  /etc", false},        {kHello + "  ../../../etc/hello", true},
      {kHello + "  /inside", true},
  };
  const std::string sums = dir / "tampered.sha256sums";
  for (const auto& c : cases) {
    harness::writeFile(sums, c.entry + "\n");
    harness::LogCapture log;
    EXPECT_EQ(selvane::VerifySHA256SumsFile(sums, root), c.expected) << c.entry;
    EXPECT_EQ(log.count("W FileUtils:VerifySHA256SumsFile:filepath=" + sums + ":Checksum mismatch"),
              c.expected ? 0u : 1u)
        << c.entry;
  }
}
