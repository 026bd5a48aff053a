// VerifierImpl: the work of checking one package file's signature (internal, not installed).
//
// One object serves one verification: the constructor opens the package as an ar archive and
// prepares a SHA-1 digest, addFileToVerify() feeds the data of one member into the digest and
// finishAndVerify() checks the "signature" member against it. Every member search reopens the
// archive and scans it from the start, so members may be asked for in any order, and member data
// streams through one fixed buffer: memory use does not depend on the package's size. Archive
// errors throw std::runtime_error with a fixed text; PackageVerifier turns them into false.
//
// selvane-pack digests packages with this class too, so that what it signs is exactly what the
// verifier checks.
#ifndef SELVANE_VERIFIERIMPL_H
#define SELVANE_VERIFIERIMPL_H

#include <memory>
#include <string>
#include <vector>

struct archive;
struct evp_md_ctx_st;
struct evp_md_st;
struct evp_pkey_st;

namespace selvane {

class VerifierImpl {
 public:
  // Throws std::runtime_error: "Package file not found", "Unable to create openssl/libarchive
  // objects", "Unable to init openssl" or "Unable to open archive".
  VerifierImpl(const evp_pkey_st* key, const std::string& packagePath);
  ~VerifierImpl();
  VerifierImpl(const VerifierImpl&) = delete;
  VerifierImpl& operator=(const VerifierImpl&) = delete;

  [[nodiscard]] bool openArchive();
  [[nodiscard]] bool closeArchive();
  [[nodiscard]] bool reopenArchive();

  // Positions the archive at the data of member name and returns the member's size (cut to a
  // signed 32-bit number), or -1 when no such member is found. Throws std::runtime_error on a
  // fatal or unexpected archive error.
  int seekToArchiveEntry(const char* name);

  // Feeds the data of member name into the digest. False when finished or the member is missing.
  [[nodiscard]] bool addFileToVerify(const char* name);

  // Checks the "signature" member against the digest of the members added so far.
  [[nodiscard]] bool finishAndVerify();

  // The digest of the members added so far, for signing them.
  evp_md_ctx_st* digestContext() { return context.get(); }

 private:
  struct ContextDeleter {
    void operator()(evp_md_ctx_st* context) const;
  };
  struct ArchiveDeleter {
    void operator()(archive* handle) const;
  };

  std::unique_ptr<evp_md_ctx_st, ContextDeleter> context;
  const evp_md_st* digest = nullptr;
  std::unique_ptr<archive, ArchiveDeleter> handle;
  const evp_pkey_st* key;
  std::string packagePath;
  std::vector<unsigned char> buffer;
  bool finished = false;
};

}  // namespace selvane

#endif
