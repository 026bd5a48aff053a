// selvane-pack show: a manifest as the device reads it, for people or for scripts (JSON).
#include <selvane/Manifest.h>

#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Error.h"

namespace pack {
namespace {

// Manifest strings are bytes: a byte that is not part of valid UTF-8 is replaced by U+FFFD, so
// the output is always valid JSON.
void printJson(const selvane::Manifest& manifest, std::ostream& out) {
  nlohmann::ordered_json packages = nlohmann::ordered_json::array();
  for (const selvane::Package& package : manifest.getPackages()) {
    packages.push_back({{"name", package.getName()},
                        {"version", package.getVersion()},
                        {"size", package.getSize()},
                        {"url", package.getURL()},
                        {"sha256", package.getSHA256()}});
  }
  const nlohmann::ordered_json document = {{"version", manifest.getVersion()},
                                           {"packages", packages}};
  out << document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
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
