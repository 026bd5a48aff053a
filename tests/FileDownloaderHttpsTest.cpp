// FileDownloader against nginx over plain HTTP and HTTPS, with a test CA that libcurl's default
// bundle trusts only inside this test binary's private mount namespace.
#include <selvane/FileDownloader.h>

#include <memory>

#include "Harness.h"
#include "HttpTestServer.h"
#include "NginxServer.h"
#include "TestPki.h"
#include "Thrown.h"

using fixtures::thrownBy;
using selvane::FileDownloader;
using Error = selvane::FileDownloaderError;

namespace {

enum Listener { kTrusted = 0, kWrongHost = 1, kSelfSigned = 2 };

class FileDownloaderHttpsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();
    pki.reset(new fixtures::TestPki(dir.path()));
    nginx.reset(new fixtures::NginxServer({pki->server(), pki->wrongHost(), pki->selfSigned()}));
    harness::writeFile(nginx->docroot() + "/pkg.ipk", fixtures::patternBody(200000));
  }

  void TearDown() override {
    // The server and its worker must be gone with the test.
    if (nginx) {
      EXPECT_NO_THROW(nginx->stop());
    }
    EXPECT_TRUE(fixtures::ServerProcess::childrenRunning(fixtures::NginxServer::kProgram).empty());
  }

  Error failureOf(const std::string& url) {
    return thrownBy([&] { downloader.download(url, dir / "out"); });
  }

  harness::ScratchDir dir;
  std::unique_ptr<fixtures::TestPki> pki;
  std::unique_ptr<fixtures::NginxServer> nginx;
  FileDownloader downloader;
};

TEST_F(FileDownloaderHttpsTest, DownloadsOverHttpAndVerifiedHttpsAndA404WithNginxsPage) {
  fixtures::TrustedCaBundle trust(pki->caCertificate(), dir.path());
  for (const std::string& url : {nginx->httpUrl("/pkg.ipk"), nginx->httpsUrl(kTrusted, "/pkg.ipk"),
                                 nginx->httpsUrl(kTrusted, "/pkg.ipk", "127.0.0.1")}) {
    harness::LogCapture log;
    EXPECT_EQ(downloader.download(url, dir / "out").code, Error::NoError) << url;
    EXPECT_EQ(harness::readFile(dir / "out"), fixtures::patternBody(200000)) << url;
    EXPECT_TRUE(log.startingWith("E ").empty()) << url;
  }

  harness::LogCapture log;
  const std::string url = nginx->httpsUrl(kTrusted, "/missing.ipk");
  const Error error = failureOf(url);
  EXPECT_EQ(error.code, Error::HttpError);
  EXPECT_EQ(error.message, "404");
  EXPECT_NE(harness::readFile(dir / "out").find("404 Not Found"), std::string::npos);
  EXPECT_EQ(log.count("E selvane:FileDownloader:reason=error,url=" + url + ":HTTP (404)"), 1u);
}

TEST_F(FileDownloaderHttpsTest, CertificatesThatDoNotVerifyAreRefused) {
  const struct {
    std::string url;
    bool caTrusted;
    const char* why;
  } cases[] = {
      {nginx->httpsUrl(kWrongHost, "/pkg.ipk"), true,
       "no alternative certificate subject name matches"},
      {nginx->httpsUrl(kSelfSigned, "/pkg.ipk"), true, "self-signed certificate"},
      // Outside the bundle that holds the test CA, even the right certificate is unknown.
      {nginx->httpsUrl(kTrusted, "/pkg.ipk"), false, "unable to get local issuer certificate"},
  };
  for (const auto& c : cases) {
    std::unique_ptr<fixtures::TrustedCaBundle> trust;
    if (c.caTrusted) trust.reset(new fixtures::TrustedCaBundle(pki->caCertificate(), dir.path()));
    harness::LogCapture log;
    const Error error = failureOf(c.url);
    EXPECT_EQ(error.code, Error::CurlError) << c.url;
    EXPECT_EQ(error.curlCode, CURLE_PEER_FAILED_VERIFICATION) << c.url;
    EXPECT_NE(error.message.find(c.why), std::string::npos) << error.message;
    EXPECT_EQ(log.startingWith("E ").size(), 1u);
    EXPECT_EQ(downloader.responseCode(), 0);
  }
}

}  // namespace
