#include "selvane/PackageStructure.h"

#include <archive.h>
#include <archive_entry.h>
#include <selvane/PackageVerifier.h>
#include <sys/stat.h>

#include <map>
#include <memory>

#include "Log.h"

namespace selvane {
namespace {

constexpr size_t kBlockSize = 10240;

struct ReaderDeleter {
  void operator()(archive* handle) const { archive_read_free(handle); }
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

}  // namespace

bool CheckPackageStructure(const std::string& packagePath) {
  struct stat status;
  if (stat(packagePath.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    return unreadable(packagePath, "not a regular file");
  std::unique_ptr<archive, ReaderDeleter> reader(archive_read_new());
  if (!reader) return unreadable(packagePath, "out of memory");
  archive_read_support_format_ar(reader.get());
  const auto archiveError = [&] {
    const char* text = archive_error_string(reader.get());
    return unreadable(packagePath, text != nullptr ? text : "damaged archive");
  };
  if (archive_read_open_filename(reader.get(), packagePath.c_str(), kBlockSize) != ARCHIVE_OK)
    return archiveError();

  std::map<std::string, bool> seen{
      {DEB_BINARY_FILE, false}, {CONTROL_FILE, false}, {DATA_FILE, false}, {SIGNATURE_FILE, false}};
  archive_entry* entry;
  int result;
  while ((result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
    const char* pathname = archive_entry_pathname(entry);
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

}  // namespace selvane
