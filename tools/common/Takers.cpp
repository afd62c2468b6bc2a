#include "common/Takers.h"

#include <string_view>

#include "common/Text.h"

namespace tavrel::tools {

Take TakeText(std::string* to) {
  return [to](const std::string& value) {
    *to = value;
    return "";
  };
}

Take TakeFile(std::string* to) {
  return [to](const std::string& value) -> std::string {
    if (value.front() != '/') return "not a path from the root on";
    *to = value;
    return "";
  };
}

Take TakeDuration(std::chrono::seconds* to) {
  return [to](const std::string& value) -> std::string {
    const auto duration = ParseDuration(value);
    if (!duration) return "not a time like 30s, 10m, 8h or 30d";
    *to = *duration;
    return "";
  };
}

Take TakeYesOrNo(bool* to) {
  return [to](const std::string& value) -> std::string {
    if (value != "yes" && value != "no") return "neither yes nor no";
    *to = value == "yes";
    return "";
  };
}

Take TakeList(std::vector<std::string>* to) {
  return [to](const std::string& value) {
    to->clear();
    for (const std::string_view word : Words(value))
      to->emplace_back(word);
    return "";
  };
}

}  // namespace tavrel::tools
