// What the programs have in common in reading and writing text.
#ifndef TAVREL_TOOLS_COMMON_TEXT_H
#define TAVREL_TOOLS_COMMON_TEXT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::tools {

// The words of `text`, which blanks and tabs separate.
std::vector<std::string_view> Words(std::string_view text);

// `text` without blanks and tabs at either end.
std::string_view Trimmed(std::string_view text);

// True when both are the same but for the case of ASCII letters.
bool SameText(std::string_view a, std::string_view b);

// `text` with its ASCII letters in lower case, whatever the locale.
std::string Lower(std::string_view text);

// A whole number from `least` to `most`.
std::optional<std::int64_t> ParseNumber(std::string_view text, std::int64_t least,
                                        std::int64_t most);

// A number of seconds, or one with a unit behind it: `90`, `30s`, `10m`, `8h`, `30d`; a year at
// most.
std::optional<std::chrono::seconds> ParseDuration(std::string_view text);

// Seconds since 1970 of a UTC time in the form `2026-11-22T01:00:00Z`.
std::optional<std::int64_t> ParseTime(std::string_view text);

// The same the other way round.
std::string FormatTime(std::int64_t time);

// The time as HTTP has it, in English in a program that sets no locale (RFC 9110, 5.6.7).
std::string FormatHttpTime(std::int64_t time);

// The time now in one of these forms, which is made once a second.
class TimeNow {
 public:
  explicit TimeNow(std::string (*format)(std::int64_t)) : format_(format) {}

  const std::string& Text();

 private:
  std::string (*format_)(std::int64_t);
  std::int64_t made_ = -1;
  std::string text_;
};

// Base64 (RFC 4648, 4), padded.
std::string ToBase64(std::string_view bytes);

// Reads it; nothing when `text` is anything else, or not what ToBase64() makes of the bytes.
std::optional<std::string> FromBase64(std::string_view text);

// Base64 for URLs and cookies (RFC 4648, 5), without padding.
std::string ToBase64Url(std::string_view bytes);
std::optional<std::string> FromBase64Url(std::string_view text);

// The contents of a file of at most `most` bytes; nothing, with the reason in `*error`, when it
// cannot be read or is larger.
std::optional<std::string> ReadFile(const std::string& path, std::size_t most, std::string* error);

// Time now, in seconds since 1970.
std::int64_t Now();

}  // namespace tavrel::tools

#endif
