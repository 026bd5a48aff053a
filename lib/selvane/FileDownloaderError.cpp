#include "selvane/FileDownloaderError.h"

#include "LoadedLibraries.h"
#include "Log.h"

namespace selvane {
namespace {

// Indexed by ErrorCode; codes outside the table are never made.
const char* const kCategoryWords[] = {"no error", "general", "CURL", "file", "HTTP"};

}  // namespace

FileDownloaderError::FileDownloaderError(ErrorCode code, const std::string& message,
                                         const std::string& url)
    : FileDownloaderError(code, CURLE_OK, message, url) {}

FileDownloaderError::FileDownloaderError(ErrorCode code, CURLcode curlCode,
                                         const std::string& message, const std::string& url)
    : code(code), curlCode(curlCode), message(message), url(url) {
  logError();
}

std::string FileDownloaderError::errorString() const {
  std::string text;
  if (curlCode != CURLE_OK) {
    text = std::string("[CURL] ") + curl().easy_strerror(curlCode);
  } else {
    text = kCategoryWords[code];
  }
  if (!message.empty()) text += " (" + message + ")";
  return text;
}

void FileDownloaderError::logError() const {
  if (code == NoError || !log::enabled(log::Level::Error)) return;
  SELVANE_LOG_E("selvane:FileDownloader:reason=error,url=%s:%s", url.c_str(),
                errorString().c_str());
}

}  // namespace selvane
