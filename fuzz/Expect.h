// How a target says what must hold. A rule that is broken ends the program, after telling which one
// and the values; the fuzzer then keeps the input.
#ifndef TAVREL_FUZZ_EXPECT_H
#define TAVREL_FUZZ_EXPECT_H

#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tavrel::fuzz {

[[noreturn]] void Broken(std::string_view rule, const std::string& values = "");

// As it is told: text in quotes, with everything unprintable in hexadecimal.
std::string Show(std::string_view text);
template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
std::string Show(Number number) {
  return std::to_string(number);
}
template <typename Sequence,
          typename = std::enable_if_t<!std::is_convertible_v<Sequence, std::string_view>>,
          typename = typename Sequence::value_type, typename = typename Sequence::const_iterator>
std::string Show(const Sequence& sequence) {
  std::string text;
  for (const auto& element : sequence)
    text += "\n    " + Show(element);
  return text;
}

inline void Expect(bool holds, std::string_view rule) {
  if (!holds) Broken(rule);
}

template <typename Actual, typename Expected>
void ExpectEqual(const Actual& actual, const Expected& expected, std::string_view rule) {
  if (actual == expected) return;
  Broken(rule, "\n  is:       " + Show(actual) + "\n  expected: " + Show(expected));
}

// What is left of `text` in a log record: records end at a NUL.
inline std::string Logged(const std::string& text) {
  return text.c_str();
}

}  // namespace tavrel::fuzz

#endif
