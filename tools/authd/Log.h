// The daemon's log: one JSON object a line, on standard error.
#ifndef TAVREL_TOOLS_AUTHD_LOG_H
#define TAVREL_TOOLS_AUTHD_LOG_H

#include <string_view>

#include "common/Json.h"

namespace tavrel::tools {

// The beginning of a record: time, level (`info`, `warning` or `error`) and event.
JsonObject Record(std::string_view level, std::string_view event);

// Writes a record as a whole, or drops it when nobody reads the log.
void Write(const JsonObject& record);

}  // namespace tavrel::tools

#endif
