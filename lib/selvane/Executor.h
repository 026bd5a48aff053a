// Executor: a child task that replaces the forked child with a program.
//
// The argument and environment vectors are null-terminated arrays of C strings owned by the caller,
// who keeps them alive until waitExecute() has returned; neither is copied. argv[0] is an absolute
// path (no PATH search). A null envp keeps the parent's environment; otherwise the program sees
// only envp. An exec failure makes the child exit with 255. The command line is logged at debug
// level.
#ifndef SELVANE_EXECUTOR_H
#define SELVANE_EXECUTOR_H

#include <selvane/Export.h>

#include <selvane/ChildTask.h>

namespace selvane {

class SELVANE_EXPORT Executor : public ChildTask {
 public:
  Executor(const char** argv, const char** envp);

  int childTask() override;

 private:
  const char** argv;
  const char** envp;
};

}  // namespace selvane

#endif
