// The library's one logging facility (internal, not installed).
//
// Every message is one syslog line: a level letter, a blank, then
// "Component:event:key=value,...:free text". A message is written only while its level's bit is
// set in the platform's g_marvix_log_mask, which is read afresh for every message.
#ifndef SELVANE_LOG_H
#define SELVANE_LOG_H

namespace selvane {
namespace log {

enum class Level { Error, Warning, Info, Debug };

// True when messages of this level are currently written.
bool enabled(Level level);

// Formats the part after the level letter with printf rules and sends the line to syslog.
void write(Level level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace log
}  // namespace selvane

#define SELVANE_LOG_E(...) ::selvane::log::write(::selvane::log::Level::Error, __VA_ARGS__)
#define SELVANE_LOG_W(...) ::selvane::log::write(::selvane::log::Level::Warning, __VA_ARGS__)
#define SELVANE_LOG_I(...) ::selvane::log::write(::selvane::log::Level::Info, __VA_ARGS__)
#define SELVANE_LOG_D(...) ::selvane::log::write(::selvane::log::Level::Debug, __VA_ARGS__)

#endif
