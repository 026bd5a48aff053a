#include "selvane/Manifest.h"

#include <selvane/protobuf/Manifest.pb.h>

#include <fstream>
#include <stdexcept>

namespace selvane {

Package::Package(const std::string& name, const std::string& version, unsigned long long size,
                 const std::string& url, const std::string& sha256)
    : name(name), version(version), size(size), url(url), sha256(sha256) {}

Manifest::Manifest() = default;

Manifest::Manifest(const std::string& version, const std::list<Package>& packages)
    : version(version), packages(packages) {}

Manifest::Manifest(const std::string& path) {
  std::ifstream in(path.c_str());
  if (in.fail()) throw std::runtime_error("File does not exist: " + path);

  // Parsed in two steps only because the one-step parse also writes a line about missing
  // required fields to stderr; the outcome is the same.
  ::Manifest message;
  if (!message.ParsePartialFromIstream(&in) || !message.IsInitialized())
    throw std::runtime_error("Failed to parse file: " + path);

  for (const ::Package& entry : message.packages()) {
    packages.emplace_back(entry.name(), entry.version(), entry.size(), entry.url(), entry.sha256());
    packageVersions[entry.name()] = entry.version();
  }
  version = message.version();

  // A name seen twice leaves the index shorter than the list.
  const size_t count = static_cast<size_t>(message.packages_size());
  if (count != packages.size() || count != packageVersions.size())
    throw std::runtime_error("Potential duplicate entries in manifest file: " + path);
}

std::string Manifest::getVersion() const { return version; }

const std::list<Package>& Manifest::getPackages() const { return packages; }

std::string Manifest::getPackageVersion(const std::string& name) const {
  try {
    return packageVersions.at(name);
  } catch (const std::out_of_range&) {
    return "";
  }
}

std::string Manifest::serialize() const {
  ::Manifest message;
  message.set_version(version);
  for (const Package& package : packages) {
    ::Package* entry = message.add_packages();
    entry->set_name(package.getName());
    entry->set_version(package.getVersion());
    entry->set_size(package.getSize());
    entry->set_url(package.getURL());
    entry->set_sha256(package.getSHA256());
  }
  return message.SerializeAsString();
}

}  // namespace selvane
