#include "KeyDirectory.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <memory>
#include <stdexcept>

namespace selvane {
namespace {

namespace fs = boost::filesystem;

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

bool isUsableDirectory(const std::string& path) {
  boost::system::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error || status.type() == fs::file_not_found) return false;
  return fs::is_directory(path, error);
}

}  // namespace

evp_pkey_st* LoadPublicKey(const std::string& keyPath) {
  struct stat status;
  if (stat(keyPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    throw std::runtime_error("Unable to find the public key file");
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_file(keyPath.c_str(), "r"));
  if (!bio) throw std::runtime_error("Unable to load the public key file");
  EVP_PKEY* key = PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr);
  if (key == nullptr) {
    ERR_clear_error();
    throw std::runtime_error("Unable to load the public key file");
  }
  return key;
}

std::vector<std::string> KeyFiles(const std::string& keyDirectory) {
  const std::runtime_error unusable(keyDirectory + " does not exist, or is not a directory");
  if (!isUsableDirectory(keyDirectory)) throw unusable;

  std::vector<std::string> files;
  boost::system::error_code error;
  fs::directory_iterator entry(keyDirectory, error), end;
  for (; !error && entry != end; entry.increment(error)) {
    const std::string path = entry->path().string();
    boost::system::error_code statusError;
    if (fs::is_regular_file(fs::status(path, statusError))) files.push_back(path);
  }
  if (error) throw unusable;
  return files;
}

}  // namespace selvane
