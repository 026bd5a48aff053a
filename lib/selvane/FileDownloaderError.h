// FileDownloaderError: the one result and error value of the downloaders.
//
// Every download returns one by value, success included (NoError, "OK"), and transport failures
// are thrown as one, also by value. It is a plain copyable value, not an exception class: catch it
// by type. Constructing a value with any code but NoError writes one E line to the log at once, so
// each failure is logged exactly once where it arises; copies do not log.
#ifndef SELVANE_FILEDOWNLOADERERROR_H
#define SELVANE_FILEDOWNLOADERERROR_H

#include <selvane/Export.h>

#include <curl/curl.h>

#include <cstdint>
#include <string>

namespace selvane {

class SELVANE_EXPORT FileDownloaderError {
 public:
  enum ErrorCode : int32_t {
    NoError = 0,
    GeneralError = 1,
    CurlError = 2,
    FileError = 3,
    HttpError = 4,
  };

  // curlCode is CURLE_OK; logs the error (see logError()).
  FileDownloaderError(ErrorCode code, const std::string& message, const std::string& url);
  FileDownloaderError(ErrorCode code, CURLcode curlCode, const std::string& message,
                      const std::string& url);

  // "[CURL] <libcurl's text>" for a non-zero curlCode, else the category word of code; then
  // " (message)" unless the message is empty.
  std::string errorString() const;

  // Writes "E selvane:FileDownloader:reason=error,url=<url>:<errorString()>" unless code is
  // NoError.
  void logError() const;

  ErrorCode code;
  CURLcode curlCode;
  std::string message;
  std::string url;
};

}  // namespace selvane

#endif
