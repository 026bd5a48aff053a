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

using fixtures::thrownBy;
using selvane::FileDownloader;
using selvane::FileDownloaderError;

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
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = readlink(link.c_str(), target, sizeof target);
    count += n > 0 && target[0] == '/';
  }
  return count;
}

// Installs a SIGPIPE handler of its own for as long as it lives.
class CustomSigpipe {
 public:
  CustomSigpipe() {
    struct sigaction custom {};
    custom.sa_handler = &CustomSigpipe::handle;
    sigemptyset(&custom.sa_mask);
    sigaction(SIGPIPE, &custom, &saved);
  }
  ~CustomSigpipe() { sigaction(SIGPIPE, &saved, nullptr); }
  static sighandler_t current() {
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    return now.sa_handler;
  }
  static void handle(int) {}

 private:
  struct sigaction saved {};
};

class FileDownloaderTest : public ::testing::Test {
 protected:
  FileDownloaderError fetch(const std::string& path) {
    sink.data.clear();
    return downloader.download(server.url(path), &Sink::write, &sink);
  }

  harness::ScratchDir dir;
  fixtures::HttpTestServer server;
  FileDownloader downloader;
  Sink sink;
};

TEST_F(FileDownloaderTest, PathDownloadTruncatesTheFileAndWritesTheBody) {
  harness::LogCapture log;
  const std::string file = dir / "existing";
  harness::writeFile(file, std::string(5000, 'x'));
  const size_t descriptors = openFileCount();

  const FileDownloaderError result = downloader.download(server.url("/ok/1000"), file);
  EXPECT_EQ(result.code, FileDownloaderError::NoError);
  EXPECT_EQ(result.errorString(), "no error (OK)");
  EXPECT_EQ(result.url, server.url("/ok/1000"));
  EXPECT_EQ(harness::readFile(file), fixtures::patternBody(1000));
  EXPECT_EQ(downloader.responseCode(), 200);
  EXPECT_EQ(openFileCount(), descriptors);

  const mode_t saved = umask(022);
  ASSERT_EQ(downloader.download(server.url("/ok/10"), dir / "new").code,
            FileDownloaderError::NoError);
  umask(saved);
  struct stat st;
  ASSERT_EQ(stat((dir / "new").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_TRUE(log.startingWith("E ").empty());
}

TEST_F(FileDownloaderTest, DescriptorDownloadWritesAtTheOffsetAndLeavesTheDescriptorOpen) {
  const std::string file = dir / "out";
  const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "prefix", 6), 6);
  const size_t descriptors = openFileCount();

  EXPECT_EQ(downloader.download(server.url("/ok/500"), fd).code, FileDownloaderError::NoError);
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 506);
  EXPECT_EQ(openFileCount(), descriptors);
  ASSERT_EQ(write(fd, "!", 1), 1);
  close(fd);
  EXPECT_EQ(harness::readFile(file), "prefix" + fixtures::patternBody(500) + "!");
}

TEST_F(FileDownloaderTest, BadDestinationsAreReturnedWithoutATransfer) {
  const int readOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const std::string url = server.url("/ok/10");
  struct Case {
    std::function<FileDownloaderError()> download;
    FileDownloaderError::ErrorCode code;
    std::string text;
  } cases[] = {
      {[&] { return downloader.download(url, dir / "missing/dir/file"); },
       FileDownloaderError::FileError, "file (Could not open destination file)"},
      {[&] { return downloader.download(url, -1); }, FileDownloaderError::GeneralError,
       "general (Unable to duplicate the fd)"},
      {[&] { return downloader.download(url, readOnly); }, FileDownloaderError::GeneralError,
       "general (Unable to open the fd)"},
      {[&] { return downloader.download(url, nullptr, nullptr); },
       FileDownloaderError::GeneralError, "general (Provided Callback cannot be NULL)"},
  };
  const size_t descriptors = openFileCount();
  for (const Case& c : cases) {
    harness::LogCapture log;
    const FileDownloaderError result = c.download();
    EXPECT_EQ(result.code, c.code) << c.text;
    EXPECT_EQ(result.errorString(), c.text);
    EXPECT_EQ(result.url, url);
    EXPECT_EQ(log.startingWith("E ").size(), 1u) << c.text;
    EXPECT_EQ(log.count(errorLine(url, c.text)), 1u);
  }
  close(readOnly);
  EXPECT_EQ(openFileCount(), descriptors - 1);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(FileDownloaderTest, NullCallbackTouchesNeitherSigpipeNorOneShotState) {
  const CustomSigpipe custom;

  downloader.setHeader("X-Once", "1", false);
  downloader.setPOST("body");
  EXPECT_EQ(downloader.download(server.url("/echo"), nullptr, nullptr).code,
            FileDownloaderError::GeneralError);
  EXPECT_EQ(CustomSigpipe::current(), &CustomSigpipe::handle);

  ASSERT_EQ(fetch("/echo").code, FileDownloaderError::NoError);
  EXPECT_EQ(server.lastRequest().headerValues("X-Once"), std::vector<std::string>{"1"});
  EXPECT_EQ(sink.data, "body");
}

TEST_F(FileDownloaderTest, HeadersGoOutInNameOrderAndOneShotHeadersAreConsumed) {
  harness::LogCapture log;
  downloader.setHeader("Zeta", "z", true);
  downloader.setHeader("mid", "first", false);
  downloader.setHeader("Alpha", "a b:c", false);
  downloader.setHeader("mid", "second", true);  // replaces value and flag
  EXPECT_EQ(log.count("D selvane:setHeader:name=Alpha,value=a b:c:"), 1u);

  ASSERT_EQ(fetch("/ok/1").code, FileDownloaderError::NoError);
  fixtures::RecordedRequest first = server.lastRequest();
  const std::vector<std::string>& lines = first.headerLines;
  const auto at = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) - lines.begin();
  };
  ASSERT_LT(at("Alpha: a b:c"), static_cast<long>(lines.size()));
  EXPECT_LT(at("Alpha: a b:c"), at("Zeta: z"));  // byte order: upper case first
  EXPECT_LT(at("Zeta: z"), at("mid: second"));
  EXPECT_LT(at("mid: second"), static_cast<long>(lines.size()));
  EXPECT_TRUE(first.headerValues("mid") == std::vector<std::string>{"second"});

  ASSERT_EQ(fetch("/ok/1").code, FileDownloaderError::NoError);
  EXPECT_TRUE(server.lastRequest().headerValues("Alpha").empty());
  EXPECT_EQ(server.lastRequest().headerValues("Zeta"), std::vector<std::string>{"z"});
  EXPECT_EQ(server.lastRequest().headerValues("mid"), std::vector<std::string>{"second"});

  downloader.resetHeaders();
  ASSERT_EQ(fetch("/ok/1").code, FileDownloaderError::NoError);
  EXPECT_TRUE(server.lastRequest().headerValues("Zeta").empty());
  EXPECT_TRUE(server.lastRequest().headerValues("mid").empty());
}

TEST_F(FileDownloaderTest, PostBodyIsSentWholeOnceEvenWithANulByte) {
  harness::LogCapture log;
  const std::string body("ab\0cd", 5);
  downloader.setPOST(body);
  EXPECT_EQ(log.count("D selvane:setPOST:data=ab:"), 1u);

  ASSERT_EQ(fetch("/echo").code, FileDownloaderError::NoError);
  EXPECT_EQ(server.lastRequest().method(), "POST");
  EXPECT_EQ(server.lastRequest().body, body);
  EXPECT_EQ(sink.data, body);

  ASSERT_EQ(fetch("/echo").code, FileDownloaderError::NoError);
  EXPECT_EQ(server.lastRequest().method(), "GET");
  EXPECT_EQ(server.lastRequest().body, "");
}

TEST_F(FileDownloaderTest, StatusesOtherThan200AreThrownAfterTheBodyIsWritten) {
  for (int status : {404, 204, 206, 301, 500, 503}) {
    harness::LogCapture log;
    const std::string url = server.url("/status/" + std::to_string(status));
    sink.data.clear();
    const FileDownloaderError error =
        thrownBy([&] { downloader.download(url, &Sink::write, &sink); });
    EXPECT_EQ(error.code, FileDownloaderError::HttpError);
    EXPECT_EQ(error.curlCode, CURLE_OK);
    EXPECT_EQ(error.message, std::to_string(status));
    EXPECT_EQ(error.url, url);
    EXPECT_EQ(downloader.responseCode(), status);
    EXPECT_EQ(sink.data, status == 204 ? "" : "status " + std::to_string(status));
    EXPECT_EQ(log.startingWith("E ").size(), 1u);
    EXPECT_EQ(log.count(errorLine(url, "HTTP (" + std::to_string(status) + ")")), 1u);
  }
}

TEST_F(FileDownloaderTest, AThrownErrorLeavesSigpipeIgnoredAndTheOneShotStateInPlace) {
  const CustomSigpipe custom;

  // During a transfer SIGPIPE is ignored; afterwards the earlier handler is back.
  static sighandler_t duringTransfer;
  const auto probe = [](char*, size_t size, size_t count, void*) -> size_t {
    duringTransfer = CustomSigpipe::current();
    return size * count;
  };
  ASSERT_EQ(downloader.download(server.url("/ok/10"), probe, nullptr).code,
            FileDownloaderError::NoError);
  EXPECT_EQ(duringTransfer, SIG_IGN);
  EXPECT_EQ(CustomSigpipe::current(), &CustomSigpipe::handle);

  // A 404 to a path passes through without closing the destination's descriptors.
  downloader.setHeader("X-Once", "1", false);
  downloader.setPOST("payload");
  const size_t descriptors = openFileCount();
  const FileDownloaderError error =
      thrownBy([&] { downloader.download(server.url("/status/404"), dir / "page"); });
  EXPECT_EQ(error.errorString(), "HTTP (404)");
  EXPECT_EQ(harness::readFile(dir / "page"), "status 404");
  EXPECT_GE(openFileCount(), descriptors + 2);  // the file and its duplicate
  EXPECT_EQ(CustomSigpipe::current(), SIG_IGN);

  // The next transfer still carries the one-shot header and the body, and consumes them.
  ASSERT_EQ(fetch("/echo").code, FileDownloaderError::NoError);
  EXPECT_EQ(server.lastRequest().headerValues("X-Once"), std::vector<std::string>{"1"});
  EXPECT_EQ(sink.data, "payload");
  ASSERT_EQ(fetch("/echo").code, FileDownloaderError::NoError);
  EXPECT_TRUE(server.lastRequest().headerValues("X-Once").empty());
  EXPECT_EQ(server.lastRequest().method(), "GET");
}

TEST_F(FileDownloaderTest, TenRedirectsAreFollowedAndTheEleventhIsThrown) {
  ASSERT_EQ(fetch("/redirect/10").code, FileDownloaderError::NoError);
  EXPECT_EQ(sink.data, "arrived");
  EXPECT_EQ(server.requests().size(), 11u);

  harness::LogCapture log;
  const std::string url = server.url("/redirect/11");
  const FileDownloaderError error =
      thrownBy([&] { downloader.download(url, &Sink::write, &sink); });
  EXPECT_EQ(error.code, FileDownloaderError::CurlError);
  EXPECT_EQ(error.curlCode, CURLE_TOO_MANY_REDIRECTS);
  EXPECT_EQ(error.message, "Maximum (10) redirects followed");
  EXPECT_EQ(error.url, url);
  EXPECT_EQ(log.startingWith("E ").size(), 1u);
  EXPECT_EQ(log.count(errorLine(url,
                                "[CURL] Number of redirects hit maximum amount "
                                "(Maximum (10) redirects followed)")),
            1u);
  EXPECT_EQ(downloader.responseCode(), 302);
}

TEST_F(FileDownloaderTest, BodiesShorterThanTheirLengthAreFailuresAndUnknownLengthsAreNot) {
  harness::LogCapture log;
  // The connection closes early. libcurl notices this itself, over HTTP/1.x always, so the
  // downloader's own length check never gets to return its "did not download completely" result.
  const FileDownloaderError cut = thrownBy([&] { fetch("/short/1000/400"); });
  EXPECT_EQ(cut.code, FileDownloaderError::CurlError);
  EXPECT_EQ(cut.curlCode, CURLE_PARTIAL_FILE);
  EXPECT_EQ(sink.data, fixtures::patternBody(400));

  EXPECT_EQ(fetch("/nolength/777").code, FileDownloaderError::NoError);
  EXPECT_EQ(sink.data, fixtures::patternBody(777));
  EXPECT_EQ(fetch("/nolength/0").code, FileDownloaderError::NoError);
}

// Progress observers are plain functions: they report through these.
double g_lastReceived = -1, g_lastTotal = -1;
bool recordProgress(double received, double total) {
  g_lastReceived = received;
  g_lastTotal = total;
  return true;
}
bool abortOnceDataCame(double received, double total) {
  recordProgress(received, total);
  return received < 1000;
}

TEST_F(FileDownloaderTest, ProgressIsReportedAndAFalseAnswerAbortsAStalledTransfer) {
  downloader.setProgressCallback(&recordProgress);
  ASSERT_EQ(fetch("/ok/5000").code, FileDownloaderError::NoError);
  EXPECT_EQ(g_lastReceived, 5000);
  EXPECT_EQ(g_lastTotal, 5000);

  // The server sends 1000 of its 1 MiB and falls silent; the observer ends the wait.
  harness::LogCapture log;
  downloader.setProgressCallback(&abortOnceDataCame);
  const auto started = std::chrono::steady_clock::now();
  const FileDownloaderError error = thrownBy([&] { fetch("/stall/1000"); });
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
  EXPECT_EQ(error.code, FileDownloaderError::CurlError);
  EXPECT_EQ(error.curlCode, CURLE_ABORTED_BY_CALLBACK);
  EXPECT_EQ(error.message, "Callback aborted");
  EXPECT_EQ(g_lastReceived, 1000);
  EXPECT_EQ(g_lastTotal, 1048576);
  EXPECT_EQ(downloader.responseCode(), 200);
  EXPECT_EQ(log.startingWith("E ").size(), 1u);

  // Switched off, nothing is reported.
  downloader.setProgressCallback(nullptr);
  g_lastReceived = -1;
  ASSERT_EQ(fetch("/ok/10").code, FileDownloaderError::NoError);
  EXPECT_EQ(g_lastReceived, -1);
}

TEST_F(FileDownloaderTest, TheRateLimitHoldsTransfersBackAndZeroMeansLibcurlsDefaults) {
  harness::LogCapture log;
  const auto seconds = [&](const std::string& path) {
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(fetch(path).code, FileDownloaderError::NoError);
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
  EXPECT_EQ(sink.data, fixtures::patternBody(1000000));
  EXPECT_LT(1000000 / limited, rate * 1.5);
  EXPECT_GT(limited, 5 * unlimited);
  EXPECT_EQ(log.count("D selvane:download::Setting buffer size to 1024"), 1u);
  EXPECT_EQ(log.count("D selvane:download::Setting send/recv speed to 1000000"), 1u);
}

TEST_F(FileDownloaderTest, AliasesMakeOtherStatusLinesCountAs200) {
  const FileDownloaderError refused = thrownBy([&] { fetch("/alias"); });
  EXPECT_EQ(refused.code, FileDownloaderError::CurlError);

  downloader.addHTTPAlias("ICY 200 OK");
  downloader.addHTTPAlias("SELVANE/1.0 200 Fine");
  ASSERT_EQ(fetch("/alias").code, FileDownloaderError::NoError);
  EXPECT_EQ(sink.data, "alias");
  EXPECT_EQ(downloader.responseCode(), 200);
  ASSERT_EQ(fetch("/alias").code, FileDownloaderError::NoError);  // aliases persist
}

TEST_F(FileDownloaderTest, TheHeaderCallbackSharesTheWriteCallbacksData) {
  downloader.setHeaderCallback(&Sink::write);
  ASSERT_EQ(fetch("/ok/5").code, FileDownloaderError::NoError);
  EXPECT_EQ(sink.data, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n" + fixtures::patternBody(5));

  downloader.setHeaderCallback(nullptr);
  ASSERT_EQ(fetch("/ok/5").code, FileDownloaderError::NoError);
  EXPECT_EQ(sink.data, fixtures::patternBody(5));
}

TEST_F(FileDownloaderTest, AnUnreachableServerLeavesTheDestinationEmpty) {
  harness::LogCapture log;
  const std::string file = dir / "existing";
  harness::writeFile(file, "old content");
  const std::string url = "http://127.0.0.1:" + std::to_string(fixtures::freeLoopbackPort()) + "/x";
  const FileDownloaderError error = thrownBy([&] { downloader.download(url, file); });
  EXPECT_EQ(error.code, FileDownloaderError::CurlError);
  EXPECT_EQ(error.curlCode, CURLE_COULDNT_CONNECT);
  EXPECT_EQ(error.url, url);
  EXPECT_EQ(harness::readFile(file), "");
  EXPECT_EQ(downloader.responseCode(), 0);
  ASSERT_EQ(log.startingWith("E ").size(), 1u);
  EXPECT_EQ(log.startingWith("E ")[0], errorLine(url, error.errorString()));
}

TEST(FileDownloaderLifetime, ManyDownloadersBalanceLibcurlsGlobalState) {
  fixtures::HttpTestServer server;
  Sink sink;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&server] {
      for (int i = 0; i < 5; ++i) {
        FileDownloader downloader;
        Sink local;
        EXPECT_EQ(downloader.download(server.url("/ok/100"), &Sink::write, &local).code,
                  FileDownloaderError::NoError);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  FileDownloader last;
  EXPECT_EQ(last.download(server.url("/ok/3"), &Sink::write, &sink).code,
            FileDownloaderError::NoError);
}

}  // namespace
