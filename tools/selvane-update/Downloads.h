// Fetching the release: the manifest, then each planned package, checked for size, SHA-256 and
// signature before it is used. Checked packages are kept in the cache directory under their
// name and version, so a repeated or resumed update fetches only what it does not have yet.
#ifndef SELVANE_UPDATE_DOWNLOADS_H
#define SELVANE_UPDATE_DOWNLOADS_H

#include <selvane/Manifest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Output.h"
#include "Updater.h"

namespace selvane {
class FileDownloader;
class PackageVerifierSet;
}  // namespace selvane

namespace update {

class Downloads {
 public:
  Downloads(const Options& options, Output& out);
  ~Downloads();

  // Loads the manifest from its file, or downloads it first when it is an http(s) URL.
  selvane::Manifest manifest();
  // Bytes still to download for these packages (checked copies in the cache cost nothing).
  uint64_t bytesToFetch(const std::vector<selvane::Package>& packages);
  // Paths of the checked package files, in the order given.
  std::vector<std::string> fetch(const std::vector<selvane::Package>& packages);

 private:
  std::unique_ptr<selvane::FileDownloader> downloader() const;
  std::string cachePath(const selvane::Package& package) const;
  bool cached(const selvane::Package& package);
  void download(const std::string& url, const std::string& path, const std::string& what);
  void check(const selvane::Package& package, const std::string& path);

  const Options& options;
  Output& out;
  std::unique_ptr<selvane::PackageVerifierSet> verifiers;
  std::set<std::string> checked;  // cache files already checked in this run: hashed once
};

}  // namespace update

#endif
