// The downloaders against the in-process test server (for what a real server cannot be made to
// do), against nginx over HTTPS and against s3rver, a real S3-compatible server.
#include <fcntl.h>
#include <selvane/ZorvelFileDownloader.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <functional>

#include "Harness.h"
#include "HttpTestServer.h"
#include "NginxServer.h"

using fixtures::patternBody;
using selvane::FileDownloader;
using Error = selvane::FileDownloaderError;
using Strings = std::vector<std::string>;

namespace {

// Runs a download that must throw a FileDownloaderError and hands back what it threw.
template <typename Download>
Error thrownBy(Download download) {
  try {
    download();
  } catch (const Error& error) {
    return error;
  }
  ADD_FAILURE() << "the download did not throw";
  return Error(Error::NoError, "", "");
}

std::string errorLine(const std::string& url, const std::string& text) {
  return "E selvane:FileDownloader:reason=error,url=" + url + ":" + text;
}

// What libcurl hands to the write (or header) callback.
std::string received;
size_t receive(char* bytes, size_t size, size_t count, void*) {
  received.append(bytes, size * count);
  return size * count;
}

class FileDownloaderTest : public ::testing::Test {
 protected:
  Error fetch(const std::string& path) {
    received.clear();
    return downloader.download(server.url(path), &receive, nullptr);
  }
  Strings sent(const std::string& header) { return server.lastRequest().headerValues(header); }

  harness::ScratchDir dir;
  fixtures::HttpTestServer server;
  FileDownloader downloader;
};

TEST_F(FileDownloaderTest, PathDownloadsTruncateAndDescriptorDownloadsWriteAtTheOffset) {
  harness::writeFile(dir / "out", std::string(5000, 'x'));
  const Error result = downloader.download(server.url("/ok/1000"), dir / "out");
  EXPECT_EQ(result.errorString() + " " + result.url, "no error (OK) " + server.url("/ok/1000"));
  EXPECT_EQ(harness::readFile(dir / "out"), patternBody(1000));
  ASSERT_EQ(downloader.download(server.url("/ok/1"), dir / "new").code, Error::NoError);
  struct stat st {};
  EXPECT_EQ(stat((dir / "new").c_str(), &st) == 0 ? st.st_mode & 077 : 1, 0u);  // 0600 at most
  const int fd = open((dir / "fd").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(write(fd, "prefix", 6), 6);
  EXPECT_EQ(downloader.download(server.url("/ok/500"), fd).code, Error::NoError);
  EXPECT_EQ(write(fd, "!", 1), 1);  // the descriptor stays open, at the end of the body
  close(fd);
  EXPECT_EQ(harness::readFile(dir / "fd"), "prefix" + patternBody(500) + "!");
}

TEST_F(FileDownloaderTest, HeadersGoInNameOrderAndOneShotHeadersAndBodiesAreSentOnce) {
  downloader.setHeader("Zeta", "z", true);
  downloader.setHeader("mid", "first", false);
  downloader.setHeader("Alpha", "a b:c", false);
  downloader.setHeader("mid", "second", true);  // replaces value and flag
  downloader.setPOST(std::string("ab\0cd", 5));
  ASSERT_EQ(fetch("/echo").code, Error::NoError);
  const Strings lines = server.lastRequest().headerLines;
  const auto at = [&](const char* line) { return std::find(lines.begin(), lines.end(), line); };
  EXPECT_LT(at("Alpha: a b:c"), at("Zeta: z"));  // byte order: upper case first
  EXPECT_LT(at("Zeta: z"), at("mid: second"));
  EXPECT_LT(at("mid: second"), lines.end());
  EXPECT_EQ(server.lastRequest().requestLine, "POST /echo HTTP/1.1");
  EXPECT_EQ(received, std::string("ab\0cd", 5));  // echoed

  ASSERT_EQ(fetch("/echo").code, Error::NoError);
  EXPECT_EQ(sent("Alpha"), Strings{});
  EXPECT_EQ(sent("mid"), Strings{"second"});
  EXPECT_EQ(server.lastRequest().requestLine, "GET /echo HTTP/1.1");
  downloader.resetHeaders();
  ASSERT_EQ(fetch("/echo").code, Error::NoError);
  EXPECT_EQ(sent("Zeta"), Strings{});
}

TEST_F(FileDownloaderTest, BadDestinationsAreReturnedBeforeATransfer) {
  const std::string url = server.url("/ok/1");
  const std::pair<std::function<Error()>, const char*> cases[] = {
      {[&] { return downloader.download(url, dir / "no/dir"); },
       "file (Could not open destination file)"},
      {[&] { return downloader.download(url, -1); }, "general (Unable to duplicate the fd)"},
      {[&] { return downloader.download(url, nullptr, nullptr); },
       "general (Provided Callback cannot be NULL)"},
  };
  for (const auto& c : cases) {
    harness::LogCapture log;
    EXPECT_EQ(c.first().errorString(), c.second);
    EXPECT_EQ(log.texts(), Strings{errorLine(url, c.second)});
  }
  EXPECT_EQ(server.requests().size(), 0u);
}

TEST_F(FileDownloaderTest, TenRedirectsAreFollowedAndOtherStatusesThan200AreThrownAfterTheBody) {
  ASSERT_EQ(downloader.download(server.url("/redirect/10"), dir / "out").code, Error::NoError);
  EXPECT_EQ(harness::readFile(dir / "out"), "arrived");
  harness::LogCapture log;
  const std::string partial = server.url("/status/206"), endless = server.url("/redirect/11");
  const Error status = thrownBy([&] { downloader.download(partial, dir / "out"); });
  EXPECT_EQ(status.errorString() + " " + status.url, "HTTP (206) " + partial);
  EXPECT_EQ(harness::readFile(dir / "out"), "status 206");
  const Error redirects = thrownBy([&] { downloader.download(endless, dir / "out"); });
  EXPECT_EQ(redirects.code, Error::CurlError);
  EXPECT_EQ(redirects.curlCode, CURLE_TOO_MANY_REDIRECTS);
  EXPECT_EQ(downloader.responseCode(), 302);
  EXPECT_EQ(log.startingWith("E "), (Strings{errorLine(partial, "HTTP (206)"),
                                             errorLine(endless, redirects.errorString())}));
}

TEST_F(FileDownloaderTest, AliasedStatusLinesAreAcceptedAndAHeaderCallbackGetsThem) {
  downloader.addHTTPAlias("ICY 200 OK");
  downloader.addHTTPAlias("SELVANE/1.0 200 Fine");
  downloader.setHeaderCallback(&receive);
  ASSERT_EQ(fetch("/alias").code, Error::NoError);
  EXPECT_EQ(received,
            "SELVANE/1.0 200 Fine\r\nContent-Length: 5\r\nConnection: close\r\n\r\nalias");
}

// nginx with a self-signed certificate for localhost, which libcurl's default CA bundle trusts
// only once the test binds a bundle holding it over the default path (in its private namespace).
TEST_F(FileDownloaderTest, HttpsNeedsATrustedCertificateForTheHostAndTheMinimumTlsVersion) {
  SELVANE_REQUIRE_ROOT();
  const std::string crt = dir / "localhost.crt", key = dir / "localhost.key",
                    bundle = "/etc/ssl/certs/ca-certificates.crt";
  ASSERT_EQ(harness::shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 "
                           "-nodes -days 9 -subj /CN=localhost -addext subjectAltName=DNS:localhost"
                           " -keyout " +
                           key + " -out " + crt + " 2>/dev/null"),
            0);
  fixtures::NginxServer nginx({{crt, key, "TLSv1.2"}});
  harness::writeFile(nginx.docroot() + "/pkg", "package");
  const auto failure = [&](FileDownloader& d, const std::string& host) {
    return thrownBy([&] { d.download(nginx.httpsUrl(0, "/pkg", host), dir / "out"); }).curlCode;
  };
  EXPECT_EQ(failure(downloader, "localhost"), CURLE_PEER_FAILED_VERIFICATION);  // not yet trusted
  harness::writeFile(dir / "bundle", harness::readFile(bundle) + harness::readFile(crt));
  ASSERT_EQ(mount((dir / "bundle").c_str(), bundle.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(downloader.download(nginx.httpsUrl(0, "/pkg"), dir / "out").code, Error::NoError);
  EXPECT_EQ(harness::readFile(dir / "out"), "package");
  EXPECT_EQ(failure(downloader, "127.0.0.1"), CURLE_PEER_FAILED_VERIFICATION);
  FileDownloader strict;
  strict.setMinimumTLSVersion(FileDownloader::TLSVersion::TLSv1_3);
  EXPECT_EQ(failure(strict, "localhost"), CURLE_SSL_CONNECT_ERROR);  // the server stops at 1.2
  umount2(bundle.c_str(), MNT_DETACH);
}

// ---- signed downloads -------------------------------------------------------------------------

TEST_F(FileDownloaderTest, ZorvelPathAndDescriptorDownloadsAreSignedOnceCallbackDownloadsNot) {
  const zorvelauth::Credentials credentials("AKIDSELVANE", "s3cr3t/key+");
  selvane::ZorvelFileDownloader signer(credentials);
  // Checks that the last request carried exactly one signature, valid for its own date.
  const auto expectSignedOnce = [&](const std::string& path) {
    const Strings dates = sent("date");
    ASSERT_EQ(dates.size(), 1u);
    EXPECT_EQ(sent("authorization"),
              Strings{zorvelauth::RequestAuthenticator(credentials)
                          .authorizeRequest(zorvelauth::Request::createGETRequest(
                              zorvelauth::CanonicalizedResource(server.url(path)), dates[0]))});
  };
  ASSERT_EQ(signer.download(server.url("/ok/100"), dir / "out").code, Error::NoError);
  EXPECT_EQ(harness::readFile(dir / "out"), patternBody(100));
  expectSignedOnce("/ok/100");
  ASSERT_EQ(signer.download(server.url("/ok/1"), &receive, nullptr).code, Error::NoError);
  EXPECT_EQ(sent("authorization"), Strings{});  // one-shot, and not made for callback downloads
  const int fd = open((dir / "out").c_str(), O_WRONLY | O_CLOEXEC);
  signer.setPOST("query");
  ASSERT_EQ(signer.download(server.url("/echo"), fd).code, Error::NoError);
  close(fd);
  EXPECT_EQ(server.lastRequest().requestLine, "POST /echo HTTP/1.1");  // under a GET signature
  expectSignedOnce("/echo");
}

// s3rver (tests/s3rver, from the npm registry, with a fix: scripts/setup-s3rver.sh) as a child,
// with its built-in credentials and one bucket. It also accepts unsigned requests, so what must be
// shown is that bad signatures are refused.
TEST(ZorvelS3rver, ACorrectSignatureFetchesTheObjectAndBadOnesGetTheServers403) {
  harness::ScratchDir dir;
  unsigned short port;
  close(fixtures::bindLoopbackSocket(port));
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/b/pkgs/foo.ipk";
  fixtures::ServerProcess s3rver(
      {"/usr/bin/node", SELVANE_TEST_SOURCE_DIR "/s3rver/node_modules/s3rver/bin/s3rver.js", "-d",
       dir / "data", "-a", "127.0.0.1", "-p", std::to_string(port), "--configure-bucket", "b"},
      dir / "log");
  harness::writeFile(dir / "upload", patternBody(100000));
  ASSERT_TRUE(fixtures::pollUntil(
      [&] { return harness::shell("curl -sf -T " + dir / "upload" + " " + url) == 0; }, 15000))
      << fixtures::slurp(dir / "log");

  selvane::ZorvelFileDownloader good({"S3RVER", "S3RVER"}), bad({"S3RVER", "wrong secret"});
  ASSERT_EQ(good.download(url, dir / "pkg").code, Error::NoError);
  EXPECT_EQ(harness::readFile(dir / "pkg"), patternBody(100000));
  EXPECT_EQ(thrownBy([&] { bad.download(url, dir / "pkg"); }).message, "403");
  EXPECT_NE(harness::readFile(dir / "pkg").find("SignatureDoesNotMatch"), std::string::npos);
}

}  // namespace
