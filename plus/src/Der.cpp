#include "Der.h"

#include <cstddef>

namespace tavrel::plus::der {
namespace {

constexpr std::size_t kLongForm = 0x80;
constexpr std::size_t kMostLengthBytes = 4;

unsigned char Byte(std::string_view bytes, std::size_t i) {
  return static_cast<unsigned char>(bytes[i]);
}

// The integer of DER `content` (two's complement, no byte too many), when it has at most 4 bytes.
bool ReadInteger(std::string_view content, std::int32_t& value) {
  if (content.empty() || content.size() > sizeof value) return false;
  const bool negative = (Byte(content, 0) & 0x80U) != 0;
  if (content.size() > 1) {
    const unsigned char filler = negative ? 0xFF : 0x00;
    if (Byte(content, 0) == filler && ((Byte(content, 1) & 0x80U) != 0) == negative) return false;
  }
  std::uint32_t bits = negative ? UINT32_MAX : 0;
  for (const char c : content) {
    bits = bits << 8U | static_cast<unsigned char>(c);
  }
  value = static_cast<std::int32_t>(bits);
  return true;
}

}  // namespace

bool Reader::Take(unsigned char tag, std::string_view& content, std::string_view* whole) {
  if (rest_.size() < 2 || !NextIs(tag)) return false;
  std::size_t header = 2;
  std::size_t length = Byte(rest_, 1);
  if (length >= kLongForm) {
    const std::size_t count = length - kLongForm;
    if (count == 0 || count > kMostLengthBytes || rest_.size() < header + count) return false;
    length = 0;
    for (std::size_t i = 0; i < count; ++i) {
      length = length << 8U | Byte(rest_, header + i);
    }
    const bool shorter_would_do = length < kLongForm || Byte(rest_, header) == 0;
    if (shorter_would_do) return false;
    header += count;
  }
  if (length > rest_.size() - header) return false;
  content = rest_.substr(header, length);
  if (whole != nullptr) *whole = rest_.substr(0, header + length);
  rest_.remove_prefix(header + length);
  return true;
}

bool Reader::TakeField(unsigned number, unsigned char tag, std::string_view& content,
                       std::string_view* whole) {
  Reader after = *this;
  std::string_view field;
  if (!after.Take(Context(number), field)) return false;
  Reader inside(field);
  if (!inside.Take(tag, content, whole) || !inside.Empty()) return false;
  *this = after;
  return true;
}

bool Reader::TakeField(unsigned number, std::int32_t& value) {
  Reader after = *this;
  std::string_view content;
  if (!after.TakeField(number, kInteger, content) || !ReadInteger(content, value)) return false;
  *this = after;
  return true;
}

bool Reader::TakeField(unsigned number, std::uint32_t& value) {
  std::int32_t with_sign = 0;
  if (TakeField(number, with_sign)) {
    value = static_cast<std::uint32_t>(with_sign);
    return true;
  }
  Reader after = *this;
  std::string_view content;
  if (!after.TakeField(number, kInteger, content) || content.size() != 5 || content[0] != 0 ||
      (Byte(content, 1) & 0x80U) == 0) {
    return false;
  }
  value = 0;
  for (const char c : content.substr(1)) {
    value = value << 8U | static_cast<unsigned char>(c);
  }
  *this = after;
  return true;
}

std::string Value(unsigned char tag, std::string_view content) {
  std::string value(1, static_cast<char>(tag));
  if (content.size() < kLongForm) {
    value += static_cast<char>(content.size());
  } else {
    std::string length;
    for (std::size_t rest = content.size(); rest != 0; rest >>= 8U) {
      length.insert(length.begin(), static_cast<char>(rest & 0xFFU));
    }
    value += static_cast<char>(kLongForm | length.size());
    value += length;
  }
  return value.append(content);
}

}  // namespace tavrel::plus::der
