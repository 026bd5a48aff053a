// The downloaders' error value: its text and the one log line each error leaves.
#include <marvixlog.h>
#include <selvane/FileDownloaderError.h>

#include "Harness.h"

using Error = selvane::FileDownloaderError;

namespace {

TEST(FileDownloaderError, RendersTheCategoryOrLibcurlsTextAndTheMessage) {
  const std::string timeout = curl_easy_strerror(CURLE_OPERATION_TIMEDOUT);
  const struct {
    Error::ErrorCode code;
    CURLcode curlCode;
    const char* message;
    std::string expected;
  } cases[] = {
      {Error::NoError, CURLE_OK, "OK", "no error (OK)"},
      {Error::GeneralError, CURLE_OK, "The file did not download completely.",
       "general (The file did not download completely.)"},
      {Error::CurlError, CURLE_OK, "curl_easy_init() failed", "CURL (curl_easy_init() failed)"},
      {Error::FileError, CURLE_OK, "Could not open destination file",
       "file (Could not open destination file)"},
      {Error::HttpError, CURLE_OK, "404", "HTTP (404)"},
      {Error::HttpError, CURLE_OK, "", "HTTP"},
      // A libcurl code wins over the category word, whatever the category.
      {Error::CurlError, CURLE_OPERATION_TIMEDOUT, "Operation timed out after 5 ms",
       "[CURL] " + timeout + " (Operation timed out after 5 ms)"},
      {Error::GeneralError, CURLE_OPERATION_TIMEDOUT, "", "[CURL] " + timeout},
      {Error::HttpError, CURLE_OPERATION_TIMEDOUT, "x", "[CURL] " + timeout + " (x)"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Error(c.code, c.curlCode, c.message, "http://h/x").errorString(), c.expected)
        << "code " << c.code << ", curl " << c.curlCode;
  }
  EXPECT_EQ(Error(Error::CurlError, "m", "").curlCode, CURLE_OK);
}

TEST(FileDownloaderError, EveryErrorIsLoggedOnceWhenMadeAndNeverWhenCopied) {
  const std::string line = "E selvane:FileDownloader:reason=error,url=http://h/missing:HTTP (404)";
  harness::LogCapture log;
  const Error ok(Error::NoError, "OK", "http://h/ok");
  EXPECT_TRUE(log.lines().empty());

  const Error notFound(Error::HttpError, "404", "http://h/missing");
  const Error copy = notFound;
  Error assigned = ok;
  assigned = notFound;
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].priority, 3);
  EXPECT_EQ(log.lines()[0].text, line);

  // Logging it again is the caller's choice and makes a second line.
  copy.logError();
  ok.logError();
  EXPECT_EQ(log.texts(), (std::vector<std::string>{line, line}));

  // Nothing is logged while the error bit is off.
  log.clear();
  g_marvix_log_mask = MARVIX_LOG_WARNING | MARVIX_LOG_INFO | MARVIX_LOG_DEBUG;
  const Error quiet(Error::FileError, "Could not open destination file", "u");
  g_marvix_log_mask = MARVIX_LOG_ERROR;
  EXPECT_TRUE(log.lines().empty());
  quiet.logError();
  EXPECT_EQ(log.texts(), std::vector<std::string>{
                             "E selvane:FileDownloader:reason=error,url=u:file (Could not open "
                             "destination file)"});
}

}  // namespace
