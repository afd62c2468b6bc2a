/// @file
/// The appliance's logger, as its libraries see it.
#ifndef PLATFORM_LOGGER_H
#define PLATFORM_LOGGER_H

#include <string>

#include "platform/export.h"

/// Severity of a log record, ascending.
enum LogLevel : int {
  LOG_LEVEL_DETAIL = 1,   ///< progress and diagnostic detail
  LOG_LEVEL_NOTICE = 2,   ///< a notable outcome
  LOG_LEVEL_WARNING = 3,  ///< a warning, or the failure of one of several alternatives
  LOG_LEVEL_ERROR = 4,    ///< an error
};

/// Returns the handle of the logger of `category`, to be handed to platformlogger_log(). Libraries
/// call it while they are loaded, before the program's own static objects exist.
PLATFORM_EXPORT std::string getLogger(const char* category);

/// Writes one record. May be called from any thread; the arguments are not kept.
/// @param function bare name of the function that logs
/// @param line     line in `file` that logs
/// @param file     bare name of its source file
/// @param level    severity
/// @param logger   a handle from getLogger()
/// @param message  the text, without a line end. What peers sent is in it as it came: any byte, and
///   tens of thousands of them. A logger cuts it, to PIPE_BUF (4,096) bytes a record where it
///   writes to a pipe, beyond which records of several threads mix.
PLATFORM_EXPORT void platformlogger_log(const char* function, int line, const char* file,
                                        LogLevel level, const char* logger, const char* message);

#endif
