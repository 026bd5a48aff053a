#include "Downloads.h"

#include <selvane/FileDownloader.h>
#include <selvane/FileUtils.h>
#include <selvane/ManifestVerifier.h>
#include <selvane/PackageStructure.h>
#include <selvane/PackageVerifierSet.h>
#include <selvane/TemporaryFile.h>
#include <selvane/ZorvelFileDownloader.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cctype>
#include <cstdio>

#include "Credentials.h"
#include "Failure.h"
#include "Release.h"

namespace update {
namespace {

Progress* g_progress = nullptr;  // the observer has no user data: one download at a time

bool onProgress(double received, double) {
  if (g_progress != nullptr && received > 0) g_progress->update(static_cast<uint64_t>(received));
  return !interrupted();
}

bool isUrl(const std::string& text) {
  return text.compare(0, 7, "http://") == 0 || text.compare(0, 8, "https://") == 0;
}

// The size of a file as 64 bits, also on 32-bit boards.
bool fileSize(const std::string& path, uint64_t& size) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  size = static_cast<uint64_t>(st.st_size);
  return true;
}

std::string label(const selvane::Package& package) {
  return package.getName() + " " + package.getVersion() + " (" + package.getURL() + ")";
}

}  // namespace

Downloads::Downloads(const Options& options, Output& out) : options(options), out(out) {}

Downloads::~Downloads() = default;

std::unique_ptr<selvane::FileDownloader> Downloads::downloader() const {
  if (options.credentials.empty()) return std::make_unique<selvane::FileDownloader>();
  return std::make_unique<selvane::ZorvelFileDownloader>(loadCredentials(options.credentials));
}

selvane::Manifest Downloads::manifest() {
  // Downloaded copies are removed on every way out: only what they say is kept.
  std::unique_ptr<selvane::TemporaryFile> copy, signatureCopy;
  std::string path = options.manifest, signature = options.manifest + ".sig";
  if (isUrl(options.manifest)) {
    try {
      createCache();
      copy = std::make_unique<selvane::TemporaryFile>(options.cache + "/manifest", true);
      signatureCopy =
          std::make_unique<selvane::TemporaryFile>(options.cache + "/manifest.sig", true);
    } catch (const std::runtime_error& e) {
      throw Failure(Exit::Manifest,
                    "cannot store the manifest in " + options.cache + ": " + e.what());
    }
    path = copy->getPath();
    signature = signatureCopy->getPath();
    try {
      download(options.manifest, path, "the manifest", options.manifestMaxSize);
    } catch (const Failure& failure) {
      throw Failure(failure.code == Exit::Download ? Exit::Manifest : failure.code, failure.what());
    }
  } else {
    checkLocalSize(path, "the manifest");
  }
  if (!options.allowUnsignedManifest) checkManifestSignature(path, signature);
  std::unique_ptr<selvane::Manifest> release;
  try {
    release = std::make_unique<selvane::Manifest>(path);
  } catch (const std::runtime_error& e) {
    throw Failure(Exit::Manifest, "cannot load the manifest " + options.manifest + ": " + e.what());
  }
  checkManifestFields(*release);
  return *release;
}

void Downloads::checkLocalSize(const std::string& path, const std::string& what) const {
  uint64_t size = 0;
  if (fileSize(path, size) && size > options.manifestMaxSize) {
    throw Failure(Exit::Size, what + " " + path + " is " + std::to_string(size) +
                                  " bytes, more than --manifest-max-size " +
                                  std::to_string(options.manifestMaxSize));
  }
}

void Downloads::checkManifestSignature(const std::string& path, const std::string& signature) {
  const std::string notSigned = "the manifest " + options.manifest + " is not signed";
  if (isUrl(options.manifest)) {
    try {
      download(options.manifest + ".sig", signature, "its signature", options.manifestMaxSize);
    } catch (const Failure& failure) {
      if (failure.code != Exit::Download) throw;
      throw Failure(Exit::Signature, notSigned + ": " + failure.what());
    }
  } else if (access(signature.c_str(), F_OK) != 0) {
    throw Failure(Exit::Signature, notSigned + ": there is no " + signature);
  } else {
    checkLocalSize(signature, "the signature");
  }
  bool good = false;
  try {
    good = selvane::ManifestVerifier(options.keys).verifyManifest(path, signature);
  } catch (const std::runtime_error& e) {
    throw Failure(Exit::Signature, std::string("cannot use the key directory: ") + e.what());
  }
  if (!good) throw Failure(Exit::Signature, notSigned + " by any key in " + options.keys);
}

std::string Downloads::cachePath(const selvane::Package& package) const {
  std::string digest = package.getSHA256();  // checked: 64 hexadecimal digits
  for (char& c : digest) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return options.cache + "/" + digest + ".ipk";
}

void Downloads::createCache() const {
  try {
    boost::filesystem::create_directories(options.cache);
  } catch (const std::exception& e) {
    throw Failure(Exit::Download, "cannot create the cache " + options.cache + ": " + e.what());
  }
}

uint64_t Downloads::bytesToFetch(const std::vector<selvane::Package>& packages) {
  uint64_t bytes = 0;
  for (const selvane::Package& package : packages)
    if (!cached(package)) bytes += package.getSize();
  return bytes;
}

bool Downloads::cached(const selvane::Package& package) {
  const std::string path = cachePath(package);
  if (checked.count(path)) return true;
  if (access(path.c_str(), F_OK) != 0) return false;
  try {
    check(package, path);
    checked.insert(path);
    return true;
  } catch (const Failure&) {
    std::remove(path.c_str());  // a damaged copy is fetched again
    return false;
  }
}

void Downloads::download(const std::string& url, const std::string& path, const std::string& what,
                         uint64_t maxBytes) {
  const std::string partial = path + ".part";
  const std::unique_ptr<selvane::FileDownloader> transfer = downloader();
  transfer->setProgressCallback(onProgress);
  // https only (plain http too when allowed), redirects likewise, TLS 1.2 or later, and no body
  // longer than it may be: a transfer that passes maxBytes stops there.
  const std::string protocols = options.allowHttp ? "https,http" : "https";
  transfer->setAllowedProtocols(protocols, protocols);
  transfer->setMinimumTLSVersion(selvane::FileDownloader::TLSVersion::TLSv1_2);
  transfer->setMaximumFileSize(maxBytes);
  transfer->setBufferSize(102400);  // as curl: 16 KiB (libcurl's default) takes 6 times the reads
  // Transport failures are thrown, others returned: both end up here as one value.
  const selvane::FileDownloaderError result = [&] {
    try {
      return transfer->download(url, partial);
    } catch (const selvane::FileDownloaderError& error) {
      return error;
    }
  }();
  if (interrupted()) {
    std::remove(partial.c_str());
    throw Failure(Exit::Interrupted,
                  "interrupted while downloading " + what + "; nothing was switched");
  }
  if (result.code != selvane::FileDownloaderError::NoError) {
    std::remove(partial.c_str());
    if (result.curlCode == CURLE_FILESIZE_EXCEEDED) {
      throw Failure(Exit::Size, what + " from " + url + " is larger than " +
                                    std::to_string(maxBytes) + " bytes; the transfer was stopped");
    }
    throw Failure(Exit::Download,
                  "cannot download " + what + " from " + url + ": " + result.errorString());
  }
  if (std::rename(partial.c_str(), path.c_str()) != 0) {
    throw Failure(Exit::Download, "cannot store " + what + " at " + path);
  }
}

void Downloads::check(const selvane::Package& package, const std::string& path) {
  uint64_t size = 0;
  if (!fileSize(path, size) || size != package.getSize()) {
    throw Failure(Exit::Size, label(package) + " is " + std::to_string(size) +
                                  " bytes, the manifest says " + std::to_string(package.getSize()));
  }
  if (!selvane::VerifySHA256Sum(path, package.getSHA256())) {
    throw Failure(Exit::Digest,
                  "the SHA-256 of " + label(package) + " does not match the manifest");
  }
  if (!verifiers) {
    try {
      verifiers = std::make_unique<selvane::PackageVerifierSet>(options.keys);
    } catch (const std::runtime_error& e) {
      throw Failure(Exit::Signature, std::string("cannot use the key directory: ") + e.what());
    }
  }
  if (!selvane::CheckPackageStructure(path)) {
    throw Failure(Exit::Signature, label(package) +
                                       " is not a plain package: its archive must hold exactly one "
                                       "each of debian-binary, control.tar.gz, data.tar.gz and "
                                       "signature");
  }
  if (!verifiers->verifyPackage(path)) {
    throw Failure(Exit::Signature, label(package) + " is not signed by any key in " + options.keys);
  }
}

std::vector<std::string> Downloads::fetch(const std::vector<selvane::Package>& packages) {
  createCache();
  std::vector<std::string> files;
  std::vector<const selvane::Package*> missing;
  uint64_t total = 0;
  for (const selvane::Package& package : packages) {
    files.push_back(cachePath(package));
    if (!cached(package)) {
      missing.push_back(&package);
      total += package.getSize();
    }
  }
  if (missing.empty()) return files;

  Progress& progress = out.progress();
  g_progress = &progress;
  progress.begin(total);
  for (const selvane::Package* package : missing) {
    out.emit(Event("download").add("package", packageJson(*package)),
             "downloading " + package->getName() + " " + package->getVersion() + " (" +
                 humanBytes(package->getSize()) + ")");
    const std::string path = cachePath(*package);
    try {
      download(package->getURL(), path, package->getName() + " " + package->getVersion(),
               package->getSize());
      check(*package, path);
    } catch (const Failure&) {
      g_progress = nullptr;
      std::remove(path.c_str());  // only checked packages stay in the cache
      throw;
    }
    progress.packageDone(package->getSize());
  }
  progress.end();
  g_progress = nullptr;
  return files;
}

}  // namespace update
