#include "Ascii.h"

#include <gtest/gtest.h>

#include <string>

namespace tavrel::plus {
namespace {

const std::string kSmall = "abcdefghijklmnopqrstuvwxyz";
const std::string kCapital = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

TEST(Ascii, ChangesTheCaseOfItsOwnLettersAlone) {
  for (int i = 0; i < 256; ++i) {
    const char c = static_cast<char>(i);
    const std::size_t small = kSmall.find(c);
    const std::size_t capital = kCapital.find(c);
    EXPECT_EQ(Upper(c), small != std::string::npos ? kCapital[small] : c) << i;
    EXPECT_EQ(Lower(c), capital != std::string::npos ? kSmall[capital] : c) << i;
    EXPECT_EQ(IsLetterOrDigit(c),
              small != std::string::npos || capital != std::string::npos || (c >= '0' && c <= '9'))
        << i;
  }
}

TEST(Ascii, ComparesWithoutRegardToCase) {
  EXPECT_TRUE(SameIgnoringCase("HTTP/Box", "http/bOX"));
  EXPECT_FALSE(SameIgnoringCase("HTTP/Box", "HTTP/Bo"));
  EXPECT_FALSE(SameIgnoringCase("\xddte", "\xfdte"));
}

}  // namespace
}  // namespace tavrel::plus
