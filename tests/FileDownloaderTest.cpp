// FileDownloader against the in-process test server: destinations, headers, bodies, statuses,
// redirects, short and endless bodies, progress, rate limits, and what a failure leaves behind.
#include <fcntl.h>
#include <selvane/FileDownloader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "Harness.h"
#include "HttpTestServer.h"
#include "ServerProcess.h"
#include "Thrown.h"

using fixtures::patternBody;
using fixtures::thrownBy;
using selvane::FileDownloader;
using Error = selvane::FileDownloaderError;
using Strings = std::vector<std::string>;

namespace {

// Collects what libcurl hands to a write (or header) callback.
struct Sink {
  std::string data;
  static size_t write(char* bytes, size_t size, size_t count, void* userdata) {
    static_cast<Sink*>(userdata)->data.append(bytes, size * count);
    return size * count;
  }
};

std::string errorLine(const std::string& url, const std::string& text) {
  return "E selvane:FileDownloader:reason=error,url=" + url + ":" + text;
}

// Open descriptors of files (not sockets or pipes): the test server's threads open and close
// sockets in this process at their own pace.
size_t openFileCount() {
  size_t count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    char target[256];
    count += readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, 1) > 0 &&
             target[0] == '/';
  }
  return count;
}

void ownSigpipeHandler(int) {}

sighandler_t currentSigpipe() {
  struct sigaction now {};
  sigaction(SIGPIPE, nullptr, &now);
  return now.sa_handler;
}

class FileDownloaderTest : public ::testing::Test {
 protected:
  // The test's own SIGPIPE handler, which a transfer ignores for its duration.
  FileDownloaderTest() : savedSigpipe(signal(SIGPIPE, &ownSigpipeHandler)) {}
  ~FileDownloaderTest() override { signal(SIGPIPE, savedSigpipe); }

  Error fetch(const std::string& path) {
    sink.data.clear();
    return downloader.download(server.url(path), &Sink::write, &sink);
  }
  Strings sent(const std::string& header) { return server.lastRequest().headerValues(header); }

  sighandler_t savedSigpipe;
  harness::ScratchDir dir;
  fixtures::HttpTestServer server;
  FileDownloader downloader;
  Sink sink;
};

TEST_F(FileDownloaderTest, PathDownloadsTruncateAndDescriptorDownloadsKeepTheOffset) {
  harness::LogCapture log;
  const std::string file = dir / "existing";
  harness::writeFile(file, std::string(5000, 'x'));
  const size_t descriptors = openFileCount();
  const Error result = downloader.download(server.url("/ok/1000"), file);
  EXPECT_EQ(result.code, Error::NoError);
  EXPECT_EQ(result.url, server.url("/ok/1000"));
  EXPECT_EQ(harness::readFile(file), patternBody(1000));
  EXPECT_EQ(downloader.responseCode(), 200);

  const mode_t savedUmask = umask(022);
  ASSERT_EQ(downloader.download(server.url("/ok/10"), dir / "new").code, Error::NoError);
  umask(savedUmask);
  struct stat st;
  ASSERT_EQ(stat((dir / "new").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);

  // A descriptor is written at its offset, which advances, and stays open.
  const int fd = open((dir / "fd").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(write(fd, "prefix", 6), 6);
  EXPECT_EQ(downloader.download(server.url("/ok/500"), fd).code, Error::NoError);
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 506);
  ASSERT_EQ(write(fd, "!", 1), 1);
  close(fd);
  EXPECT_EQ(harness::readFile(dir / "fd"), "prefix" + patternBody(500) + "!");
  EXPECT_EQ(openFileCount(), descriptors);
  EXPECT_TRUE(log.startingWith("E ").empty());
}

TEST_F(FileDownloaderTest, HeadersInNameOrderAndPostBodiesAreSentAndOneShotStateIsConsumed) {
  harness::LogCapture log;
  downloader.setHeader("Zeta", "z", true);
  downloader.setHeader("mid", "first", false);
  downloader.setHeader("Alpha", "a b:c", false);
  downloader.setHeader("mid", "second", true);  // replaces value and flag
  const std::string body("ab\0cd", 5);
  downloader.setPOST(body);
  EXPECT_EQ(log.count("D selvane:setPOST:data=ab:"), 1u);

  ASSERT_EQ(fetch("/echo").code, Error::NoError);
  const fixtures::RecordedRequest first = server.lastRequest();
  const auto at = [&](const std::string& line) {
    return std::find(first.headerLines.begin(), first.headerLines.end(), line);
  };
  EXPECT_LT(at("Alpha: a b:c"), at("Zeta: z"));  // byte order: upper case first
  EXPECT_LT(at("Zeta: z"), at("mid: second"));
  EXPECT_LT(at("mid: second"), first.headerLines.end());
  EXPECT_EQ(sent("mid"), Strings{"second"});
  EXPECT_EQ(first.method(), "POST");
  EXPECT_EQ(first.body, body);
  EXPECT_EQ(sink.data, body);

  ASSERT_EQ(fetch("/echo").code, Error::NoError);
  EXPECT_TRUE(sent("Alpha").empty());
  EXPECT_EQ(sent("Zeta"), Strings{"z"});
  EXPECT_EQ(sent("mid"), Strings{"second"});
  EXPECT_EQ(server.lastRequest().method(), "GET");
  EXPECT_EQ(server.lastRequest().body, "");

  downloader.resetHeaders();
  ASSERT_EQ(fetch("/ok/1").code, Error::NoError);
  EXPECT_TRUE(sent("Zeta").empty());
  EXPECT_TRUE(sent("mid").empty());
}

TEST_F(FileDownloaderTest, ReturnedAndThrownErrorsLeaveTheOneShotStateInPlace) {
  // During a transfer SIGPIPE is ignored; afterwards the earlier handler is back.
  static sighandler_t duringTransfer;
  const auto probe = [](char*, size_t size, size_t count, void*) -> size_t {
    duringTransfer = currentSigpipe();
    return size * count;
  };
  ASSERT_EQ(downloader.download(server.url("/ok/10"), probe, nullptr).code, Error::NoError);
  EXPECT_EQ(duringTransfer, SIG_IGN);
  EXPECT_EQ(currentSigpipe(), &ownSigpipeHandler);

  // Bad destinations are returned before a transfer starts.
  const std::string url = server.url("/echo");
  const size_t descriptors = openFileCount();
  const int readOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const std::pair<std::function<Error()>, const char*> returned[] = {
      {[&] { return downloader.download(url, dir / "missing/dir/file"); },
       "file (Could not open destination file)"},
      {[&] { return downloader.download(url, -1); }, "general (Unable to duplicate the fd)"},
      {[&] { return downloader.download(url, readOnly); }, "general (Unable to open the fd)"},
      {[&] { return downloader.download(url, nullptr, nullptr); },
       "general (Provided Callback cannot be NULL)"},
  };
  downloader.setHeader("X-Once", "1", false);
  downloader.setPOST("payload");
  for (const auto& c : returned) {
    harness::LogCapture log;
    const Error result = c.first();
    EXPECT_EQ(result.errorString(), c.second);
    EXPECT_EQ(result.url, url);
    EXPECT_EQ(log.startingWith("E "), Strings{errorLine(url, c.second)});
  }
  close(readOnly);
  EXPECT_EQ(openFileCount(), descriptors);
  EXPECT_EQ(server.requests().size(), 1u);  // the probe's alone
  EXPECT_EQ(currentSigpipe(), &ownSigpipeHandler);

  // A 404 to a path is thrown through without closing the destination's descriptors.
  const Error error = thrownBy([&] { downloader.download(server.url("/status/404"), dir / "f"); });
  EXPECT_EQ(error.errorString(), "HTTP (404)");
  EXPECT_GE(openFileCount(), descriptors + 2);  // the file and its duplicate
  EXPECT_EQ(currentSigpipe(), SIG_IGN);

  // The next transfer still carries the one-shot header and the body, and consumes them.
  ASSERT_EQ(fetch("/echo").code, Error::NoError);
  EXPECT_EQ(sent("X-Once"), Strings{"1"});
  EXPECT_EQ(sink.data, "payload");
  ASSERT_EQ(fetch("/echo").code, Error::NoError);
  EXPECT_TRUE(sent("X-Once").empty());
  EXPECT_EQ(server.lastRequest().method(), "GET");
}

TEST_F(FileDownloaderTest, TransportFailuresAndStatusesOtherThan200AreThrown) {
  struct Case {
    std::string url;
    CURLcode curlCode;    // CURLE_OK for an HttpError
    std::string message;  // empty: libcurl's own words
    long status;
    std::string body;  // what the destination holds afterwards
  };
  std::vector<Case> cases = {
      {server.url("/redirect/11"), CURLE_TOO_MANY_REDIRECTS, "Maximum (10) redirects followed", 302,
       ""},
      // libcurl notices an early close itself (over HTTP/1.x always), so the downloader's own
      // length check never gets to return its "did not download completely" result.
      {server.url("/short/1000/400"), CURLE_PARTIAL_FILE, "", 200, patternBody(400)},
      {server.url("/alias"), CURLE_UNSUPPORTED_PROTOCOL, "", 0, ""},
  };
  for (long status : {404, 204, 206, 301, 500, 503}) {
    const std::string code = std::to_string(status);
    cases.push_back({server.url("/status/" + code), CURLE_OK, code, status,
                     status == 204 ? "" : "status " + code});
  }
  cases.push_back({"http://127.0.0.1:" + std::to_string(fixtures::freeLoopbackPort()) + "/x",
                   CURLE_COULDNT_CONNECT, "", 0, ""});
  const std::string file = dir / "out";
  for (const Case& c : cases) {
    harness::writeFile(file, "old content");
    harness::LogCapture log;
    const Error error = thrownBy([&] { downloader.download(c.url, file); });
    EXPECT_EQ(error.code, c.curlCode == CURLE_OK ? Error::HttpError : Error::CurlError) << c.url;
    EXPECT_EQ(error.curlCode, c.curlCode) << c.url;
    EXPECT_EQ(error.message, c.message.empty() ? error.message : c.message) << c.url;
    EXPECT_FALSE(error.message.empty()) << c.url;
    EXPECT_EQ(error.url, c.url);
    EXPECT_EQ(downloader.responseCode(), c.status) << c.url;
    EXPECT_EQ(harness::readFile(file), c.body) << c.url;
    EXPECT_EQ(log.startingWith("E "), Strings{errorLine(c.url, error.errorString())});
  }
}

TEST_F(FileDownloaderTest, TenRedirectsUnknownLengthsAndAliasedStatusLinesSucceed) {
  ASSERT_EQ(fetch("/redirect/10").code, Error::NoError);
  EXPECT_EQ(sink.data, "arrived");
  EXPECT_EQ(server.requests().size(), 11u);

  EXPECT_EQ(fetch("/nolength/777").code, Error::NoError);
  EXPECT_EQ(sink.data, patternBody(777));
  EXPECT_EQ(fetch("/nolength/0").code, Error::NoError);

  // The header callback gets the write callback's data.
  downloader.addHTTPAlias("ICY 200 OK");
  downloader.addHTTPAlias("SELVANE/1.0 200 Fine");
  downloader.setHeaderCallback(&Sink::write);
  ASSERT_EQ(fetch("/alias").code, Error::NoError);
  EXPECT_EQ(sink.data,
            "SELVANE/1.0 200 Fine\r\nContent-Length: 5\r\nConnection: close\r\n\r\nalias");
  EXPECT_EQ(downloader.responseCode(), 200);
  downloader.setHeaderCallback(nullptr);
  ASSERT_EQ(fetch("/alias").code, Error::NoError);  // aliases persist
  EXPECT_EQ(sink.data, "alias");
}

TEST_F(FileDownloaderTest, ProgressIsReportedAndAFalseAnswerAbortsAStalledTransfer) {
  // Observers are plain functions: this one reports through statics.
  static double received = -1, total = -1, abortFrom = 1e18;
  downloader.setProgressCallback([](double now, double expected) {
    received = now;
    total = expected;
    return now < abortFrom;
  });
  ASSERT_EQ(fetch("/ok/5000").code, Error::NoError);
  EXPECT_EQ(received, 5000);
  EXPECT_EQ(total, 5000);

  // The server sends 1000 of its 1 MiB and falls silent; the observer ends the wait.
  harness::LogCapture log;
  abortFrom = 1000;
  const auto started = std::chrono::steady_clock::now();
  const Error error = thrownBy([&] { fetch("/stall/1000"); });
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
  EXPECT_EQ(error.curlCode, CURLE_ABORTED_BY_CALLBACK);
  EXPECT_EQ(error.message, "Callback aborted");
  EXPECT_EQ(received, 1000);
  EXPECT_EQ(total, 1048576);
  EXPECT_EQ(log.startingWith("E ").size(), 1u);

  // Switched off, nothing is reported.
  downloader.setProgressCallback(nullptr);
  received = -1;
  ASSERT_EQ(fetch("/ok/10").code, Error::NoError);
  EXPECT_EQ(received, -1);
}

TEST_F(FileDownloaderTest, TheRateLimitHoldsTransfersBackAndZeroMeansLibcurlsDefaults) {
  harness::LogCapture log;
  const auto seconds = [&](const std::string& path) {
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(fetch(path).code, Error::NoError);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  };
  downloader.setMaximumTransferRate(0);
  downloader.setBufferSize(0);
  const double unlimited = seconds("/ok/1000000");
  EXPECT_TRUE(log.startingWith("D selvane:download:").empty());

  // libcurl checks the limit between batches of reads; with its smallest buffer (1 KiB) a batch
  // is small, and 1 MB at 1 MB/s takes about 0.93 s.
  const unsigned rate = 1000000;
  downloader.setMaximumTransferRate(rate);
  downloader.setBufferSize(1024);
  const double limited = seconds("/ok/1000000");
  EXPECT_EQ(sink.data, patternBody(1000000));
  EXPECT_LT(1000000 / limited, rate * 1.5);
  EXPECT_GT(limited, 5 * unlimited);
  EXPECT_EQ(log.count("D selvane:download::Setting buffer size to 1024"), 1u);
  EXPECT_EQ(log.count("D selvane:download::Setting send/recv speed to 1000000"), 1u);
}

TEST_F(FileDownloaderTest, AMaximumFileSizeStopsEveryDestinationAtTheCap) {
  const size_t cap = 100000;
  const struct {
    std::string path;
    size_t delivered;  // bytes of the pattern handed on; npos: refused past the cap
  } bodies[] = {
      {"/ok/100000", cap},
      {"/nolength/100000", cap},
      {"/ok/100001", std::string::npos},          // refused on its Content-Length
      {"/nolength/20000000", std::string::npos},  // no length: stopped in the write path
  };
  const std::function<Error(const std::string&)> destinations[] = {
      [&](const std::string& url) { return downloader.download(url, dir / "out"); },
      [&](const std::string& url) {
        const int fd = open((dir / "out").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const Error result = downloader.download(url, fd);
        close(fd);
        return result;
      },
      [&](const std::string& url) {
        sink.data.clear();
        const Error result = downloader.download(url, &Sink::write, &sink);
        harness::writeFile(dir / "out", sink.data);
        return result;
      },
  };
  downloader.setMaximumFileSize(cap);
  for (const auto& body : bodies) {
    for (const auto& download : destinations) {
      const std::string url = server.url(body.path);
      const bool refused = body.delivered == std::string::npos;
      harness::LogCapture log;
      harness::writeFile(dir / "out", "");
      const Error result = refused ? thrownBy([&] { download(url); }) : download(url);
      const std::string written = harness::readFile(dir / "out");
      EXPECT_EQ(result.curlCode, refused ? CURLE_FILESIZE_EXCEEDED : CURLE_OK) << url;
      EXPECT_EQ(written.size(), refused ? std::min(written.size(), cap) : body.delivered) << url;
      EXPECT_EQ(written, patternBody(written.size())) << url;
      EXPECT_EQ(log.startingWith("E "),
                refused ? Strings{errorLine(url,
                                            "[CURL] Maximum file size exceeded (Maximum file "
                                            "size exceeded)")}
                        : Strings{})
          << url;
    }
  }
}

TEST(FileDownloaderLifetime, ManyDownloadersBalanceLibcurlsGlobalState) {
  fixtures::HttpTestServer server;
  const auto fetch = [&server] {
    FileDownloader downloader;
    Sink sink;
    EXPECT_EQ(downloader.download(server.url("/ok/100"), &Sink::write, &sink).code, Error::NoError);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) fetch();
    });
  for (std::thread& thread : threads) thread.join();
  fetch();  // after every other downloader is gone
}

}  // namespace
