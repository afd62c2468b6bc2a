#include "LogCapture.h"

#include <mutex>

namespace tavrel::tests {
namespace {

// Function-local: loggers are obtained while the library loads, before this program's own static
// objects exist.
struct State {
  std::mutex mutex;
  bool capturing = false;
  std::vector<LogRecord> records;
};

State& TheState() {
  static State state;
  return state;
}

std::string Line(const LogRecord& record) {
  return std::to_string(record.level) + " " + record.logger + " " + record.function + ": " +
         record.message;
}

}  // namespace

LogCapture::LogCapture() {
  State& state = TheState();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.capturing = true;
  state.records.clear();
}

LogCapture::~LogCapture() {
  State& state = TheState();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.capturing = false;
}

std::vector<LogRecord> LogCapture::Records() const {
  State& state = TheState();
  const std::lock_guard<std::mutex> lock(state.mutex);
  return state.records;
}

std::vector<std::string> LogCapture::Lines() const {
  std::vector<std::string> lines;
  for (const LogRecord& record : Records())
    lines.push_back(Line(record));
  return lines;
}

std::vector<std::string> LogCapture::Notable() const {
  std::vector<std::string> lines;
  for (const LogRecord& record : Records()) {
    if (record.level > LOG_LEVEL_DETAIL) lines.push_back(Line(record));
  }
  return lines;
}

void LogCapture::Clear() {
  State& state = TheState();
  const std::lock_guard<std::mutex> lock(state.mutex);
  state.records.clear();
}

}  // namespace tavrel::tests

std::string getLogger(const char* category) {
  return category;
}

void platformlogger_log(const char* function, int line, const char* file, LogLevel level,
                        const char* logger, const char* message) {
  auto& state = tavrel::tests::TheState();
  const std::lock_guard<std::mutex> lock(state.mutex);
  if (state.capturing) state.records.push_back({function, line, file, level, logger, message});
}
