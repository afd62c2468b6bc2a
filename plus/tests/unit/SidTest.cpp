#include "tavrel/plus/Sid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace tavrel::plus::tests {
namespace {

using testing::Eq;
using testing::Optional;

Sid Text(const std::string& text) {
  return Sid::FromText(text).value();
}

// S-1-5-21-1-4294967295-512
const std::string kUser(
    "\x01\x04\x00\x00\x00\x00\x00\x05\x15\x00\x00\x00\x01\x00\x00\x00\xFF\xFF\xFF\xFF"
    "\x00\x02\x00\x00",
    24);

TEST(Sid, HasOnePacketFormAndOneText) {
  const auto sid = Sid::FromBytes(kUser);

  ASSERT_TRUE(sid);
  EXPECT_EQ(sid->ToText(), "S-1-5-21-1-4294967295-512");
  EXPECT_EQ(sid->ToBytes(), kUser);
  EXPECT_THAT(Sid::FromText(sid->ToText()), Optional(Eq(*sid)));
}

TEST(Sid, WritesAnAuthorityOfMoreThan32BitsInHexadecimal) {
  const std::string bytes("\x01\x00\x01\x00\x00\x00\x00\x0A", 8);

  const auto sid = Sid::FromBytes(bytes);

  ASSERT_TRUE(sid);
  EXPECT_EQ(sid->ToText(), "S-1-0x01000000000a");
  EXPECT_EQ(Text("S-1-0x01000000000a").ToBytes(), bytes);
}

TEST(Sid, RefusesBytesThatAreNotExactlyOne) {
  for (std::size_t size = 0; size < kUser.size(); ++size) {
    EXPECT_FALSE(Sid::FromBytes(kUser.substr(0, size))) << size;
  }
  EXPECT_FALSE(Sid::FromBytes(kUser + '\0'));
  EXPECT_FALSE(Sid::FromBytes('\x02' + kUser.substr(1)));

  std::string of_parts = {'\x01', '\x0F'};
  of_parts.resize(8 + 4 * 15);
  EXPECT_TRUE(Sid::FromBytes(of_parts));
  of_parts[1] = '\x10';
  of_parts.resize(8 + 4 * 16);
  EXPECT_FALSE(Sid::FromBytes(of_parts));
}

TEST(Sid, RefusesTextThatIsNotExactlyOne) {
  const std::string fifteen = "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15";
  EXPECT_TRUE(Sid::FromText("S-1-5"));
  EXPECT_TRUE(Sid::FromText("S-1-4294967295"));
  EXPECT_TRUE(Sid::FromText(fifteen));
  for (const char* text : {"",
                           "S",
                           "S-1",
                           "S-1-",
                           "s-1-5",
                           "S-2-5",
                           "S-1--5",
                           "S-1-5-",
                           "S-1-5-x",
                           "S-1-5-1x",
                           "S-1-5-+1",
                           "S-1-5- 1",
                           "S-1-5--1",
                           "S-1-5-4294967296",
                           "S-1-5-18446744073709551616",
                           "S-1-4294967296",
                           "S-1-0x",
                           "S-1-0x5",
                           "S-1-0x0100000000000a",
                           "S-1-0x1000000000000",
                           "5-21",
                           "S-1-5-32\n"}) {
    EXPECT_FALSE(Sid::FromText(text)) << text;
  }
  EXPECT_FALSE(Sid::FromText(fifteen + "-16"));
}

TEST(Sid, IsInADomainWithOneRidBehindTheDomainsOwn) {
  const Sid domain = Text("S-1-5-21-1-2-3");

  EXPECT_THAT(domain.WithRid(500), Optional(Eq(Text("S-1-5-21-1-2-3-500"))));
  EXPECT_TRUE(Text("S-1-5-21-1-2-3-500").IsIn(domain));
  EXPECT_FALSE(Text("S-1-5-21-1-2-4-500").IsIn(domain));
  EXPECT_FALSE(Text("S-1-5-21-1-2-3").IsIn(domain));
  EXPECT_FALSE(Text("S-1-5-21-1-2-3-4-500").IsIn(domain));
  EXPECT_FALSE(Text("S-1-6-21-1-2-3-500").IsIn(domain));
  EXPECT_FALSE(Text("S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15").WithRid(1));
}

}  // namespace
}  // namespace tavrel::plus::tests
