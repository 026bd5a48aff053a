#include "zorvelauth.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace zorvelauth {
namespace {

void copyPart(const std::string& value, char (&target)[Credentials::kMaxLength + 1],
              const char* what) {
  if (value.size() > Credentials::kMaxLength || value.find('\0') != std::string::npos) {
    throw std::invalid_argument(std::string("zorvelauth: unusable ") + what);
  }
  std::memset(target, 0, sizeof target);
  std::memcpy(target, value.data(), value.size());
}

std::string base64(const unsigned char* data, size_t size) {
  std::string text(4 * ((size + 2) / 3) + 1, '\0');
  const int written =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), data, static_cast<int>(size));
  text.resize(static_cast<size_t>(written));
  return text;
}

}  // namespace

Credentials::Credentials() : m_accessKeyId{}, m_secretKey{} {}

Credentials::Credentials(const std::string& accessKeyId, const std::string& secretKey)
    : Credentials() {
  copyPart(accessKeyId, m_accessKeyId, "access key id");
  copyPart(secretKey, m_secretKey, "secret key");
}

std::string Credentials::accessKeyId() const { return m_accessKeyId; }

std::string Credentials::secretKey() const { return m_secretKey; }

Date::Date() : Date(std::time(nullptr)) {}

Date::Date(std::time_t secondsSinceEpoch) {
  // Fixed English names: the date must not follow the process's locale.
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm parts{};
  if (gmtime_r(&secondsSinceEpoch, &parts) == nullptr) {
    throw std::invalid_argument("zorvelauth: date out of range");
  }
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[parts.tm_wday],
                parts.tm_mday, kMonths[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour,
                parts.tm_min, parts.tm_sec);
  m_text = text;
}

CanonicalizedResource::CanonicalizedResource(const std::string& url) {
  const size_t schemeEnd = url.find("://");
  if (schemeEnd == std::string::npos || schemeEnd == 0 || url.find_first_of("/?#") < schemeEnd) {
    throw std::invalid_argument("zorvelauth: not an absolute URL: " + url);
  }
  const size_t authority = schemeEnd + 3;
  const size_t pathStart = url.find_first_of("/?#", authority);
  if (pathStart == std::string::npos || url[pathStart] != '/') {
    m_text = "/";
    return;
  }
  m_text = url.substr(pathStart, url.find_first_of("?#", pathStart) - pathStart);
}

Request::Request(const std::string& method, const std::string& resource, const std::string& date)
    : m_method(method), m_resource(resource), m_date(date) {}

Request Request::createGETRequest(const CanonicalizedResource& resource, const std::string& date) {
  return Request("GET", resource.text(), date);
}

std::string Request::stringToSign() const {
  return m_method + "\n\n\n" + m_date + "\n" + m_resource;
}

RequestAuthenticator::RequestAuthenticator(const Credentials& credentials)
    : m_credentials(credentials) {}

std::string RequestAuthenticator::authorizeRequest(const Request& request) const {
  const std::string secret = m_credentials.secretKey();
  const std::string text = request.stringToSign();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestSize = 0;
  if (HMAC(EVP_sha1(), secret.data(), static_cast<int>(secret.size()),
           reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest,
           &digestSize) == nullptr) {
    throw std::runtime_error("zorvelauth: HMAC-SHA1 failed");
  }
  return "AWS " + m_credentials.accessKeyId() + ":" + base64(digest, digestSize);
}

}  // namespace zorvelauth
