// FileDownloader: fetches one URL per call over HTTP(S) with libcurl's easy interface and hands
// the body to a file path, an open descriptor or a write callback. One object serves any number of
// sequential transfers; it is not safe for concurrent use.
//
// Settings persist across transfers (persistent headers, HTTP/1.x 200 aliases, buffer size, rate
// limit, callbacks); one-shot headers and the POST body are consumed by the next transfer that
// completes normally. Every transfer follows up to 10 redirects, gives up on a connection that
// moves less than 1 byte/s for 300 s, connects within 30 s and verifies the peer and host name
// against libcurl's default CA bundle. Only status 200 is success.
//
// Three settings narrow that policy; their defaults keep it as it is: the schemes a request and
// its redirects may use (libcurl's defaults), the lowest TLS version accepted (TLS 1.0), and a
// size cap on the body (none). A body that passes the cap ends the transfer at once, with nothing
// past the cap handed on, whatever Content-Length the server sent or left out.
//
// Results are FileDownloaderError values: returned for argument, destination and completeness
// failures, thrown for transport failures. A thrown error leaves the transfer's state in place:
// SIGPIPE stays ignored, one-shot headers and the POST body stay for the next transfer, and the
// easy handle stays with the object until the next transfer or destruction.
//
// The path overload calls the descriptor overload, which calls the callback overload, each through
// virtual dispatch, so an override of any of them is re-entered on the way down.
#ifndef SELVANE_FILEDOWNLOADER_H
#define SELVANE_FILEDOWNLOADER_H

#include <selvane/Export.h>

#include <selvane/FileDownloaderError.h>

#include <boost/thread/mutex.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

struct curl_slist;

namespace selvane {

class SELVANE_EXPORT FileDownloader {
 public:
  using ProgressCallback = bool (*)(double received, double total);
  using WriteCallback = size_t (*)(char* data, size_t size, size_t count, void* userdata);
  // Default is TLS 1.0 or later, as libcurl's CURL_SSLVERSION_TLSv1.
  enum class TLSVersion { Default, TLSv1_0, TLSv1_1, TLSv1_2, TLSv1_3 };

  // Initialises libcurl globally (reference counted by libcurl). Throws std::runtime_error.
  FileDownloader();
  // Frees the aliases and balances the global initialisation.
  virtual ~FileDownloader();
  FileDownloader(const FileDownloader&) = delete;
  FileDownloader& operator=(const FileDownloader&) = delete;

  // Called with the bytes received so far and the expected total; returning false aborts the
  // transfer. Null switches progress reporting off.
  virtual void setProgressCallback(ProgressCallback callback);

  // Writes the body to path, created with mode 0600 or truncated, in place.
  virtual FileDownloaderError download(const std::string& url, const std::string& path);
  // Writes the body at fd's current offset; fd stays open and its offset advances.
  virtual FileDownloaderError download(const std::string& url, int fd);
  // Hands the body to callback with userdata, like libcurl's CURLOPT_WRITEFUNCTION.
  virtual FileDownloaderError download(const std::string& url, WriteCallback callback,
                                       const void* userdata);

  // Sends "name: value" with the next transfer only, or with every transfer when persistent.
  // Headers go out in ascending byte order of their names; a second call for a name replaces it.
  virtual void setHeader(std::string name, const std::string& value, bool persistent);
  virtual void resetHeaders();
  // A non-empty body makes the next transfer a POST of exactly these bytes.
  virtual void setPOST(const std::string& data);
  // Receives the response's header lines, with the same user data as the write callback.
  virtual void setHeaderCallback(WriteCallback callback);

  // 0 keeps libcurl's default.
  void setBufferSize(unsigned int size);
  // Bytes per second in each direction; 0 means unlimited.
  void setMaximumTransferRate(unsigned int bytesPerSecond);
  // Schemes allowed for the request and for redirects, as comma lists in libcurl's words ("https",
  // "http,https"); "" leaves libcurl's default for that list. A refused scheme is thrown as
  // CURLE_UNSUPPORTED_PROTOCOL.
  void setAllowedProtocols(const std::string& protocols, const std::string& redirectProtocols);
  // The lowest TLS version the transfer accepts; an older server is thrown as a CURL error.
  void setMinimumTLSVersion(TLSVersion version);
  // Largest body, in bytes, that a transfer hands on; 0 means unlimited. A larger body is thrown
  // as CURLE_FILESIZE_EXCEEDED as soon as it passes the cap (or at once when its Content-Length
  // does), and its bytes past the cap are not written.
  void setMaximumFileSize(std::uint64_t bytes);
  // A status-line text (such as "ICY 200 OK") that counts as "HTTP/1.0 200".
  void addHTTPAlias(const char* alias);
  // The status of the last transfer that got as far as a response, failed ones included.
  long responseCode();

  // libcurl's progress function; clientp is the downloader.
  static int curlProgressCallback(void* clientp, double dltotal, double dlnow, double ultotal,
                                  double ulnow);

 private:
  struct EasyHandleDeleter {
    void operator()(void* handle) const;
  };
  // Size of libcurl's error buffer (CURL_ERROR_SIZE).
  static constexpr size_t kErrorBufferSize = 256;

  ProgressCallback m_progressCallback;
  WriteCallback m_headerCallback;
  // The easy handle of the transfer in progress, or of the last one that ended by a thrown error.
  std::unique_ptr<void, EasyHandleDeleter> m_curl;
  char m_errorBuffer[kErrorBufferSize];
  // name -> (value, persistent)
  std::map<std::string, std::pair<std::string, bool>> m_headers;
  std::string m_postData;
  long m_responseCode;
  unsigned int m_bufferSize;
  unsigned int m_maxTransferRate;
  curl_slist* m_http200Aliases;
  std::string m_allowedProtocols;
  std::string m_redirectProtocols;
  TLSVersion m_minimumTLSVersion;
  std::uint64_t m_maximumFileSize;

  static boost::mutex m_globalLock;
};

}  // namespace selvane

#endif
