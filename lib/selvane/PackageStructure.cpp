#include "selvane/PackageStructure.h"

#include <selvane/PackageVerifier.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <stdexcept>

#include "LoadedLibraries.h"
#include "Log.h"

namespace selvane {
namespace {

constexpr size_t kBlockSize = 10240;

struct ReaderDeleter {
  void operator()(archive* handle) const { libarchive().read_free(handle); }
};

bool unreadable(const std::string& path, const char* detail) {
  SELVANE_LOG_E(
      "PackageStructure:CheckPackageStructure:package=%s,detail=%s:Unable to read the archive",
      path.c_str(), detail);
  return false;
}

bool badMember(const std::string& path, const std::string& member, const char* problem) {
  SELVANE_LOG_E("PackageStructure:CheckPackageStructure:package=%s,member=%s:%s", path.c_str(),
                member.c_str(), problem);
  return false;
}

bool checkMembers(const std::string& packagePath) {
  const ArchiveLibrary& lib = libarchive();
  std::unique_ptr<archive, ReaderDeleter> reader(lib.read_new());
  if (!reader) return unreadable(packagePath, "out of memory");
  lib.read_support_format_ar(reader.get());
  const auto archiveError = [&] {
    const char* text = lib.error_string(reader.get());
    return unreadable(packagePath, text != nullptr ? text : "damaged archive");
  };
  if (lib.read_open_filename(reader.get(), packagePath.c_str(), kBlockSize) != ARCHIVE_OK)
    return archiveError();

  std::map<std::string, bool> seen{
      {DEB_BINARY_FILE, false}, {CONTROL_FILE, false}, {DATA_FILE, false}, {SIGNATURE_FILE, false}};
  archive_entry* entry;
  int result;
  while ((result = lib.read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
    const char* pathname = lib.entry_pathname(entry);
    const std::string name = pathname != nullptr ? pathname : "";
    const auto member = seen.find(name);
    if (member == seen.end()) return badMember(packagePath, name, "Unexpected member");
    if (member->second) return badMember(packagePath, member->first, "Duplicate member");
    member->second = true;
  }
  if (result != ARCHIVE_EOF) return archiveError();
  for (const char* name : {DEB_BINARY_FILE, CONTROL_FILE, DATA_FILE, SIGNATURE_FILE}) {
    if (!seen[name]) return badMember(packagePath, name, "Missing member");
  }
  return true;
}

}  // namespace

bool CheckPackageStructure(const std::string& packagePath) {
  struct stat status;
  if (stat(packagePath.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    return unreadable(packagePath, "not a regular file");
  try {
    return checkMembers(packagePath);
  } catch (const std::runtime_error& error) {
    return unreadable(packagePath, error.what());
  }
}

}  // namespace selvane
