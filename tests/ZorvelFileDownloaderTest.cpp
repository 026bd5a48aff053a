// Signed downloads: the headers a ZorvelFileDownloader sends (against the in-process server) and
// what an independent S3 implementation (s3rver) makes of its signatures.
#include <fcntl.h>
#include <selvane/ZorvelFileDownloader.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "Harness.h"
#include "HttpTestServer.h"
#include "S3rver.h"
#include "Thrown.h"

using fixtures::thrownBy;
using selvane::FileDownloaderError;
using selvane::ZorvelFileDownloader;

namespace {

const zorvelauth::Credentials kCredentials("AKIDSELVANE", "s3cr3t/key+");

size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

// The authorization a GET of url at date gets with credentials.
std::string signatureFor(const std::string& url, const std::string& date,
                         const zorvelauth::Credentials& credentials = kCredentials) {
  return zorvelauth::RequestAuthenticator(credentials)
      .authorizeRequest(
          zorvelauth::Request::createGETRequest(zorvelauth::CanonicalizedResource(url), date));
}

class ZorvelFileDownloaderTest : public ::testing::Test {
 protected:
  // Checks that the last request carried exactly one signature, valid for its own date.
  void expectSignedOnce(const std::string& url) {
    const fixtures::RecordedRequest request = server.lastRequest();
    const std::vector<std::string> dates = request.headerValues("date");
    const std::vector<std::string> signatures = request.headerValues("authorization");
    ASSERT_EQ(dates.size(), 1u);
    ASSERT_EQ(signatures.size(), 1u);
    EXPECT_EQ(signatures[0], signatureFor(url, dates[0]));
    EXPECT_EQ(dates[0].size(), 29u) << dates[0];  // "Sun, 06 Nov 1994 08:49:37 GMT"
  }

  harness::ScratchDir dir;
  fixtures::HttpTestServer server;
  ZorvelFileDownloader downloader{kCredentials};
};

TEST_F(ZorvelFileDownloaderTest, PathDownloadsAreSignedTwiceButSendOneSignature) {
  harness::LogCapture log;
  downloader.setHeader("X-Caller", "kept", true);
  downloader.setHeader("date", "caller's own", true);  // replaced by the signing
  const std::string url = server.url("/ok/100");
  ASSERT_EQ(downloader.download(url, dir / "out").code, FileDownloaderError::NoError);
  EXPECT_EQ(harness::readFile(dir / "out"), fixtures::patternBody(100));
  expectSignedOnce(url);
  EXPECT_EQ(log.startingWith("D selvane:setHeader:name=date,").size(),
            3u);  // caller + two signings
  EXPECT_EQ(
      log.startingWith("D selvane:setHeader:name=authorization,value=AWS AKIDSELVANE:").size(), 2u);

  // Sent in byte order of the names, among the caller's headers.
  const std::vector<std::string> names = server.lastRequest().headerNames();
  const auto at = [&](const std::string& name) {
    return std::find(names.begin(), names.end(), name) - names.begin();
  };
  EXPECT_LT(at("X-Caller"), at("authorization"));
  EXPECT_LT(at("authorization"), at("date"));
  EXPECT_LT(at("date"), static_cast<long>(names.size()));

  // Both signature headers were one-shot; the caller's persistent header stays.
  ASSERT_EQ(downloader.download(url, &discard, nullptr).code, FileDownloaderError::NoError);
  EXPECT_TRUE(server.lastRequest().headerValues("date").empty());
  EXPECT_TRUE(server.lastRequest().headerValues("authorization").empty());
  EXPECT_EQ(server.lastRequest().headerValues("X-Caller"), std::vector<std::string>{"kept"});
}

TEST_F(ZorvelFileDownloaderTest, DescriptorDownloadsAreSignedOnceAndCallbackDownloadsNot) {
  harness::LogCapture log;
  const std::string url = server.url("/ok/10");
  const int fd = open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(downloader.download(url, fd).code, FileDownloaderError::NoError);
  close(fd);
  expectSignedOnce(url);
  EXPECT_EQ(log.startingWith("D selvane:setHeader:name=date,").size(), 1u);

  ASSERT_EQ(downloader.download(url, &discard, nullptr).code, FileDownloaderError::NoError);
  EXPECT_TRUE(server.lastRequest().headerValues("authorization").empty());
}

TEST_F(ZorvelFileDownloaderTest, APostCarriesAGetSignature) {
  downloader.setPOST("query");
  const std::string url = server.url("/echo");
  ASSERT_EQ(downloader.download(url, dir / "out").code, FileDownloaderError::NoError);
  EXPECT_EQ(server.lastRequest().method(), "POST");
  expectSignedOnce(url);
}

TEST_F(ZorvelFileDownloaderTest, AThrownErrorLeavesTheSignatureForTheNextUnsignedDownload) {
  const std::string url = server.url("/status/404");
  const FileDownloaderError error = thrownBy([&] { downloader.download(url, dir / "out"); });
  EXPECT_EQ(error.errorString(), "HTTP (404)");
  const fixtures::RecordedRequest failed = server.lastRequest();

  ASSERT_EQ(downloader.download(server.url("/ok/1"), &discard, nullptr).code,
            FileDownloaderError::NoError);
  EXPECT_EQ(server.lastRequest().headerValues("date"), failed.headerValues("date"));
  EXPECT_EQ(server.lastRequest().headerValues("authorization"),
            failed.headerValues("authorization"));
  ASSERT_EQ(server.lastRequest().headerValues("authorization").size(), 1u);
}

TEST_F(ZorvelFileDownloaderTest, SigningErrorsPassThroughBeforeAnyTransfer) {
  harness::LogCapture log;
  EXPECT_THROW(downloader.download("not a url", dir / "out"), std::invalid_argument);
  EXPECT_THROW(downloader.download("not a url", STDOUT_FILENO), std::invalid_argument);
  EXPECT_NE(access((dir / "out").c_str(), F_OK), 0);
  EXPECT_TRUE(log.startingWith("E ").empty());
  EXPECT_TRUE(server.requests().empty());
}

// ---- against s3rver ---------------------------------------------------------------------------

class ZorvelS3rverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = fixtures::S3rver::missingInstallation();
    ASSERT_TRUE(missing.empty()) << missing;
    s3.reset(new fixtures::S3rver("ota-bucket", dir.path()));
    s3->putObject(key, fixtures::patternBody(100000));
  }

  void TearDown() override {
    if (s3) {
      EXPECT_NO_THROW(s3->stop());
    }
    EXPECT_TRUE(fixtures::ServerProcess::childrenRunning("/usr/bin/node").empty());
  }

  harness::ScratchDir dir;
  std::unique_ptr<fixtures::S3rver> s3;
  const std::string key = "pkgs/foo_1.0.ipk";
};

TEST_F(ZorvelS3rverTest, ACorrectSignatureFetchesTheObject) {
  harness::LogCapture log;
  ZorvelFileDownloader downloader(
      zorvelauth::Credentials(fixtures::S3rver::kAccessKeyId, fixtures::S3rver::kSecretKey));
  ASSERT_EQ(downloader.download(s3->objectUrl(key), dir / "pkg").code,
            FileDownloaderError::NoError);
  EXPECT_EQ(harness::readFile(dir / "pkg"), fixtures::patternBody(100000));
  EXPECT_TRUE(log.startingWith("E ").empty());
}

TEST_F(ZorvelS3rverTest, BadSignaturesAreRefusedWithTheServers403) {
  const std::pair<zorvelauth::Credentials, const char*> cases[] = {
      {zorvelauth::Credentials(fixtures::S3rver::kAccessKeyId, "wrong secret"),
       "SignatureDoesNotMatch"},
      {zorvelauth::Credentials("UNKNOWNKEY", fixtures::S3rver::kSecretKey), "InvalidAccessKeyId"},
  };
  const std::string url = s3->objectUrl(key);
  for (const auto& c : cases) {
    harness::LogCapture log;
    ZorvelFileDownloader downloader(c.first);
    const FileDownloaderError error = thrownBy([&] { downloader.download(url, dir / "pkg"); });
    EXPECT_EQ(error.code, FileDownloaderError::HttpError);
    EXPECT_EQ(error.message, "403");
    EXPECT_EQ(downloader.responseCode(), 403);
    EXPECT_NE(harness::readFile(dir / "pkg").find(c.second), std::string::npos)
        << harness::readFile(dir / "pkg");
    EXPECT_EQ(log.count("E selvane:FileDownloader:reason=error,url=" + url + ":HTTP (403)"), 1u);
  }
}

}  // namespace
