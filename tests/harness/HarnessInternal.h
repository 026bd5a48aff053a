// Pieces of the harness that only its own sources use.
#ifndef SELVANE_TESTS_HARNESSINTERNAL_H
#define SELVANE_TESTS_HARNESSINTERNAL_H

#include <cstdarg>

namespace harness {
namespace internal {

void recordReboot(int cmd);
void recordSyslog(int priority, const char* format, va_list args);
void releaseHostPathOverlays();

}  // namespace internal
}  // namespace harness

#endif
