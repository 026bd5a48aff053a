#include "VerifierImpl.h"

#include <archive.h>
#include <archive_entry.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cstring>
#include <stdexcept>

#include "LoadedLibraries.h"
#include "selvane/PackageVerifier.h"

namespace selvane {
namespace {

// The archive's read block size and the largest piece of member data read at once.
constexpr size_t kBlockSize = 10240;
// A search gives up after this many RETRY answers in a row.
constexpr int kMaxRetries = 4;

}  // namespace

void VerifierImpl::ContextDeleter::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_destroy(context);
}

void VerifierImpl::ArchiveDeleter::operator()(archive* handle) const {
  libarchive().read_free(handle);
}

VerifierImpl::VerifierImpl(const evp_pkey_st* key, const std::string& packagePath)
    : key(key), packagePath(packagePath) {
  struct stat status;
  if (stat(packagePath.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    throw std::runtime_error("Package file not found");

  context.reset(EVP_MD_CTX_create());
  digest = EVP_get_digestbyname(SHA1_DIGEST_NAME);
  if (!context || digest == nullptr)
    throw std::runtime_error("Unable to create openssl/libarchive objects");
  if (EVP_DigestInit_ex(context.get(), digest, nullptr) != 1)
    throw std::runtime_error("Unable to init openssl");
  if (!openArchive()) throw std::runtime_error("Unable to open archive");
}

VerifierImpl::~VerifierImpl() {
  context.reset();
  (void)closeArchive();
}

bool VerifierImpl::openArchive() {
  handle.reset(libarchive().read_new());
  if (!handle) return false;
  // Only plain ar archives: no compression filter, no other format.
  libarchive().read_support_format_ar(handle.get());
  return libarchive().read_open_filename(handle.get(), packagePath.c_str(), kBlockSize) ==
         ARCHIVE_OK;
}

bool VerifierImpl::closeArchive() { return libarchive().read_free(handle.release()) == ARCHIVE_OK; }

bool VerifierImpl::reopenArchive() { return closeArchive() && openArchive(); }

int VerifierImpl::seekToArchiveEntry(const char* name) {
  (void)reopenArchive();
  int result = -1;
  int retries = 0;
  int endsOfArchive = 0;
  while (result == -1 && endsOfArchive <= 1) {
    if (retries > kMaxRetries) return -1;
    // A handle that could not even be created counts as a broken archive.
    if (!handle) throw std::runtime_error("A fatal error occurred while parsing the archive");
    archive_entry* entry = nullptr;
    switch (libarchive().read_next_header(handle.get(), &entry)) {
      case ARCHIVE_OK:
      case ARCHIVE_WARN: {
        const char* path = libarchive().entry_pathname(entry);
        if (path != nullptr && std::strcmp(path, name) == 0) {
          result = static_cast<int32_t>(static_cast<uint32_t>(libarchive().entry_size(entry)));
        } else {
          libarchive().read_data_skip(handle.get());
        }
        retries = 0;
        break;
      }
      case ARCHIVE_RETRY:
        ++retries;
        break;
      case ARCHIVE_EOF:
        ++endsOfArchive;
        (void)reopenArchive();
        retries = 0;
        break;
      case ARCHIVE_FATAL:
        throw std::runtime_error("A fatal error occurred while parsing the archive");
      default:
        throw std::runtime_error("An unknown return code was returned while parsing the archive");
    }
  }
  return result;
}

bool VerifierImpl::addFileToVerify(const char* name) {
  if (finished) return false;
  if (seekToArchiveEntry(name) < 0) return false;
  unsigned char chunk[kBlockSize];
  la_ssize_t count;
  // A read error just ends the member: the signature check that follows fails instead.
  while ((count = libarchive().read_data(handle.get(), chunk, sizeof chunk)) > 0)
    EVP_DigestUpdate(context.get(), chunk, static_cast<size_t>(count));
  return true;
}

bool VerifierImpl::finishAndVerify() {
  finished = true;
  const int size = seekToArchiveEntry(SIGNATURE_FILE);
  if (size < 0) return false;
  // No key makes a signature longer than its own largest one, so a longer member cannot verify
  // and is refused before anything is allocated for it.
  if (key == nullptr || size > EVP_PKEY_size(key)) return false;
  buffer.assign(static_cast<size_t>(size), 0);
  const la_ssize_t count = libarchive().read_data(handle.get(), buffer.data(), buffer.size());
  bool verified = false;
  if (count > 0) {
    verified = EVP_VerifyFinal(context.get(), buffer.data(), static_cast<unsigned int>(count),
                               const_cast<evp_pkey_st*>(key)) == 1;
  }
  buffer.clear();
  buffer.shrink_to_fit();
  // A failed check leaves its reasons in OpenSSL's per-thread queue; nobody reads them here.
  ERR_clear_error();
  return verified;
}

}  // namespace selvane
