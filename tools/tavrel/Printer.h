// What a command has to say: lines for people, or one JSON object.
#ifndef TAVREL_TOOLS_TAVREL_PRINTER_H
#define TAVREL_TOOLS_TAVREL_PRINTER_H

#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "common/Json.h"

namespace tavrel::tools {

// The names of members are those of lines, with blanks for underscores.
class Printer {
 public:
  explicit Printer(bool json) : json_(json) {}
  Printer(const Printer&) = delete;
  Printer& operator=(const Printer&) = delete;
  ~Printer() {
    if (json_) std::cout << object_.Text() << '\n';
  }

  template <typename Value>
  void Say(std::string_view name, const Value& value) {
    if (json_) {
      object_.Add(name, value);
    } else {
      Line(name, value);
    }
  }

 private:
  static void Line(std::string_view name, std::string_view value) {
    if (value.empty()) return;
    std::string label(name);
    for (char& c : label)
      c = c == '_' ? ' ' : c;
    std::cout << label << ": " << Escaped(value, false) << '\n';
  }
  static void Line(std::string_view name, const char* value) {
    Line(name, std::string_view{value});
  }
  static void Line(std::string_view name, std::int64_t value) {
    Line(name, std::string_view{std::to_string(value)});
  }
  static void Line(std::string_view name, bool value) {
    Line(name, std::string_view(value ? "yes" : "no"));
  }
  static void Line(std::string_view name, const std::vector<std::string>& values) {
    for (const std::string& value : values)
      Line(name, std::string_view{value});
  }

  const bool json_;
  JsonObject object_;
};

}  // namespace tavrel::tools

#endif
