#include "selvane/PackageVerifier.h"

#include <openssl/bio.h>
#include <openssl/conf.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <stdexcept>

#include "Log.h"
#include "VerifierImpl.h"

const char* DEB_BINARY_FILE = "debian-binary";
const char* CONTROL_FILE = "control.tar.gz";
const char* DATA_FILE = "data.tar.gz";
const char* SIGNATURE_FILE = "signature";
const char* SHA1_DIGEST_NAME = "SHA1";

namespace {

// OpenSSL's tables are set up once when the library is loaded: the digest lookup by name
// depends on it.
__attribute__((constructor)) void PackageVerifierInit() {
  OPENSSL_config(nullptr);
  OpenSSL_add_all_digests();
  ERR_load_crypto_strings();
}

__attribute__((destructor)) void PackageVerifierFinal() { EVP_cleanup(); }

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

}  // namespace

namespace selvane {

void PackageVerifier::KeyDeleter::operator()(evp_pkey_st* key) const { EVP_PKEY_free(key); }

PackageVerifier::PackageVerifier(const std::string& keyPath) : keyPath(keyPath) {
  struct stat status;
  if (stat(keyPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    throw std::runtime_error("Unable to find the public key file");
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_file(keyPath.c_str(), "r"));
  if (!bio) throw std::runtime_error("Unable to load the public key file");
  publicKey.reset(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr));
  if (!publicKey) {
    ERR_clear_error();
    throw std::runtime_error("Unable to load the public key file");
  }
}

PackageVerifier::~PackageVerifier() = default;

bool PackageVerifier::verifyPackage(const std::string& packagePath) {
  try {
    VerifierImpl impl(publicKey.get(), packagePath);
    for (const char* member : {DEB_BINARY_FILE, CONTROL_FILE, DATA_FILE}) {
      if (!impl.addFileToVerify(member)) {
        SELVANE_LOG_D("PackageVerifier:FailedToAddFile:file=%s:", member);
        return false;
      }
    }
    return impl.finishAndVerify();
  } catch (const std::runtime_error& e) {
    SELVANE_LOG_E(
        "PackageVerifier:verifyPackage:reason=VerifierFailed,result=Bad,package=%s,"
        "detail=%s:",
        packagePath.c_str(), e.what());
    return false;
  }
}

}  // namespace selvane
