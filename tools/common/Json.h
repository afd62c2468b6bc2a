// Writes JSON (RFC 8259).
#ifndef TAVREL_TOOLS_COMMON_JSON_H
#define TAVREL_TOOLS_COMMON_JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::tools {

// `text` as UTF-8 without control characters, which stand as \u00XX; what is no UTF-8 becomes
// U+FFFD. For JSON, quote and backslash get a backslash in front; in plain text the rest keeps a
// finding on its line.
std::string Escaped(std::string_view text, bool json);

// An object, member by member, on one line.
class JsonObject {
 public:
  JsonObject& Add(std::string_view name, std::string_view value);
  JsonObject& Add(std::string_view name, const char* value) {
    return Add(name, std::string_view(value));
  }
  JsonObject& Add(std::string_view name, std::int64_t value);
  JsonObject& Add(std::string_view name, bool value);
  JsonObject& Add(std::string_view name, const std::vector<std::string>& values);
  JsonObject& Add(std::string_view name, const std::vector<JsonObject>& values);

  // The object as it is so far.
  std::string Text() const { return "{" + members_ + "}"; }

 private:
  JsonObject& Raw(std::string_view name, std::string_view value);

  std::string members_;
};

// An array of objects, one a line.
std::string JsonArray(const std::vector<JsonObject>& values);

}  // namespace tavrel::tools

#endif
