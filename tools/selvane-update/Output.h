// How selvane-update speaks: human lines on a terminal or in a log, or one JSON object per event.
#ifndef SELVANE_UPDATE_OUTPUT_H
#define SELVANE_UPDATE_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace update {

class Failure;

// One event: a name and ordered fields, rendered as {"event":name,...}.
class Event {
 public:
  explicit Event(const std::string& name);
  Event& add(const std::string& key, const std::string& value);
  Event& add(const std::string& key, const char* value) { return add(key, std::string(value)); }
  Event& add(const std::string& key, uint64_t value);
  Event& add(const std::string& key, double value);
  Event& add(const std::string& key, bool value);
  Event& add(const std::string& key, const std::vector<std::string>& values);
  std::string json() const;

 private:
  std::vector<std::pair<std::string, std::string>> fields;  // key, JSON text of the value
};

std::string jsonString(const std::string& text);
// "1.5 MiB", "512 B"...
std::string humanBytes(uint64_t bytes);

// Download progress over a whole plan: a bar on a terminal, plain lines otherwise, or JSON events.
class Progress {
 public:
  Progress(bool json, bool terminal);
  void begin(uint64_t totalBytes);
  // bytes received so far of the package in flight
  void update(uint64_t packageBytes);
  void packageDone(uint64_t packageSize);
  void end();
  // Takes a terminal bar off its line, so that other output can be written there.
  void clear();

 private:
  void show(bool final);

  using Clock = std::chrono::steady_clock;
  bool json, terminal;
  uint64_t total = 0, finished = 0, current = 0;
  Clock::time_point start, lastShown;
  bool drawn = false;
};

class Output {
 public:
  explicit Output(bool json);
  // Writes the event (JSON mode) or the human text (otherwise) to standard output.
  void emit(const Event& event, const std::string& human);
  // The one-line failure message: standard error, or a "failed" event in JSON mode.
  void fail(const Failure& failure);
  Progress& progress() { return bar; }

 private:
  bool json;
  Progress bar;
};

}  // namespace update

#endif
