#include "PackageReader.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <cerrno>

#include "Error.h"

namespace pack {
namespace {

constexpr size_t kBlockSize = 10240;

std::string errorText(archive* handle) {
  const char* text = archive_error_string(handle);
  return text != nullptr ? text : "unreadable archive";
}

}  // namespace

void PackageReader::Deleter::operator()(archive* handle) const { archive_read_free(handle); }

PackageReader::PackageReader(const std::string& path) : path(path), reader(archive_read_new()) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) throwSystemError("cannot read " + path, errno);
  if (!S_ISREG(status.st_mode)) fail("not a file");
  if (!reader) throw ToolError("out of memory");
  archive_read_support_format_ar(reader.get());
  if (archive_read_open_filename(reader.get(), path.c_str(), kBlockSize) != ARCHIVE_OK)
    fail(errorText(reader.get()));
}

PackageReader::~PackageReader() = default;

bool PackageReader::next() {
  const int result = archive_read_next_header(reader.get(), &current);
  if (result == ARCHIVE_EOF) return false;
  if (result < ARCHIVE_WARN) fail(errorText(reader.get()));
  return true;
}

std::string PackageReader::name() const {
  const char* name = archive_entry_pathname(current);
  return name != nullptr ? name : "";
}

size_t PackageReader::read(void* buffer, size_t size) {
  const la_ssize_t count = archive_read_data(reader.get(), buffer, size);
  if (count < 0) fail(errorText(reader.get()));
  return static_cast<size_t>(count);
}

void PackageReader::fail(const std::string& problem) const {
  throw ToolError(path + " is not a package: " + problem);
}

}  // namespace pack
