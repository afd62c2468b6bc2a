// Files of settings, read strictly.
#ifndef TAVREL_TOOLS_COMMON_SETTINGS_H
#define TAVREL_TOOLS_COMMON_SETTINGS_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::tools {

// Calls `line` for each line of `text` that has more than blanks and a comment (from '#' on, at the
// start of a line or behind a blank), with what it has, trimmed. `line` returns what is wrong with
// it, or nothing. Returns false at the first line that is wrong, with `FILE:LINE: WHAT` in
// `*error`.
bool ReadLines(std::string_view text, const std::string& file,
               const std::function<std::string(std::string_view content, int number)>& line,
               std::string* error);

struct Setting {
  const char* name;
  // Takes a value, which is not empty; returns what is wrong with it, or nothing.
  std::function<std::string(const std::string& value)> take;
};

// Reads lines of the form `NAME = VALUE`, each name at most once. Returns false, with
// `FILE:LINE: WHAT` in `*error`, for a line of another form, an unknown name or a wrong value.
bool ReadSettings(std::string_view text, const std::string& file,
                  const std::vector<Setting>& settings, std::string* error);

}  // namespace tavrel::tools

#endif
