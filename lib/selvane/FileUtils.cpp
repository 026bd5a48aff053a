#include "selvane/FileUtils.h"

#include <openssl/sha.h>

#include <boost/filesystem.hpp>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <memory>

#include "Log.h"

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
  for (char& c : expectedHex) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

  File file(std::fopen(path.c_str(), "rbe"));
  if (!file) return false;
  SHA256_CTX context;
  SHA256_Init(&context);
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kReadSize]);
  size_t count;
  while ((count = std::fread(buffer.get(), 1, kReadSize, file.get())) > 0) {
    SHA256_Update(&context, buffer.get(), count);
  }
  file.reset();
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
    if (!VerifySHA256Sum(root.empty() ? path : root + "/" + path, digest)) {
      SELVANE_LOG_W("FileUtils:VerifySHA256SumsFile:filepath=%s:Checksum mismatch",
                    sumsFile.c_str());
      break;
    }
  }
  SELVANE_LOG_D("FileUtils:VerifySHA256SumsFile:filepath=%s:Verification failed", sumsFile.c_str());
  return false;
}

}  // namespace selvane
