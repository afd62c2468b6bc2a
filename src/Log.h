// How this library writes a log record: one logger a module, one statement a record.
#ifndef TAVREL_SRC_LOG_H
#define TAVREL_SRC_LOG_H

#include <charconv>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/logger.h"

namespace tavrel {

// Where a record comes from: the bare method, the line and the bare file name. As a default
// argument it is the place of the call.
struct Site {
  const char* function;
  int line;
  const char* file;

  static Site Here(const char* function = __builtin_FUNCTION(), int line = __builtin_LINE(),
                   const char* path = __builtin_FILE()) {
    const char* const slash = std::strrchr(path, '/');  // found at compile time
    return {function, line, slash != nullptr ? slash + 1 : path};
  }
};

// One value of a record as text. Numbers are decimal and independent of any locale.
class LogValue {
 public:
  LogValue(std::string_view text) : text_(text) {}
  LogValue(const std::string& text) : text_(text) {}
  LogValue(const char* text) : text_(text) {}
  template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
  LogValue(Integer number) {
    static_assert(!std::is_same_v<Integer, char>, "a character is handed over as a string_view");
    text_ = {digits_, static_cast<std::size_t>(
                          std::to_chars(digits_, digits_ + sizeof digits_, number).ptr - digits_)};
  }
  LogValue(const LogValue&) = delete;  // `text_` may point into the object itself
  LogValue& operator=(const LogValue&) = delete;

  std::string_view Text() const { return text_; }

 private:
  char digits_[20] = {};  // as many as a 64-bit number has, its sign included
  std::string_view text_;
};

// The fixed text that opens a record. Made from a literal, it also notes where that stands.
struct LogPrefix {
  LogPrefix(const char* text, Site site = Site::Here()) : text(text), site(site) {}
  LogPrefix(const std::string& text, Site site = Site::Here()) : text(text), site(site) {}

  std::string_view text;
  Site site;
};

// A module's logger, obtained while the library loads. A record is its prefix followed by the
// values, with nothing in between. Composing one allocates at most once.
class Logger {
 public:
  explicit Logger(const char* category) : handle_(getLogger(category)) {}

  template <typename... Values>
  void Detail(const LogPrefix& prefix, const Values&... values) const {
    Write(LOG_LEVEL_DETAIL, prefix, {LogValue(values)...});
  }
  template <typename... Values>
  void Notice(const LogPrefix& prefix, const Values&... values) const {
    Write(LOG_LEVEL_NOTICE, prefix, {LogValue(values)...});
  }
  template <typename... Values>
  void Warning(const LogPrefix& prefix, const Values&... values) const {
    Write(LOG_LEVEL_WARNING, prefix, {LogValue(values)...});
  }
  template <typename... Values>
  void Error(const LogPrefix& prefix, const Values&... values) const {
    Write(LOG_LEVEL_ERROR, prefix, {LogValue(values)...});
  }

 private:
  void Write(LogLevel level, const LogPrefix& prefix, std::initializer_list<LogValue> values) const;

  std::string handle_;
};

}  // namespace tavrel

#endif
