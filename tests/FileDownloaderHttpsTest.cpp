// FileDownloader against nginx over plain HTTP and HTTPS, with a test CA that libcurl's default
// bundle trusts only inside this test binary's private mount namespace.
#include <selvane/FileDownloader.h>

#include <memory>

#include "Harness.h"
#include "HttpTestServer.h"
#include "NginxServer.h"
#include "TestPki.h"

using selvane::FileDownloader;
using selvane::FileDownloaderError;

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

  FileDownloaderError thrownBy(const std::string& url) {
    try {
      downloader.download(url, dir / "out");
    } catch (const FileDownloaderError& error) {
      return error;
    }
    ADD_FAILURE() << url << " did not throw";
    return FileDownloaderError(FileDownloaderError::NoError, "", "");
  }

  harness::ScratchDir dir;
  std::unique_ptr<fixtures::TestPki> pki;
  std::unique_ptr<fixtures::NginxServer> nginx;
  FileDownloader downloader;
};

TEST_F(FileDownloaderHttpsTest, DownloadsOverHttpAndVerifiedHttps) {
  fixtures::TrustedCaBundle trust(pki->caCertificate(), dir.path());
  const std::string urls[] = {nginx->httpUrl("/pkg.ipk"), nginx->httpsUrl(kTrusted, "/pkg.ipk"),
                              nginx->httpsUrl(kTrusted, "/pkg.ipk", "127.0.0.1")};
  for (const std::string& url : urls) {
    harness::LogCapture log;
    const FileDownloaderError result = downloader.download(url, dir / "out");
    EXPECT_EQ(result.code, FileDownloaderError::NoError) << url;
    EXPECT_EQ(harness::readFile(dir / "out"), fixtures::patternBody(200000)) << url;
    EXPECT_TRUE(log.startingWith("E ").empty()) << url;
  }
}

TEST_F(FileDownloaderHttpsTest, AMissingFileIsA404WithNginxsPageInTheDestination) {
  fixtures::TrustedCaBundle trust(pki->caCertificate(), dir.path());
  harness::LogCapture log;
  const std::string url = nginx->httpsUrl(kTrusted, "/missing.ipk");
  const FileDownloaderError error = thrownBy(url);
  EXPECT_EQ(error.code, FileDownloaderError::HttpError);
  EXPECT_EQ(error.message, "404");
  EXPECT_EQ(downloader.responseCode(), 404);
  EXPECT_NE(harness::readFile(dir / "out").find("404 Not Found"), std::string::npos);
  EXPECT_EQ(log.count("E selvane:FileDownloader:reason=error,url=" + url + ":HTTP (404)"), 1u);
}

TEST_F(FileDownloaderHttpsTest, CertificatesThatDoNotVerifyAreRefused) {
  struct Case {
    std::string url;
    const char* why;
  };
  std::vector<Case> cases = {
      {nginx->httpsUrl(kWrongHost, "/pkg.ipk"), "no alternative certificate subject name matches"},
      {nginx->httpsUrl(kSelfSigned, "/pkg.ipk"), "self-signed certificate"},
  };
  {
    fixtures::TrustedCaBundle trust(pki->caCertificate(), dir.path());
    for (const Case& c : cases) {
      harness::LogCapture log;
      const FileDownloaderError error = thrownBy(c.url);
      EXPECT_EQ(error.code, FileDownloaderError::CurlError) << c.url;
      EXPECT_EQ(error.curlCode, CURLE_PEER_FAILED_VERIFICATION) << c.url;
      EXPECT_NE(error.message.find(c.why), std::string::npos) << error.message;
      EXPECT_EQ(log.startingWith("E ").size(), 1u);
      EXPECT_EQ(downloader.responseCode(), 0);
    }
  }
  // Outside the bundle that holds the test CA, even the right certificate is unknown.
  const FileDownloaderError error = thrownBy(nginx->httpsUrl(kTrusted, "/pkg.ipk"));
  EXPECT_EQ(error.curlCode, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_NE(error.message.find("unable to get local issuer certificate"), std::string::npos)
      << error.message;
}

}  // namespace
