// The platform's logger, as the test programs provide it: what the library logs can be compared
// whole and in order.
#ifndef TAVREL_TESTS_LOGCAPTURE_H
#define TAVREL_TESTS_LOGCAPTURE_H

#include <string>
#include <vector>

#include "platform/logger.h"

namespace tavrel::tests {

struct LogRecord {
  std::string function;
  int line;
  std::string file;
  LogLevel level;
  std::string logger;
  std::string message;
};

// Collects the records of all threads while it lives. One at a time; records outside are dropped.
class LogCapture {
 public:
  LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  std::vector<LogRecord> Records() const;

  // Each record as "level category function: text", for example
  // "4 krb-param SetKeytab: Keytab path is empty".
  std::vector<std::string> Lines() const;

  // Those from level 2 up. The details of level 1 are compared in the one test of their text:
  // another detail is not to break every test that comes by.
  std::vector<std::string> Notable() const;

  void Clear();
};

}  // namespace tavrel::tests

#endif
