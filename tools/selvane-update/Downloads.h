// Fetching the release: the manifest, checked against its detached signature before it is read,
// then each planned package, checked for size, SHA-256, archive structure and signature before it
// is used. Every transfer is bounded and kept to https. Checked packages are kept in the cache
// directory under their SHA-256 (never under a name from the manifest), so a repeated or resumed
// update fetches only what it does not have yet.
#ifndef SELVANE_UPDATE_DOWNLOADS_H
#define SELVANE_UPDATE_DOWNLOADS_H

#include <selvane/Manifest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Failure.h"
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

  // Loads the manifest from its file, or downloads it first when it is an http(s) URL; then checks
  // its signature, reads it and checks its fields. A downloaded copy is not kept.
  selvane::Manifest manifest();
  // Bytes still to download for these packages (checked copies in the cache cost nothing).
  uint64_t bytesToFetch(const std::vector<selvane::Package>& packages);
  // Paths of the checked package files, in the order given.
  std::vector<std::string> fetch(const std::vector<selvane::Package>& packages);

 private:
  std::unique_ptr<selvane::FileDownloader> downloader() const;
  std::string cachePath(const selvane::Package& package) const;
  bool cached(const selvane::Package& package);
  void createCache() const;
  void checkLocalSize(const std::string& path, const std::string& what) const;
  void checkManifestSignature(const std::string& path, const std::string& signature);
  // Fetches url into path, trying again after transient failures (--retries-download); a final
  // answer from the server (a 4xx but 408 and 429, a refused scheme) fails with `refused`, a
  // network that stays down with Exit::Download.
  // A resumable download keeps its partial file (path's stem + ".part") across failures and
  // asks for the rest with a Range request on the next try or the next run.
  void download(const std::string& url, const std::string& path, const std::string& what,
                uint64_t maxBytes, Exit refused, bool resumable = false);
  void check(const selvane::Package& package, const std::string& path);

  const Options& options;
  Output& out;
  std::unique_ptr<selvane::PackageVerifierSet> verifiers;
  std::set<std::string> checked;  // cache files already checked in this run: hashed once
};

}  // namespace update

#endif
