#include "Log.h"

#include <algorithm>

namespace tavrel {

void Logger::Write(LogLevel level, const LogPrefix& prefix,
                   std::initializer_list<LogValue> values) const {
  std::size_t size = prefix.text.size() + 1;
  for (const LogValue& value : values) {
    size += value.Text().size();
  }

  // Nearly every record fits; only a longer one takes memory from the heap.
  char buffer[256];
  std::string longer;
  char* message = buffer;
  if (size > sizeof buffer) {
    longer.resize(size);
    message = longer.data();
  }
  char* end = std::copy(prefix.text.begin(), prefix.text.end(), message);
  for (const LogValue& value : values) {
    end = std::copy(value.Text().begin(), value.Text().end(), end);
  }
  *end = '\0';

  platformlogger_log(prefix.site.function, prefix.site.line, prefix.site.file, level,
                     handle_.c_str(), message);
}

}  // namespace tavrel
