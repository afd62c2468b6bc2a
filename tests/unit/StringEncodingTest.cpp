#include "tavrel/StringEncoding.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <type_traits>

#include "GroupedDigits.h"
#include "LdapRequest.h"
#include "LogCapture.h"

namespace tavrel::tests {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

constexpr char kTooLong[] =
    "4 string_encoding EncodeUtf8to16Octetstring: support for encoded data larger than 127 not "
    "implemented";
constexpr char kNotAscii[] =
    "4 string_encoding EncodeUtf8to16Octetstring: support for UTF8 encoded with more than 1 byte "
    "not implemented";

// The encoded bytes as hexadecimal digits, "refused" when there are none.
std::string Encoded(const std::string& text) {
  berval* const value = StringEncoding::EncodeUtf8to16Octetstring(text.data(), text.size());
  if (value == nullptr) return "refused";
  const std::string bytes(value->bv_val, value->bv_len);
  std::free(value->bv_val);
  std::free(value);
  return Hex(bytes);
}

TEST(Encode, FollowsEveryByteWithAZero) {
  LogCapture log;

  EXPECT_EQ(Encoded("\"ab\""), "2200610062002200");
  EXPECT_EQ(Encoded("a"), "6100");
  EXPECT_EQ(Encoded(std::string("\0\x01\x7F", 3)), "000001007f00");
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(Encode, TakesEveryByteOfAsciiAndNoOther) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    const std::string text = std::string("ab") + static_cast<char>(byte);
    EXPECT_EQ(Encoded(text), byte < 128 ? "61006200" + Hex(text.substr(2)) + "00" : "refused");
  }
}

TEST(Encode, TakesUpTo127Bytes) {
  std::string expected;
  for (int i = 0; i < 127; ++i)
    expected += "7a00";

  const std::string encoded = Encoded(std::string(127, 'z'));

  EXPECT_EQ(encoded, expected);
}

TEST(Encode, MakesAnEmptyValueOfNoBytes) {
  berval* const value = StringEncoding::EncodeUtf8to16Octetstring(nullptr, 0);

  ASSERT_NE(value, nullptr);
  EXPECT_EQ(value->bv_len, 0U);
  std::free(value->bv_val);
  std::free(value);
}

TEST(Encode, RefusesMoreThan127Bytes) {
  const GroupedDigits digits;
  LogCapture log;

  EXPECT_EQ(Encoded(std::string(128, 'z')), "refused");
  EXPECT_EQ(Encoded(std::string(100000, 'z')), "refused");
  EXPECT_EQ(Encoded(std::string(128, '\xC3')), "refused");  // the length is looked at first

  EXPECT_THAT(log.Notable(), ElementsAre(kTooLong, kTooLong, kTooLong));
}

TEST(Encode, ReadsNothingOfATextThatIsTooLong) {
  LogCapture log;

  berval* const value = StringEncoding::EncodeUtf8to16Octetstring(nullptr, SIZE_MAX);

  EXPECT_EQ(value, nullptr);
  EXPECT_THAT(log.Notable(), ElementsAre(kTooLong));
}

TEST(Encode, RefusesWhatIsNotAsciiWhereverItStands) {
  const std::string refused[] = {"\x80", "\xFF",
                                 "\xC3\xA4"
                                 "bc",
                                 "ab\xC3\xA4", std::string(126, 'z') + '\x80'};

  for (const std::string& text : refused) {
    LogCapture log;
    EXPECT_EQ(Encoded(text), "refused") << Hex(text);
    EXPECT_THAT(log.Notable(), ElementsAre(kNotAscii));
    EXPECT_THAT(log.Records(), Each(Field(&LogRecord::file, "StringEncoding.cpp")));
  }
}

static_assert(!std::is_default_constructible_v<StringEncoding>);

}  // namespace
}  // namespace tavrel::tests
