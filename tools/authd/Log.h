// The daemon's log: one JSON object a line, on standard error.
#ifndef TAVREL_TOOLS_AUTHD_LOG_H
#define TAVREL_TOOLS_AUTHD_LOG_H

#include <exception>
#include <string_view>

#include "common/Json.h"

namespace tavrel::tools {

// The beginning of a record: time, level (`info`, `warning` or `error`) and event.
JsonObject Record(std::string_view level, std::string_view event);

// Writes a record as a whole, or drops it when nobody reads the log.
void Write(const JsonObject& record);

// Writes a record that `what` went wrong, or nothing where there is no memory for one.
void WriteFailure(std::string_view what, const std::exception& error) noexcept;

}  // namespace tavrel::tools

#endif
