// ZorvelFileDownloader: a FileDownloader for the update storage service. Before each download to
// a path or a descriptor it signs a GET of the URL with the caller's credentials and attaches the
// one-shot headers "date" and "authorization"; the transfer itself is the base class's. Downloads
// through a write callback are not signed. Errors of the signing library propagate unchanged,
// before any transfer starts.
#ifndef SELVANE_ZORVELFILEDOWNLOADER_H
#define SELVANE_ZORVELFILEDOWNLOADER_H

#include <selvane/Export.h>

#include <selvane/FileDownloader.h>
#include <zorvelauth.h>

#include <string>

namespace selvane {

class SELVANE_EXPORT ZorvelFileDownloader : public FileDownloader {
 public:
  explicit ZorvelFileDownloader(const zorvelauth::Credentials& credentials);
  ~ZorvelFileDownloader() override = default;

  // Both sign and then run the base implementation. A path download reaches the descriptor
  // override on its way down and so is signed twice; the second signature is the one sent.
  FileDownloaderError download(const std::string& url, const std::string& path) override;
  FileDownloaderError download(const std::string& url, int fd) override;
  using FileDownloader::download;

  // Sets the one-shot "date" and "authorization" headers for a GET of url, signed now.
  void signRequest(const std::string& url);

 private:
  zorvelauth::Credentials m_credentials;
};

}  // namespace selvane

#endif
