// selvane-pack manifest: describes a release's package files in one manifest file.
#include <archive.h>
#include <archive_entry.h>
#include <openssl/evp.h>
#include <selvane/Manifest.h>
#include <selvane/PackageVerifier.h>
#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <list>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include "Commands.h"
#include "Error.h"
#include "FileChunks.h"
#include "OutputFile.h"
#include "PackageReader.h"

namespace pack {
namespace {

constexpr size_t kChunkSize = 65536;
// Control files are a few hundred bytes; anything this large is not one.
constexpr size_t kMaxControlSize = 1 << 20;

struct PackageInfo {
  std::string name;
  std::string version;
  bool signedPackage = false;
};

struct ReaderDeleter {
  void operator()(archive* handle) const { archive_read_free(handle); }
};

// Feeds the data of the package's current member to a nested archive reader.
struct MemberSource {
  PackageReader* package;
  std::vector<unsigned char> chunk = std::vector<unsigned char>(kChunkSize);
};

la_ssize_t readMember(archive* inner, void* client, const void** buffer) {
  auto* source = static_cast<MemberSource*>(client);
  const la_ssize_t count =
      archive_read_data(source->package->handle(), source->chunk.data(), source->chunk.size());
  if (count < 0) archive_set_error(inner, EIO, "damaged %s member", CONTROL_FILE);
  *buffer = source->chunk.data();
  return count;
}

// The text of the "control" file inside the control.tar.gz member the package is positioned at.
std::string controlText(PackageReader& package) {
  std::unique_ptr<archive, ReaderDeleter> inner(archive_read_new());
  if (!inner) throw ToolError("out of memory");
  archive_read_support_filter_gzip(inner.get());
  archive_read_support_format_tar(inner.get());
  MemberSource source{&package};
  if (archive_read_open(inner.get(), &source, nullptr, readMember, nullptr) != ARCHIVE_OK)
    package.fail(std::string(CONTROL_FILE) + " is not a gzip-compressed tar archive");
  archive_entry* entry;
  int result;
  while ((result = archive_read_next_header(inner.get(), &entry)) == ARCHIVE_OK) {
    const std::string name = archive_entry_pathname(entry) ? archive_entry_pathname(entry) : "";
    if (name != "./control" && name != "control") continue;
    if (archive_entry_size(entry) > static_cast<la_int64_t>(kMaxControlSize))
      package.fail("its control file is too large");
    std::string text(static_cast<size_t>(archive_entry_size(entry)), '\0');
    if (archive_read_data(inner.get(), text.data(), text.size()) !=
        static_cast<la_ssize_t>(text.size()))
      package.fail("its control file cannot be read");
    return text;
  }
  package.fail(result == ARCHIVE_EOF ? std::string(CONTROL_FILE) + " has no control file"
                                     : std::string(CONTROL_FILE) + " is damaged");
}

// The value of a control field (names compare without regard to case), or "".
std::string controlField(const std::string& text, const std::string& field) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const size_t colon = line.find(':');
    if (colon != field.size() || strncasecmp(line.c_str(), field.c_str(), colon) != 0) continue;
    const size_t start = line.find_first_not_of(" \t", colon + 1);
    const size_t end = line.find_last_not_of(" \t\r");
    return start == std::string::npos ? "" : line.substr(start, end - start + 1);
  }
  return "";
}

PackageInfo inspectPackage(const std::string& path) {
  PackageReader package(path);
  std::map<std::string, bool> seen{
      {DEB_BINARY_FILE, false}, {CONTROL_FILE, false}, {DATA_FILE, false}, {SIGNATURE_FILE, false}};
  PackageInfo info;
  while (package.next()) {
    const auto member = seen.find(package.name());
    if (member == seen.end() || member->second) continue;
    member->second = true;
    if (member->first != CONTROL_FILE) continue;
    const std::string control = controlText(package);
    info.name = controlField(control, "Package");
    info.version = controlField(control, "Version");
    if (info.name.empty() || info.version.empty())
      package.fail("its control file lacks the Package or Version field");
  }
  for (const char* member : {DEB_BINARY_FILE, CONTROL_FILE, DATA_FILE}) {
    if (!seen[member]) package.fail(std::string("it has no member ") + member);
  }
  info.signedPackage = seen[SIGNATURE_FILE];
  return info;
}

struct DigestDeleter {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// The file's size and SHA-256 (lower-case hex), read in one pass.
std::pair<uint64_t, std::string> sizeAndDigest(const std::string& path) {
  std::unique_ptr<EVP_MD_CTX, DigestDeleter> context(EVP_MD_CTX_new());
  EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
  uint64_t size = 0;
  readFileInChunks(path, [&](const unsigned char* data, size_t count) {
    EVP_DigestUpdate(context.get(), data, count);
    size += count;
  });
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context.get(), digest, &length);
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xF];
  }
  return {size, hex};
}

std::string baseName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string joinUrl(const std::string& base, const std::string& name) {
  return !base.empty() && base.back() == '/' ? base + name : base + "/" + name;
}

}  // namespace

void writeManifest(const std::string& version, const std::string& baseUrl,
                   const std::vector<std::string>& packagePaths, const std::string& outputPath) {
  std::list<selvane::Package> packages;
  std::map<std::string, std::string> pathOfName;
  for (const std::string& path : packagePaths) {
    const PackageInfo info = inspectPackage(path);
    const auto [first, inserted] = pathOfName.emplace(info.name, path);
    if (!inserted) {
      throw ToolError("duplicate package name " + info.name + " (" + first->second + " and " +
                      path + ")");
    }
    if (!info.signedPackage) {
      std::fprintf(stderr, "selvane-pack: warning: %s has no signature; devices will refuse it\n",
                   path.c_str());
    }
    const auto [size, sha256] = sizeAndDigest(path);
    packages.emplace_back(info.name, info.version, size, joinUrl(baseUrl, baseName(path)), sha256);
  }
  OutputFile output(outputPath);
  output.write(selvane::Manifest(version, packages).serialize());
  output.commit(defaultFileMode());
}

}  // namespace pack
