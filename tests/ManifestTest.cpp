// Manifest files: the wire format of the schema, loading into Manifest and Package, and what bad
// files do. Manifests are written byte by byte here, independently of the generated classes.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/stubs/logging.h>
#include <selvane/Manifest.h>
#include <selvane/protobuf/Manifest.pb.h>

#include <cstdint>
#include <random>
#include <stdexcept>

#include "Harness.h"

namespace {

std::string varint(uint64_t value) {
  std::string out;
  do {
    unsigned char byte = value & 0x7F;
    value >>= 7;
    if (value != 0) byte |= 0x80;
    out += static_cast<char>(byte);
  } while (value != 0);
  return out;
}

// A length-delimited field (wire type 2).
std::string bytesField(int number, const std::string& value) {
  return varint(static_cast<uint64_t>(number) << 3 | 2) + varint(value.size()) + value;
}

// A varint field (wire type 0).
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

const std::string kSha = std::string(64, 'a');
const Entry kBase{"base-files", "3.0.14-r89", 16384, "https://updates.example/base-files.ipk",
                  kSha};
const Entry kKernel{"kernel", "5.10.0", 4508876, "https://updates.example/kernel.ipk", kSha};

class ManifestTest : public ::testing::Test {
 protected:
  std::string file(const std::string& bytes) {
    const std::string path = dir / ("manifest-" + std::to_string(++count));
    harness::writeFile(path, bytes);
    return path;
  }
  harness::ScratchDir dir;
  int count = 0;
};

TEST_F(ManifestTest, TheEmbeddedDescriptorIsExactlyTheSchema) {
  EXPECT_EQ(descriptor_table_Manifest_2eproto.size, 158);
  const std::string embedded(descriptor_table_Manifest_2eproto.descriptor, 158);

  // The registered file holds the two messages and nothing else: no package, no options, no
  // defaults, fields in number order.
  const google::protobuf::FileDescriptor* file = ::Manifest::descriptor()->file();
  google::protobuf::FileDescriptorProto proto;
  file->CopyTo(&proto);
  EXPECT_EQ(proto.SerializeAsString(), embedded);
  EXPECT_EQ(file->name(), "Manifest.proto");
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

TEST_F(ManifestTest, TheGeneratedClassesWriteTheWireFormat) {
  ::Manifest message;
  message.set_version("1");
  ::Package* package = message.add_packages();
  package->set_name("a");
  package->set_version("b");
  package->set_size(300);
  package->set_url("u");
  package->set_sha256("s");
  const std::string expected(
      "\x0a\x01"
      "1"
      "\x12\x0f\x0a\x01"
      "a"
      "\x12\x01"
      "b"
      "\x18\xac\x02\x22\x01"
      "u"
      "\x2a\x01"
      "s",
      20);
  EXPECT_EQ(message.SerializeAsString(), expected);
  EXPECT_EQ(manifestBytes("1", {{"a", "b", 300, "u", "s"}}), expected);
  EXPECT_TRUE(message.IsInitialized());
  package->clear_sha256();
  EXPECT_FALSE(message.IsInitialized());
}

TEST_F(ManifestTest, LoadsEveryFieldInFileOrder) {
  const Entry huge{"rootfs-image", "2", 5000000000ULL, "http://h/rootfs", kSha};
  const Entry largest{"z", "9", UINT64_MAX, "u", "s"};
  const selvane::Manifest manifest(file(manifestBytes("2024.06", {kKernel, kBase, huge, largest})));
  EXPECT_EQ(manifest.getVersion(), "2024.06");
  const std::vector<Entry> expected = {kKernel, kBase, huge, largest};
  ASSERT_EQ(manifest.getPackages().size(), expected.size());
  auto loaded = manifest.getPackages().begin();
  for (const Entry& e : expected) {
    EXPECT_EQ(loaded->getName(), e.name);
    EXPECT_EQ(loaded->getVersion(), e.version);
    EXPECT_EQ(loaded->getSize(), e.size);
    EXPECT_EQ(loaded->getURL(), e.url);
    EXPECT_EQ(loaded->getSHA256(), e.sha256);
    EXPECT_EQ(manifest.getPackageVersion(e.name), e.version);
    ++loaded;
  }
  EXPECT_EQ(manifest.getPackageVersion("busybox"), "");
  EXPECT_EQ(manifest.getPackageVersion("Kernel"), "");
}

// What loading each file gives: "" for success, else the error text without the path.
struct LoadCase {
  const char* what;
  std::string bytes;
  const char* error;
  size_t packages;
};

std::vector<LoadCase> loadCases() {
  const std::string base = packageBytes(kBase);
  std::vector<LoadCase> cases = {
      {"an empty file", "", "Failed to parse file: ", 0},
      {"a version and no packages", bytesField(1, "1.0"), "", 0},
      {"packages but no version", bytesField(2, base), "Failed to parse file: ", 0},
      {"bytes that are no wire format", "\xff\xff\xff\xff", "Failed to parse file: ", 0},
      {"a length beyond the end", bytesField(1, "1.0").substr(0, 3), "Failed to parse file: ", 0},
      {"the same name twice, other versions",
       manifestBytes("1", {kBase, {kBase.name, "4.0", 1, "u", "s"}}),
       "Potential duplicate entries in manifest file: ", 0},
      {"the same entry twice", manifestBytes("1", {kBase, kKernel, kBase}),
       "Potential duplicate entries in manifest file: ", 0},
      {"names that differ in case only",
       manifestBytes("1", {kBase, {"Base-Files", "1", 1, "u", "s"}}), "", 2},
      {"fields of a newer schema",
       bytesField(1, "1") + varintField(3, 7) +
           bytesField(2, base + bytesField(6, "signature-url") + varintField(7, 1)) +
           bytesField(15, "notes"),
       "", 1},
      {"a known number with another wire type besides the field",
       bytesField(1, "1") + bytesField(2, base + bytesField(3, "not a size")), "", 1},
      {"a size only with the wrong wire type",
       bytesField(1, "1") +
           bytesField(2, bytesField(1, "n") + bytesField(2, "v") + bytesField(3, "x") +
                             bytesField(4, "u") + bytesField(5, "s")),
       "Failed to parse file: ", 0},
      {"bytes that are not UTF-8", manifestBytes("\xff\xfe", {{"\xc3(", "v", 1, "u", "s"}}), "", 1},
  };
  // A package without any one of its five fields spoils the whole manifest.
  const std::string fields[] = {bytesField(1, "n"), bytesField(2, "v"), varintField(3, 1),
                                bytesField(4, "u"), bytesField(5, "s")};
  for (int missing = 0; missing < 5; ++missing) {
    std::string package;
    for (int f = 0; f < 5; ++f) package += f == missing ? "" : fields[f];
    cases.push_back({"a package without one field", bytesField(1, "1") + bytesField(2, package),
                     "Failed to parse file: ", 0});
  }
  return cases;
}

TEST_F(ManifestTest, LoadingGoodAndBadFiles) {
  for (const LoadCase& c : loadCases()) {
    const std::string path = file(c.bytes);
    try {
      const selvane::Manifest manifest(path);
      EXPECT_STREQ(c.error, "") << c.what;
      EXPECT_EQ(manifest.getPackages().size(), c.packages) << c.what;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), c.error + path) << c.what;
    }
  }
}

TEST_F(ManifestTest, ALaterScalarOverwritesAnEarlierOne) {
  const selvane::Manifest manifest(
      file(bytesField(1, "old") + bytesField(2, packageBytes(kBase)) + bytesField(1, "new")));
  EXPECT_EQ(manifest.getVersion(), "new");
}

TEST_F(ManifestTest, AMissingFileIsReported) {
  const std::string path = dir / "no-such-manifest";
  try {
    selvane::Manifest manifest(path);
    FAIL() << "loaded a missing file";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "File does not exist: " + path);
  }
}

TEST_F(ManifestTest, BuiltManifestsKeepNoVersionIndex) {
  const selvane::Manifest empty;
  EXPECT_EQ(empty.getVersion(), "");
  EXPECT_TRUE(empty.getPackages().empty());

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

  // Copies are independent values.
  selvane::Manifest copy = built;
  copy = selvane::Manifest("8", {});
  EXPECT_EQ(built.getPackages().size(), 3u);
}

// The texts a bad manifest may give, and nothing else.
void expectDocumentedOutcome(const std::string& path, const std::string& what) {
  try {
    const selvane::Manifest manifest(path);
    for (const selvane::Package& package : manifest.getPackages())
      EXPECT_EQ(manifest.getPackageVersion(package.getName()), package.getVersion()) << what;
  } catch (const std::runtime_error& e) {
    const std::string text = e.what();
    EXPECT_TRUE(text == "Failed to parse file: " + path ||
                text == "Potential duplicate entries in manifest file: " + path)
        << what << ": " << text;
  }
}

TEST_F(ManifestTest, TruncatedAndRandomBytesGiveOnlyTheDocumentedErrors) {
  const std::string good = manifestBytes("1.0", {kBase, kKernel, kBase});
  const std::string path = dir / "fuzz";
  for (size_t length = 0; length <= good.size(); ++length) {
    harness::writeFile(path, good.substr(0, length));
    expectDocumentedOutcome(path, "truncated to " + std::to_string(length));
  }
  // Debug builds of the generated code complain about strings that are not UTF-8; quiet them.
  google::protobuf::LogHandler* const previous = google::protobuf::SetLogHandler(nullptr);
  std::mt19937 random(6021);
  for (int round = 0; round < 2000; ++round) {
    std::string bytes;
    if (round % 2 == 0) {
      bytes.resize(random() % 256);
      for (char& c : bytes) c = static_cast<char>(random());
    } else {
      // Valid manifests with a few bytes changed reach deeper into the parser.
      bytes = manifestBytes("1", {kKernel, kBase});
      for (int flips = 1 + random() % 4; flips > 0; --flips)
        bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    harness::writeFile(path, bytes);
    expectDocumentedOutcome(path, "round " + std::to_string(round));
  }
  google::protobuf::SetLogHandler(previous);
}

}  // namespace
