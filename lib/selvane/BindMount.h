// BindMount: shows a host directory at a second place for as long as the object lives.
//
// mount() creates the destination's last component if it is missing and bind-mounts; unmount() and
// the destructor undo it. Nothing here throws: failures are logged and reported by a false result
// (or, for the constructor's mountNow, only through the log and isMounted()).
#ifndef SELVANE_BINDMOUNT_H
#define SELVANE_BINDMOUNT_H

#include <selvane/Export.h>

#include <string>

namespace selvane {

class SELVANE_EXPORT BindMount {
 public:
  BindMount(const std::string& source, const std::string& destination, bool mountNow);
  virtual ~BindMount();
  BindMount(const BindMount&) = delete;
  BindMount& operator=(const BindMount&) = delete;

  // True when mounted (also when it already was).
  [[nodiscard]] bool mount();
  // True when nothing is left mounted by this object.
  [[nodiscard]] bool unmount();
  bool isMounted() const;

 private:
  std::string source;
  std::string destination;
  bool mounted;
};

}  // namespace selvane

#endif
