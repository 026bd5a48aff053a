// FileDownloader against nginx over plain HTTP and HTTPS, with a test CA that libcurl's default
// bundle trusts only inside this test binary's private mount namespace.
#include <selvane/FileDownloader.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "Harness.h"
#include "HttpTestServer.h"
#include "NginxServer.h"
#include "Thrown.h"

using fixtures::thrownBy;
using selvane::FileDownloader;
using Error = selvane::FileDownloaderError;

namespace {

const char* const kDefaultBundle = "/etc/ssl/certs/ca-certificates.crt";

// A throw-away PKI in dir, made with the openssl command: a test CA (ca.crt), certificates it
// issues for localhost and 127.0.0.1 (server.*) and for another host name (wrong.*), and a
// self-signed one for localhost (selfsigned.*). P-256 keys are quick to make.
void makeTestPki(const std::string& dir) {
  const std::string script =
      "set -e; cd '" + dir +
      "'; key='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes'\n"
      "openssl req -x509 -new $key -days 30 -keyout ca.key -out ca.crt -subj '/CN=Selvane Test CA'"
      "  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign\n"
      "issue() {\n"
      "  printf 'subjectAltName=%s\\nbasicConstraints=CA:FALSE\\nextendedKeyUsage=serverAuth\\n'"
      "    $3 >$1.ext\n"
      "  openssl req -new $key -keyout $1.key -out $1.csr -subj /CN=$2\n"
      "  openssl x509 -req -in $1.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 30"
      "    -extfile $1.ext -out $1.crt\n"
      "}\n"
      "issue server localhost DNS:localhost,IP:127.0.0.1\n"
      "issue wrong wronghost.example DNS:wronghost.example\n"
      "openssl req -x509 -new $key -days 30 -keyout selfsigned.key -out selfsigned.crt"
      "  -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1\n";
  std::string output;
  if (harness::shell("(" + script + ") 2>&1", &output) != 0)
    throw std::runtime_error("making the test PKI failed:\n" + output);
}

// Makes libcurl's default CA bundle trust the test CA in dir while it lives: the system's bundle
// plus the test CA, bound over the default path in the test binary's private mount namespace.
class TrustedCaBundle {
 public:
  explicit TrustedCaBundle(const std::string& dir) {
    if (!harness::privateNamespace()) throw std::runtime_error("no private mount namespace");
    const std::string bundle = dir + "/ca-bundle.crt";
    harness::writeFile(bundle,
                       harness::readFile(kDefaultBundle) + harness::readFile(dir + "/ca.crt"));
    if (mount(bundle.c_str(), kDefaultBundle, nullptr, MS_BIND, nullptr) != 0)
      throw std::runtime_error("bind the test CA bundle: " + std::string(std::strerror(errno)));
  }
  ~TrustedCaBundle() { umount2(kDefaultBundle, MNT_DETACH); }
};

enum Listener { kTrusted = 0, kWrongHost = 1, kSelfSigned = 2, kTls12Only = 3 };

class FileDownloaderHttpsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();
    makeTestPki(dir.path());
    const auto identity = [&](const std::string& name) {
      return fixtures::TlsIdentity{dir / (name + ".crt"), dir / (name + ".key")};
    };
    fixtures::TlsIdentity tls12 = identity("server");
    tls12.protocols = "TLSv1.2";
    nginx.reset(new fixtures::NginxServer(
        {identity("server"), identity("wrong"), identity("selfsigned"), tls12}));
    harness::writeFile(nginx->docroot() + "/pkg.ipk", fixtures::patternBody(200000));
    // 64 GiB of holes: a body that looks endless and costs nothing.
    const std::string endless = nginx->docroot() + "/endless";
    harness::writeFile(endless, "");
    ASSERT_EQ(truncate(endless.c_str(), 64LL << 30), 0);
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
  std::unique_ptr<fixtures::NginxServer> nginx;
  FileDownloader downloader;
};

TEST_F(FileDownloaderHttpsTest, DownloadsOverHttpAndVerifiedHttpsAndA404WithNginxsPage) {
  TrustedCaBundle trust(dir.path());
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
    std::unique_ptr<TrustedCaBundle> trust(c.caTrusted ? new TrustedCaBundle(dir.path()) : nullptr);
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

namespace {

using TLS = FileDownloader::TLSVersion;

TEST_F(FileDownloaderHttpsTest, TheTransportPolicyLimitsSchemesRedirectsTlsVersionsAndSizes) {
  TrustedCaBundle trust(dir.path());
  harness::writeFile(dir / "local", "local file");
  const std::string https = "https", toHttp = nginx->httpsUrl(kTrusted, "/to-http/pkg.ipk");
  const struct {
    std::string protocols, redirectProtocols;
    TLS tls;
    uint64_t maxSize;
    std::string url;
    CURLcode expected;
  } cases[] = {
      // The defaults follow https to http.
      {"", "", TLS::Default, 0, toHttp, CURLE_OK},
      {"", "", TLS::Default, 0, nginx->httpsUrl(kTls12Only, "/pkg.ipk"), CURLE_OK},
      {https, https, TLS::TLSv1_2, 0, nginx->httpsUrl(kTls12Only, "/pkg.ipk"), CURLE_OK},
      {https, https, TLS::Default, 0, toHttp, CURLE_UNSUPPORTED_PROTOCOL},
      {https, https, TLS::Default, 0, nginx->httpUrl("/pkg.ipk"), CURLE_UNSUPPORTED_PROTOCOL},
      {https, https, TLS::Default, 0, "file://" + dir / "local", CURLE_UNSUPPORTED_PROTOCOL},
      {"", https, TLS::Default, 0, nginx->httpUrl("/pkg.ipk"), CURLE_OK},
      {https, https, TLS::TLSv1_3, 0, nginx->httpsUrl(kTls12Only, "/pkg.ipk"),
       CURLE_SSL_CONNECT_ERROR},
      {https, https, TLS::Default, 1 << 20, nginx->httpsUrl(kTrusted, "/endless"),
       CURLE_FILESIZE_EXCEEDED},
      {"", "", TLS::Default, 1 << 20, nginx->httpUrl("/endless"), CURLE_FILESIZE_EXCEEDED},
  };
  for (const auto& c : cases) {
    FileDownloader policed;
    policed.setAllowedProtocols(c.protocols, c.redirectProtocols);
    policed.setMinimumTLSVersion(c.tls);
    policed.setMaximumFileSize(c.maxSize);
    harness::LogCapture log;
    const std::string out = dir / "out";
    const Error result = c.expected == CURLE_OK ? policed.download(c.url, out)
                                                : thrownBy([&] { policed.download(c.url, out); });
    EXPECT_EQ(result.curlCode, c.expected) << c.url << " " << result.errorString();
    EXPECT_EQ(log.startingWith("E ").size(), c.expected == CURLE_OK ? 0u : 1u) << c.url;
    if (c.expected == CURLE_OK) {
      EXPECT_EQ(result.code, Error::NoError);
      EXPECT_EQ(harness::readFile(out), fixtures::patternBody(200000));
    } else {
      EXPECT_EQ(harness::readFile(out), "") << c.url;
    }
  }
}

}  // namespace
