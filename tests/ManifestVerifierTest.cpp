// ManifestVerifier against detached signatures made by the openssl command line, with RSA and
// ECDSA P-256 keys.
#include <selvane/ManifestVerifier.h>

#include <stdexcept>

#include "Harness.h"
#include "PackageSigning.h"

namespace {

using harness::quote;

std::string opensslSign(const std::string& file, const std::string& privateKey,
                        const std::string& signature) {
  EXPECT_EQ(harness::shell("openssl dgst -sha256 -sign " + quote(privateKey) + " -out " +
                           quote(signature) + " " + quote(file)),
            0);
  return harness::readFile(signature);
}

TEST(ManifestVerifierTest, AcceptsOnlyAnUnchangedManifestSignedByATrustedKey) {
  harness::ScratchDir keys, dir;
  const fixtures::KeyPair &rsa = fixtures::testKeyPair("a"), &ec = fixtures::testEcKeyPair("ec"),
                          &stranger = fixtures::testKeyPair("b");
  ASSERT_EQ(harness::shell("cp " + quote(rsa.publicKey) + " " + quote(ec.publicKey) + " " +
                           quote(keys.path()) + " && mkdir " + quote(keys / "sub")),
            0);
  harness::writeFile(keys / "README", "not a key\n");
  std::string bytes;
  for (int i = 0; bytes.size() < 100000; ++i) bytes += std::to_string(i * 7919) + '\0';
  const std::string manifest = dir / "manifest.pb", changed = dir / "changed.pb";
  harness::writeFile(manifest, bytes);
  bytes[70000] ^= 1;
  harness::writeFile(changed, bytes);
  const std::string bySigned = opensslSign(manifest, rsa.privateKey, dir / "rsa.sig");
  opensslSign(manifest, ec.privateKey, dir / "ec.sig");
  opensslSign(manifest, stranger.privateKey, dir / "stranger.sig");
  harness::writeFile(dir / "truncated.sig", bySigned.substr(0, bySigned.size() - 1));
  harness::writeFile(dir / "oversize.sig", bySigned + "x");  // 257 bytes; RSA 2048 makes 256
  harness::writeFile(dir / "empty.sig", "");

  const selvane::ManifestVerifier verifier(keys.path());
  const std::string refused = "ManifestVerifier:verifyManifest:reason=";
  const struct {
    std::string manifest, signature, log;  // log: the one line of a refusal
  } cases[] = {
      {manifest, dir / "rsa.sig", ""},
      {manifest, dir / "ec.sig", ""},
      {manifest, dir / "stranger.sig",
       "W " + refused + "badSignature,manifest=" + manifest + ",signature=" + dir / "stranger.sig" +
           ":No key verifies the manifest"},
      {changed, dir / "rsa.sig",
       "W " + refused + "badSignature,manifest=" + changed + ",signature=" + dir / "rsa.sig" +
           ":No key verifies the manifest"},
      {changed, dir / "ec.sig",
       "W " + refused + "badSignature,manifest=" + changed + ",signature=" + dir / "ec.sig" +
           ":No key verifies the manifest"},
      {manifest, dir / "truncated.sig",
       "W " + refused + "badSignature,manifest=" + manifest +
           ",signature=" + dir / "truncated.sig" + ":No key verifies the manifest"},
      {manifest, dir / "oversize.sig",
       "E " + refused + "signatureTooLarge,signature=" + dir / "oversize.sig" +
           ",limit=256:The signature is larger than any key's"},
      {manifest, dir / "empty.sig",
       "E " + refused + "emptySignature,signature=" + dir / "empty.sig" +
           ",limit=256:The signature is empty"},
      {manifest, dir / "missing.sig",
       "E " + refused + "unreadableSignature,signature=" + dir / "missing.sig" +
           ",limit=256:Unable to read the signature"},
      {manifest, "/dev/zero",
       "E " + refused +
           "unreadableSignature,signature=/dev/zero,limit=256:Unable to "
           "read the signature"},
      {dir / "missing.pb", dir / "rsa.sig",
       "E " + refused + "unreadableManifest,manifest=" + dir / "missing.pb" +
           ",errno=2:Unable to read the manifest"},
  };
  for (const auto& c : cases) {
    harness::LogCapture log;
    EXPECT_EQ(verifier.verifyManifest(c.manifest, c.signature), c.log.empty()) << c.signature;
    const std::vector<std::string> lines =
        log.startingWith(c.log.empty() ? "E " : c.log.substr(0, 2));
    EXPECT_EQ(lines, c.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.log});
  }
}

TEST(ManifestVerifierTest, KeyDirectoriesAreReadLikeThePackageVerifiers) {
  harness::ScratchDir keys, dir;
  harness::writeFile(keys / "text", "no key here\n");
  harness::LogCapture log;
  const selvane::ManifestVerifier none(keys.path());
  EXPECT_EQ(
      log.count("D ManifestVerifier:ManifestVerifier:reason=invalidKey,path=" + keys / "text" +
                ":Unable to load this key file: Unable to load the public key file"),
      1u);
  harness::writeFile(dir / "m", "manifest");
  harness::writeFile(dir / "m.sig", std::string(256, 'x'));
  EXPECT_FALSE(none.verifyManifest(dir / "m", dir / "m.sig"));
  EXPECT_EQ(log.startingWith("E "),
            std::vector<std::string>{"E ManifestVerifier:verifyManifest:reason=noKeys,manifest=" +
                                     dir / "m" + ":No key to verify with"});
  for (const std::string& unusable : {dir / "m", dir / "missing"}) {
    try {
      selvane::ManifestVerifier verifier(unusable);
      ADD_FAILURE() << unusable;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), unusable + " does not exist, or is not a directory");
    }
  }
}

}  // namespace
