// The bundled platform. Not linked with the other tests' logger, which would stand before it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/bounded_memory.h"
#include "platform/ldap_encryption.h"
#include "platform/logger.h"

namespace {

bool is_terminal = false;     // what the platform takes standard error for
bool shows_priority = false;  // of what syslog gets

// What syslog gets goes to standard error where a test looks at it.
void ToStandardError(int priority, const char* format, va_list arguments) {
  if (shows_priority) std::fprintf(stderr, "<%d>", priority);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
}

}  // namespace

extern "C" int isatty(int) {
  return is_terminal ? 1 : 0;
}
extern "C" void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ToStandardError(priority, format, arguments);
  va_end(arguments);
}
// What the library calls in its place where it is fortified.
extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ToStandardError(priority, format, arguments);
  va_end(arguments);
}

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::ExitedWithCode;

#define TIME "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z "

// Logs one record of every level in a process of its own, which reads its settings anew.
[[noreturn]] void LogEveryLevel(const char* lowest, const char* message, const char* sink = "") {
  if (lowest != nullptr) {
    setenv("PLATFORM_LOG_LEVEL", lowest, 1);
  } else {
    unsetenv("PLATFORM_LOG_LEVEL");
  }
  setenv("PLATFORM_LOG", sink, 1);
  const std::string logger = getLogger("some-category");
  for (const LogLevel level :
       {LOG_LEVEL_DETAIL, LOG_LEVEL_NOTICE, LOG_LEVEL_WARNING, LOG_LEVEL_ERROR}) {
    platformlogger_log("Method", 7, "File.cpp", level, logger.c_str(), message);
  }
  std::exit(0);
}

TEST(PlatformLoggerDeathTest, WritesOneLineARecord) {
  EXPECT_EXIT(LogEveryLevel("1", "text"), ExitedWithCode(0),
              "^" TIME "detail some-category File.cpp:7 Method: text\n" TIME
              "notice some-category File.cpp:7 Method: text\n" TIME
              "warning some-category File.cpp:7 Method: text\n" TIME
              "error some-category File.cpp:7 Method: text\n$");
}

TEST(PlatformLoggerDeathTest, StartsAtWarningsUnlessToldOtherwise) {
  EXPECT_EXIT(LogEveryLevel(nullptr, "text"), ExitedWithCode(0),
              "^" TIME "warning .*\n" TIME "error .*\n$");
  EXPECT_EXIT(LogEveryLevel("loud", "text"), ExitedWithCode(0),
              "^" TIME "warning .*\n" TIME "error .*\n$");
}

TEST(PlatformLoggerDeathTest, IsSilentAtLevelFive) {
  EXPECT_EXIT(LogEveryLevel("5", "text"), ExitedWithCode(0), "^$");
}

TEST(PlatformLoggerDeathTest, KeepsARecordOnItsLineWhateverItHolds) {
  EXPECT_EXIT(LogEveryLevel("4", "one\ntwo\r\x1b[31mred \xC2\x9B \xFF caf\xC3\xA9"),
              ExitedWithCode(0), "Method: one\\?two\\?\\?\\[31mred \\? \\? caf\xC3\xA9\n$");
}

// The length of the printable character that `text` starts with, told by its number (RFC 3629, 3).
std::size_t Printable(const std::string& text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  if (byte(0) < 0x80) return byte(0) < 0x20 || byte(0) == 0x7F ? 0 : 1;
  const std::size_t length = byte(0) < 0xE0 ? 2 : byte(0) < 0xF0 ? 3 : 4;
  if (byte(0) < 0xC0 || byte(0) > 0xF7 || text.size() < length) return 0;
  unsigned number = byte(0) & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return 0;
    number = number << 6U | (byte(i) & 0x3FU);
  }
  constexpr std::array<unsigned, 5> kFirst = {0, 0, 0xA0, 0x800, 0x10000};  // below A0: controls
  const bool surrogate = number >= 0xD800 && number <= 0xDFFF;
  return number < kFirst.at(length) || surrogate || number > 0x10FFFF ? 0 : length;
}

TEST(PlatformLogger, KeepsEveryCharacterOfUtf8AndNothingElse) {
  for (int lead = 0x80; lead <= 0xFF; ++lead) {
    std::string message;
    for (const char* tail :
         {"", "\x80", "\xBF", "\x7F", "\x80\x80", "\xBF\xBF", "\xC0\x80", "\x80\xC0"}) {
      for (const char second : {'\x7F', '\x80', '\x8F', '\x90', '\x9F', '\xA0', '\xBF', '\xC0'})
        message.append(1, static_cast<char>(lead)).append(1, second).append(tail) += ' ';
    }
    std::string kept;
    for (std::string rest = message; !rest.empty();) {
      const std::size_t length = Printable(rest);
      const bool control = length == 0 && rest[0] == '\xC2' && (rest[1] & 0xE0) == 0x80;
      kept += length == 0 ? "?" : rest.substr(0, length);
      rest.erase(0, control ? 2 : std::max<std::size_t>(length, 1));
    }
    testing::internal::CaptureStderr();

    platformlogger_log("Method", 7, "File.cpp", LOG_LEVEL_ERROR, "some-category", message.c_str());

    EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith(" Method: " + kept + "\n"));
  }
}

TEST(PlatformLoggerDeathTest, WritesJsonWhenAskedTo) {
  EXPECT_EXIT(LogEveryLevel("4", "a \"b\" \\ c\n\xFF", "json"), ExitedWithCode(0),
              "^\\{\"time\":\"[^\"]*\",\"level\":\"error\",\"category\":\"some-category\","
              "\"function\":\"Method\",\"file\":\"File.cpp\",\"line\":7,"
              "\"message\":\"a \\\\\"b\\\\\" \\\\\\\\ c\\?\\?\"\\}\n$");
}

// Whether `log` is of two records, neither longer than what a pipe takes at once and each as long
// as that allows, within the width of a character and its escape. The start and the end of one are
// given.
bool IsCut(const std::string& log, const std::string& start, const std::string& end) {
  std::size_t records = 0;
  for (std::size_t from = 0; from < log.size(); ++records) {
    const std::size_t next = std::min(log.find('\n', from), log.size() - 1) + 1;
    const std::string line = log.substr(from, next - from);
    if (line.size() > 4096 || line.size() < 4096 - 3 || line.find(start) == std::string::npos ||
        line.size() < end.size() || line.substr(line.size() - end.size()) != end) {
      return false;
    }
    from = next;
  }
  return records == 2;
}
auto IsCutTo(const std::string& start, const std::string& end) {
  return testing::Truly([=](const std::string& log) { return IsCut(log, start, end); });
}

TEST(PlatformLoggerDeathTest, CutsARecordToWhatOneWriteToAPipeTakesAndSaysSo) {
  std::string eight;  // no record ends in the midst of a character, or behind a backslash
  for (int i = 0; i < 4000; ++i)
    eight += "\xC3\xA9\xE2\x82\xAC\"\\\xFF";
  for (std::size_t offset = 0; offset < 8; ++offset) {
    const std::string text = std::string(offset, 'x') + eight;
    const std::string mark = "... (cut, of " + std::to_string(text.size()) + " bytes)";
    const std::string start = std::string(offset, 'x') + "\xC3\xA9\xE2\x82\xAC";
    EXPECT_EXIT(LogEveryLevel(nullptr, text.c_str()), ExitedWithCode(0),
                IsCutTo(" File.cpp:7 Method: " + start + "\"\\?", mark + "\n"));
    EXPECT_EXIT(LogEveryLevel(nullptr, text.c_str(), "json"), ExitedWithCode(0),
                IsCutTo(",\"message\":\"" + start + "\\\"\\\\?", mark + "\"}\n"));
    is_terminal = true;
    EXPECT_EXIT(LogEveryLevel(nullptr, text.c_str()), ExitedWithCode(0),
                IsCutTo("m20", mark + "\x1b[0m\n"));
    is_terminal = false;
    EXPECT_EXIT(LogEveryLevel(nullptr, text.c_str(), "syslog"), ExitedWithCode(0),
                IsCutTo("some-category File.cpp:7 Method: " + start, mark + "\n"));
  }
}

TEST(PlatformLoggerDeathTest, CutsNoRecordThatFits) {
  const std::string start = "2026-11-21T16:31:55.381Z error some-category File.cpp:7 Method: ";
  const std::string text(4096 - start.size() - 1, 'x');

  EXPECT_EXIT(LogEveryLevel("4", text.c_str()), ExitedWithCode(0), "Method: x+\n$");
  EXPECT_EXIT(LogEveryLevel("4", (text + "x").c_str()), ExitedWithCode(0),
              "x\\.\\.\\. \\(cut, of " + std::to_string(text.size() + 1) + " bytes\\)\n$");
}

// 80 is the facility of authentication; 7, 5, 4 and 3 are the priorities (RFC 5424, 6.2.1).
TEST(PlatformLoggerDeathTest, HandsSyslogTheRecordWithoutTheTime) {
  const std::string record = ">some-category File.cpp:7 Method: te%sxt\n";
  shows_priority = true;
  EXPECT_EXIT(LogEveryLevel("1", "te%sxt", "syslog"), ExitedWithCode(0),
              "^<87" + record + "<85" + record + "<84" + record + "<83" + record + "$");
  shows_priority = false;
}

TEST(PlatformLoggerDeathTest, ColoursTheLinesOfATerminal) {
  is_terminal = true;
  EXPECT_EXIT(LogEveryLevel("1", "text"), ExitedWithCode(0),
              "^\x1b\\[2m" TIME "detail .* text\x1b\\[0m\n" TIME
              "notice .* text\x1b\\[0m\n\x1b\\[33m" TIME "warning .* text\x1b\\[0m\n\x1b\\[31m" TIME
              "error .* text\x1b\\[0m\n$");
  is_terminal = false;
}

TEST(PlatformLoggerDeathTest, TakesALevelThatItDoesNotKnowForAnError) {
  EXPECT_EXIT(
      {
        unsetenv("PLATFORM_LOG");
        platformlogger_log("Method", 7, "File.cpp", static_cast<LogLevel>(9), "some-category", "x");
        std::exit(0);
      },
      ExitedWithCode(0), "^" TIME "error some-category File.cpp:7 Method: x\n$");
}

// What the program does in place of its tests when it is started as a host: opens a file, as for a
// connection or a keytab, writes a record, and ends with 0 when that is not in the file.
[[maybe_unused]] const bool is_no_host = [] {
  if (std::getenv("TAVREL_TEST_HOST") == nullptr) return true;
  const int opened = memfd_create("keytab", 0);
  platformlogger_log("Method", 7, "File.cpp", LOG_LEVEL_ERROR, "some-category", "text");
  struct stat about {};
  _exit(opened != -1 && fstat(opened, &about) == 0 && about.st_size == 0 ? 0 : 1);
}();

TEST(PlatformLogger, WritesNoRecordIntoAFileThatTookTheNumberOfAClosedStandardFile) {
  for (const std::vector<int>& closed : std::vector<std::vector<int>>{{2}, {1, 2}, {0, 1, 2}}) {
    SCOPED_TRACE(closed.size());
    const pid_t host = fork();
    if (host == 0) {
      setenv("TAVREL_TEST_HOST", "", 1);
      for (const int file : closed)
        close(file);
      const std::string self = std::filesystem::read_symlink("/proc/self/exe");
      const char* const emulator = std::getenv("TAVREL_EMULATOR");  // of the processor it is for
      if (emulator != nullptr) execl(emulator, emulator, self.c_str(), nullptr);
      execl(self.c_str(), "host", nullptr);
      _exit(2);
    }
    int status = -1;

    waitpid(host, &status, 0);

    EXPECT_EQ(status, 0);
  }
}

TEST(BoundedFill, FillsNoMoreThanThereIs) {
  std::array<unsigned char, 4> bytes = {1, 2, 3, 4};

  __memset_to_buf(2, bytes.data(), 9, 4);

  EXPECT_THAT(bytes, ElementsAre(9, 9, 3, 4));
}

TEST(BoundedFill, FillsNoMoreThanAskedFor) {
  std::array<unsigned char, 4> bytes = {1, 2, 3, 4};

  __memset_to_buf(4, bytes.data(), 0, 3);

  EXPECT_THAT(bytes, ElementsAre(0, 0, 0, 4));
}

TEST(LdapEncryption, HasTheValuesThatConfigurationsStore) {
  EXPECT_EQ(vdi::LDAP_ENCRYPTION_NONE, 0);
  EXPECT_EQ(vdi::LDAP_ENCRYPTION_LDAPS, 1);
  EXPECT_EQ(vdi::LDAP_ENCRYPTION_STARTTLS, 2);
  EXPECT_EQ(sizeof(vdi::Ldap_encryption), 4U);
}

}  // namespace
