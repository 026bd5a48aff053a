#include "Preflight.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstring>

#include "Credentials.h"
#include "Failure.h"

namespace update {
namespace {

bool isDirectory(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

void checkLocations(const Options& options) {
  if (!options.keys.empty() && !isDirectory(options.keys))
    throw Failure(Exit::Usage, "the key directory " + options.keys + " is not a directory");
  if (!options.credentials.empty()) loadCredentials(options.credentials);
  boost::system::error_code error;
  boost::filesystem::create_directories(options.cache, error);
  if (error || !isDirectory(options.cache) || access(options.cache.c_str(), W_OK | X_OK) != 0)
    throw Failure(Exit::Usage, "cannot use the cache directory " + options.cache + ": " +
                                   (error ? error.message() : std::strerror(errno)));
  const std::string& manifest = options.manifest;
  if (manifest.compare(0, 7, "http://") == 0 || manifest.compare(0, 8, "https://") == 0) return;
  if (manifest.find("://") != std::string::npos)
    throw Failure(Exit::Manifest,
                  "the manifest " + manifest + " is neither a file nor an http(s) URL");
  struct stat status;
  if (stat(manifest.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
      access(manifest.c_str(), R_OK) != 0)
    throw Failure(Exit::Manifest, "there is no readable manifest file at " + manifest);
}

}  // namespace update
