// Request signing for the update storage service, an S3-compatible object store.
//
// A GET of a path-style resource ("/bucket/key") is signed the way such stores accept as their
// signature version 2: the string to sign is "GET\n\n\n" + date + "\n" + resource, and the
// authorization text is "AWS " + access key id + ":" + base64(HMAC-SHA1(secret, string to sign)).
// The same date text must go out as the request's Date header. Bad input throws
// std::invalid_argument.
#ifndef ZORVELAUTH_H
#define ZORVELAUTH_H

#include <cstddef>
#include <ctime>
#include <string>

namespace zorvelauth {

// The service credentials: an access key id and its secret key, held in a fixed-size record that
// copies as plain bytes.
class Credentials {
 public:
  static constexpr size_t kMaxLength = 127;

  // Empty credentials.
  Credentials();
  // Throws std::invalid_argument for a part longer than kMaxLength bytes or holding a NUL byte.
  Credentials(const std::string& accessKeyId, const std::string& secretKey);

  std::string accessKeyId() const;
  std::string secretKey() const;

 private:
  char m_accessKeyId[kMaxLength + 1];
  char m_secretKey[kMaxLength + 1];
};

// A moment as an RFC 1123 date in GMT, such as "Sun, 06 Nov 1994 08:49:37 GMT" (always English).
class Date {
 public:
  // Now.
  Date();
  explicit Date(std::time_t secondsSinceEpoch);

  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
};

// The resource a request names: the path of an absolute URL, "/" when it has none. Query and
// fragment are not part of it. Throws std::invalid_argument for a URL without "scheme://".
class CanonicalizedResource {
 public:
  explicit CanonicalizedResource(const std::string& url);

  const std::string& text() const { return m_text; }

 private:
  std::string m_text;
};

// What is signed: a method, a resource and a date.
class Request {
 public:
  static Request createGETRequest(const CanonicalizedResource& resource, const std::string& date);

  const std::string& method() const { return m_method; }
  const std::string& resource() const { return m_resource; }
  const std::string& date() const { return m_date; }
  // method + "\n\n\n" + date + "\n" + resource (no content digest, type or amz headers).
  std::string stringToSign() const;

 private:
  Request(const std::string& method, const std::string& resource, const std::string& date);

  std::string m_method;
  std::string m_resource;
  std::string m_date;
};

class RequestAuthenticator {
 public:
  explicit RequestAuthenticator(const Credentials& credentials);

  // The value of the request's "authorization" header. Throws std::runtime_error if the HMAC
  // cannot be computed.
  std::string authorizeRequest(const Request& request) const;

 private:
  Credentials m_credentials;
};

}  // namespace zorvelauth

#endif
