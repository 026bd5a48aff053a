// Package signatures with real RSA keys, real packages and signatures made by the openssl
// command line, independently of the library.
#include <selvane/PackageVerifier.h>
#include <selvane/PackageVerifierSet.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

#include "Harness.h"
#include "PackageBuilder.h"
#include "PackageSigning.h"

namespace {

using Members = std::vector<std::pair<std::string, std::string>>;

const std::string kFailedPrefix =
    "E PackageVerifier:verifyPackage:reason=VerifierFailed,result=Bad,";

std::string failedLine(const std::string& package, const std::string& detail) {
  return kFailedPrefix + "package=" + package + ",detail=" + detail + ":";
}

class PackageVerifierTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = new harness::ScratchDir;
    fixtures::PackageRecipe recipe;
    recipe.name = "hello";
    recipe.files["/usr/share/hello/greeting"] = "hello, world\n";
    recipe.scripts["postinst"] = "#!/bin/sh\nexit 0\n";
    unsignedPackage = fixtures::buildPackage(recipe, shared->path());
    signedByA = *shared / "hello-a.ipk";
    harness::shell("cp '" + unsignedPackage + "' '" + signedByA + "'");
    fixtures::signWithOpenssl(signedByA, fixtures::testKeyPair("a").privateKey);
  }
  static void TearDownTestSuite() {
    delete shared;
    shared = nullptr;
  }

  // The members of the package signed with key A, in archive order.
  static Members members() {
    Members result;
    for (const char* name : {"debian-binary", "control.tar.gz", "data.tar.gz", "signature"})
      result.emplace_back(name, fixtures::memberData(signedByA, name));
    return result;
  }

  std::string archive(const std::string& name, const Members& contents) {
    const std::string path = dir / name;
    fixtures::writeArchive(path, contents);
    return path;
  }

  static harness::ScratchDir* shared;
  static std::string unsignedPackage, signedByA;
  // Made on first use: key generation is the slowest step of these tests.
  static const fixtures::KeyPair& keyA() { return fixtures::testKeyPair("a"); }
  static const fixtures::KeyPair& keyB() { return fixtures::testKeyPair("b"); }
  harness::ScratchDir dir;
};

harness::ScratchDir* PackageVerifierTest::shared;
std::string PackageVerifierTest::unsignedPackage, PackageVerifierTest::signedByA;

Members without(Members contents, const std::string& name) {
  for (auto it = contents.begin(); it != contents.end(); ++it) {
    if (it->first == name) {
      contents.erase(it);
      break;
    }
  }
  return contents;
}

Members with(Members contents, const std::string& name, const std::string& data) {
  for (auto& member : contents) {
    if (member.first == name) member.second = data;
  }
  return contents;
}

TEST_F(PackageVerifierTest, AcceptsOnlyThePackageSignedWithItsKey) {
  harness::LogCapture log;
  selvane::PackageVerifier a(keyA().publicKey), b(keyB().publicKey);
  EXPECT_TRUE(a.verifyPackage(signedByA));
  EXPECT_FALSE(b.verifyPackage(signedByA));
  EXPECT_FALSE(a.verifyPackage(unsignedPackage));

  const std::string signedByB = dir / "hello-b.ipk";
  harness::shell("cp '" + unsignedPackage + "' '" + signedByB + "'");
  fixtures::signWithOpenssl(signedByB, keyB().privateKey);
  EXPECT_TRUE(b.verifyPackage(signedByB));
  EXPECT_FALSE(a.verifyPackage(signedByB));
  // A verifier keeps nothing from one package to the next.
  EXPECT_TRUE(a.verifyPackage(signedByA));
  EXPECT_TRUE(log.texts().empty());
}

TEST_F(PackageVerifierTest, TheNamesAreExportedWithCLinkage) {
  const std::pair<const char* const*, const char*> names[] = {{&DEB_BINARY_FILE, "debian-binary"},
                                                              {&CONTROL_FILE, "control.tar.gz"},
                                                              {&DATA_FILE, "data.tar.gz"},
                                                              {&SIGNATURE_FILE, "signature"},
                                                              {&SHA1_DIGEST_NAME, "SHA1"}};
  for (const auto& [global, value] : names) EXPECT_STREQ(*global, value);
  EXPECT_EQ(&selvane::SIGNATURE_FILE, &::SIGNATURE_FILE);
  std::string symbols;
  harness::shell("nm -D --defined-only '" SELVANE_BINARY_DIR "/lib/selvane/libselvane.so'",
                 &symbols);
  for (const char* name : {" DEB_BINARY_FILE\n", " CONTROL_FILE\n", " DATA_FILE\n",
                           " SIGNATURE_FILE\n", " SHA1_DIGEST_NAME\n"})
    EXPECT_NE(symbols.find(name), std::string::npos) << name;
}

TEST_F(PackageVerifierTest, AChangedByteInAnyMemberIsRefusedWithoutALog) {
  selvane::PackageVerifier verifier(keyA().publicKey);
  ASSERT_TRUE(verifier.verifyPackage(archive("copy.ipk", members())));
  for (const auto& [name, data] : members()) {
    std::string changed = data;
    changed[changed.size() / 2] ^= 0x20;
    harness::LogCapture log;
    EXPECT_FALSE(verifier.verifyPackage(archive("tampered.ipk", with(members(), name, changed))))
        << name;
    EXPECT_TRUE(log.texts().empty()) << name;
  }
}

TEST_F(PackageVerifierTest, AMissingMemberIsNamedAndStopsTheCheck) {
  selvane::PackageVerifier verifier(keyA().publicKey);
  for (const char* name : {"debian-binary", "control.tar.gz", "data.tar.gz"}) {
    harness::LogCapture log;
    EXPECT_FALSE(verifier.verifyPackage(archive("missing.ipk", without(members(), name))));
    EXPECT_EQ(log.texts(), std::vector<std::string>{"D PackageVerifier:FailedToAddFile:file=" +
                                                    std::string(name) + ":"});
  }
  harness::LogCapture log;
  EXPECT_FALSE(verifier.verifyPackage(archive("unsigned.ipk", without(members(), "signature"))));
  EXPECT_TRUE(log.texts().empty());
}

TEST_F(PackageVerifierTest, MemberOrderDoesNotMatterAndLaterDuplicatesAreIgnored) {
  selvane::PackageVerifier verifier(keyA().publicKey);
  const Members m = members();
  const Members orders[] = {
      {m[3], m[0], m[1], m[2]},                           // signature first
      {m[3], m[2], m[1], m[0]},                           // all reversed
      {m[0], {"extra", "not signed"}, m[1], m[2], m[3]},  // a member nobody asks for
      {m[0], m[1], m[2], m[3], {"data.tar.gz", "a second data member is never read"}},
  };
  for (const Members& order : orders) {
    std::string names;
    for (const auto& member : order) names += member.first + " ";
    EXPECT_TRUE(verifier.verifyPackage(archive("ordered.ipk", order))) << names;
  }
}

TEST_F(PackageVerifierTest, BadSignaturesAreRefused) {
  selvane::PackageVerifier verifier(keyA().publicKey);
  const std::string good = fixtures::memberData(signedByA, "signature");
  const std::string byB = fixtures::opensslSignature(signedByA, keyB().privateKey);
  const std::pair<const char*, std::string> signatures[] = {
      {"empty", ""},
      {"made with another key", byB},
      {"cut short", good.substr(0, good.size() - 1)},
      {"with a byte more", good + "x"},
      {"far too long", good + std::string(1 << 20, 'x')},
      {"base64 text", "c2lnbmF0dXJl"},
  };
  for (const auto& [what, signature] : signatures) {
    harness::LogCapture log;
    EXPECT_FALSE(
        verifier.verifyPackage(archive("bad.ipk", with(members(), "signature", signature))))
        << what;
    EXPECT_TRUE(log.texts().empty()) << what;
  }
}

TEST_F(PackageVerifierTest, FilesThatAreNoArArchiveAreRefusedWithTheReason) {
  const std::string control = dir / "control.tar.gz", tarball = dir / "package.tar";
  harness::writeFile(control, fixtures::memberData(signedByA, "control.tar.gz"));
  ASSERT_EQ(harness::shell("tar -C '" + dir.path() + "' -cf '" + tarball + "' control.tar.gz"), 0);
  const std::string empty = dir / "empty.ipk", text = dir / "text.ipk", bare = dir / "bare.ipk";
  harness::writeFile(empty, "");
  harness::writeFile(text, "!<arch>\n" + std::string(4, '-') +
                               " this is no ar member header, only a line of text that is long "
                               "enough to be read as one\n");
  harness::writeFile(bare, "!<arch>\n");
  const std::string missing = dir / "missing.ipk";

  const std::pair<std::string, std::string> cases[] = {
      {control, failedLine(control, "Unable to open archive")},
      {tarball, failedLine(tarball, "Unable to open archive")},
      {empty, failedLine(empty, "Unable to open archive")},
      {text, failedLine(text, "A fatal error occurred while parsing the archive")},
      {missing, failedLine(missing, "Package file not found")},
      {dir.path(), failedLine(dir.path(), "Package file not found")},
      // An ar archive without members is a package without members.
      {bare, "D PackageVerifier:FailedToAddFile:file=debian-binary:"},
  };
  selvane::PackageVerifier verifier(keyA().publicKey);
  for (const auto& [path, line] : cases) {
    harness::LogCapture log;
    EXPECT_FALSE(verifier.verifyPackage(path)) << path;
    EXPECT_EQ(log.texts(), std::vector<std::string>{line}) << path;
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].priority, line[0] == 'E' ? 3 : 7);
  }
}

TEST_F(PackageVerifierTest, OnlyAPemPublicKeyIsAKey) {
  const std::string junk = dir / "junk.pem", empty = dir / "empty.pem", link = dir / "link.pem";
  harness::writeFile(junk, "-----BEGIN PUBLIC KEY-----\nbm90IGEga2V5\n-----END PUBLIC KEY-----\n");
  harness::writeFile(empty, "");
  ASSERT_EQ(symlink(keyA().publicKey.c_str(), link.c_str()), 0);

  const std::pair<std::string, std::string> refused[] = {
      {dir / "missing.pem", "Unable to find the public key file"},
      {dir.path(), "Unable to find the public key file"},
      {keyA().certificate, "Unable to load the public key file"},
      {keyA().privateKey, "Unable to load the public key file"},
      {junk, "Unable to load the public key file"},
      {empty, "Unable to load the public key file"},
  };
  for (const auto& [path, text] : refused) {
    try {
      selvane::PackageVerifier verifier(path);
      ADD_FAILURE() << path << " was taken as a key";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), text) << path;
    }
  }
  selvane::PackageVerifier viaLink(link);
  EXPECT_TRUE(viaLink.verifyPackage(signedByA));
}

// Reads the member headers of an ar archive. Returns, for every byte of the file, whether the
// signature covers it: everything is covered but the modification time, owner, group and mode
// fields of each header, the blanks that pad a size field after its digits, and the newline
// that pads an odd-sized member. The verifier reads none of these.
std::vector<bool> coveredBytes(const std::string& bytes) {
  std::vector<bool> covered(bytes.size(), true);
  size_t header = 8;
  while (header + 60 <= bytes.size()) {
    for (size_t i = header + 16; i < header + 48; ++i) covered[i] = false;
    const std::string sizeField = bytes.substr(header + 48, 10);
    const size_t digits = sizeField.find_first_not_of("0123456789");
    for (size_t i = header + 48 + digits; digits != std::string::npos && i < header + 58; ++i)
      covered[i] = false;
    const size_t size = std::stoul(sizeField);
    header += 60 + size;
    if (size % 2 == 1 && header < bytes.size()) covered[header++] = false;
  }
  return covered;
}

TEST_F(PackageVerifierTest, NoSingleByteChangeInACoveredByteIsAccepted) {
  // Build until one member has an odd size, so that a padding byte is exercised too.
  std::string package, bytes;
  for (int attempt = 1; attempt <= 40; ++attempt) {
    fixtures::PackageRecipe recipe;
    recipe.name = "mutant";
    recipe.files["/etc/mutant.conf"] = std::string(static_cast<size_t>(attempt), 'm');
    package = fixtures::buildPackage(recipe, dir.path());
    if (fixtures::memberData(package, "control.tar.gz").size() % 2 == 1 ||
        fixtures::memberData(package, "data.tar.gz").size() % 2 == 1)
      break;
  }
  fixtures::signWithOpenssl(package, keyA().privateKey);
  bytes = harness::readFile(package);
  const std::vector<bool> covered = coveredBytes(bytes);
  ASSERT_LT(std::count(covered.begin(), covered.end(), false), 4 * 32 + 4 * 10 + 3);

  selvane::PackageVerifier verifier(keyA().publicKey);
  ASSERT_TRUE(verifier.verifyPackage(package));
  const std::string mutant = dir / "mutant-flipped.ipk";
  size_t acceptedUncovered = 0;
  for (size_t offset = 0; offset < bytes.size(); ++offset) {
    for (const unsigned char mask : {0x01, 0x80, 0xFF}) {
      std::string changed = bytes;
      changed[offset] = static_cast<char>(changed[offset] ^ mask);
      harness::writeFile(mutant, changed);
      const bool accepted = verifier.verifyPackage(mutant);
      if (covered[offset]) {
        ASSERT_FALSE(accepted) << "offset " << offset << " mask " << int(mask);
      } else {
        acceptedUncovered += accepted;
      }
    }
  }
  // The bytes the signature leaves out really are ignored (for these masks they stay non-digits).
  EXPECT_EQ(acceptedUncovered,
            3 * static_cast<size_t>(std::count(covered.begin(), covered.end(), false)));
}

TEST_F(PackageVerifierTest, TruncatedAndRandomPackagesAreRefusedWithoutThrowing) {
  selvane::PackageVerifier verifier(keyA().publicKey);
  const std::string bytes = harness::readFile(signedByA);
  const std::string path = dir / "fuzz.ipk";
  for (size_t length = 0; length < bytes.size(); ++length) {
    harness::writeFile(path, bytes.substr(0, length));
    EXPECT_FALSE(verifier.verifyPackage(path)) << "truncated to " << length;
  }
  std::mt19937 random(4242);
  for (int round = 0; round < 300; ++round) {
    std::string noise(random() % 2048, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    // Half of the inputs look like ar archives, so that the member parser gets to work.
    if (round % 2 == 0) noise = "!<arch>\n" + noise;
    // Some keep real headers with random data behind them.
    if (round % 3 == 0) noise = bytes.substr(0, random() % bytes.size()) + noise;
    harness::writeFile(path, noise);
    EXPECT_FALSE(verifier.verifyPackage(path)) << "round " << round;
  }
}

long peakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST_F(PackageVerifierTest, MemoryStaysFlatForLargeMembers) {
  const std::string big = dir / "data.tar.gz";
  ASSERT_EQ(harness::shell("head -c 64M /dev/zero > '" + big + "'"), 0);
  const Members m = members();
  const std::string package = dir / "big.ipk";
  harness::writeFile(dir / "debian-binary", m[0].second);
  harness::writeFile(dir / "control.tar.gz", m[1].second);
  ASSERT_EQ(harness::shell("cd '" + dir.path() +
                           "' && ar rc big.ipk debian-binary control.tar.gz data.tar.gz"),
            0);
  fixtures::signWithOpenssl(package, keyA().privateKey);
  const std::string hugeSignature = dir / "huge-signature.ipk";
  ASSERT_EQ(
      harness::shell("cp '" + package + "' '" + hugeSignature + "' && cd '" + dir.path() +
                     "' && head -c 64M /dev/zero > signature && ar r huge-signature.ipk signature"),
      0);

  selvane::PackageVerifier verifier(keyA().publicKey);
  ASSERT_TRUE(verifier.verifyPackage(signedByA));
  const long before = peakResidentKiB();
  EXPECT_TRUE(verifier.verifyPackage(package));
  EXPECT_FALSE(verifier.verifyPackage(hugeSignature));
  EXPECT_LT(peakResidentKiB() - before, 8 * 1024);
}

TEST_F(PackageVerifierTest, OneVerifierServesSeveralThreads) {
  selvane::PackageVerifier verifier(keyA().publicKey);
  const std::string other = archive("other.ipk", with(members(), "data.tar.gz", "changed"));
  std::vector<std::thread> threads;
  std::vector<int> results(4, -1);
  for (size_t t = 0; t < results.size(); ++t) {
    threads.emplace_back([&, t] {
      bool all = true;
      for (int i = 0; i < 20; ++i)
        all = all && verifier.verifyPackage(signedByA) && !verifier.verifyPackage(other);
      results[t] = all;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(results, std::vector<int>(4, 1));
}

// ---- the key directory ------------------------------------------------------------------------

class PackageVerifierSetTest : public PackageVerifierTest {
 protected:
  std::string signedByB() {
    const std::string path = dir / "hello-b.ipk";
    harness::shell("cp '" + unsignedPackage + "' '" + path + "'");
    fixtures::signWithOpenssl(path, keyB().privateKey);
    return path;
  }
  static std::string success(const std::string& path) {
    return "D PackageVerifierSet:PackageVerifierSet:reason=success,path=" + path +
           ":Able to create a verifier with this key file";
  }
  static std::string invalid(const std::string& path, const std::string& why) {
    return "D PackageVerifierSet:PackageVerifierSet:reason=invalidKey,path=" + path +
           ":Unable to create a verifier with this key file: " + why + " ";
  }
};

TEST_F(PackageVerifierSetTest, AnUnusableDirectoryThrows) {
  for (const std::string& path : {keyA().publicKey, dir / "missing", std::string()}) {
    try {
      selvane::PackageVerifierSet set(path);
      ADD_FAILURE() << path;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), path + " does not exist, or is not a directory");
    }
  }
}

TEST_F(PackageVerifierSetTest, AnEmptyDirectoryTrustsNothing) {
  harness::LogCapture log;
  selvane::PackageVerifierSet set(dir.path());
  EXPECT_FALSE(set.verifyPackage(signedByA));
  EXPECT_TRUE(log.texts().empty());
}

TEST_F(PackageVerifierSetTest, EveryRegularFileIsTriedAndNothingElse) {
  const std::string keys = dir / "keys";
  ASSERT_EQ(mkdir(keys.c_str(), 0755), 0);
  ASSERT_EQ(mkdir((keys + "/nested").c_str(), 0755), 0);
  harness::shell("cp '" + keyA().publicKey + "' '" + keys + "/a.pub' && cp '" + keyB().publicKey +
                 "' '" + keys + "/nested/b.pub'");
  harness::writeFile(keys + "/README", "keys of the release publishers\n");
  harness::shell("cp '" + keyA().certificate + "' '" + keys + "/a.crt' && cp '" +
                 keyA().privateKey + "' '" + keys + "/a.key'");
  ASSERT_EQ(symlink((dir / "gone.pub").c_str(), (keys + "/dangling.pub").c_str()), 0);
  ASSERT_EQ(symlink("nested", (keys + "/nested-link").c_str()), 0);

  harness::LogCapture log;
  selvane::PackageVerifierSet set(keys);
  std::vector<std::string> lines = log.texts();
  std::sort(lines.begin(), lines.end());
  std::vector<std::string> expected = {
      success(keys + "/a.pub"),
      invalid(keys + "/README", "Unable to load the public key file"),
      invalid(keys + "/a.crt", "Unable to load the public key file"),
      invalid(keys + "/a.key", "Unable to load the public key file"),
  };
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(lines, expected);
  EXPECT_TRUE(set.verifyPackage(signedByA));
  // The key in the sub-directory was never loaded.
  EXPECT_FALSE(set.verifyPackage(signedByB()));

  // A link to a key file counts as the key file.
  ASSERT_EQ(symlink((keys + "/nested/b.pub").c_str(), (keys + "/b-link.pub").c_str()), 0);
  log.clear();
  selvane::PackageVerifierSet withLink(keys);
  EXPECT_EQ(log.count(success(keys + "/b-link.pub")), 1u);
  EXPECT_TRUE(withLink.verifyPackage(signedByB()));
}

TEST_F(PackageVerifierSetTest, AnyKeyMayAcceptAndEachKeyReportsItsOwnFailure) {
  selvane::PackageVerifierSet set(dir.path());
  set.addKey(keyA().publicKey);
  set.addKey(keyB().publicKey);
  set.addKey(keyA().certificate);  // skipped
  harness::LogCapture log;
  EXPECT_TRUE(set.verifyPackage(signedByB()));
  EXPECT_TRUE(set.verifyPackage(signedByA));
  EXPECT_FALSE(set.verifyPackage(unsignedPackage));
  EXPECT_TRUE(log.texts().empty());

  const std::string missing = dir / "missing.ipk";
  EXPECT_FALSE(set.verifyPackage(missing));
  EXPECT_EQ(log.count(failedLine(missing, "Package file not found")), 2u);
  EXPECT_EQ(log.texts().size(), 2u);
}

}  // namespace
