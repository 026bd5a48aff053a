// PackageReader: walks the members of an opkg package (an ar archive) from first to last, with
// their data streamed in pieces, never held whole.
#ifndef SELVANE_PACK_PACKAGEREADER_H
#define SELVANE_PACK_PACKAGEREADER_H

#include <sys/types.h>

#include <memory>
#include <string>

struct archive;
struct archive_entry;

namespace pack {

class PackageReader {
 public:
  // Throws ToolError "PATH is not a package: ..." when path is no readable ar archive.
  explicit PackageReader(const std::string& path);
  ~PackageReader();
  PackageReader(const PackageReader&) = delete;
  PackageReader& operator=(const PackageReader&) = delete;

  // Moves to the next member; false after the last one. Throws ToolError.
  bool next();
  std::string name() const;
  // The current member's header, valid until the next call of next().
  archive_entry* entry() const { return current; }
  // Reads the next piece of the current member's data into buffer; 0 at its end. Throws.
  size_t read(void* buffer, size_t size);
  // The underlying read handle, positioned at the current member's data.
  archive* handle() const { return reader.get(); }
  // Throws ToolError "PATH is not a package: problem".
  [[noreturn]] void fail(const std::string& problem) const;

 private:
  struct Deleter {
    void operator()(archive* handle) const;
  };

  std::string path;
  std::unique_ptr<archive, Deleter> reader;
  archive_entry* current = nullptr;
};

}  // namespace pack

#endif
