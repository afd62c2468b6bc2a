#include "common/Settings.h"

#include <gmock/gmock.h>

#include "common/Address.h"
#include "common/Json.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

using testing::Eq;
using testing::Optional;

std::string Read(const std::string& text) {
  std::string error;
  std::string seen;
  const std::vector<Setting> settings = {
      {"color", [&](const std::string& value) { return seen = value, ""; }},
      {"size", [](const std::string& value) -> std::string {
         return ParseNumber(value, 1, 9) ? "" : "a number from 1 to 9";
       }}};
  return ReadSettings(text, "file", settings, &error) ? "color " + seen : error;
}

TEST(Settings, AreNamesAndValues) {
  EXPECT_EQ(Read("# of a box\n\n color = dark red # not #f00\nsize=3"), "color dark red");
  EXPECT_EQ(Read("color = #f00"), "file:1: 'color' has no value");
  EXPECT_EQ(Read("color = a#b"), "color a#b");
}

TEST(Settings, WhatIsWrongIsNamedWithFileAndLine) {
  EXPECT_EQ(Read("color = red\ncolour = red"), "file:2: there is no setting 'colour'");
  EXPECT_EQ(Read("color"), "file:1: not of the form NAME = VALUE");
  EXPECT_EQ(Read("color = red\n\ncolor = red"), "file:3: 'color' is set twice");
  EXPECT_EQ(Read("size = 10"), "file:1: 'size': a number from 1 to 9");
}

TEST(Durations, HaveUnits) {
  const auto seconds = [](const char* text) -> std::int64_t {
    const auto duration = ParseDuration(text);
    return duration ? duration->count() : -1;
  };
  EXPECT_EQ(seconds("90"), 90);
  EXPECT_EQ(seconds("90s"), 90);
  EXPECT_EQ(seconds("10m"), 600);
  EXPECT_EQ(seconds("8h"), 28800);
  EXPECT_EQ(seconds("30d"), 2592000);
  for (const char* wrong :
       {"", "h", "0", "-1", "1w", "1 h", "367d", "1.5h", "99999999999999999h"}) {
    EXPECT_EQ(seconds(wrong), -1) << wrong;
  }
}

TEST(Address, OfIPv6CountsForItsNetwork) {
  const auto client = [](const char* text) { return Address::Parse(text)->Client().Text(); };
  EXPECT_EQ(client("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2::");
  EXPECT_EQ(client("::ffff:10.1.2.3"), "10.1.2.3");
}

TEST(Base64, IsReadOnlyAsItIsWritten) {
  for (const char* text : {"YQ==", "YWI=", "YWJj", "+/+/"}) {
    EXPECT_THAT(FromBase64(text), Optional(Eq(*FromBase64(text)))) << text;
    EXPECT_EQ(ToBase64(*FromBase64(text)), text);
  }
  for (const char* wrong : {"", "YR==", "YWJ=", "YQ", "YQ=", "YQ===", "====", " YWJj", "YWJj\n",
                            "Y=Jj", "YWJjY===", "YW!j", "-_-_"}) {
    EXPECT_FALSE(FromBase64(wrong)) << wrong;
  }
  EXPECT_THAT(FromBase64Url("-_-_"), Optional(Eq("\xFB\xFF\xBF")));
  EXPECT_FALSE(FromBase64Url("YQ=="));
  EXPECT_EQ(ToBase64Url("a"), "YQ");
}

TEST(Time, AfterJanuary2038IsReadAsItIsWritten) {
  EXPECT_EQ(FormatTime(4'294'967'296), "2106-02-07T06:28:16Z");
  EXPECT_THAT(ParseTime("2106-02-07T06:28:16Z"), Optional(Eq(4'294'967'296)));
}

TEST(Json, HoldsWhateverIsPutIntoIt) {
  const JsonObject object = JsonObject()
                                .Add("a\"b", "c\\d\n\xFF\xC3\xA9")
                                .Add("n", std::int64_t{-3})
                                .Add("t", true)
                                .Add("l", std::vector<std::string>{"x", "y"});

  EXPECT_EQ(object.Text(),
            "{\"a\\\"b\": \"c\\\\d\\u000a\xEF\xBF\xBD\xC3\xA9\", \"n\": -3, "
            "\"t\": true, \"l\": [\"x\", \"y\"]}");
}

}  // namespace
}  // namespace tavrel::tools
