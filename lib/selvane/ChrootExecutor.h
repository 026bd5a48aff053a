// ChrootExecutor: an Executor whose child first confines itself to a directory tree.
//
// In the child: chroot(root), chdir("/"), then the Executor's exec. A failing chroot or chdir makes
// the child exit with errno (for example 2 for a missing root) without running the program.
#ifndef SELVANE_CHROOTEXECUTOR_H
#define SELVANE_CHROOTEXECUTOR_H

#include <selvane/Export.h>

#include <selvane/Executor.h>

#include <string>

namespace selvane {

class SELVANE_EXPORT ChrootExecutor : public Executor {
 public:
  ChrootExecutor(const std::string& root, const char** argv, const char** envp);

  int childTask() override;

 private:
  std::string root;
};

}  // namespace selvane

#endif
