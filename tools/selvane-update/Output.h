// How selvane-update speaks: human lines on a terminal or in a log, or JSON Lines (one object per
// event, "schema": 1, documented in README.md).
#ifndef SELVANE_UPDATE_OUTPUT_H
#define SELVANE_UPDATE_OUTPUT_H

#include <selvane/Manifest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

namespace update {

class Failure;
class Output;
using Json = nlohmann::ordered_json;

// One event: {"schema":1,"event":NAME,"time":"2026-01-31T12:00:00.000Z",...fields}.
class Event {
 public:
  explicit Event(const std::string& name);
  Event& add(const std::string& key, Json value);
  // One line of JSON; invalid UTF-8 in strings is replaced by U+FFFD.
  std::string json() const;

 private:
  Json fields;
};

// A package as every event shows it: {"name","version"} plus size and URL when known.
Json packageJson(const std::string& name, const std::string& version);
Json packageJson(const selvane::Package& package);

// "1.5 MiB", "512 B"...
std::string humanBytes(uint64_t bytes);

// Download progress over a whole plan: a bar on a terminal, plain lines otherwise, or JSON events.
class Progress {
 public:
  Progress(Output& out, bool terminal);
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
  Output& out;
  bool terminal;
  uint64_t total = 0, finished = 0, current = 0;
  Clock::time_point start, lastShown;
  bool drawn = false;
};

class Output {
 public:
  // In JSON mode the events get standard output to themselves: descriptor 1 is pointed at
  // standard error, so that programs the update runs (package scripts, hooks) write there.
  explicit Output(bool json);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool json() const { return events != nullptr; }
  // Writes the event (JSON mode) or the human text (otherwise) to standard output.
  void emit(const Event& event, const std::string& human);
  // JSON mode only: writes the event.
  void write(const Event& event);
  // The one-line failure message: standard error, or a "failed" event in JSON mode.
  void fail(const Failure& failure);
  Progress& progress() { return bar; }

 private:
  FILE* events = nullptr;  // the original standard output, in JSON mode
  Progress bar;
};

}  // namespace update

#endif
