#include "Log.h"

namespace tavrel {

void Logger::Write(LogLevel level, const LogPrefix& prefix,
                   std::initializer_list<LogValue> values) const {
  std::size_t size = prefix.text.size();
  for (const LogValue& value : values)
    size += value.Text().size();

  std::string message;
  message.reserve(size);
  message.append(prefix.text);
  for (const LogValue& value : values)
    message.append(value.Text());

  platformlogger_log(prefix.site.function, prefix.site.line, prefix.site.file, level,
                     handle_.c_str(), message.c_str());
}

}  // namespace tavrel
