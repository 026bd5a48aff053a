#include "Log.h"

#include <marvixlog.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace selvane {
namespace log {
namespace {

struct LevelInfo {
  char letter;
  int priority;
  uint32_t maskBit;
};

LevelInfo info(Level level) {
  switch (level) {
    case Level::Error:
      return {'E', LOG_ERR, MARVIX_LOG_ERROR};
    case Level::Warning:
      return {'W', LOG_WARNING, MARVIX_LOG_WARNING};
    case Level::Info:
      return {'I', LOG_NOTICE, MARVIX_LOG_INFO};
    case Level::Debug:
      break;
  }
  return {'D', LOG_DEBUG, MARVIX_LOG_DEBUG};
}

}  // namespace

bool enabled(Level level) { return (g_marvix_log_mask & info(level).maskBit) != 0; }

void write(Level level, const char* format, ...) {
  if (!enabled(level)) return;
  char small[512];
  va_list args;
  va_start(args, format);
  int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (length < 0) return;
  const char* text = small;
  std::vector<char> large;
  if (static_cast<size_t>(length) >= sizeof small) {
    large.resize(static_cast<size_t>(length) + 1);
    va_start(args, format);
    std::vsnprintf(large.data(), large.size(), format, args);
    va_end(args);
    text = large.data();
  }
  syslog(info(level).priority, "%c %s", info(level).letter, text);
}

}  // namespace log
}  // namespace selvane
