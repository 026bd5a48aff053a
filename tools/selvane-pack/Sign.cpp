// selvane-pack sign and sign-manifest. A package's signature is made over exactly the digest that
// the library's verifier computes, because the same code computes it; a manifest's is the plain
// SHA-256 signature of its bytes that ManifestVerifier and `openssl dgst -sha256 -verify` check.
#include <archive.h>
#include <archive_entry.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <selvane/Manifest.h>
#include <selvane/PackageVerifier.h>
#include <selvane/VerifierImpl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "Commands.h"
#include "Error.h"
#include "FileChunks.h"
#include "OutputFile.h"
#include "PackageReader.h"

namespace pack {
namespace {

constexpr size_t kChunkSize = 10240;

struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

struct WriterDeleter {
  void operator()(archive* handle) const { archive_write_free(handle); }
};

struct SignContextDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

struct EntryDeleter {
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

Key loadPrivateKey(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throwSystemError("cannot read key file " + path, errno);
  if (!S_ISREG(status.st_mode)) throw ToolError("cannot read key file " + path + ": not a file");
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new_file(path.c_str(), "r"));
  if (!bio) throwSystemError("cannot read key file " + path, errno);
  Key key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
  if (!key) throw ToolError(path + " is not a PEM private key");
  return key;
}

std::vector<unsigned char> signMembers(EVP_PKEY* key, const std::string& packagePath) {
  try {
    selvane::VerifierImpl digest(nullptr, packagePath);
    for (const char* member : {DEB_BINARY_FILE, CONTROL_FILE, DATA_FILE}) {
      if (!digest.addFileToVerify(member))
        throw ToolError(packagePath + " is not a package: it has no member " + member);
    }
    std::vector<unsigned char> signature(static_cast<size_t>(EVP_PKEY_size(key)));
    unsigned int length = 0;
    const int signedOk = EVP_SignFinal(digest.digestContext(), signature.data(), &length, key);
    ERR_clear_error();
    if (signedOk != 1) throw ToolError("cannot sign " + packagePath + " with this key");
    signature.resize(length);
    return signature;
  } catch (const ToolError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw ToolError(packagePath + " is not a package: " + e.what());
  }
}

// The SHA-256 signature of the file's bytes: RSA PKCS #1 v1.5, or DER-encoded ECDSA.
std::string signFile(EVP_PKEY* key, const std::string& keyPath, const std::string& path) {
  const int type = EVP_PKEY_get_base_id(key);
  if (type != EVP_PKEY_RSA && type != EVP_PKEY_EC)
    throw ToolError(keyPath + " is neither an RSA nor an ECDSA key");
  std::unique_ptr<EVP_MD_CTX, SignContextDeleter> context(EVP_MD_CTX_new());
  if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1) {
    ERR_clear_error();
    throw ToolError("cannot sign with " + keyPath);
  }
  readFileInChunks(path, [&](const unsigned char* data, size_t size) {
    EVP_DigestSignUpdate(context.get(), data, size);
  });
  size_t length = 0;
  std::string signature;
  if (EVP_DigestSignFinal(context.get(), nullptr, &length) == 1) {
    signature.resize(length);
    if (EVP_DigestSignFinal(context.get(), reinterpret_cast<unsigned char*>(signature.data()),
                            &length) != 1)
      length = 0;
  }
  ERR_clear_error();
  if (length == 0) throw ToolError("cannot sign " + path + " with " + keyPath);
  signature.resize(length);
  return signature;
}

class ArchiveWriter {
 public:
  ArchiveWriter(int fd, const std::string& path) : path(path), writer(archive_write_new()) {
    if (!writer) throw ToolError("out of memory");
    archive_write_set_format_ar_svr4(writer.get());
    archive_write_add_filter_none(writer.get());
    archive_write_set_bytes_in_last_block(writer.get(), 1);
    check(archive_write_open_fd(writer.get(), fd));
  }

  void header(archive_entry* entry) { check(archive_write_header(writer.get(), entry)); }

  void data(const void* bytes, size_t size) {
    if (archive_write_data(writer.get(), bytes, size) != static_cast<la_ssize_t>(size)) fail();
  }

  void close() { check(archive_write_close(writer.get())); }

 private:
  void check(int result) {
    if (result != ARCHIVE_OK) fail();
  }
  [[noreturn]] void fail() {
    const char* text = archive_error_string(writer.get());
    throw ToolError("cannot write " + path + ": " + (text != nullptr ? text : "archive error"));
  }

  std::string path;
  std::unique_ptr<archive, WriterDeleter> writer;
};

// Copies every member but the old signature, then appends the new one.
void writeSignedPackage(const std::string& packagePath, const std::vector<unsigned char>& signature,
                        int fd, const std::string& outputPath) {
  PackageReader reader(packagePath);
  ArchiveWriter writer(fd, outputPath);
  std::vector<unsigned char> chunk(kChunkSize);
  while (reader.next()) {
    if (reader.name() == SIGNATURE_FILE) continue;
    // ar headers may give permissions without a file type; the writer wants one.
    archive_entry_set_filetype(reader.entry(), AE_IFREG);
    writer.header(reader.entry());
    while (const size_t count = reader.read(chunk.data(), chunk.size()))
      writer.data(chunk.data(), count);
  }
  std::unique_ptr<archive_entry, EntryDeleter> entry(archive_entry_new());
  archive_entry_set_pathname(entry.get(), SIGNATURE_FILE);
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), 0644);
  archive_entry_set_size(entry.get(), static_cast<la_int64_t>(signature.size()));
  writer.header(entry.get());
  writer.data(signature.data(), signature.size());
  writer.close();
}

}  // namespace

void signPackage(const std::string& keyPath, const std::string& packagePath,
                 const std::string& outputPath) {
  const Key key = loadPrivateKey(keyPath);
  const std::vector<unsigned char> signature = signMembers(key.get(), packagePath);

  // The signed package keeps the permissions of the one it was made from.
  struct stat status;
  if (stat(packagePath.c_str(), &status) != 0)
    throwSystemError("cannot read " + packagePath, errno);
  OutputFile output(outputPath);
  writeSignedPackage(packagePath, signature, output.descriptor(), outputPath);
  output.commit(status.st_mode & 07777);
}

void signManifest(const std::string& keyPath, const std::string& manifestPath,
                  const std::string& outputPath) {
  const Key key = loadPrivateKey(keyPath);
  try {
    selvane::Manifest manifest(manifestPath);  // only a manifest that devices can read is signed
  } catch (const std::runtime_error& e) {
    throw ToolError(e.what());
  }
  OutputFile output(outputPath);
  output.write(signFile(key.get(), keyPath, manifestPath));
  output.commit(defaultFileMode());
}

}  // namespace pack
