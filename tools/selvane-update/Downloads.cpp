#include "Downloads.h"

#include <fcntl.h>
#include <selvane/FileDownloader.h>
#include <selvane/FileUtils.h>
#include <selvane/ManifestVerifier.h>
#include <selvane/PackageStructure.h>
#include <selvane/PackageVerifierSet.h>
#include <selvane/TemporaryFile.h>
#include <selvane/ZorvelFileDownloader.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "Credentials.h"
#include "Failure.h"
#include "Release.h"

namespace update {
namespace {

// The progress observer has no user data: its state is kept here (one download at a time).
Progress* g_progress = nullptr;
struct StallWatch {
  std::chrono::seconds limit{300};
  uint64_t bytes = 0;
  std::chrono::steady_clock::time_point since;
  bool stalled = false;
  uint64_t resumedAt = 0;  // bytes the partial file held when this transfer began
  int fd = -1;             // the partial file, synced every kSyncBytes
  uint64_t synced = 0;
} g_watch;

const uint64_t kSyncBytes = 1 << 20;

// Reports progress, and stops a transfer that was interrupted or has received nothing for the
// stall limit (libcurl calls this about once a second also while nothing arrives).
bool onProgress(double received, double) {
  const uint64_t bytes = received > 0 ? static_cast<uint64_t>(received) : 0;
  if (g_progress != nullptr && bytes > 0) g_progress->update(g_watch.resumedAt + bytes);
  if (g_watch.fd >= 0 && bytes >= g_watch.synced + kSyncBytes) {
    fdatasync(g_watch.fd);  // what a power cut may keep of the partial file
    g_watch.synced = bytes;
  }
  const auto now = std::chrono::steady_clock::now();
  if (bytes != g_watch.bytes) {
    g_watch.bytes = bytes;
    g_watch.since = now;
  } else if (now - g_watch.since >= g_watch.limit) {
    g_watch.stalled = true;
    return false;
  }
  return !interrupted();
}

// Response headers of a resumed transfer (user data: the stream the body goes to). A server that
// ignores the Range request answers 200 with the whole file: it is written from the start.
size_t onHeader(char* data, size_t size, size_t count, void* stream) {
  const std::string line(data, size * count);
  if (line.compare(0, 5, "HTTP/") == 0 && line.find(" 200") == line.find(' ')) {
    FILE* file = static_cast<FILE*>(stream);
    std::fflush(file);
    if (std::fseek(file, 0, SEEK_SET) != 0 || ftruncate(fileno(file), 0) != 0) return 0;
    g_watch.resumedAt = 0;
  }
  return size * count;
}

// A partial download, kept open while it grows. A package's survives failures and restarts, and
// the next try asks only for the rest; other downloads start from nothing each time.
class PartialFile {
 public:
  PartialFile(const std::string& path, bool resumable, uint64_t maxBytes)
      : path(path), fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd < 0) throw Failure(Exit::Download, "cannot write " + path);
    struct stat st;
    have = fstat(fd, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    if (!resumable || have >= maxBytes) have = 0;  // a full-size leftover did not check
    if (ftruncate(fd, static_cast<off_t>(have)) != 0 ||
        lseek(fd, static_cast<off_t>(have), SEEK_SET) < 0) {
      close(fd);
      throw Failure(Exit::Download, "cannot write " + path);
    }
  }
  ~PartialFile() { close(fd); }
  PartialFile(const PartialFile&) = delete;
  PartialFile& operator=(const PartialFile&) = delete;

  // Moves the finished file to path atomically, and makes the rename last.
  void store(const std::string& finished) const {
    if (fsync(fd) != 0 || std::rename(path.c_str(), finished.c_str()) != 0)
      throw Failure(Exit::Download, "cannot store " + finished);
    const int directory =
        open(boost::filesystem::path(finished).parent_path().c_str(), O_RDONLY | O_CLOEXEC);
    if (directory >= 0) {
      fsync(directory);
      close(directory);
    }
  }

  const std::string path;
  const int fd;
  uint64_t have = 0;  // bytes already there
};

// Failures that another try may not meet: the network, the server's own trouble (5xx), a request
// timeout (408), too many requests (429), a stall, a body cut short. Other 4xx answers are final.
bool transient(const selvane::FileDownloaderError& error, long status) {
  switch (error.code) {
    case selvane::FileDownloaderError::HttpError:
      return status >= 500 || status == 408 || status == 429;
    case selvane::FileDownloaderError::GeneralError:
      return error.message == "The file did not download completely.";
    case selvane::FileDownloaderError::CurlError:
      switch (error.curlCode) {
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_PARTIAL_FILE:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
          return true;
        case CURLE_ABORTED_BY_CALLBACK:
          return g_watch.stalled;
        default:
          return false;
      }
    default:
      return false;
  }
}

// Before try number `attempt` (1, 2, ...): 1 s, 2 s, 4 s ... each give or take a quarter, so that
// devices that failed together do not return together. Ends early on SIGINT or SIGTERM.
void backOff(unsigned attempt) {
  static std::mt19937 random(std::random_device{}());
  const double base = 1000.0 * static_cast<double>(1u << std::min(attempt - 1, 10u));
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::milliseconds(static_cast<long>(
                       std::uniform_real_distribution<double>(0.75 * base, 1.25 * base)(random)));
  while (!interrupted() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
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
    download(options.manifest, path, "the manifest", options.manifestMaxSize, Exit::Manifest);
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
      download(options.manifest + ".sig", signature, "its signature", options.manifestMaxSize,
               Exit::Signature);
    } catch (const Failure& failure) {
      if (failure.code != Exit::Signature) throw;
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
                         uint64_t maxBytes, Exit refused, bool resumable) {
  const std::string partial =
      (resumable ? boost::filesystem::path(path).replace_extension().string() : path) + ".part";
  g_watch.limit = std::chrono::seconds(options.stallTimeout);
  for (unsigned attempt = 0;; ++attempt) {
    if (attempt > 0) backOff(attempt);
    const PartialFile file(partial, resumable, maxBytes);
    const std::unique_ptr<selvane::FileDownloader> transfer = downloader();
    transfer->setProgressCallback(onProgress);
    // https only (plain http too when allowed), redirects likewise, TLS 1.2 or later, and no body
    // longer than it may be: a transfer that passes maxBytes stops there.
    const std::string protocols = options.allowHttp ? "https,http" : "https";
    transfer->setAllowedProtocols(protocols, protocols);
    transfer->setMinimumTLSVersion(selvane::FileDownloader::TLSVersion::TLSv1_2);
    // A server that ignores the Range request sends the whole file, also when resuming.
    transfer->setMaximumFileSize(maxBytes);
    transfer->setBufferSize(102400);  // as curl: 16 KiB (libcurl's default) takes 6 times the reads
    if (file.have > 0) {
      transfer->setHeader("Range", "bytes=" + std::to_string(file.have) + "-", false);
      transfer->setHeaderCallback(onHeader);
    }
    g_watch = StallWatch{g_watch.limit, 0, std::chrono::steady_clock::now(), false, file.have,
                         file.fd,       0};
    // Transport failures are thrown, others returned: both end up here as one value. The rest of a
    // resumed file comes as 206, which the downloader reports as an HTTP error after it has
    // written the body at the descriptor's offset (libcurl takes no alias for a real HTTP/1.1
    // status line): it counts as success, and the size and digest checks judge the result.
    const selvane::FileDownloaderError result = [&] {
      try {
        return transfer->download(url, file.fd);
      } catch (const selvane::FileDownloaderError& error) {
        return error;
      }
    }();
    g_watch.fd = -1;
    const bool resumed = file.have > 0 && result.code == selvane::FileDownloaderError::HttpError &&
                         transfer->responseCode() == 206;
    if (interrupted()) {
      if (!resumable) std::remove(partial.c_str());
      throw Failure(Exit::Interrupted,
                    "interrupted while downloading " + what + "; nothing was switched");
    }
    if (result.code == selvane::FileDownloaderError::NoError || resumed) {
      file.store(path);
      return;
    }
    const long status = transfer->responseCode();
    const bool again = transient(result, status);
    if (!again || !resumable) std::remove(partial.c_str());
    // The downloader writes an error answer's body too: it is no part of the file.
    if (status != 200 && status != 206 && ftruncate(file.fd, static_cast<off_t>(file.have)) != 0)
      std::remove(partial.c_str());
    if (result.curlCode == CURLE_FILESIZE_EXCEEDED) {
      throw Failure(Exit::Size, what + " from " + url + " is larger than " +
                                    std::to_string(maxBytes) + " bytes; the transfer was stopped");
    }
    const std::string reason =
        g_watch.stalled ? "nothing arrived for " + std::to_string(options.stallTimeout) + " s"
                        : result.errorString();
    if (again && attempt < options.downloadRetries) {
      out.emit(Event("retry")
                   .add("url", url)
                   .add("attempt", static_cast<uint64_t>(attempt + 1))
                   .add("reason", reason),
               "retrying " + what + " (" + reason + ")");
      continue;
    }
    throw Failure(again ? Exit::Download : refused,
                  "cannot download " + what + " from " + url + ": " + reason +
                      (again ? " (" + std::to_string(attempt + 1) + " tries)" : ""));
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
               package->getSize(), Exit::Download, true);
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
