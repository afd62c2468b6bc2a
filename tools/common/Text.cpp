#include "common/Text.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <utility>

namespace tavrel::tools {
namespace {

constexpr std::string_view kBlank = " \t";
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kUrlAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::int64_t kLongestDuration = 366 * std::int64_t{86400};

char LowerLetter(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

std::string Formatted(const char* format, std::int64_t time) {
  const std::time_t seconds = time;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[40];
  return {text, std::strftime(text, sizeof text, format, &parts)};
}

constexpr unsigned char kNoDigit = 64;
using Digits = std::array<unsigned char, 256>;
constexpr Digits DigitsOf(std::string_view alphabet) {
  Digits digits{};
  for (unsigned char& digit : digits)
    digit = kNoDigit;
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    digits[static_cast<unsigned char>(alphabet[i])] = static_cast<unsigned char>(i);
  }
  return digits;
}

// The bytes of digits without padding. Nothing when one is none, or has bits to spare that are set.
std::optional<std::string> FromDigits(std::string_view text, const Digits& digits) {
  if (text.empty() || text.size() % 4 == 1) return std::nullopt;
  std::string bytes(text.size() * 3 / 4, '\0');
  char* to = bytes.data();
  const auto digit = [&](char c) -> unsigned int { return digits[static_cast<unsigned char>(c)]; };
  unsigned int seen = 0;  // of all digits
  for (; text.size() >= 4; text.remove_prefix(4)) {
    const unsigned int four[] = {digit(text[0]), digit(text[1]), digit(text[2]), digit(text[3])};
    seen |= four[0] | four[1] | four[2] | four[3];
    const unsigned int three = four[0] << 18U | four[1] << 12U | four[2] << 6U | four[3];
    to[0] = static_cast<char>(three >> 16U);
    to[1] = static_cast<char>(three >> 8U);
    to[2] = static_cast<char>(three);
    to += 3;
  }
  unsigned int bits = 0;   // read and not yet written
  unsigned int count = 0;  // of them
  for (const char c : text) {
    seen |= digit(c);
    bits = bits << 6U | digit(c);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    *to++ = static_cast<char>(bits >> count);
    bits &= (1U << count) - 1;
  }
  return bits == 0 && seen < kNoDigit ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace

std::vector<std::string_view> Words(std::string_view text) {
  std::vector<std::string_view> words;
  for (const auto* at = text.begin();;) {
    const auto* const begin = std::find_if_not(at, text.end(), IsBlank);
    if (begin == text.end()) return words;
    at = std::find_if(begin, text.end(), IsBlank);
    words.push_back(text.substr(static_cast<std::size_t>(begin - text.begin()),
                                static_cast<std::size_t>(at - begin)));
  }
}

std::string_view Trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlank), text.size()));
  return text.substr(0, text.find_last_not_of(kBlank) + 1);
}

bool SameText(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerLetter(x) == LowerLetter(y); });
}

std::string Lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), LowerLetter);
  return result;
}

std::optional<std::int64_t> ParseNumber(std::string_view text, std::int64_t least,
                                        std::int64_t most) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (number < least || number > most) return std::nullopt;
  return number;
}

std::optional<std::chrono::seconds> ParseDuration(std::string_view text) {
  std::int64_t unit = 1;
  if (!text.empty()) {
    switch (text.back()) {
      case 's': break;
      case 'm': unit = 60; break;
      case 'h': unit = 3600; break;
      case 'd': unit = 86400; break;
      default: unit = 0; break;
    }
    if (unit != 0) text.remove_suffix(1);
  }
  if (unit == 0) unit = 1;
  const auto number = ParseNumber(text, 1, kLongestDuration / unit);
  if (!number) return std::nullopt;
  return std::chrono::seconds(*number * unit);
}

std::optional<std::int64_t> ParseTime(std::string_view text) {
  std::tm parts{};
  const std::string copy(text);
  const char* const end = strptime(copy.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end == nullptr || *end != '\0') return std::nullopt;
  const std::int64_t time = timegm(&parts);
  // strptime() takes a 31st of February, signs and blanks; what it made must be what was written.
  if (FormatTime(time) != text) return std::nullopt;
  return time;
}

std::string FormatTime(std::int64_t time) {
  return Formatted("%Y-%m-%dT%H:%M:%SZ", time);
}

std::string FormatHttpTime(std::int64_t time) {
  return Formatted("%a, %d %b %Y %H:%M:%S GMT", time);
}

const std::string& TimeNow::Text() {
  const std::int64_t now = Now();
  if (made_ != now) {
    text_ = format_(now);
    made_ = now;
  }
  return text_;
}

std::string ToBase64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                   reinterpret_cast<const unsigned char*>(bytes.data()),
                                   static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(size));
  return text;
}

std::optional<std::string> FromBase64(std::string_view text) {
  static constexpr Digits kDigits = DigitsOf(kAlphabet);
  if (text.size() % 4 != 0) return std::nullopt;
  for (int padding = 0; padding < 2 && !text.empty() && text.back() == '='; ++padding)
    text.remove_suffix(1);
  return FromDigits(text, kDigits);
}

std::string ToBase64Url(std::string_view bytes) {
  std::string text = ToBase64(bytes);
  text.resize(text.find_last_not_of('=') + 1);
  for (char& c : text)
    c = c == '+' ? '-' : c == '/' ? '_' : c;
  return text;
}

std::optional<std::string> FromBase64Url(std::string_view text) {
  static constexpr Digits kDigits = DigitsOf(kUrlAlphabet);
  return FromDigits(text, kDigits);
}

std::optional<std::string> ReadFile(const std::string& path, std::size_t most, std::string* error) {
  const auto failed = [&](const char* why) {
    *error = path + ": " + why;
    return std::nullopt;
  };
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file == -1) return failed(std::strerror(errno));
  std::string text(most + 1, '\0');
  std::size_t size = 0;
  ssize_t got = 0;
  while (size < text.size()) {
    got = read(file, text.data() + size, text.size() - size);
    if (got == -1 && errno == EINTR) continue;
    if (got <= 0) break;
    size += static_cast<std::size_t>(got);
  }
  const int code = errno;
  close(file);
  if (got == -1) return failed(std::strerror(code));
  if (size > most) return failed("larger than it may be");
  text.resize(size);
  return text;
}

std::int64_t Now() {
  return std::time(nullptr);
}

}  // namespace tavrel::tools
