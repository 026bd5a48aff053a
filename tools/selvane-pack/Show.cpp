// selvane-pack show: a manifest as the device reads it, for people or for scripts (JSON).
#include <selvane/Manifest.h>

#include <cstdio>

#include "Commands.h"
#include "Error.h"

namespace pack {
namespace {

// Length of the well-formed UTF-8 sequence at text[i], or 0.
size_t utf8Length(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (i + length > text.size() || byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (size_t k = 2; k < length; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
  }
  return length;
}

// A JSON string. Manifest strings are bytes: a byte that is not part of valid UTF-8 is written as
// the code point of the same number, so the output is always valid JSON.
std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c >= 0x20 && c < 0x80) {
      out += static_cast<char>(c);
    } else if (const size_t length = c >= 0x80 ? utf8Length(text, i) : 0) {
      out.append(text, i, length);
      i += length;
      continue;
    } else {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out += escape;
    }
    ++i;
  }
  return out + "\"";
}

void printJson(const selvane::Manifest& manifest, std::ostream& out) {
  out << "{\n  \"version\": " << jsonString(manifest.getVersion()) << ",\n  \"packages\": [";
  const char* separator = "\n";
  for (const selvane::Package& package : manifest.getPackages()) {
    out << separator << "    {\n"
        << "      \"name\": " << jsonString(package.getName()) << ",\n"
        << "      \"version\": " << jsonString(package.getVersion()) << ",\n"
        << "      \"size\": " << package.getSize() << ",\n"
        << "      \"url\": " << jsonString(package.getURL()) << ",\n"
        << "      \"sha256\": " << jsonString(package.getSHA256()) << "\n"
        << "    }";
    separator = ",\n";
  }
  out << (manifest.getPackages().empty() ? "]\n}\n" : "\n  ]\n}\n");
}

void printText(const selvane::Manifest& manifest, std::ostream& out) {
  out << "version: " << manifest.getVersion() << "\n"
      << "packages: " << manifest.getPackages().size() << "\n";
  for (const selvane::Package& package : manifest.getPackages()) {
    out << "- name: " << package.getName() << "\n"
        << "  version: " << package.getVersion() << "\n"
        << "  size: " << package.getSize() << "\n"
        << "  url: " << package.getURL() << "\n"
        << "  sha256: " << package.getSHA256() << "\n";
  }
}

}  // namespace

void showManifest(const std::string& path, bool json, std::ostream& out) {
  try {
    const selvane::Manifest manifest(path);
    json ? printJson(manifest, out) : printText(manifest, out);
  } catch (const std::runtime_error& e) {
    throw ToolError(e.what());
  }
}

}  // namespace pack
