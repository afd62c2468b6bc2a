#include "Ndr.h"

namespace tavrel::plus {
namespace {

constexpr std::uint8_t kVersion = 1;
constexpr std::uint8_t kLittleEndian = 0x10;
constexpr std::uint16_t kHeaderLength = 8;

void AppendUtf8(std::string& text, std::uint32_t c) {
  const auto tail = [&](unsigned shift) {
    text += static_cast<char>(0x80U | (c >> shift & 0x3FU));
  };
  if (c < 0x80) {
    text += static_cast<char>(c);
  } else if (c < 0x800) {
    text += static_cast<char>(0xC0U | c >> 6U);
    tail(0);
  } else if (c < 0x10000) {
    text += static_cast<char>(0xE0U | c >> 12U);
    tail(6);
    tail(0);
  } else {
    text += static_cast<char>(0xF0U | c >> 18U);
    tail(12);
    tail(6);
    tail(0);
  }
}

}  // namespace

std::optional<std::string> FromUtf16(std::string_view bytes) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  const auto unit = [&](std::size_t i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i]) |
                                      static_cast<unsigned char>(bytes[i + 1]) << 8U);
  };
  std::string text;
  text.reserve(bytes.size() / 2);
  for (std::size_t i = 0; i < bytes.size(); i += 2) {
    std::uint32_t c = unit(i);
    if (c == 0 || (c >= 0xDC00 && c < 0xE000)) return std::nullopt;
    if (c >= 0xD800 && c < 0xDC00) {
      i += 2;
      if (i == bytes.size()) return std::nullopt;
      const std::uint32_t low = unit(i);
      if (low < 0xDC00 || low >= 0xE000) return std::nullopt;
      c = 0x10000 + ((c - 0xD800) << 10U) + (low - 0xDC00);
    }
    AppendUtf8(text, c);
  }
  return text;
}

NdrReader NdrReader::OfType(std::string_view bytes) {
  NdrReader reader(bytes);
  const bool known = reader.Take8() == kVersion && reader.Take8() == kLittleEndian &&
                     reader.Take16() == kHeaderLength;
  reader.Take32();  // filler
  const std::uint32_t length = reader.Take32();
  reader.Take32();  // filler
  if (!known || length > bytes.size() - reader.position_) reader.Fail();
  if (reader.Ok()) reader.bytes_ = bytes.substr(0, reader.position_ + length);
  if (!reader.TakePointer()) reader.Fail();
  return reader;
}

std::uint64_t NdrReader::Take(std::size_t size) {
  const std::size_t aligned = (position_ + size - 1) / size * size;
  if (!ok_ || aligned > bytes_.size() || size > bytes_.size() - aligned) {
    ok_ = false;
    return 0;
  }
  std::uint64_t value = 0;
  for (std::size_t i = size; i-- > 0;) {
    value = value << 8U | static_cast<unsigned char>(bytes_[aligned + i]);
  }
  position_ = aligned + size;
  return value;
}

std::string_view NdrReader::TakeBytes(std::size_t count) {
  if (!ok_ || count > bytes_.size() - position_) {
    ok_ = false;
    return {};
  }
  const std::string_view taken = bytes_.substr(position_, count);
  position_ += count;
  return taken;
}

NdrReader::Text NdrReader::TakeText() {
  Text text;
  text.bytes = Take16();
  const std::uint16_t room = Take16();
  text.present = TakePointer();
  if (text.bytes > room || text.bytes % 2 != 0 || (text.bytes != 0 && !text.present)) Fail();
  return text;
}

std::string NdrReader::TakeTextBody(Text text) {
  if (!text.present) return "";
  const std::uint32_t room = Take32();
  const std::uint32_t offset = Take32();
  const std::uint32_t length = Take32();
  if (offset != 0 || length > room || length != text.bytes / 2U) Fail();
  const auto decoded = FromUtf16(TakeBytes(text.bytes));
  if (!decoded) Fail();
  return Ok() ? *decoded : "";
}

Sid NdrReader::TakeSidBody() {
  const std::uint32_t count = Take32();
  if (count > Sid::kMostSubAuthorities) Fail();
  const auto sid = Sid::FromBytes(TakeBytes(Ok() ? 8 + 4 * std::size_t{count} : 0));
  if (!sid) Fail();
  return sid.value_or(Sid());
}

std::uint32_t NdrReader::TakeArray(bool present, std::uint32_t count, std::size_t least_size) {
  if (!present) {
    if (count != 0) Fail();
    return 0;
  }
  if (Take32() != count || count > (bytes_.size() - position_) / least_size) Fail();
  return Ok() ? count : 0;
}

}  // namespace tavrel::plus
