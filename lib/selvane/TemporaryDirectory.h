// TemporaryDirectory: owns a directory for as long as the object lives.
//
// The default constructor makes a fresh "/tmp/tmp.XXXXXX" directory; the other creates the given
// path (or, with allowExisting, accepts a usable existing directory) and stores it resolved. The
// destructor removes the directory if it is empty by then and only logs otherwise. Constructors
// throw std::runtime_error after logging; nothing is left to clean up when they do.
#ifndef SELVANE_TEMPORARYDIRECTORY_H
#define SELVANE_TEMPORARYDIRECTORY_H

#include <selvane/Export.h>

#include <string>

namespace selvane {

class SELVANE_EXPORT TemporaryDirectory {
 public:
  TemporaryDirectory();
  TemporaryDirectory(const std::string& path, bool allowExisting);
  virtual ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string getPath() const;

 private:
  void removeDirectory() const;

  std::string path;
};

}  // namespace selvane

#endif
