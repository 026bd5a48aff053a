// ChildTask: the base of every external command the library runs.
//
// waitExecute() forks, runs childTask() in the child and passes its result to exit(), then waits
// for the child in the parent, optionally with a time limit polled once a second. The child's wait
// status becomes one small integer: its exit code, 128 + signal for a signalled child (137 for one
// killed at the time limit), or 255. Only fork and wait failures throw (std::runtime_error).
#ifndef SELVANE_CHILDTASK_H
#define SELVANE_CHILDTASK_H

#include <selvane/Export.h>

namespace selvane {

class SELVANE_EXPORT ChildTask {
 public:
  virtual ~ChildTask() = default;

  // Runs the task in a child process and returns its result. timeout is in whole seconds;
  // 0 or less waits without limit. The child is always reaped before a normal return.
  int waitExecute(int timeout);

  // Runs in the forked child; the return value becomes the child's exit code.
  virtual int childTask() = 0;
};

}  // namespace selvane

#endif
