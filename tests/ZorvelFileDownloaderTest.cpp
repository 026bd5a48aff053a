// Signed downloads: the headers a ZorvelFileDownloader sends (against the in-process server) and
// what an independent S3 implementation (s3rver) makes of its signatures.
#include <fcntl.h>
#include <selvane/ZorvelFileDownloader.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>

#include "Harness.h"
#include "HttpTestServer.h"
#include "ServerProcess.h"
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

const char* const kNode = "/usr/bin/node";
const std::string kModules = SELVANE_TEST_SOURCE_DIR "/s3rver/node_modules";
const std::string kInstallHint =
    "run scripts/setup-s3rver.sh (needs npm and the npm registry once)";

// Empty when s3rver and its fix are in place, else what is missing and how to install it.
std::string missingS3rver() {
  if (access(kNode, X_OK) != 0)
    return std::string(kNode) + " is missing: run scripts/install-deps.sh";
  const std::string auth = fixtures::slurp(kModules + "/s3rver/lib/middleware/authentication.js");
  if (auth.empty()) return "s3rver is not installed in " + kModules + ": " + kInstallHint;
  // The set-up script's own check: without the fix every V2 header signature is refused.
  if (auth.find("canonicalRequest.timestamp = ctx.headers[\"x-amz-date\"] ? \"\" : "
                "ctx.headers[\"date\"];") == std::string::npos)
    return "s3rver lacks its Date fix: " + kInstallHint;
  return "";
}

// s3rver, a fake S3 server from the npm registry, run as a direct child on 127.0.0.1 with a port
// of its own choosing, its built-in credentials and one bucket holding one object. It accepts
// unsigned requests, so what must be shown is that bad signatures are refused.
class ZorvelS3rverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string missing = missingS3rver();
    ASSERT_TRUE(missing.empty()) << missing;
    const std::string log = dir / "s3rver.log", ready = "S3rver listening on 127.0.0.1:";
    s3rver.reset(new fixtures::ServerProcess(
        {kNode, kModules + "/s3rver/bin/s3rver.js", "-d", dir / "data", "-a", "127.0.0.1", "-p",
         "0", "-s", "--configure-bucket", "ota-bucket"},
        log));
    unsigned long port = 0;
    fixtures::pollUntil(
        [&] {
          const std::string text = fixtures::slurp(log);
          const size_t at = text.find(ready);
          if (at != std::string::npos && text.find('\n', at) != std::string::npos)
            port = std::stoul(text.substr(at + ready.size()));
          return port != 0 || !s3rver->running();
        },
        15000);
    ASSERT_NE(port, 0u) << "s3rver did not start:\n" << fixtures::slurp(log);
    url = "http://127.0.0.1:" + std::to_string(port) + "/ota-bucket/pkgs/foo_1.0.ipk";
    harness::writeFile(dir / "upload", fixtures::patternBody(100000));
    std::string output;
    ASSERT_EQ(harness::shell(
                  "curl -sS -f -X PUT --data-binary @'" + dir / "upload" + "' '" + url + "' 2>&1",
                  &output),
              0)
        << output;
  }

  void TearDown() override {
    if (s3rver) {
      EXPECT_NO_THROW(s3rver->stop());
    }
    EXPECT_TRUE(fixtures::ServerProcess::childrenRunning(kNode).empty());
  }

  harness::ScratchDir dir;
  std::unique_ptr<fixtures::ServerProcess> s3rver;
  std::string url;
};

TEST_F(ZorvelS3rverTest, ACorrectSignatureFetchesTheObjectAndBadOnesGetTheServers403) {
  ZorvelFileDownloader good({"S3RVER", "S3RVER"});
  ASSERT_EQ(good.download(url, dir / "pkg").code, Error::NoError);
  EXPECT_EQ(harness::readFile(dir / "pkg"), fixtures::patternBody(100000));

  const std::pair<zorvelauth::Credentials, const char*> refused[] = {
      {{"S3RVER", "wrong secret"}, "SignatureDoesNotMatch"},
      {{"UNKNOWNKEY", "S3RVER"}, "InvalidAccessKeyId"},
  };
  for (const auto& c : refused) {
    ZorvelFileDownloader downloader(c.first);
    const Error error = thrownBy([&] { downloader.download(url, dir / "pkg"); });
    EXPECT_EQ(error.code, Error::HttpError);
    EXPECT_EQ(error.message, "403");
    EXPECT_NE(harness::readFile(dir / "pkg").find(c.second), std::string::npos)
        << harness::readFile(dir / "pkg");
  }
}

}  // namespace
