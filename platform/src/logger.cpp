#include "platform/logger.h"

#include <fcntl.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <string_view>

namespace {

// The number of a standard file that is closed is soon that of a connection or a keytab, which
// would then get the records. Such a file is /dev/null from the moment the library is loaded; like
// every standard file it is there for the programs, too, that the host starts.
[[maybe_unused]] const bool has_standard_files = [] {
  for (const int file : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(file, F_GETFD) != -1) continue;
    const int opened = open("/dev/null", O_RDWR);  // gets the lowest number that is free
    if (opened > STDERR_FILENO) close(opened);     // another thread was faster
  }
  return true;
}();

enum class Sink { kStandardError, kSyslog, kJson };

struct Settings {
  int lowest_level;  // records below it are dropped
  Sink sink;
  bool colour;
};

// The environment is read once: a host may change it at any time, from any thread.
const Settings& Chosen() {
  static const Settings settings = [] {
    const char* level = std::getenv("PLATFORM_LOG_LEVEL");
    const bool valid = level != nullptr && level[0] >= '1' && level[0] <= '5' && level[1] == '\0';
    const char* name = std::getenv("PLATFORM_LOG");
    const std::string_view sink = name != nullptr ? name : "";
    return Settings{valid ? level[0] - '0' : LOG_LEVEL_WARNING,
                    sink == "syslog" ? Sink::kSyslog
                    : sink == "json" ? Sink::kJson
                                     : Sink::kStandardError,
                    isatty(STDERR_FILENO) == 1};
  }();
  return settings;
}

struct LevelStyle {
  const char* name;
  int syslog_priority;
  const char* colour;
};

const LevelStyle& StyleOf(LogLevel level) {
  static constexpr std::array<LevelStyle, 4> kStyles = {{
      {"detail", LOG_DEBUG, "\x1b[2m"},
      {"notice", LOG_NOTICE, ""},
      {"warning", LOG_WARNING, "\x1b[33m"},
      {"error", LOG_ERR, "\x1b[31m"},
  }};
  return kStyles.at(level >= LOG_LEVEL_DETAIL && level < LOG_LEVEL_ERROR
                        ? static_cast<std::size_t>(level - LOG_LEVEL_DETAIL)
                        : kStyles.size() - 1);
}

// Now, in UTC, to the millisecond (RFC 3339).
std::string Time() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  std::array<char, 32> seconds{};
  const std::size_t size = std::strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  const std::string milliseconds = std::to_string(1000 + now.tv_usec / 1000).substr(1);
  return std::string(seconds.data(), size) + "." + milliseconds + "Z";
}

// The length of the UTF-8 character at the start of `text` (RFC 3629); 0 when there is none.
std::size_t Utf8Length(std::string_view text) {
  struct Lead {
    unsigned char first, last, second_first, second_last;
    std::size_t length;
  };
  static constexpr std::array<Lead, 9> kLeads = {{{0x00, 0x7F, 0, 0, 1},
                                                  {0xC2, 0xDF, 0x80, 0xBF, 2},
                                                  {0xE0, 0xE0, 0xA0, 0xBF, 3},
                                                  {0xE1, 0xEC, 0x80, 0xBF, 3},
                                                  {0xED, 0xED, 0x80, 0x9F, 3},
                                                  {0xEE, 0xEF, 0x80, 0xBF, 3},
                                                  {0xF0, 0xF0, 0x90, 0xBF, 4},
                                                  {0xF1, 0xF3, 0x80, 0xBF, 4},
                                                  {0xF4, 0xF4, 0x80, 0x8F, 4}}};
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (const Lead& lead : kLeads) {
    if (byte(0) < lead.first || byte(0) > lead.last) continue;
    if (text.size() < lead.length) return 0;
    if (lead.length > 1 && (byte(1) < lead.second_first || byte(1) > lead.second_last)) return 0;
    for (std::size_t i = 2; i < lead.length; ++i) {
      if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
    }
    return lead.length;
  }
  return 0;
}

// What one write to a pipe takes without mixing it with those of others. Nobody needs more of a
// message, and a peer that could fill the log with all it sends would.
constexpr std::size_t kLongestRecord = PIPE_BUF;
constexpr std::size_t kLongestName = 256;  // of a function, a file or a logger

// `text` as it may stand in a record, in at most `room` bytes; one that is cut says so at its end.
// What a peer put into a message must not start a line of its own, steer a terminal or break a
// reader of JSON: control characters and bytes that are not UTF-8 become "?". Characters in
// `escaped` get a backslash.
std::string Clean(std::string_view text, std::size_t room, std::string_view escaped = "") {
  const std::string mark = "... (cut, of " + std::to_string(text.size()) + " bytes)";
  std::string clean;
  std::size_t before_mark = 0;  // as much of it leaves room for the mark
  while (!text.empty()) {
    const std::size_t length = Utf8Length(text);
    const auto first = static_cast<unsigned char>(text.front());
    const bool c1 = length == 2 && first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0;
    if (length == 0 || first < ' ' || first == 0x7F || c1) {
      clean += '?';
    } else {
      if (escaped.find(text.front()) != std::string_view::npos) clean += '\\';
      clean.append(text.substr(0, length));
    }
    if (clean.size() > room) return clean.substr(0, before_mark) + mark;
    if (clean.size() + mark.size() <= room) before_mark = clean.size();
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return clean;
}

// One write a record, so that records of several threads do not mix. A full disk or a closed
// standard error does not disturb the caller. The signal of a broken pipe is the host's to settle.
void WriteLine(const std::string& start, std::string_view message, std::string_view end,
               std::string_view escaped = "") {
  const std::size_t room = kLongestRecord - start.size() - end.size();
  const std::string line = (start + Clean(message, room, escaped)).append(end);
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace

std::string getLogger(const char* category) {
  return category;
}

void platformlogger_log(const char* function, int line, const char* file, LogLevel level,
                        const char* logger, const char* message) {
  const Settings& settings = Chosen();
  if (level < settings.lowest_level) return;

  const LevelStyle& style = StyleOf(level);
  const Sink sink = settings.sink;
  const std::string_view escaped = sink == Sink::kJson ? "\"\\" : "";
  const auto name = [&](const char* text) { return Clean(text, kLongestName, escaped); };
  if (sink == Sink::kJson) {
    WriteLine(R"({"time":")" + Time() + R"(","level":")" + style.name + R"(","category":")" +
                  name(logger) + R"(","function":")" + name(function) + R"(","file":")" +
                  name(file) + R"(","line":)" + std::to_string(line) + R"(,"message":")",
              message, "\"}\n", escaped);
    return;
  }
  const std::string source =
      name(logger) + " " + name(file) + ":" + std::to_string(line) + " " + name(function) + ": ";
  if (sink == Sink::kSyslog) {
    const std::string text = source + Clean(message, kLongestRecord - source.size() - 1);
    syslog(LOG_AUTHPRIV | style.syslog_priority, "%s", text.c_str());
    return;
  }
  const std::string_view colour = settings.colour ? style.colour : "";
  WriteLine(std::string(colour) + Time() + " " + style.name + " " + source, message,
            settings.colour ? "\x1b[0m\n" : "\n");
}
