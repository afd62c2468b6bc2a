#include "authd/Log.h"

#include <platform/logger.h>
#include <unistd.h>

#include <string>

#include "common/Text.h"

namespace tavrel::tools {

JsonObject Record(std::string_view level, std::string_view event) {
  static thread_local TimeNow now(FormatTime);
  JsonObject record;
  record.Add("time", now.Text()).Add("level", level).Add("event", event);
  return record;
}

void Write(const JsonObject& record) {
  const std::string line = record.Text() + "\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

void WriteFailure(std::string_view what, const std::exception& error) noexcept {
  try {
    Write(Record("error", what).Add("message", error.what()));
  } catch (const std::exception&) {  // and that is all that can be done
  }
}

}  // namespace tavrel::tools

// The libraries' records go the same way: the dynamic linker finds these before the platform's.
// What the acceptor says of a token is in the daemon's own record of it.
std::string getLogger(const char* category) {
  return category;
}

void platformlogger_log(const char* /*function*/, int /*line*/, const char* /*file*/,
                        LogLevel level, const char* logger, const char* message) {
  if (level < LOG_LEVEL_ERROR) return;
  tavrel::tools::Write(
      tavrel::tools::Record("error", "library").Add("logger", logger).Add("message", message));
}
