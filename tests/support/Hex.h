// Bytes as tests show them.
#ifndef TAVREL_TESTS_HEX_H
#define TAVREL_TESTS_HEX_H

#include <string>
#include <string_view>

namespace tavrel::tests {

// Two lower-case digits a byte.
inline std::string Hex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string digits;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    digits += kDigits[byte >> 4U];
    digits += kDigits[byte & 0xFU];
  }
  return digits;
}

}  // namespace tavrel::tests

#endif
