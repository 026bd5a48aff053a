// Manifest files: the schema, loading into Manifest and Package, and what bad files do. Manifests
// are written byte by byte here, independently of the generated classes.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/stubs/logging.h>
#include <selvane/Manifest.h>

#include <cstdint>
#include <random>
#include <tuple>

#include "ErrorText.h"
#include "Harness.h"

namespace {

std::string varint(uint64_t value) {
  std::string out;
  for (; value >= 0x80; value >>= 7) out += static_cast<char>((value & 0x7F) | 0x80);
  return out + static_cast<char>(value);
}

// Fields of wire type 2 (length-delimited) and 0 (varint).
std::string bytesField(int number, const std::string& value) {
  return varint(static_cast<uint64_t>(number) << 3 | 2) + varint(value.size()) + value;
}
std::string varintField(int number, uint64_t value) {
  return varint(static_cast<uint64_t>(number) << 3) + varint(value);
}

struct Entry {
  std::string name, version;
  uint64_t size;
  std::string url, sha256;
};

std::string packageBytes(const Entry& e) {
  return bytesField(1, e.name) + bytesField(2, e.version) + varintField(3, e.size) +
         bytesField(4, e.url) + bytesField(5, e.sha256);
}

std::string manifestBytes(const std::string& version, const std::vector<Entry>& entries) {
  std::string out = bytesField(1, version);
  for (const Entry& e : entries) out += bytesField(2, packageBytes(e));
  return out;
}

const std::string kSha(64, 'a');
const Entry kBase{"base-files", "3.0.14-r89", 16384, "https://updates.example/base-files.ipk",
                  kSha};
const Entry kKernel{"kernel", "5.10.0", 4508876, "https://updates.example/kernel.ipk", kSha};

class ManifestTest : public ::testing::Test {
 protected:
  std::string write(const std::string& bytes) {
    harness::writeFile(path, bytes);
    return path;
  }
  harness::ScratchDir dir;
  const std::string path = dir / "manifest";
};

TEST_F(ManifestTest, TheEmbeddedDescriptorIsExactlyTheSchema) {
  // Registered by the library when it is loaded, although its message classes stay inside it.
  const google::protobuf::FileDescriptor* file =
      google::protobuf::DescriptorPool::generated_pool()->FindFileByName("Manifest.proto");
  ASSERT_NE(file, nullptr);
  google::protobuf::FileDescriptorProto proto;
  file->CopyTo(&proto);
  EXPECT_EQ(proto.ByteSizeLong(), 158u);
  // No package, no options, no defaults, fields in number order.
  EXPECT_EQ(file->DebugString(),
            "syntax = \"proto2\";\n\n"
            "message Package {\n"
            "  required string name = 1;\n"
            "  required string version = 2;\n"
            "  required uint64 size = 3;\n"
            "  required string url = 4;\n"
            "  required string sha256 = 5;\n"
            "}\n\n"
            "message Manifest {\n"
            "  required string version = 1;\n"
            "  repeated .Package packages = 2;\n"
            "}\n\n");
}

TEST_F(ManifestTest, LoadsEveryFieldInFileOrder) {
  // Sizes above 4 GiB too.
  const Entry huge{"rootfs-image", "2", 5000000000ULL, "http://h/rootfs", kSha},
      largest{"z", "9", UINT64_MAX, "u", "s"};
  const std::vector<Entry> entries = {kKernel, kBase, huge, largest};
  const selvane::Manifest manifest(write(manifestBytes("2024.06", entries)));
  EXPECT_EQ(manifest.getVersion(), "2024.06");
  ASSERT_EQ(manifest.getPackages().size(), entries.size());
  auto loaded = manifest.getPackages().begin();
  for (const Entry& e : entries) {
    const selvane::Package& p = *loaded++;
    EXPECT_EQ(std::tie(p.getName(), p.getVersion(), p.getURL(), p.getSHA256()),
              std::tie(e.name, e.version, e.url, e.sha256));
    EXPECT_EQ(p.getSize(), e.size);
    EXPECT_EQ(manifest.getPackageVersion(e.name), e.version);
  }
  EXPECT_EQ(manifest.getPackageVersion("busybox"), "");
  EXPECT_EQ(manifest.getPackageVersion("Kernel"), "");
}

TEST_F(ManifestTest, LoadingGoodAndBadFiles) {
  const char* const parseError = "Failed to parse file: ";
  const char* const duplicates = "Potential duplicate entries in manifest file: ";
  struct LoadCase {
    std::string what, bytes;
    const char* error;  // "" for success; the path follows the text
    size_t packages;
  };
  const std::string base = packageBytes(kBase);
  std::vector<LoadCase> cases = {
      {"an empty file", "", parseError, 0},
      {"a version and no packages", bytesField(1, "1.0"), "", 0},
      {"packages but no version", bytesField(2, base), parseError, 0},
      {"bytes that are no wire format", "\xff\xff\xff\xff", parseError, 0},
      {"a length beyond the end", bytesField(1, "1.0").substr(0, 3), parseError, 0},
      {"the same name twice", manifestBytes("1", {kBase, {kBase.name, "4.0", 1, "u", "s"}}),
       duplicates, 0},
      {"the same entry twice", manifestBytes("1", {kBase, kKernel, kBase}), duplicates, 0},
      {"names that differ in case only",
       manifestBytes("1", {kBase, {"Base-Files", "1", 1, "u", "s"}}), "", 2},
      {"fields of a newer schema",
       bytesField(1, "1") + varintField(3, 7) +
           bytesField(2, base + bytesField(6, "signature-url") + varintField(7, 1)) +
           bytesField(15, "notes"),
       "", 1},
      {"a known number with another wire type besides the field",
       bytesField(1, "1") + bytesField(2, base + bytesField(3, "not a size")), "", 1},
      {"bytes that are not UTF-8", manifestBytes("\xff\xfe", {{"\xc3(", "v", 1, "u", "s"}}), "", 1},
  };
  // A package without any one of its five fields spoils the whole manifest.
  const std::string fields[] = {bytesField(1, "n"), bytesField(2, "v"), varintField(3, 1),
                                bytesField(4, "u"), bytesField(5, "s")};
  for (int missing = 0; missing < 5; ++missing) {
    std::string package;
    for (int f = 0; f < 5; ++f) package += f == missing ? "" : fields[f];
    cases.push_back({"a package without field " + std::to_string(missing + 1),
                     bytesField(1, "1") + bytesField(2, package), parseError, 0});
    // A field of the same number and another wire type does not stand in for it.
    if (missing == 2)
      cases.push_back({"a size of the wrong wire type",
                       bytesField(1, "1") + bytesField(2, package + bytesField(3, "x")), parseError,
                       0});
  }
  for (const LoadCase& c : cases) {
    size_t packages = 0;
    EXPECT_EQ(fixtures::errorText(
                  [&] { packages = selvane::Manifest(write(c.bytes)).getPackages().size(); }),
              *c.error ? c.error + path : "(no exception)")
        << c.what;
    EXPECT_EQ(packages, c.packages) << c.what;
  }
  const std::string missing = dir / "none";
  EXPECT_EQ(fixtures::errorText([&] { selvane::Manifest manifest(missing); }),
            "File does not exist: " + missing);
}

TEST_F(ManifestTest, BuiltManifestsKeepNoVersionIndex) {
  EXPECT_EQ(selvane::Manifest().getVersion(), "");
  EXPECT_TRUE(selvane::Manifest().getPackages().empty());
  const std::list<selvane::Package> packages = {
      {kBase.name, kBase.version, kBase.size, kBase.url, kBase.sha256},
      {kKernel.name, kKernel.version, kKernel.size, kKernel.url, kKernel.sha256},
      {kBase.name, "again", 1, "u", "s"}};
  const selvane::Manifest built("7", packages);
  EXPECT_EQ(built.getVersion(), "7");
  ASSERT_EQ(built.getPackages().size(), 3u);
  EXPECT_EQ(built.getPackages().back().getVersion(), "again");
  for (const selvane::Package& package : packages)
    EXPECT_EQ(built.getPackageVersion(package.getName()), "");
}

TEST_F(ManifestTest, SerializeWritesTheWireFormat) {
  const Entry largest{"z", "9", UINT64_MAX, "u", "s"};
  const std::list<selvane::Package> packages = {
      {kKernel.name, kKernel.version, kKernel.size, kKernel.url, kKernel.sha256},
      {largest.name, largest.version, largest.size, largest.url, largest.sha256}};
  EXPECT_EQ(selvane::Manifest("2024.06", packages).serialize(),
            manifestBytes("2024.06", {kKernel, largest}));
  EXPECT_EQ(selvane::Manifest().serialize(), bytesField(1, ""));
}

TEST_F(ManifestTest, TruncatedAndRandomBytesGiveOnlyTheDocumentedErrors) {
  // Debug builds of the generated code complain about strings that are not UTF-8; quiet them.
  google::protobuf::LogHandler* const previous = google::protobuf::SetLogHandler(nullptr);
  const std::string good = manifestBytes("1.0", {kBase, kKernel, kBase});
  std::mt19937 random(6021);
  for (size_t round = 0; round < good.size() + 2000; ++round) {
    std::string bytes = good.substr(0, round);  // first every truncation
    if (round > good.size() && round % 2 == 0) {
      bytes.resize(random() % 256);
      for (char& c : bytes) c = static_cast<char>(random());
    } else if (round > good.size()) {
      // Valid manifests with a few bytes changed reach deeper into the parser.
      bytes = manifestBytes("1", {kKernel, kBase});
      for (int flips = 1 + random() % 4; flips > 0; --flips)
        bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    const std::string error = fixtures::errorText([&] {
      const selvane::Manifest manifest(write(bytes));
      for (const selvane::Package& package : manifest.getPackages())
        EXPECT_EQ(manifest.getPackageVersion(package.getName()), package.getVersion());
    });
    EXPECT_TRUE(error == "(no exception)" || error == "Failed to parse file: " + path ||
                error == "Potential duplicate entries in manifest file: " + path)
        << "round " << round << ": " << error;
  }
  google::protobuf::SetLogHandler(previous);
}

}  // namespace
