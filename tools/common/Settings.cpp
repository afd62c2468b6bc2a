#include "common/Settings.h"

#include <algorithm>
#include <set>

#include "common/Text.h"

namespace tavrel::tools {
namespace {

std::string_view WithoutComment(std::string_view line) {
  for (std::size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
    if (at == 0 || line[at - 1] == ' ' || line[at - 1] == '\t') return line.substr(0, at);
  }
  return line;
}

}  // namespace

bool ReadLines(std::string_view text, const std::string& file,
               const std::function<std::string(std::string_view content, int number)>& line,
               std::string* error) {
  for (int number = 1; !text.empty(); ++number) {
    const std::string_view whole = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(whole.size() + 1, text.size()));
    const std::string_view content = Trimmed(WithoutComment(whole));
    if (content.empty()) continue;
    const bool control = std::any_of(content.begin(), content.end(), [](char c) {
      return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
    });
    const std::string wrong = control ? "a control character" : line(content, number);
    if (wrong.empty()) continue;
    *error = file;
    error->append(":").append(std::to_string(number)).append(": ").append(wrong);
    return false;
  }
  return true;
}

bool ReadSettings(std::string_view text, const std::string& file,
                  const std::vector<Setting>& settings, std::string* error) {
  std::set<std::string> seen;
  return ReadLines(
      text, file,
      [&](std::string_view content, int /*number*/) -> std::string {
        const std::size_t equals = content.find('=');
        if (equals == std::string_view::npos) return "not of the form NAME = VALUE";
        const std::string name(Trimmed(content.substr(0, equals)));
        const std::string value(Trimmed(content.substr(equals + 1)));
        const auto setting =
            std::find_if(settings.begin(), settings.end(),
                         [&](const Setting& candidate) { return candidate.name == name; });
        if (setting == settings.end()) return "there is no setting '" + name + "'";
        if (!seen.insert(name).second) return "'" + name + "' is set twice";
        if (value.empty()) return "'" + name + "' has no value";
        const std::string wrong = setting->take(value);
        return wrong.empty() ? "" : "'" + name + "': " + wrong;
      },
      error);
}

}  // namespace tavrel::tools
