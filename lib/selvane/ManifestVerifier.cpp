#include "selvane/ManifestVerifier.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include "KeyDirectory.h"
#include "Log.h"
#include "UniqueFd.h"

namespace selvane {
namespace {

constexpr size_t kReadSize = 32768;

struct ContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestVerifier = std::unique_ptr<EVP_MD_CTX, ContextDeleter>;

off_t regularFileSize(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : -1;
}

UniqueFd openForReading(const std::string& path) {
  return UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
}

// Why a signature file cannot be a signature, as logged.
struct Refusal {
  const char* reason;
  const char* text;
};
const Refusal kUnreadable{"unreadableSignature", "Unable to read the signature"};
const Refusal kTooLarge{"signatureTooLarge", "The signature is larger than any key's"};
const Refusal kEmpty{"emptySignature", "The signature is empty"};

// Reads a signature of at most maxSize bytes into signature; on failure, the reason.
const Refusal* readSignature(const std::string& path, size_t maxSize,
                             std::vector<unsigned char>& signature) {
  const UniqueFd file = openForReading(path);
  const off_t size = file ? regularFileSize(file.get()) : -1;
  if (size < 0) return &kUnreadable;
  if (static_cast<uintmax_t>(size) > maxSize) return &kTooLarge;
  // One byte more than any key's signature tells a file that grew meanwhile.
  signature.resize(maxSize + 1);
  const ssize_t count = ReadFully(file.get(), signature.data(), signature.size());
  if (count < 0) return &kUnreadable;
  if (static_cast<size_t>(count) > maxSize) return &kTooLarge;
  if (count == 0) return &kEmpty;
  signature.resize(static_cast<size_t>(count));
  return nullptr;
}

}  // namespace

void ManifestVerifier::KeyDeleter::operator()(evp_pkey_st* key) const { EVP_PKEY_free(key); }

ManifestVerifier::ManifestVerifier(const std::string& keyDirectory) {
  for (const std::string& path : KeyFiles(keyDirectory)) {
    try {
      keys.emplace_back(LoadPublicKey(path));
      const size_t size = static_cast<size_t>(std::max(EVP_PKEY_get_size(keys.back().get()), 0));
      maxSignatureSize = std::max(maxSignatureSize, size);
      SELVANE_LOG_D("ManifestVerifier:ManifestVerifier:reason=success,path=%s:Loaded this key file",
                    path.c_str());
    } catch (const std::runtime_error& e) {
      SELVANE_LOG_D(
          "ManifestVerifier:ManifestVerifier:reason=invalidKey,path=%s:Unable to load this key "
          "file: %s",
          path.c_str(), e.what());
    }
  }
}

ManifestVerifier::~ManifestVerifier() = default;

bool ManifestVerifier::verifyManifest(const std::string& manifestPath,
                                      const std::string& signaturePath) const {
  if (keys.empty()) {
    SELVANE_LOG_E("ManifestVerifier:verifyManifest:reason=noKeys,manifest=%s:No key to verify with",
                  manifestPath.c_str());
    return false;
  }
  std::vector<unsigned char> signature;
  if (const Refusal* refusal = readSignature(signaturePath, maxSignatureSize, signature)) {
    SELVANE_LOG_E("ManifestVerifier:verifyManifest:reason=%s,signature=%s,limit=%zu:%s",
                  refusal->reason, signaturePath.c_str(), maxSignatureSize, refusal->text);
    return false;
  }

  // One verification per key, all fed from a single pass over the manifest.
  std::vector<DigestVerifier> verifiers;
  for (const auto& key : keys) {
    DigestVerifier context(EVP_MD_CTX_new());
    if (context &&
        EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1)
      verifiers.push_back(std::move(context));
  }
  ERR_clear_error();

  const UniqueFd manifest = openForReading(manifestPath);
  std::vector<unsigned char> buffer(kReadSize);
  ssize_t count = manifest ? 0 : -1;
  while (manifest && (count = ReadFully(manifest.get(), buffer.data(), buffer.size())) > 0) {
    for (const DigestVerifier& verifier : verifiers)
      EVP_DigestVerifyUpdate(verifier.get(), buffer.data(), static_cast<size_t>(count));
  }
  if (count < 0) {
    SELVANE_LOG_E(
        "ManifestVerifier:verifyManifest:reason=unreadableManifest,manifest=%s,errno=%d:Unable "
        "to read the manifest",
        manifestPath.c_str(), errno);
    return false;
  }
  for (const DigestVerifier& verifier : verifiers) {
    if (EVP_DigestVerifyFinal(verifier.get(), signature.data(), signature.size()) == 1) return true;
  }
  ERR_clear_error();
  SELVANE_LOG_W(
      "ManifestVerifier:verifyManifest:reason=badSignature,manifest=%s,signature=%s:No key "
      "verifies the manifest",
      manifestPath.c_str(), signaturePath.c_str());
  return false;
}

}  // namespace selvane
