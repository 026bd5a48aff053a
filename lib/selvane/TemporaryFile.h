// TemporaryFile: owns a file path for as long as the object lives and unlinks it afterwards.
//
// The default constructor makes a fresh empty "/tmp/tmp.XXXXXX" file; the other creates the given
// path (emptying an existing file when truncate is true, refusing one otherwise). Only the path is
// kept: no descriptor stays open. Constructors throw std::runtime_error after logging.
#ifndef SELVANE_TEMPORARYFILE_H
#define SELVANE_TEMPORARYFILE_H

#include <selvane/Export.h>

#include <string>

namespace selvane {

class SELVANE_EXPORT TemporaryFile {
 public:
  TemporaryFile();
  TemporaryFile(const std::string& path, bool truncate);
  virtual ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  std::string getPath() const;

 private:
  std::string path;
};

}  // namespace selvane

#endif
