// The downloaders' error value: its text and the one log line each error leaves.
#include <marvixlog.h>
#include <selvane/FileDownloaderError.h>

#include "Harness.h"

using selvane::FileDownloaderError;

namespace {

struct TextCase {
  FileDownloaderError::ErrorCode code;
  CURLcode curlCode;
  const char* message;
  std::string expected;
};

TEST(FileDownloaderError, RendersTheCategoryOrLibcurlsTextAndTheMessage) {
  const std::string timeout = curl_easy_strerror(CURLE_OPERATION_TIMEDOUT);
  const TextCase cases[] = {
      {FileDownloaderError::NoError, CURLE_OK, "OK", "no error (OK)"},
      {FileDownloaderError::GeneralError, CURLE_OK, "The file did not download completely.",
       "general (The file did not download completely.)"},
      {FileDownloaderError::CurlError, CURLE_OK, "curl_easy_init() failed",
       "CURL (curl_easy_init() failed)"},
      {FileDownloaderError::FileError, CURLE_OK, "Could not open destination file",
       "file (Could not open destination file)"},
      {FileDownloaderError::HttpError, CURLE_OK, "404", "HTTP (404)"},
      {FileDownloaderError::HttpError, CURLE_OK, "", "HTTP"},
      // A libcurl code wins over the category word, whatever the category.
      {FileDownloaderError::CurlError, CURLE_OPERATION_TIMEDOUT, "Operation timed out after 5 ms",
       "[CURL] " + timeout + " (Operation timed out after 5 ms)"},
      {FileDownloaderError::GeneralError, CURLE_OPERATION_TIMEDOUT, "", "[CURL] " + timeout},
      {FileDownloaderError::HttpError, CURLE_OPERATION_TIMEDOUT, "x", "[CURL] " + timeout + " (x)"},
  };
  for (const TextCase& c : cases) {
    const FileDownloaderError error(c.code, c.curlCode, c.message, "http://h/x");
    EXPECT_EQ(error.errorString(), c.expected) << "code " << c.code << ", curl " << c.curlCode;
    EXPECT_EQ(error.code, c.code);
    EXPECT_EQ(error.curlCode, c.curlCode);
    EXPECT_EQ(error.message, c.message);
    EXPECT_EQ(error.url, "http://h/x");
  }
  EXPECT_EQ(FileDownloaderError(FileDownloaderError::CurlError, "m", "").curlCode, CURLE_OK);
}

TEST(FileDownloaderError, EveryErrorIsLoggedOnceWhenMadeAndNeverWhenCopied) {
  harness::LogCapture log;
  const FileDownloaderError ok(FileDownloaderError::NoError, "OK", "http://h/ok");
  EXPECT_TRUE(log.lines().empty());

  const FileDownloaderError notFound(FileDownloaderError::HttpError, "404", "http://h/missing");
  const FileDownloaderError copy = notFound;
  FileDownloaderError assigned = ok;
  assigned = notFound;
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].priority, 3);
  EXPECT_EQ(log.lines()[0].text,
            "E selvane:FileDownloader:reason=error,url=http://h/missing:HTTP (404)");
  EXPECT_EQ(copy.errorString(), "HTTP (404)");

  // Logging it again is the caller's choice and makes a second line.
  copy.logError();
  EXPECT_EQ(log.count("E selvane:FileDownloader:reason=error,url=http://h/missing:HTTP (404)"), 2u);
  ok.logError();
  EXPECT_EQ(log.lines().size(), 2u);
}

TEST(FileDownloaderError, NothingIsLoggedWhileTheErrorBitIsOff) {
  harness::LogCapture log;
  g_marvix_log_mask = MARVIX_LOG_WARNING | MARVIX_LOG_INFO | MARVIX_LOG_DEBUG;
  const FileDownloaderError error(FileDownloaderError::FileError, "Could not open destination file",
                                  "u");
  EXPECT_TRUE(log.lines().empty());
  g_marvix_log_mask = MARVIX_LOG_ERROR;
  error.logError();
  EXPECT_EQ(
      log.texts(),
      std::vector<std::string>{
          "E selvane:FileDownloader:reason=error,url=u:file (Could not open destination file)"});
}

}  // namespace
