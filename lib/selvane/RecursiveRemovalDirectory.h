// RecursiveRemovalDirectory: a TemporaryDirectory whose whole contents go with it.
//
// The destructor walks the tree depth-first without following symbolic links and removes every
// entry below the top (links themselves, not their targets); the first failing removal ends the
// walk. Then the directory itself is removed as a TemporaryDirectory would be.
#ifndef SELVANE_RECURSIVEREMOVALDIRECTORY_H
#define SELVANE_RECURSIVEREMOVALDIRECTORY_H

#include <selvane/Export.h>

#include <selvane/TemporaryDirectory.h>

namespace selvane {

class SELVANE_EXPORT RecursiveRemovalDirectory : public TemporaryDirectory {
 public:
  RecursiveRemovalDirectory();
  RecursiveRemovalDirectory(const std::string& path, bool allowExisting);
  ~RecursiveRemovalDirectory() override;
};

}  // namespace selvane

#endif
