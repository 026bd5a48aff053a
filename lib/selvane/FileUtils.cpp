#include "selvane/FileUtils.h"

#include <fcntl.h>
#include <openssl/sha.h>
#include <selvane/OpenInRoot.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <memory>
#include <utility>

#include "Log.h"
#include "UniqueFd.h"

namespace selvane {
namespace {

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

constexpr size_t kReadSize = 32768;

// Reads one entry's fields; returns the message to log at E level when the entry is malformed.
const char* readEntry(std::istream& in, std::string& digest, std::string& path, bool& atEnd) {
  atEnd = false;
  if (!std::getline(in, digest, ' ')) {
    if (digest.empty()) {
      atEnd = true;
      return nullptr;
    }
    return "Unexpected end of file";
  }
  if (digest.empty()) return "Failed to parse sha256sum";
  char mode;
  if (!in.get(mode)) return "Unexpected end of file";
  if (mode != ' ' && mode != '*') return "Invalid mode character";
  if (!std::getline(in, path)) return "Unexpected end of file";
  if (path.empty()) return "Failed to parse path";
  return nullptr;
}

// True when the SHA-256 of the rest of file equals expectedHex (64 hex digits, any case). A read
// error ends the file; a null file matches nothing.
bool digestMatches(FILE* file, std::string expectedHex) {
  if (file == nullptr || expectedHex.size() != 2 * SHA256_DIGEST_LENGTH) return false;
  for (char& c : expectedHex) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  SHA256_CTX context;
  SHA256_Init(&context);
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kReadSize]);
  size_t count;
  while ((count = std::fread(buffer.get(), 1, kReadSize, file)) > 0) {
    SHA256_Update(&context, buffer.get(), count);
  }
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256_Final(digest, &context);

  static const char kHex[] = "0123456789abcdef";
  for (size_t i = 0; i < SHA256_DIGEST_LENGTH; ++i) {
    if (kHex[digest[i] >> 4] != expectedHex[2 * i] ||
        kHex[digest[i] & 0xF] != expectedHex[2 * i + 1])
      return false;
  }
  return true;
}

// The file that path names inside root, as the root's own system resolves it, or null unless it
// is a regular file. The type is checked before the file is opened for reading, so that no device
// or FIFO in a tampered root is ever opened.
File openRegularFileInRoot(const std::string& root, const std::string& path) {
  struct stat probed, opened;
  const UniqueFd probe(OpenInRoot(root, path, O_PATH | O_CLOEXEC));
  if (!probe || fstat(probe.get(), &probed) != 0 || !S_ISREG(probed.st_mode)) return nullptr;
  UniqueFd fd(OpenInRoot(root, path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd || fstat(fd.get(), &opened) != 0 || opened.st_dev != probed.st_dev ||
      opened.st_ino != probed.st_ino)
    return nullptr;
  File file(fdopen(fd.get(), "rb"));
  if (file) fd.release();
  return file;
}

}  // namespace

int32_t GetFileSize(const std::string& path) {
  try {
    return static_cast<int32_t>(static_cast<uint32_t>(boost::filesystem::file_size(path)));
  } catch (const std::exception& e) {
    SELVANE_LOG_E("FileUtils:getFileSize:reason=exception,what=%s:Failed to get file size.",
                  e.what());
    return -1;
  }
}

bool VerifySHA256Sum(const std::string& path, std::string expectedHex) {
  if (expectedHex.size() != 2 * SHA256_DIGEST_LENGTH || path.empty()) return false;
  const File file(std::fopen(path.c_str(), "rbe"));
  return file && digestMatches(file.get(), std::move(expectedHex));
}

bool VerifySHA256SumsFile(const std::string& sumsFile, const std::string& root) {
  std::ifstream in(sumsFile);
  if (!in) {
    SELVANE_LOG_E("FileUtils:VerifySHA256SumsFile:filepath=%s:Failed to open sha256sums file",
                  sumsFile.c_str());
    return false;
  }
  for (;;) {
    std::string digest, path;
    bool atEnd;
    if (const char* problem = readEntry(in, digest, path, atEnd)) {
      SELVANE_LOG_E("FileUtils:VerifySHA256SumsFile:filepath=%s:%s", sumsFile.c_str(), problem);
      break;
    }
    if (atEnd) return true;
    const bool matches = root.empty()
                             ? VerifySHA256Sum(path, digest)
                             : digestMatches(openRegularFileInRoot(root, path).get(), digest);
    if (!matches) {
      SELVANE_LOG_W("FileUtils:VerifySHA256SumsFile:filepath=%s:Checksum mismatch",
                    sumsFile.c_str());
      break;
    }
  }
  SELVANE_LOG_D("FileUtils:VerifySHA256SumsFile:filepath=%s:Verification failed", sumsFile.c_str());
  return false;
}

}  // namespace selvane
