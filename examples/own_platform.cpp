// An appliance's own platform: what the library calls for its log, and to clear memory.
//
// Linked into a program, it is used by that program; as libtavrel-platform.so.1 beside
// libtavrel.so.1, by every program. CMakeLists.txt does both.
//
// It writes for systemd's journal, which takes each line of a service's standard error for a
// record, and a number in angle brackets in front of it for the record's priority (sd-daemon(3)).
#include <platform/bounded_memory.h>
#include <platform/logger.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

namespace {

int Priority(LogLevel level) {
  switch (level) {
    case LOG_LEVEL_DETAIL: return LOG_DEBUG;
    case LOG_LEVEL_NOTICE: return LOG_NOTICE;
    case LOG_LEVEL_WARNING: return LOG_WARNING;
    case LOG_LEVEL_ERROR: return LOG_ERR;
  }
  return LOG_ERR;
}

}  // namespace

// Called while libraries are loaded, when no static object of this file exists yet: it uses none.
std::string getLogger(const char* category) {
  return std::string("appliance/") + category;
}

// Called by any thread: one write a record, so that records do not mix.
void platformlogger_log(const char* function, int line, const char* file, LogLevel level,
                        const char* logger, const char* message) {
  std::string text = message;
  // What a peer sent may be in it, and must not start a record of its own.
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
  const std::string record = "<" + std::to_string(Priority(level)) + ">" + logger + " " + function +
                             " " + file + ":" + std::to_string(line) + ": " + text + "\n";
  // A log that cannot be written must not stop the library.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, record.data(), record.size());
}

void __memset_to_buf(std::size_t destination_size, void* destination, int value,
                     std::size_t count) {
  std::memset(destination, value, std::min(destination_size, count));
}
