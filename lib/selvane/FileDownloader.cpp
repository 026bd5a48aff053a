#include "selvane/FileDownloader.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <boost/thread/lock_guard.hpp>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "LoadedLibraries.h"
#include "Log.h"

// This class reports progress and sizes as doubles, through libcurl's double-based interfaces.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace selvane {
namespace {

using Error = FileDownloaderError;

struct EasyCleanup {
  void operator()(CURL* handle) const { curl().easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

struct SlistCleanup {
  void operator()(curl_slist* list) const { curl().slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, SlistCleanup>;

void throwUnlessOk(CURLcode code, const char* what, const std::string& url) {
  if (code != CURLE_OK) throw Error(Error::CurlError, code, what, url);
}

// Sets one option; a failure is thrown with "Unable to set <OPTION>".
#define SELVANE_SET_OPTION(handle, option, value, url) \
  throwUnlessOk(curl().easy_setopt(handle, option, value), "Unable to set " #option, url)

// Reads one transfer figure; a failure is thrown with "Unable to get <INFO>".
#define SELVANE_GET_INFO(handle, info, target, url) \
  throwUnlessOk(curl().easy_getinfo(handle, info, target), "Unable to get " #info, url)

struct sigaction ignoreSigpipe() {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  ignore.sa_flags = 0;
  struct sigaction saved {};
  if (sigaction(SIGPIPE, &ignore, &saved) != 0) {
    SELVANE_LOG_E("selvane:ignoreSigpipe:reason=sigactionFailed,error=%d:", errno);
    throw Error(Error::GeneralError, "sigpipe_ignore() failed", "");
  }
  return saved;
}

void restoreSigpipe(const struct sigaction& saved) {
  if (sigaction(SIGPIPE, &saved, nullptr) != 0) {
    SELVANE_LOG_E("selvane:restoreSigpipe:reason=sigactionFailed,error=%d:", errno);
    throw Error(Error::GeneralError, "sigpipe_restore() failed", "");
  }
}

long sslVersion(FileDownloader::TLSVersion version) {
  using TLS = FileDownloader::TLSVersion;
  switch (version) {
    case TLS::TLSv1_0:
      return CURL_SSLVERSION_TLSv1_0;
    case TLS::TLSv1_1:
      return CURL_SSLVERSION_TLSv1_1;
    case TLS::TLSv1_2:
      return CURL_SSLVERSION_TLSv1_2;
    case TLS::TLSv1_3:
      return CURL_SSLVERSION_TLSv1_3;
    case TLS::Default:
      break;
  }
  return CURL_SSLVERSION_TLSv1;
}

// What libcurl says when a Content-Length passes CURLOPT_MAXFILESIZE; the write path says the same.
const char kFileSizeExceeded[] = "Maximum file size exceeded";

// Stands between libcurl and the caller's write callback and hands on at most `limit` bytes: the
// chunk that would pass it is refused whole, which ends the transfer.
struct CappedWriter {
  FileDownloader::WriteCallback callback;
  void* userdata;
  std::uint64_t limit;
  std::uint64_t written;
  bool exceeded;

  static size_t write(char* data, size_t size, size_t count, void* self) {
    CappedWriter* writer = static_cast<CappedWriter*>(self);
    const std::uint64_t bytes = static_cast<std::uint64_t>(size) * count;
    if (bytes > writer->limit - writer->written) {
      writer->exceeded = true;
      return 0;
    }
    writer->written += bytes;
    return writer->callback(data, size, count, writer->userdata);
  }
};

// A new easy handle with the policy every transfer shares. Failures carry no URL.
EasyHandle createHandle(char* errorBuffer, long tlsVersion) {
  EasyHandle handle(curl().easy_init());
  if (!handle) throw Error(Error::CurlError, "curl_easy_init() failed", "");
  CURL* h = handle.get();
  const std::string none;
  SELVANE_SET_OPTION(h, CURLOPT_MAXREDIRS, 10L, none);
  SELVANE_SET_OPTION(h, CURLOPT_LOW_SPEED_LIMIT, 1L, none);
  SELVANE_SET_OPTION(h, CURLOPT_LOW_SPEED_TIME, 300L, none);
  SELVANE_SET_OPTION(h, CURLOPT_CONNECTTIMEOUT, 30L, none);
  SELVANE_SET_OPTION(h, CURLOPT_FOLLOWLOCATION, 1L, none);
  SELVANE_SET_OPTION(h, CURLOPT_ERRORBUFFER, errorBuffer, none);
  SELVANE_SET_OPTION(h, CURLOPT_SSL_VERIFYHOST, 2L, none);
  SELVANE_SET_OPTION(h, CURLOPT_SSL_VERIFYPEER, 1L, none);
  SELVANE_SET_OPTION(h, CURLOPT_SSLVERSION, tlsVersion, none);
  return handle;
}

HeaderList buildHeaderList(const std::map<std::string, std::pair<std::string, bool>>& headers,
                           const std::string& url) {
  HeaderList list;
  for (const auto& entry : headers) {
    const std::string line = entry.first + ": " + entry.second.first;
    // On failure libcurl leaves the list as it was, so the owner still frees it.
    curl_slist* head = curl().slist_append(list.get(), line.c_str());
    if (head == nullptr) throw Error(Error::CurlError, "curl_slist_append() failed", url);
    if (!list) list.reset(head);  // later appends keep the same head
  }
  return list;
}

}  // namespace

boost::mutex FileDownloader::m_globalLock;

void FileDownloader::EasyHandleDeleter::operator()(void* handle) const {
  curl().easy_cleanup(handle);
}

FileDownloader::FileDownloader()
    : m_progressCallback(nullptr),
      m_headerCallback(nullptr),
      m_curl(nullptr),
      m_errorBuffer{},
      m_responseCode(0),
      m_bufferSize(0),
      m_maxTransferRate(0),
      m_http200Aliases(nullptr),
      m_minimumTLSVersion(TLSVersion::Default),
      m_maximumFileSize(0) {
  static_assert(kErrorBufferSize == CURL_ERROR_SIZE, "the error buffer is libcurl's size");
  try {
    boost::lock_guard<boost::mutex> lock(m_globalLock);
    const CURLcode code = curl().global_init(CURL_GLOBAL_ALL);
    if (code != CURLE_OK) throw Error(Error::CurlError, code, "curl_global_init() failed", "");
  } catch (const FileDownloaderError& error) {
    throw std::runtime_error(error.errorString());
  }
}

FileDownloader::~FileDownloader() {
  if (m_http200Aliases != nullptr) curl().slist_free_all(m_http200Aliases);
  // A handle left by a transfer that ended by a thrown error goes before libcurl's cleanup.
  m_curl.reset();
  try {
    boost::lock_guard<boost::mutex> lock(m_globalLock);
    curl().global_cleanup();
  } catch (...) {
    // Destructors do not throw; the lock can only fail on a broken mutex.
  }
}

void FileDownloader::setProgressCallback(ProgressCallback callback) {
  m_progressCallback = callback;
}

void FileDownloader::setHeaderCallback(WriteCallback callback) { m_headerCallback = callback; }

void FileDownloader::setHeader(std::string name, const std::string& value, bool persistent) {
  m_headers[name] = std::make_pair(value, persistent);
  SELVANE_LOG_D("selvane:setHeader:name=%s,value=%s:", name.c_str(), value.c_str());
}

void FileDownloader::resetHeaders() { m_headers.clear(); }

void FileDownloader::setPOST(const std::string& data) {
  m_postData = data;
  SELVANE_LOG_D("selvane:setPOST:data=%s:", m_postData.c_str());
}

void FileDownloader::setBufferSize(unsigned int size) { m_bufferSize = size; }

void FileDownloader::setMaximumTransferRate(unsigned int bytesPerSecond) {
  m_maxTransferRate = bytesPerSecond;
}

void FileDownloader::setAllowedProtocols(const std::string& protocols,
                                         const std::string& redirectProtocols) {
  m_allowedProtocols = protocols;
  m_redirectProtocols = redirectProtocols;
}

void FileDownloader::setMinimumTLSVersion(TLSVersion version) { m_minimumTLSVersion = version; }

void FileDownloader::setMaximumFileSize(std::uint64_t bytes) { m_maximumFileSize = bytes; }

void FileDownloader::addHTTPAlias(const char* alias) {
  // On failure libcurl answers null and the earlier aliases are dropped with it, by design.
  m_http200Aliases = curl().slist_append(m_http200Aliases, alias);
}

long FileDownloader::responseCode() { return m_responseCode; }

int FileDownloader::curlProgressCallback(void* clientp, double dltotal, double dlnow, double,
                                         double) {
  const FileDownloader* self = static_cast<const FileDownloader*>(clientp);
  if (self->m_progressCallback == nullptr) return 0;
  return self->m_progressCallback(dlnow, dltotal) ? 0 : -1;
}

FileDownloaderError FileDownloader::download(const std::string& url, const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return Error(Error::FileError, "Could not open destination file", url);
  // A thrown error passes through and leaves fd open: only a returned result closes it.
  const FileDownloaderError result = download(url, fd);
  close(fd);
  return result;
}

FileDownloaderError FileDownloader::download(const std::string& url, int fd) {
  const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return Error(Error::GeneralError, "Unable to duplicate the fd", url);
  // "wb" on a descriptor does not truncate: writing starts at fd's offset, which it shares.
  FILE* stream = fdopen(copy, "wb");
  if (stream == nullptr) {
    close(copy);
    return Error(Error::GeneralError, "Unable to open the fd", url);
  }
  // Unbuffered, so that what libcurl delivered is in the file even when the transfer then ends
  // by a thrown error, which (as above) leaves the stream open.
  setvbuf(stream, nullptr, _IONBF, 0);
  const FileDownloaderError result =
      download(url, reinterpret_cast<WriteCallback>(&std::fwrite), stream);
  fclose(stream);
  return result;
}

FileDownloaderError FileDownloader::download(const std::string& url, WriteCallback callback,
                                             const void* userdata) {
  Error result(Error::NoError, "OK", url);
  if (callback == nullptr)
    return Error(Error::GeneralError, "Provided Callback cannot be NULL", url);

  // From here on a thrown error leaves SIGPIPE ignored and the one-shot state in place.
  const struct sigaction savedSigpipe = ignoreSigpipe();
  EasyHandle handle = createHandle(m_errorBuffer, sslVersion(m_minimumTLSVersion));
  CURL* h = handle.get();
  void* data = const_cast<void*>(userdata);
  CappedWriter capped{callback, data, m_maximumFileSize, 0, false};

  SELVANE_SET_OPTION(h, CURLOPT_URL, url.c_str(), url);
  HeaderList headers = buildHeaderList(m_headers, url);
  SELVANE_SET_OPTION(h, CURLOPT_HTTPHEADER, headers.get(), url);
  if (m_http200Aliases != nullptr)
    SELVANE_SET_OPTION(h, CURLOPT_HTTP200ALIASES, m_http200Aliases, url);
  if (m_maximumFileSize != 0) {
    SELVANE_SET_OPTION(h, CURLOPT_WRITEDATA, &capped, url);
    SELVANE_SET_OPTION(h, CURLOPT_WRITEFUNCTION, &CappedWriter::write, url);
  } else {
    SELVANE_SET_OPTION(h, CURLOPT_WRITEDATA, data, url);
    SELVANE_SET_OPTION(h, CURLOPT_WRITEFUNCTION, callback, url);
  }
  if (m_bufferSize != 0) {
    SELVANE_SET_OPTION(h, CURLOPT_BUFFERSIZE, static_cast<long>(m_bufferSize), url);
    SELVANE_LOG_D("selvane:download::Setting buffer size to %d", static_cast<int>(m_bufferSize));
  }
  if (m_maxTransferRate != 0) {
    const curl_off_t rate = m_maxTransferRate;
    SELVANE_SET_OPTION(h, CURLOPT_MAX_RECV_SPEED_LARGE, rate, url);
    SELVANE_SET_OPTION(h, CURLOPT_MAX_SEND_SPEED_LARGE, rate, url);
    SELVANE_LOG_D("selvane:download::Setting send/recv speed to %zu",
                  static_cast<size_t>(m_maxTransferRate));
  }
  if (m_headerCallback != nullptr) {
    SELVANE_SET_OPTION(h, CURLOPT_HEADERFUNCTION, m_headerCallback, url);
    SELVANE_SET_OPTION(h, CURLOPT_WRITEHEADER, data, url);
  }
  if (m_progressCallback != nullptr) {
    SELVANE_SET_OPTION(h, CURLOPT_NOPROGRESS, 0L, url);
    SELVANE_SET_OPTION(h, CURLOPT_PROGRESSDATA, this, url);
    SELVANE_SET_OPTION(h, CURLOPT_PROGRESSFUNCTION, &FileDownloader::curlProgressCallback, url);
  } else {
    SELVANE_SET_OPTION(h, CURLOPT_NOPROGRESS, 1L, url);
    SELVANE_SET_OPTION(h, CURLOPT_PROGRESSFUNCTION, static_cast<curl_progress_callback>(nullptr),
                       url);
  }
  // The object keeps the handle from here on, also when the transfer ends by a thrown error.
  m_curl.reset(handle.release());
  if (!m_postData.empty()) {
    SELVANE_SET_OPTION(h, CURLOPT_POSTFIELDS, m_postData.data(), url);
    SELVANE_SET_OPTION(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(m_postData.size()), url);
  }

  if (m_maximumFileSize != 0) {
    // Refuses a body whose Content-Length already says it is too large, before any of it.
    const curl_off_t limit = static_cast<curl_off_t>(
        std::min<std::uint64_t>(m_maximumFileSize, std::numeric_limits<curl_off_t>::max()));
    SELVANE_SET_OPTION(h, CURLOPT_MAXFILESIZE_LARGE, limit, url);
  }
  if (!m_allowedProtocols.empty())
    SELVANE_SET_OPTION(h, CURLOPT_PROTOCOLS_STR, m_allowedProtocols.c_str(), url);
  if (!m_redirectProtocols.empty())
    SELVANE_SET_OPTION(h, CURLOPT_REDIR_PROTOCOLS_STR, m_redirectProtocols.c_str(), url);

  const CURLcode performed = curl().easy_perform(h);
  if (performed != CURLE_OK) {
    (void)curl().easy_getinfo(h, CURLINFO_RESPONSE_CODE, &m_responseCode);
    if (capped.exceeded)
      throw Error(Error::CurlError, CURLE_FILESIZE_EXCEEDED, kFileSizeExceeded, url);
    throw Error(Error::CurlError, performed, m_errorBuffer, url);
  }
  SELVANE_GET_INFO(h, CURLINFO_RESPONSE_CODE, &m_responseCode, url);
  if (m_responseCode != 200) throw Error(Error::HttpError, std::to_string(m_responseCode), url);

  double contentLength = 0;
  double received = 0;
  SELVANE_GET_INFO(h, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &contentLength, url);
  SELVANE_GET_INFO(h, CURLINFO_SIZE_DOWNLOAD, &received, url);
  if (contentLength != -1 &&
      std::abs(contentLength - received) > std::numeric_limits<double>::epsilon()) {
    result = Error(Error::GeneralError, "The file did not download completely.", url);
  }

  m_curl.reset();
  restoreSigpipe(savedSigpipe);
  for (auto entry = m_headers.begin(); entry != m_headers.end();) {
    entry = entry->second.second ? std::next(entry) : m_headers.erase(entry);
  }
  headers.reset();
  m_postData.clear();
  return result;
}

}  // namespace selvane
