// Package and manifest signatures and the package structure check, with real RSA and ECDSA keys,
// real packages, and signatures made by the openssl command line, independently of the library.
// Manifest files are written byte by byte here, independently of the generated classes.
#include <selvane/Manifest.h>
#include <selvane/ManifestVerifier.h>
#include <selvane/PackageStructure.h>
#include <selvane/PackageVerifier.h>
#include <selvane/PackageVerifierSet.h>

#include <cstdint>

#include "ErrorText.h"
#include "Harness.h"
#include "PackageBuilder.h"

namespace {

using harness::quote;
using Lines = std::vector<std::string>;
using Members = std::vector<std::pair<std::string, std::string>>;

// A file of a key made on first use for the whole process: its private key ("key", PKCS #8 PEM)
// or its public key ("pub"). RSA with 2048 bits, or ECDSA P-256 for "ec".
std::string key(const std::string& name, const std::string& file) {
  static harness::ScratchDir keys;
  const std::string path = keys / name,
                    algorithm = name == "ec" ? "EC -pkeyopt ec_paramgen_curve:P-256" : "RSA";
  if (harness::shell("test -e " + quote(path + ".pub") + " || { openssl genpkey -algorithm " +
                     algorithm + " -out " + quote(path + ".key") + " 2>/dev/null && openssl pkey " +
                     "-pubout -in " + quote(path + ".key") + " -out " + quote(path + ".pub") +
                     "; }") != 0)
    throw std::runtime_error("cannot make the key " + name);
  return path + "." + file;
}

// The raw signature `openssl dgst -sign` makes over data.
std::string signature(const std::string& data, const std::string& keyName,
                      const std::string& digest = "sha1") {
  harness::ScratchDir dir;
  harness::writeFile(dir / "data", data);
  std::string out;  // a failure leaves it empty, and so makes a bad signature
  harness::shell("openssl dgst -" + digest + " -sign " + quote(key(keyName, "key")) + " " +
                     quote(dir / "data"),
                 &out);
  return out;
}

// The bytes of an ar archive holding these members (name, data) in this order, as dpkg-deb writes
// them (names up to 15 characters); a name may come more than once.
std::string arArchive(const Members& members) {
  std::string archive = "!<arch>\n";
  for (const auto& [name, data] : members) {
    char header[61];
    std::snprintf(header, sizeof header, "%-16s%-12d%-6d%-6d%-8o%-10zu`\n", name.c_str(), 0, 0, 0,
                  0644, data.size());
    archive += header + data + (data.size() % 2 == 1 ? "\n" : "");
  }
  return archive;
}

std::string failedLine(const std::string& package, const std::string& detail) {
  return "E PackageVerifier:verifyPackage:reason=VerifierFailed,result=Bad,package=" + package +
         ",detail=" + detail + ":";
}

// A package signed with key A, its members (in archive order), and the same with key B's
// signature, shared by every test. The signatures are made by openssl over the three members.
class PackageVerifierTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = std::make_unique<harness::ScratchDir>();
    fixtures::PackageRecipe recipe;
    recipe.name = "hello";
    byA = fixtures::buildPackage(recipe, shared->path());
    for (const char* name : {"debian-binary", "control.tar.gz", "data.tar.gz"}) {
      m.emplace_back(name, "");
      harness::shell("ar p " + quote(byA) + " " + name, &m.back().second);
    }
    m.push_back(sig("a"));
    harness::writeFile(byA, arArchive(m));
    byB = *shared / "b.ipk";
    harness::writeFile(byB, arArchive({m[0], m[1], m[2], sig("b")}));
  }
  static void TearDownTestSuite() { shared.reset(); }
  static std::pair<std::string, std::string> sig(const std::string& keyName) {
    return {"signature", signature(m[0].second + m[1].second + m[2].second, keyName)};
  }

  inline static std::unique_ptr<harness::ScratchDir> shared;
  inline static std::string byA, byB;
  inline static Members m;
  harness::ScratchDir dir;
};

// Archives made from those members, changed in one way each, and files that are no ar archive:
// what the verifier and the structure check answer and log.
TEST_F(PackageVerifierTest, ArchivesOfOtherShapes) {
  const std::string path = dir / "variant.ipk";
  const auto notAdded = [](const char* member) {
    return "D PackageVerifier:FailedToAddFile:file=" + std::string(member) + ":";
  };
  const auto bad = [&](const std::string& member, const std::string& problem) {
    return "E PackageStructure:CheckPackageStructure:package=" + path + ",member=" + member + ":" +
           problem;
  };
  Members changed = m, cut = m, empty = m;
  changed[1].second[changed[1].second.size() / 2] ^= 0x20;
  cut[3].second.pop_back();
  empty[3].second.clear();
  const struct {
    Members members;
    bool accepted;
    Lines log;  // of the verifier, then of the structure check
  } cases[] = {
      {{m[3], m[0], m[1], m[2]}, true, {}},
      // An unsigned control and data appended: the verifier reads the first member of each
      // name, but an installer may take the last.
      {{m[0], m[1], m[2], m[3], {"control.tar.gz", ""}, {"data.tar.gz", ""}},
       true,
       {bad("control.tar.gz", "Duplicate member")}},
      {{m[0], {"extra", "x"}, m[1], m[2], m[3]}, true, {bad("extra", "Unexpected member")}},
      {{m[0], m[1], m[2], sig("b")}, false, {}},
      {changed, false, {}},
      {cut, false, {}},
      {empty, false, {}},
      {{m[0], m[1], m[2]}, false, {bad("signature", "Missing member")}},
      {{m[0], m[1], m[3]}, false, {notAdded("data.tar.gz"), bad("data.tar.gz", "Missing member")}},
      {{}, false, {notAdded("debian-binary"), bad("debian-binary", "Missing member")}},
  };
  selvane::PackageVerifier verifier(key("a", "pub"));
  for (const auto& c : cases) {
    harness::writeFile(path, arArchive(c.members));
    harness::LogCapture log;
    EXPECT_EQ(verifier.verifyPackage(path), c.accepted) << c.members.size();
    const bool wellFormed = selvane::CheckPackageStructure(path);
    EXPECT_EQ(wellFormed, log.startingWith("E PackageStructure").empty());
    EXPECT_EQ(log.texts(), c.log);
  }
  // An empty member is signed data like any other.
  harness::writeFile(path, arArchive({{"debian-binary", ""},
                                      m[1],
                                      m[2],
                                      {"signature", signature(m[1].second + m[2].second, "a")}}));
  EXPECT_TRUE(verifier.verifyPackage(path));

  // Not an ar archive at all.
  harness::writeFile(path, m[1].second);
  harness::LogCapture log;
  EXPECT_FALSE(verifier.verifyPackage(path));
  EXPECT_FALSE(selvane::CheckPackageStructure(path));
  EXPECT_EQ(log.texts().size(), 2u);
  EXPECT_EQ(log.texts().at(0), failedLine(path, "Unable to open archive"));
  EXPECT_EQ(
      log.startingWith("E PackageStructure:CheckPackageStructure:package=" + path + ",detail=")
          .size(),
      1u);
}

TEST_F(PackageVerifierTest, KeysAndKeyDirectories) {
  harness::writeFile(dir / "junk", "-----BEGIN PUBLIC KEY-----\nbm90\n-----END PUBLIC KEY-----\n");
  for (const auto& [path, error] : {std::make_pair(dir.path(), "find"), {dir / "junk", "load"}})
    EXPECT_EQ(fixtures::errorText([&] { selvane::PackageVerifier verifier(path); }),
              "Unable to " + std::string(error) + " the public key file");
  EXPECT_EQ(fixtures::errorText([&] { selvane::PackageVerifierSet set(key("a", "pub")); }),
            key("a", "pub") + " does not exist, or is not a directory");
  const std::string keys = dir / "keys";
  ASSERT_EQ(harness::shell("mkdir -p " + quote(keys + "/nested") + " && cd " + quote(keys) +
                           " && cp " + quote(key("a", "pub")) + " a.pub && cp " +
                           quote(key("b", "pub")) + " nested/b.pub && echo text > README && " +
                           "ln -s a.pub a-link.pub && ln -s gone.pub dangling.pub"),
            0);
  harness::LogCapture log;
  selvane::PackageVerifierSet set(keys);
  EXPECT_TRUE(set.verifyPackage(byA));
  EXPECT_FALSE(set.verifyPackage(byB)) << "its key is in the sub-directory";
  EXPECT_EQ(log.startingWith("D PackageVerifierSet:PackageVerifierSet:reason=invalidKey,path=" +
                             keys + "/README:Unable to create a verifier with this key file: ")
                .size(),
            1u);
  EXPECT_EQ(log.startingWith("D PackageVerifierSet:PackageVerifierSet:reason=success,").size(), 2u);
  // Any key may accept a package; every key reports its own failure.
  set.addKey(key("b", "pub"));
  log.clear();
  EXPECT_TRUE(set.verifyPackage(byB));
  EXPECT_FALSE(set.verifyPackage(dir / "missing.ipk"));
  EXPECT_EQ(log.texts(), Lines(3, failedLine(dir / "missing.ipk", "Package file not found")));
}

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

std::string packageBytes(const selvane::Package& p) {
  return bytesField(1, p.getName()) + bytesField(2, p.getVersion()) + varintField(3, p.getSize()) +
         bytesField(4, p.getURL()) + bytesField(5, p.getSHA256());
}

std::string manifestBytes(const std::string& version, const std::list<selvane::Package>& list) {
  std::string out = bytesField(1, version);
  for (const selvane::Package& p : list) out += bytesField(2, packageBytes(p));
  return out;
}

const std::list<selvane::Package> kPackages = {
    {"kernel", "5.10.0", 4508876, "https://updates.example/kernel.ipk", std::string(64, 'a')},
    {"base-files", "3.0.14-r89", UINT64_MAX, "u", ""}};

TEST(ManifestTest, LoadsAndWritesEveryFieldInFileOrder) {
  harness::ScratchDir dir;
  const std::string bytes = manifestBytes("2024.06", kPackages);
  // Built from a version and a list, a manifest keeps no version index.
  const selvane::Manifest built("2024.06", kPackages);
  EXPECT_EQ(built.serialize(), bytes);
  EXPECT_EQ(built.getPackageVersion("kernel"), "");
  harness::writeFile(dir / "m", bytes);
  const selvane::Manifest loaded(dir / "m");
  EXPECT_EQ(loaded.serialize(), bytes);
  EXPECT_EQ(loaded.getVersion(), "2024.06");
  EXPECT_EQ(loaded.getPackages().back().getSize(), UINT64_MAX);
  for (const selvane::Package& p : kPackages)
    EXPECT_EQ(loaded.getPackageVersion(p.getName()), p.getVersion());
  EXPECT_EQ(loaded.getPackageVersion("Kernel"), "");
}

TEST(ManifestTest, BadFilesGiveTheirErrors) {
  harness::ScratchDir dir;
  const std::string path = dir / "m", parseError = "Failed to parse file: " + path;
  const selvane::Package& p = kPackages.front();
  const std::pair<std::string, std::string> cases[] = {
      {"", parseError},
      {bytesField(1, "1.0"), "(no exception)"},
      {bytesField(2, packageBytes(p)), parseError},
      {manifestBytes("1", {p, {p.getName(), "4.0", 1, "u", "s"}}),
       "Potential duplicate entries in manifest file: " + path},
      // A package without any one of its five fields (here the last) spoils the whole manifest.
      {bytesField(1, "1") + bytesField(2, packageBytes(p).substr(0, packageBytes(p).size() - 66)),
       parseError},
      // Fields of a newer schema are skipped.
      {bytesField(1, "1") + varintField(3, 7) + bytesField(2, packageBytes(p) + varintField(7, 1)),
       "(no exception)"},
  };
  for (const auto& [bytes, error] : cases) {
    harness::writeFile(path, bytes);
    EXPECT_EQ(fixtures::errorText([&] { selvane::Manifest manifest(path); }), error);
  }
  EXPECT_EQ(fixtures::errorText([&] { selvane::Manifest manifest(dir / "none"); }),
            "File does not exist: " + dir / "none");
}

TEST(ManifestVerifierTest, AcceptsOnlyAnUnchangedManifestSignedByATrustedKey) {
  harness::ScratchDir keys, dir;
  const std::string manifest = dir / "manifest", changed = dir / "changed",
                    refused = "ManifestVerifier:verifyManifest:reason=";
  const std::string content(100000, 'm');
  harness::writeFile(manifest, content);
  harness::writeFile(changed, content + "x");
  harness::LogCapture log;
  EXPECT_FALSE(selvane::ManifestVerifier(keys.path()).verifyManifest(manifest, manifest));
  EXPECT_EQ(log.startingWith("E "),
            Lines{"E " + refused + "noKeys,manifest=" + manifest + ":No key to verify with"});

  ASSERT_EQ(harness::shell("cp " + quote(key("a", "pub")) + " " + quote(key("ec", "pub")) + " " +
                           quote(keys.path())),
            0);
  for (const char* name : {"a", "ec", "b"})  // b: a key the verifier does not know
    harness::writeFile(dir / name + ".sig", signature(content, name, "sha256"));
  harness::writeFile(dir / "oversize.sig", harness::readFile(dir / "a.sig") + "x");
  harness::writeFile(dir / "empty.sig", "");
  const struct {
    std::string manifest, signature, log;  // log: how the one line of a refusal starts
  } cases[] = {
      {manifest, "a.sig", ""},
      {manifest, "ec.sig", ""},
      {manifest, "b.sig", "W " + refused + "badSignature,manifest=" + manifest},
      {changed, "ec.sig", "W " + refused + "badSignature,manifest=" + changed},
      // 257 bytes, while an RSA 2048 signature has 256 and the EC one fewer.
      {manifest, "oversize.sig", "E " + refused + "signatureTooLarge,"},
      {manifest, "empty.sig", "E " + refused + "emptySignature,"},
  };
  const selvane::ManifestVerifier verifier(keys.path());
  for (const auto& c : cases) {
    log.clear();
    EXPECT_EQ(verifier.verifyManifest(c.manifest, dir / c.signature), c.log.empty()) << c.signature;
    EXPECT_EQ(log.texts().size(), c.log.empty() ? 0u : 1u) << c.signature;
    EXPECT_EQ(log.startingWith(c.log).size(), log.texts().size()) << c.signature;
  }
}

}  // namespace
