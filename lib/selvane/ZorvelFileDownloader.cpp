#include "selvane/ZorvelFileDownloader.h"

namespace selvane {

ZorvelFileDownloader::ZorvelFileDownloader(const zorvelauth::Credentials& credentials)
    : FileDownloader(), m_credentials(credentials) {}

FileDownloaderError ZorvelFileDownloader::download(const std::string& url,
                                                   const std::string& path) {
  signRequest(url);
  return FileDownloader::download(url, path);
}

FileDownloaderError ZorvelFileDownloader::download(const std::string& url, int fd) {
  signRequest(url);
  return FileDownloader::download(url, fd);
}

void ZorvelFileDownloader::signRequest(const std::string& url) {
  const std::string date = zorvelauth::Date().text();
  const zorvelauth::CanonicalizedResource resource(url);
  const zorvelauth::Request request = zorvelauth::Request::createGETRequest(resource, date);
  const std::string authorization =
      zorvelauth::RequestAuthenticator(m_credentials).authorizeRequest(request);
  // The signature covers GET whatever the object's POST body, and both headers are one-shot.
  setHeader("date", date, false);
  setHeader("authorization", authorization, false);
}

}  // namespace selvane
