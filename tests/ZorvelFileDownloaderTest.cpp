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
using selvane::ZorvelFileDownloader;
using Error = selvane::FileDownloaderError;
using Strings = std::vector<std::string>;

namespace {

const zorvelauth::Credentials kCredentials("AKIDSELVANE", "s3cr3t/key+");

size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

class ZorvelFileDownloaderTest : public ::testing::Test {
 protected:
  // Checks that the last request carried exactly one signature, valid for its own date.
  void expectSignedOnce(const std::string& url) {
    const Strings dates = sent("date"), signatures = sent("authorization");
    ASSERT_EQ(dates.size(), 1u);
    ASSERT_EQ(signatures.size(), 1u);
    EXPECT_EQ(dates[0].size(), 29u) << dates[0];  // "Sun, 06 Nov 1994 08:49:37 GMT"
    EXPECT_EQ(signatures[0], zorvelauth::RequestAuthenticator(kCredentials)
                                 .authorizeRequest(zorvelauth::Request::createGETRequest(
                                     zorvelauth::CanonicalizedResource(url), dates[0])));
  }
  Strings sent(const std::string& header) { return server.lastRequest().headerValues(header); }

  harness::ScratchDir dir;
  fixtures::HttpTestServer server;
  ZorvelFileDownloader downloader{kCredentials};
};

TEST_F(ZorvelFileDownloaderTest, PathDownloadsAreSignedTwiceButSendOneSignature) {
  harness::LogCapture log;
  downloader.setHeader("X-Caller", "kept", true);
  downloader.setHeader("date", "caller's own", true);  // replaced by the signing
  const std::string url = server.url("/ok/100");
  ASSERT_EQ(downloader.download(url, dir / "out").code, Error::NoError);
  EXPECT_EQ(harness::readFile(dir / "out"), fixtures::patternBody(100));
  expectSignedOnce(url);
  // The caller's date, then one per signing.
  EXPECT_EQ(log.startingWith("D selvane:setHeader:name=date,").size(), 3u);
  EXPECT_EQ(
      log.startingWith("D selvane:setHeader:name=authorization,value=AWS AKIDSELVANE:").size(), 2u);

  // Sent in byte order of the names, among the caller's headers.
  Strings names;
  for (const std::string& line : server.lastRequest().headerLines)
    names.push_back(line.substr(0, line.find(':')));
  const auto at = [&](const char* name) { return std::find(names.begin(), names.end(), name); };
  EXPECT_LT(at("X-Caller"), at("authorization"));
  EXPECT_LT(at("authorization"), at("date"));
  EXPECT_LT(at("date"), names.end());

  // Both signature headers were one-shot; the caller's persistent header stays.
  ASSERT_EQ(downloader.download(url, &discard, nullptr).code, Error::NoError);
  EXPECT_TRUE(sent("date").empty());
  EXPECT_TRUE(sent("authorization").empty());
  EXPECT_EQ(sent("X-Caller"), Strings{"kept"});
}

TEST_F(ZorvelFileDownloaderTest, DescriptorDownloadsAndPostsAreSignedOnceCallbackDownloadsNot) {
  harness::LogCapture log;
  const std::string url = server.url("/echo");
  const int fd = open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  downloader.setPOST("query");
  ASSERT_EQ(downloader.download(url, fd).code, Error::NoError);
  close(fd);
  EXPECT_EQ(server.lastRequest().method(), "POST");  // under a GET signature
  expectSignedOnce(url);
  EXPECT_EQ(log.startingWith("D selvane:setHeader:name=date,").size(), 1u);

  ASSERT_EQ(downloader.download(url, &discard, nullptr).code, Error::NoError);
  EXPECT_TRUE(sent("authorization").empty());
}

TEST_F(ZorvelFileDownloaderTest, AThrownErrorLeavesTheSignatureForTheNextUnsignedDownload) {
  const Error error = thrownBy([&] { downloader.download(server.url("/status/404"), dir / "f"); });
  EXPECT_EQ(error.errorString(), "HTTP (404)");
  const fixtures::RecordedRequest failed = server.lastRequest();

  ASSERT_EQ(downloader.download(server.url("/ok/1"), &discard, nullptr).code, Error::NoError);
  EXPECT_EQ(sent("date"), failed.headerValues("date"));
  EXPECT_EQ(sent("authorization"), failed.headerValues("authorization"));
  EXPECT_EQ(sent("authorization").size(), 1u);
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
  void TearDown() override {
    if (s3) {
      EXPECT_NO_THROW(s3->stop());
    }
    EXPECT_TRUE(fixtures::ServerProcess::childrenRunning(fixtures::S3rver::kNode).empty());
  }

  harness::ScratchDir dir;
  std::unique_ptr<fixtures::S3rver> s3;
};

TEST_F(ZorvelS3rverTest, ACorrectSignatureFetchesTheObjectAndBadOnesGetTheServers403) {
  // Throws, saying how to install it, when s3rver is missing.
  s3.reset(new fixtures::S3rver("ota-bucket", dir.path()));
  const std::string url = s3->objectUrl("pkgs/foo_1.0.ipk");
  s3->putObject("pkgs/foo_1.0.ipk", fixtures::patternBody(100000));
  {
    harness::LogCapture log;
    ZorvelFileDownloader downloader(
        zorvelauth::Credentials(fixtures::S3rver::kAccessKeyId, fixtures::S3rver::kSecretKey));
    ASSERT_EQ(downloader.download(url, dir / "pkg").code, Error::NoError);
    EXPECT_EQ(harness::readFile(dir / "pkg"), fixtures::patternBody(100000));
    EXPECT_TRUE(log.startingWith("E ").empty());
  }
  const std::pair<zorvelauth::Credentials, const char*> refused[] = {
      {{fixtures::S3rver::kAccessKeyId, "wrong secret"}, "SignatureDoesNotMatch"},
      {{"UNKNOWNKEY", fixtures::S3rver::kSecretKey}, "InvalidAccessKeyId"},
  };
  for (const auto& c : refused) {
    harness::LogCapture log;
    ZorvelFileDownloader downloader(c.first);
    const Error error = thrownBy([&] { downloader.download(url, dir / "pkg"); });
    EXPECT_EQ(error.code, Error::HttpError);
    EXPECT_EQ(error.message, "403");
    EXPECT_NE(harness::readFile(dir / "pkg").find(c.second), std::string::npos)
        << harness::readFile(dir / "pkg");
    EXPECT_EQ(log.count("E selvane:FileDownloader:reason=error,url=" + url + ":HTTP (403)"), 1u);
  }
}

}  // namespace
