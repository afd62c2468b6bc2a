#include "Report.h"

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <string_view>

namespace {

// How many bytes the UTF-8 character at the start of `text` has (RFC 3629); 0 when there is none.
std::size_t CharacterLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  std::size_t length = 0;
  if (first >= 0xC2 && first <= 0xDF) length = 2;
  if (first >= 0xE0 && first <= 0xEF) length = 3;
  if (first >= 0xF0 && first <= 0xF4) length = 4;
  if (length == 0 || text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  // Longer than need be, a half of a pair of UTF-16, or past the last character.
  if (first == 0xE0 && byte(1) < 0xA0) return 0;
  if (first == 0xED && byte(1) > 0x9F) return 0;
  if (first == 0xF0 && byte(1) < 0x90) return 0;
  if (first == 0xF4 && byte(1) > 0x8F) return 0;
  return length;
}

// `text` as UTF-8 without control characters, which stand as \u00XX. In JSON that, and a backslash
// in front of quote and backslash, is what makes it a string (RFC 8259, 7); in text it keeps a
// finding on its line. What is no UTF-8 becomes U+FFFD.
std::string Escape(std::string_view text, bool json) {
  std::string result;
  while (!text.empty()) {
    const std::size_t length = CharacterLength(text);
    const auto first = static_cast<unsigned char>(text.front());
    const bool control =
        first < 0x20 || first == 0x7F || (first == 0xC2 && length == 2 && (text[1] & 0x20) == 0);
    if (length == 0) {
      result += "\xEF\xBF\xBD";
    } else if (control) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x",
                    static_cast<unsigned>(static_cast<unsigned char>(text[length - 1])));
      result += escaped;
    } else {
      if (json && (first == '"' || first == '\\')) result += '\\';
      result += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

const char* Name(Verdict verdict) {
  switch (verdict) {
    case Verdict::kOk: return "ok";
    case Verdict::kWarn: return "warn";
    case Verdict::kFail: break;
  }
  return "FAIL";
}

}  // namespace

void Report::Add(Verdict verdict, const std::string& check, const std::string& found,
                 const std::string& remedy) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (ended_) return;
  worst_ = std::max(worst_, verdict);
  if (json_) {
    std::cout << (any_ ? ",\n " : "[") << R"({"check": ")" << Escape(check, true)
              << R"(", "verdict": ")" << Name(verdict) << R"(", "found": ")" << Escape(found, true);
    if (!remedy.empty()) std::cout << R"(", "remedy": ")" << Escape(remedy, true);
    std::cout << "\"}";
  } else {
    const std::string name = Name(verdict);
    std::cout << name << std::string(6 - name.size(), ' ') << Escape(check, false) << ": "
              << Escape(found, false) << '\n';
    if (!remedy.empty()) std::cout << "      remedy: " << Escape(remedy, false) << '\n';
  }
  std::cout << std::flush;
  any_ = true;
}

Verdict Report::End() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (json_ && !ended_) std::cout << (any_ ? "]" : "[]") << std::endl;
  ended_ = true;
  return worst_;
}
