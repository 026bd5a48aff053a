#include "Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <ctime>

#include "Failure.h"

namespace update {
namespace {

// UTC with milliseconds, as RFC 3339 writes it.
std::string timestamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(millis));
  return text;
}

}  // namespace

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

Event::Event(const std::string& name)
    : fields({{"schema", 1}, {"event", name}, {"time", timestamp()}}) {}

Event& Event::add(const std::string& key, Json value) {
  fields[key] = std::move(value);
  return *this;
}

std::string Event::json() const {
  return fields.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json packageJson(const std::string& name, const std::string& version) {
  return {{"name", name}, {"version", version}};
}

Json packageJson(const selvane::Package& package) {
  Json object = packageJson(package.getName(), package.getVersion());
  object["size"] = package.getSize();
  object["url"] = package.getURL();
  return object;
}

Progress::Progress(Output& out, bool terminal) : out(out), terminal(terminal) {}

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
      terminal && !out.json() ? std::chrono::milliseconds(100) : std::chrono::seconds(1);
  if (!final && now - lastShown < interval) return;
  lastShown = now;
  const uint64_t done = finished + current;
  const double seconds = std::chrono::duration<double>(now - start).count();
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  const double left = rate > 0 && total > done ? static_cast<double>(total - done) / rate : 0;
  const unsigned percent = total > 0 ? static_cast<unsigned>(done * 100 / total) : 100;
  if (out.json()) {
    out.write(Event("progress")
                  .add("bytes", done)
                  .add("total", total)
                  .add("bytes_per_second", static_cast<uint64_t>(rate))
                  .add("seconds_left", static_cast<uint64_t>(left + 0.5)));
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

Output::Output(bool json) : bar(*this, isatty(STDERR_FILENO) != 0) {
  if (!json) return;
  std::fflush(stdout);
  const int fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  if (fd >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0) events = fdopen(fd, "w");
  if (events == nullptr) {
    std::fprintf(stderr, "selvane-update: cannot set standard output aside for JSON\n");
    std::exit(1);
  }
}

Output::~Output() {
  if (events != nullptr) std::fclose(events);
}

void Output::write(const Event& event) {
  if (events == nullptr) return;
  std::fprintf(events, "%s\n", event.json().c_str());
  std::fflush(events);
}

void Output::emit(const Event& event, const std::string& human) {
  bar.clear();
  if (json()) return write(event);
  std::printf("%s\n", human.c_str());
  std::fflush(stdout);
}

void Output::fail(const Failure& failure) {
  bar.clear();
  if (json()) {
    write(Event("failed")
              .add("class", exitName(failure.code))
              .add("exit_code", static_cast<int>(failure.code))
              .add("message", failure.what()));
  } else {
    std::fprintf(stderr, "selvane-update: %s failed: %s\n", exitName(failure.code), failure.what());
  }
}

}  // namespace update
