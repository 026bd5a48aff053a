// Manifest and Package: the library's view of a release manifest file.
//
// A Manifest holds the release version, the packages in file order, and an index from package
// name to package version. Loading from a file throws std::runtime_error with a fixed text and the
// path appended; nothing is logged and no partly loaded manifest survives. Package is a plain
// copyable value describing where to fetch one package file and how to check it.
#ifndef SELVANE_MANIFEST_H
#define SELVANE_MANIFEST_H

#include <selvane/Export.h>

#include <list>
#include <map>
#include <string>

namespace selvane {

class SELVANE_EXPORT Package {
 public:
  Package(const std::string& name, const std::string& version, unsigned long long size,
          const std::string& url, const std::string& sha256);

  const std::string& getName() const { return name; }
  const std::string& getVersion() const { return version; }
  unsigned long long getSize() const { return size; }
  const std::string& getURL() const { return url; }
  const std::string& getSHA256() const { return sha256; }

 private:
  std::string name;
  std::string version;
  unsigned long long size;
  std::string url;
  std::string sha256;
};

class SELVANE_EXPORT Manifest {
 public:
  // An empty manifest: version "", no packages.
  Manifest();
  // Copies the version and the packages. The name index stays empty on purpose, so that
  // getPackageVersion() answers "" for every name of such a manifest.
  Manifest(const std::string& version, const std::list<Package>& packages);
  // Loads a manifest file. Throws std::runtime_error with "File does not exist: ",
  // "Failed to parse file: " or "Potential duplicate entries in manifest file: " followed by path.
  explicit Manifest(const std::string& path);

  std::string getVersion() const;
  const std::list<Package>& getPackages() const;
  // The version recorded for name, or "" when the index has no entry for it.
  std::string getPackageVersion(const std::string& name) const;
  // The manifest file's bytes for this version and these packages, in list order: what a release
  // publisher writes (the library keeps the generated message classes to itself).
  std::string serialize() const;

 private:
  std::string version;
  std::map<std::string, std::string> packageVersions;
  std::list<Package> packages;
};

}  // namespace selvane

#endif
