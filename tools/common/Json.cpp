#include "common/Json.h"

#include <algorithm>

namespace tavrel::tools {
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
    if ((byte(i) & 0xC0U) != 0x80) return 0;
  }
  // Longer than need be, a half of a pair of UTF-16, or past the last character.
  if (first == 0xE0 && byte(1) < 0xA0) return 0;
  if (first == 0xED && byte(1) > 0x9F) return 0;
  if (first == 0xF0 && byte(1) < 0x90) return 0;
  if (first == 0xF4 && byte(1) > 0x8F) return 0;
  return length;
}

std::string Quoted(std::string_view text) {
  return '"' + Escaped(text, true) + '"';
}

}  // namespace

std::string Escaped(std::string_view text, bool json) {
  const auto is_plain = [json](char c) {
    return c >= ' ' && c < 0x7F && !(json && (c == '"' || c == '\\'));
  };
  std::string result;
  while (!text.empty()) {
    const auto plain = static_cast<std::size_t>(
        std::find_if_not(text.begin(), text.end(), is_plain) - text.begin());
    result += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const std::size_t length = CharacterLength(text);
    const auto first = static_cast<unsigned char>(text.front());
    const bool control =
        first < 0x20 || first == 0x7F ||
        (first == 0xC2 && length == 2 && (static_cast<unsigned char>(text[1]) & 0x20U) == 0);
    if (length == 0) {
      result += "\xEF\xBF\xBD";
    } else if (control) {
      const auto code = static_cast<unsigned char>(text[length - 1]);
      result += "\\u00";
      result += "0123456789abcdef"[code >> 4U];
      result += "0123456789abcdef"[code & 0xFU];
    } else {
      if (length == 1) result += '\\';  // in front of what JSON does not take as it is
      result += text.substr(0, length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

JsonObject& JsonObject::Raw(std::string_view name, std::string_view value) {
  if (!members_.empty()) members_ += ", ";
  members_ += Quoted(name);
  members_ += ": ";
  members_ += value;
  return *this;
}

JsonObject& JsonObject::Add(std::string_view name, std::string_view value) {
  return Raw(name, Quoted(value));
}

JsonObject& JsonObject::Add(std::string_view name, std::int64_t value) {
  return Raw(name, std::to_string(value));
}

JsonObject& JsonObject::Add(std::string_view name, bool value) {
  return Raw(name, value ? "true" : "false");
}

JsonObject& JsonObject::Add(std::string_view name, const std::vector<std::string>& values) {
  std::string text;
  for (const std::string& value : values)
    text += (text.empty() ? "" : ", ") + Quoted(value);
  return Raw(name, "[" + text + "]");
}

JsonObject& JsonObject::Add(std::string_view name, const std::vector<JsonObject>& values) {
  std::string text;
  for (const JsonObject& value : values)
    text += (text.empty() ? "" : ", ") + value.Text();
  return Raw(name, "[" + text + "]");
}

std::string JsonArray(const std::vector<JsonObject>& values) {
  std::string text;
  for (const JsonObject& value : values)
    text += (text.empty() ? "" : ",\n ") + value.Text();
  return "[" + text + "]";
}

}  // namespace tavrel::tools
