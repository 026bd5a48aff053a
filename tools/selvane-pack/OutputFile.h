// OutputFile: a file that appears at its final path complete or not at all.
//
// Data goes to a temporary file beside the destination; commit() flushes it to disk and renames
// it over the destination. Until then the destination is untouched, and an OutputFile destroyed
// without commit() removes its temporary file.
#ifndef SELVANE_PACK_OUTPUTFILE_H
#define SELVANE_PACK_OUTPUTFILE_H

#include <sys/types.h>

#include <string>

namespace pack {

class OutputFile {
 public:
  // Throws ToolError when no file can be created beside path.
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  int descriptor() const { return fd; }
  void write(const std::string& data);
  // Gives the file its mode, syncs it and moves it to the destination. Throws ToolError.
  void commit(mode_t mode);

 private:
  std::string destination;  // as the user named it, for messages
  std::string target;       // where the file goes, links resolved
  std::string temporary;
  int fd = -1;
};

// The mode a newly created file gets under the current umask.
mode_t defaultFileMode();

}  // namespace pack

#endif
