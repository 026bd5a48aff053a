// Package signatures and the package structure check, with real RSA keys, real packages and
// signatures made by the openssl command line, independently of the library.
#include <selvane/PackageStructure.h>
#include <selvane/PackageVerifier.h>
#include <selvane/PackageVerifierSet.h>

#include "ErrorText.h"
#include "Harness.h"
#include "PackageBuilder.h"
#include "PackageSigning.h"

namespace {

using harness::quote;
using Lines = std::vector<std::string>;
using Members = std::vector<std::pair<std::string, std::string>>;

std::string failedLine(const std::string& package, const std::string& detail) {
  return "E PackageVerifier:verifyPackage:reason=VerifierFailed,result=Bad,package=" + package +
         ",detail=" + detail + ":";
}

const fixtures::KeyPair& keyA() { return fixtures::testKeyPair("a"); }
const fixtures::KeyPair& keyB() { return fixtures::testKeyPair("b"); }

// A package signed with key A, its members (in archive order), and the same with key B's
// signature, shared by every test. The signatures are made by openssl over the three members.
class PackageVerifierTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = std::make_unique<harness::ScratchDir>();
    fixtures::PackageRecipe recipe;
    recipe.name = "hello";
    byA = fixtures::buildPackage(recipe, shared->path());
    for (const char* name : {"debian-binary", "control.tar.gz", "data.tar.gz"})
      m.emplace_back(name, fixtures::memberData(byA, name));
    m.push_back(sig(keyA()));
    harness::writeFile(byA, fixtures::arArchive(m));
    byB = *shared / "b.ipk";
    harness::writeFile(byB, fixtures::arArchive({m[0], m[1], m[2], sig(keyB())}));
  }
  static void TearDownTestSuite() { shared.reset(); }
  static std::pair<std::string, std::string> sig(const fixtures::KeyPair& key) {
    return {"signature", fixtures::opensslSignature(byA, key.privateKey)};
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
      {{m[0], m[1], m[2], sig(keyB())}, false, {}},
      {changed, false, {}},
      {cut, false, {}},
      {empty, false, {}},
      {{m[0], m[1], m[2]}, false, {bad("signature", "Missing member")}},
      {{m[0], m[1], m[3]}, false, {notAdded("data.tar.gz"), bad("data.tar.gz", "Missing member")}},
      {{}, false, {notAdded("debian-binary"), bad("debian-binary", "Missing member")}},
  };
  selvane::PackageVerifier verifier(keyA().publicKey);
  for (const auto& c : cases) {
    harness::writeFile(path, fixtures::arArchive(c.members));
    harness::LogCapture log;
    EXPECT_EQ(verifier.verifyPackage(path), c.accepted) << c.members.size();
    const bool wellFormed = selvane::CheckPackageStructure(path);
    EXPECT_EQ(wellFormed, log.startingWith("E PackageStructure").empty());
    EXPECT_EQ(log.texts(), c.log);
  }
  // An empty member is signed data like any other.
  harness::writeFile(path, fixtures::arArchive({{"debian-binary", ""}, m[1], m[2]}));
  harness::writeFile(
      path,
      fixtures::arArchive({{"debian-binary", ""},
                           m[1],
                           m[2],
                           {"signature", fixtures::opensslSignature(path, keyA().privateKey)}}));
  EXPECT_TRUE(verifier.verifyPackage(path));

  // Not an ar archive at all.
  harness::writeFile(path, m[1].second);
  harness::LogCapture log;
  EXPECT_FALSE(verifier.verifyPackage(path));
  EXPECT_FALSE(selvane::CheckPackageStructure(path));
  const Lines lines = log.texts();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], failedLine(path, "Unable to open archive"));
  EXPECT_EQ(
      lines[1].rfind("E PackageStructure:CheckPackageStructure:package=" + path + ",detail=", 0),
      0u);
}

TEST_F(PackageVerifierTest, KeysAndKeyDirectories) {
  harness::writeFile(dir / "junk", "-----BEGIN PUBLIC KEY-----\nbm90\n-----END PUBLIC KEY-----\n");
  for (const auto& [path, error] : {std::make_pair(dir.path(), "find"), {dir / "junk", "load"}})
    EXPECT_EQ(fixtures::errorText([&] { selvane::PackageVerifier verifier(path); }),
              "Unable to " + std::string(error) + " the public key file");
  EXPECT_EQ(fixtures::errorText([&] { selvane::PackageVerifierSet set(keyA().publicKey); }),
            keyA().publicKey + " does not exist, or is not a directory");
  const std::string keys = dir / "keys";
  ASSERT_EQ(harness::shell("mkdir -p " + quote(keys + "/nested") + " && cd " + quote(keys) +
                           " && cp " + quote(keyA().publicKey) + " a.pub && cp " +
                           quote(keyB().publicKey) + " nested/b.pub && echo text > README && " +
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
  set.addKey(keyB().publicKey);
  log.clear();
  EXPECT_TRUE(set.verifyPackage(byB));
  EXPECT_FALSE(set.verifyPackage(dir / "missing.ipk"));
  EXPECT_EQ(log.texts(), Lines(3, failedLine(dir / "missing.ipk", "Package file not found")));
}

}  // namespace
