// Manifest files written byte by byte here, independently of the generated classes, and their
// detached signatures made by the openssl command line with RSA and ECDSA P-256 keys.
#include <selvane/Manifest.h>
#include <selvane/ManifestVerifier.h>

#include <cstdint>

#include "ErrorText.h"
#include "Harness.h"
#include "PackageSigning.h"

namespace {

using harness::quote;
using Lines = std::vector<std::string>;

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
  harness::writeFile(manifest, std::string(100000, 'm'));
  harness::writeFile(changed, std::string(100000, 'm') + "x");
  harness::LogCapture log;
  EXPECT_FALSE(selvane::ManifestVerifier(keys.path()).verifyManifest(manifest, manifest));
  EXPECT_EQ(log.startingWith("E "),
            Lines{"E " + refused + "noKeys,manifest=" + manifest + ":No key to verify with"});

  const fixtures::KeyPair &rsa = fixtures::testKeyPair("a"),
                          &ec = fixtures::testKeyPair("ec", true);
  ASSERT_EQ(harness::shell("cp " + quote(rsa.publicKey) + " " + quote(ec.publicKey) + " " +
                           quote(keys.path())),
            0);
  for (const auto& [key, name] : {std::make_pair(rsa.privateKey, "rsa.sig"),
                                  {ec.privateKey, "ec.sig"},
                                  {fixtures::testKeyPair("b").privateKey, "stranger.sig"}})
    ASSERT_EQ(harness::shell("openssl dgst -sha256 -sign " + quote(key) + " -out " +
                             quote(dir / name) + " " + quote(manifest)),
              0);
  harness::writeFile(dir / "oversize.sig", harness::readFile(dir / "rsa.sig") + "x");
  harness::writeFile(dir / "empty.sig", "");
  const struct {
    std::string manifest, signature, log;  // log: how the one line of a refusal starts
  } cases[] = {
      {manifest, "rsa.sig", ""},
      {manifest, "ec.sig", ""},
      {manifest, "stranger.sig", "W " + refused + "badSignature,manifest=" + manifest},
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
