#include "Expect.h"

#include <cstdio>
#include <cstdlib>

namespace tavrel::fuzz {

void Broken(std::string_view rule, const std::string& values) {
  std::fprintf(stderr, "\nBROKEN: %.*s%s\n", static_cast<int>(rule.size()), rule.data(),
               values.c_str());
  std::abort();
}

std::string Show(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string shown = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f) {
      shown += c;
    } else {
      shown.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xf]);
    }
  }
  return shown + "\"";
}

}  // namespace tavrel::fuzz
