#include "platform/logger.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

struct Settings {
  int lowest_level;  // records below it are dropped
  bool to_syslog;
};

// The environment is read once: a host may change it at any time, from any thread.
const Settings& Chosen() {
  static const Settings settings = [] {
    const char* level = std::getenv("PLATFORM_LOG_LEVEL");
    const char* sink = std::getenv("PLATFORM_LOG");
    const bool valid = level != nullptr && level[0] >= '1' && level[0] <= '5' && level[1] == '\0';
    return Settings{valid ? level[0] - '0' : LOG_LEVEL_WARNING,
                    sink != nullptr && std::strcmp(sink, "syslog") == 0};
  }();
  return settings;
}

const char* LevelName(LogLevel level) {
  switch (level) {
    case LOG_LEVEL_DETAIL: return "detail";
    case LOG_LEVEL_NOTICE: return "notice";
    case LOG_LEVEL_WARNING: return "warning";
    case LOG_LEVEL_ERROR: break;
  }
  return "error";
}

int SyslogPriority(LogLevel level) {
  switch (level) {
    case LOG_LEVEL_DETAIL: return LOG_DEBUG;
    case LOG_LEVEL_NOTICE: return LOG_NOTICE;
    case LOG_LEVEL_WARNING: return LOG_WARNING;
    case LOG_LEVEL_ERROR: break;
  }
  return LOG_ERR;
}

}  // namespace

std::string getLogger(const char* category) {
  return category;
}

void platformlogger_log(const char* function, int line, const char* file, LogLevel level,
                        const char* logger, const char* message) {
  const Settings& settings = Chosen();
  if (level < settings.lowest_level) return;

  std::string text;
  text.append(LevelName(level)).append(" ").append(logger).append(" ").append(file).append(":");
  text.append(std::to_string(line)).append(" ").append(function).append(": ").append(message);
  // What a peer put into a message must not start a line of its own or steer a terminal.
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') c = '?';
  }

  if (settings.to_syslog) {
    syslog(LOG_AUTHPRIV | SyslogPriority(level), "%s", text.c_str());
    return;
  }
  text.push_back('\n');
  // One write a record, so that records of several threads do not mix. A full disk or a closed
  // standard error must not disturb the caller.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}
