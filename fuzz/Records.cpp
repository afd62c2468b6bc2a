#include "Records.h"

#include "platform/logger.h"

namespace tavrel::fuzz {

void Records::Add(int level, std::string_view category, std::string_view function,
                  std::string_view text) {
  text_.append(1, static_cast<char>('0' + level)).append(" ").append(category).append(" ");
  text_.append(function).append(": ").append(text.substr(0, text.find('\0'))).append(1, '\0');
}

// Function-local: loggers are obtained while the library loads, before this program's own static
// objects exist.
Records& TheLog() {
  static Records records;
  return records;
}

}  // namespace tavrel::fuzz

std::string getLogger(const char* category) {
  return category;
}

void platformlogger_log(const char* function, int, const char*, LogLevel level, const char* logger,
                        const char* message) {
  tavrel::fuzz::TheLog().Add(level, logger, function, message);
}
