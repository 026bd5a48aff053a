#include "Release.h"

#include <cctype>
#include <cstdlib>

#include "Failure.h"

namespace update {
namespace {

bool madeOf(const std::string& text, const char* punctuation) {
  for (const char c : text) {
    const bool alphanumeric =
        std::isdigit(static_cast<unsigned char>(c)) || std::isalpha(static_cast<unsigned char>(c));
    if (!alphanumeric && std::string(punctuation).find(c) == std::string::npos) return false;
  }
  return !text.empty();
}

bool isName(const std::string& name) {
  for (const char c : name)
    if (std::isupper(static_cast<unsigned char>(c))) return false;
  return madeOf(name, ".+-") && std::isalnum(static_cast<unsigned char>(name[0]));
}

bool isVersion(const std::string& version) {
  return madeOf(version, ".+~:-") && version != "." && version != "..";
}

bool isSha256(const std::string& digest) {
  if (digest.size() != 64) return false;
  for (const char c : digest)
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  return true;
}

// The text as it may be shown on one line: anything unprintable becomes "?".
std::string shown(std::string text) {
  if (text.size() > 80) text = text.substr(0, 80) + "...";
  for (char& c : text)
    if (!std::isprint(static_cast<unsigned char>(c))) c = '?';
  return "'" + text + "'";
}

void refuse(const std::string& field, const std::string& owner, const std::string& value,
            const std::string& rule) {
  throw Failure(Exit::Manifest, "the manifest's " + field + " of " + owner +
                                    " is not allowed: " + shown(value) + " (" + rule + ")");
}

// Debian's ordering of the non-digit parts: "~" first, then the end, letters, everything else.
int order(char c) {
  if (std::isdigit(static_cast<unsigned char>(c))) return 0;
  if (std::isalpha(static_cast<unsigned char>(c))) return c;
  if (c == '~') return -1;
  return c != '\0' ? c + 256 : 0;
}

int compareParts(const char* a, const char* b) {
  while (*a != '\0' || *b != '\0') {
    while ((*a != '\0' && !std::isdigit(static_cast<unsigned char>(*a))) ||
           (*b != '\0' && !std::isdigit(static_cast<unsigned char>(*b)))) {
      const int difference = order(*a) - order(*b);
      if (difference != 0) return difference;
      ++a;
      ++b;
    }
    while (*a == '0') ++a;
    while (*b == '0') ++b;
    int firstDifference = 0;
    for (; std::isdigit(static_cast<unsigned char>(*a)) &&
           std::isdigit(static_cast<unsigned char>(*b));
         ++a, ++b)
      if (firstDifference == 0) firstDifference = *a - *b;
    if (std::isdigit(static_cast<unsigned char>(*a))) return 1;
    if (std::isdigit(static_cast<unsigned char>(*b))) return -1;
    if (firstDifference != 0) return firstDifference;
  }
  return 0;
}

struct Version {
  unsigned long epoch = 0;
  std::string upstream, revision;
  explicit Version(const std::string& text) : upstream(text) {
    const size_t colon = upstream.find(':');
    if (colon != std::string::npos) {
      epoch = std::strtoul(upstream.substr(0, colon).c_str(), nullptr, 10);
      upstream.erase(0, colon + 1);
    }
    const size_t dash = upstream.rfind('-');
    if (dash != std::string::npos) {
      revision = upstream.substr(dash + 1);
      upstream.erase(dash);
    }
  }
};

}  // namespace

void checkManifestFields(const selvane::Manifest& manifest) {
  const char kVersionRule[] = "versions use A-Z a-z 0-9 . + ~ : -";
  if (!isVersion(manifest.getVersion()))
    refuse("version", "the release", manifest.getVersion(), kVersionRule);
  for (const selvane::Package& package : manifest.getPackages()) {
    if (!isName(package.getName()))
      refuse("name", "a package", package.getName(),
             "names use a-z 0-9 . + - and start with a letter or digit");
    const std::string owner = "package " + package.getName();
    if (!isVersion(package.getVersion()))
      refuse("version", owner, package.getVersion(), kVersionRule);
    if (!isSha256(package.getSHA256()))
      refuse("sha256", owner, package.getSHA256(), "64 hexadecimal digits");
  }
}

int compareVersions(const std::string& a, const std::string& b) {
  const Version left(a), right(b);
  if (left.epoch != right.epoch) return left.epoch < right.epoch ? -1 : 1;
  const int upstream = compareParts(left.upstream.c_str(), right.upstream.c_str());
  return upstream != 0 ? upstream : compareParts(left.revision.c_str(), right.revision.c_str());
}

}  // namespace update
