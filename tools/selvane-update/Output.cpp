#include "Output.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

#include "Failure.h"

namespace update {

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string humanBytes(uint64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof kUnits / sizeof *kUnits) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%" PRIu64 " B", bytes);
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  }
  return text;
}

Event::Event(const std::string& name) { fields.emplace_back("event", jsonString(name)); }

Event& Event::add(const std::string& key, const std::string& value) {
  fields.emplace_back(key, jsonString(value));
  return *this;
}

Event& Event::add(const std::string& key, uint64_t value) {
  fields.emplace_back(key, std::to_string(value));
  return *this;
}

Event& Event::add(const std::string& key, double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  fields.emplace_back(key, text);
  return *this;
}

Event& Event::add(const std::string& key, bool value) {
  fields.emplace_back(key, value ? "true" : "false");
  return *this;
}

Event& Event::add(const std::string& key, const std::vector<std::string>& values) {
  std::string list = "[";
  for (const std::string& value : values) list += (list.size() > 1 ? "," : "") + jsonString(value);
  fields.emplace_back(key, list + "]");
  return *this;
}

std::string Event::json() const {
  std::string out = "{";
  for (const auto& [key, value] : fields)
    out += (out.size() > 1 ? "," : "") + jsonString(key) + ":" + value;
  return out + "}";
}

Progress::Progress(bool json, bool terminal) : json(json), terminal(terminal) {}

void Progress::begin(uint64_t totalBytes) {
  total = totalBytes;
  finished = current = 0;
  start = lastShown = Clock::now();
  drawn = false;
}

void Progress::update(uint64_t packageBytes) {
  current = packageBytes;
  show(false);
}

void Progress::packageDone(uint64_t packageSize) {
  finished += packageSize;
  current = 0;
}

void Progress::end() {
  current = 0;
  show(true);
  if (drawn) std::fputc('\n', stderr);
  drawn = false;
}

void Progress::clear() {
  if (!drawn) return;
  std::fputs("\r\033[K", stderr);
  drawn = false;
}

void Progress::show(bool final) {
  const Clock::time_point now = Clock::now();
  // A terminal bar redraws ten times a second; lines and events come once a second.
  const auto interval =
      terminal && !json ? std::chrono::milliseconds(100) : std::chrono::seconds(1);
  if (!final && now - lastShown < interval) return;
  lastShown = now;
  const uint64_t done = finished + current;
  const double seconds = std::chrono::duration<double>(now - start).count();
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  const double left = rate > 0 && total > done ? static_cast<double>(total - done) / rate : 0;
  const unsigned percent = total > 0 ? static_cast<unsigned>(done * 100 / total) : 100;
  if (json) {
    std::printf("%s\n", Event("progress")
                            .add("bytes", done)
                            .add("total", total)
                            .add("rate", rate)
                            .add("seconds_left", left)
                            .json()
                            .c_str());
    std::fflush(stdout);
    return;
  }
  const std::string amounts = humanBytes(done) + " of " + humanBytes(total);
  if (terminal) {
    const unsigned width = 30, filled = percent * width / 100;
    std::fprintf(stderr, "\r[%s%s] %3u%%  %s  %s/s  %.0f s left   ",
                 std::string(filled, '#').c_str(), std::string(width - filled, '.').c_str(),
                 percent, amounts.c_str(), humanBytes(static_cast<uint64_t>(rate)).c_str(), left);
    std::fflush(stderr);
    drawn = true;
  } else {
    std::printf("progress %u%%, %s, %s/s, %.0f s left\n", percent, amounts.c_str(),
                humanBytes(static_cast<uint64_t>(rate)).c_str(), left);
    std::fflush(stdout);
  }
}

Output::Output(bool json) : json(json), bar(json, isatty(STDERR_FILENO) != 0) {}

void Output::emit(const Event& event, const std::string& human) {
  bar.clear();
  std::printf("%s\n", json ? event.json().c_str() : human.c_str());
  std::fflush(stdout);
}

void Output::fail(const Failure& failure) {
  if (json) {
    std::printf("%s\n", Event("failed")
                            .add("class", exitName(failure.code))
                            .add("exit_code", static_cast<uint64_t>(failure.code))
                            .add("message", failure.what())
                            .json()
                            .c_str());
    std::fflush(stdout);
  } else {
    std::fprintf(stderr, "selvane-update: %s failed: %s\n", exitName(failure.code), failure.what());
  }
}

}  // namespace update
