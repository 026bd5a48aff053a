// ManifestVerifier: checks a release manifest's detached signature against every trusted key of
// one key directory.
//
// The signature file holds the raw signature over the SHA-256 digest of the manifest file's bytes:
// RSA PKCS #1 v1.5, or ECDSA (P-256) as a DER ECDSA-Sig-Value; exactly what
// `openssl dgst -sha256 -sign KEY -out manifest.pb.sig manifest.pb` writes. The key directory is
// read as PackageVerifierSet reads it: every regular file (symbolic links followed, no recursion)
// is tried as a PEM public key, and files that are not keys are logged at debug level and skipped.
// The manifest is read once as a stream, whatever the number of keys; a signature file larger
// than the largest signature any key can make is refused without being read to its end.
#ifndef SELVANE_MANIFESTVERIFIER_H
#define SELVANE_MANIFESTVERIFIER_H

#include <selvane/Export.h>
#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;

namespace selvane {

class SELVANE_EXPORT ManifestVerifier {
 public:
  // Throws std::runtime_error with keyDirectory followed by " does not exist, or is not a
  // directory" when the directory cannot be used. A directory without keys makes a verifier that
  // refuses every manifest.
  explicit ManifestVerifier(const std::string& keyDirectory);
  ~ManifestVerifier();
  ManifestVerifier(const ManifestVerifier&) = delete;
  ManifestVerifier& operator=(const ManifestVerifier&) = delete;

  // True when some key verifies signaturePath as a signature of manifestPath's bytes. Never throws
  // std::runtime_error: a refusal is logged on one line and answers false.
  [[nodiscard]] bool verifyManifest(const std::string& manifestPath,
                                    const std::string& signaturePath) const;

 private:
  struct KeyDeleter {
    void operator()(evp_pkey_st* key) const;
  };

  std::vector<std::unique_ptr<evp_pkey_st, KeyDeleter>> keys;
  size_t maxSignatureSize = 0;
};

}  // namespace selvane

#endif
