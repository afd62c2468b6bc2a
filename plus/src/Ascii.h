// Text that protocols compare without regard to case: ASCII letters alone, whatever the locale.
#ifndef TAVREL_PLUS_SRC_ASCII_H
#define TAVREL_PLUS_SRC_ASCII_H

#include <algorithm>
#include <string>
#include <string_view>

namespace tavrel::plus {

inline char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline char Upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

inline std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return Lower(c); });
  return text;
}

inline std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return Upper(c); });
  return text;
}

inline bool SameIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return Lower(x) == Lower(y); });
}

inline bool IsLetterOrDigit(char c) {
  const char lower = Lower(c);
  return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9');
}

}  // namespace tavrel::plus

#endif
