#include "authd/Session.h"

#include <gmock/gmock.h>

#include <set>

#include "common/Text.h"

namespace tavrel::tools {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kHost[] = "box.corp.example.com";
constexpr std::int64_t kNow = 1'800'000'000;
const std::string kKeyA(64, 'a');
const std::string kKeyB(64, 'b');

SessionKeys Keys(const std::string& text) {
  std::string error;
  auto keys = SessionKeys::Parse(text, "keys", &error);
  EXPECT_TRUE(keys) << error;
  return keys ? std::move(*keys) : SessionKeys();
}

Sessions Make(const std::string& keys) {
  return {Keys(keys), hours(8), hours(1)};
}

plus::Sid MakeSid(const std::string& text) {
  return *plus::Sid::FromText(text);
}

User Alice() {
  User user;
  user.name = "alice@CORP.EXAMPLE.COM";
  user.sid = MakeSid("S-1-5-21-1-2-3-1104");
  user.groups = {MakeSid("S-1-5-21-1-2-3-513"), MakeSid("S-1-18-1"), MakeSid("S-1-5-21-1-2-3-1107"),
                 MakeSid("S-1-5-21-7-8-9-512")};
  user.service = "HTTP/box.corp.example.com";
  user.signed_in = kNow;
  return user;
}

std::multiset<std::string> Texts(const std::vector<plus::Sid>& sids) {
  std::multiset<std::string> texts;
  for (const plus::Sid& sid : sids)
    texts.insert(sid.ToText());
  return texts;
}

TEST(Session, SaysWhoSignedIn) {
  const Sessions sessions = Make(kKeyA);

  const auto opened = sessions.Open(sessions.Seal(Alice(), kHost, kNow), kHost, kNow);

  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->user.name, Alice().name);
  EXPECT_EQ(opened->user.sid, Alice().sid);
  EXPECT_EQ(Texts(opened->user.groups), Texts(Alice().groups));
  EXPECT_EQ(opened->user.service, Alice().service);
  EXPECT_EQ(opened->user.signed_in, kNow);
  EXPECT_FALSE(opened->renew);
}

TEST(Session, HasNothingReadableInIt) {
  const Sessions sessions = Make(kKeyA);

  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  EXPECT_NE(cookie, sessions.Seal(Alice(), kHost, kNow)) << "a nonce serves once";
  EXPECT_EQ(cookie.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                     "0123456789-_"),
            std::string::npos);
  EXPECT_EQ(FromBase64Url(cookie)->find("alice"), std::string::npos);
}

TEST(Session, IsRefusedWithAnyOfItsBytesAltered) {
  const Sessions sessions = Make(kKeyA);
  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  for (std::size_t i = 0; i < cookie.size(); ++i) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string altered = cookie;
      altered[i] = static_cast<char>(byte);
      if (altered == cookie) continue;
      EXPECT_FALSE(sessions.Open(altered, kHost, kNow)) << "byte " << i << " is " << byte;
    }
  }
}

TEST(Session, IsRefusedWithAnyOfItsBitsAlteredBelowTheEncoding) {
  const Sessions sessions = Make(kKeyA + "\n" + kKeyB);
  const std::string sealed = *FromBase64Url(sessions.Seal(Alice(), kHost, kNow));

  for (std::size_t bit = 0; bit < 8 * sealed.size(); ++bit) {
    std::string altered = sealed;
    altered[bit / 8] = static_cast<char>(altered[bit / 8] ^ 1 << bit % 8);
    EXPECT_FALSE(sessions.Open(ToBase64Url(altered), kHost, kNow)) << "bit " << bit;
  }
}

TEST(Session, IsRefusedWhenCutOrExtended) {
  const Sessions sessions = Make(kKeyA);
  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  for (std::size_t size = 0; size < cookie.size(); ++size) {
    EXPECT_FALSE(sessions.Open(cookie.substr(0, size), kHost, kNow)) << size;
  }
  for (const char* more : {"A", "AA", "AAAA", "=", " "}) {
    EXPECT_FALSE(sessions.Open(cookie + more, kHost, kNow)) << more;
  }
  EXPECT_FALSE(sessions.Open(std::string(100'000, 'A'), kHost, kNow));
}

TEST(Session, IsGoodForOneHostAlone) {
  const Sessions sessions = Make(kKeyA);
  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  EXPECT_FALSE(sessions.Open(cookie, "other.corp.example.com", kNow));
  EXPECT_FALSE(sessions.Open(cookie, "", kNow));
  EXPECT_TRUE(sessions.Open(cookie, "BOX.corp.example.com", kNow));
}

TEST(Session, EndsWithItsLifetimeHoweverBusy) {
  const Sessions sessions = Make(kKeyA);
  const std::int64_t last = kNow + 8 * 3600 - 1;

  EXPECT_TRUE(sessions.Open(sessions.Seal(Alice(), kHost, last), kHost, last));
  EXPECT_FALSE(sessions.Open(sessions.Seal(Alice(), kHost, last), kHost, last + 1));
}

TEST(Session, EndsWhenIdle) {
  const Sessions sessions = Make(kKeyA);
  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  EXPECT_TRUE(sessions.Open(cookie, kHost, kNow + 3599));
  EXPECT_FALSE(sessions.Open(cookie, kHost, kNow + 3600));
}

TEST(Session, IsRenewedAfterAnEighthOfTheIdleTime) {
  const Sessions sessions = Make(kKeyA);
  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  EXPECT_FALSE(sessions.Open(cookie, kHost, kNow + 449)->renew);
  EXPECT_TRUE(sessions.Open(cookie, kHost, kNow + 450)->renew);
}

TEST(Session, FromTheFutureIsRefusedBeyondTheDifferenceOfTwoClocks) {
  const Sessions sessions = Make(kKeyA);
  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  EXPECT_TRUE(sessions.Open(cookie, kHost, kNow - 300));
  EXPECT_FALSE(sessions.Open(cookie, kHost, kNow - 301));
}

TEST(Session, OutlivesTheRotationOfKeysUntilItsKeyGoes) {
  const std::string cookie = Make(kKeyA).Seal(Alice(), kHost, kNow);

  EXPECT_TRUE(Make(kKeyB + "\n" + kKeyA).Open(cookie, kHost, kNow));
  EXPECT_FALSE(Make(kKeyB).Open(cookie, kHost, kNow));
}

TEST(Session, IsSealedWithTheNewestKeyWhoseTimeHasCome) {
  const Sessions both = Make(kKeyB + " from " + FormatTime(kNow + 600) + "\n" + kKeyA);
  const auto sealed_with = [&](const std::string& key, std::int64_t time) {
    return Make(key).Open(both.Seal(Alice(), kHost, time), kHost, time).has_value();
  };

  EXPECT_TRUE(sealed_with(kKeyA, kNow + 599));
  EXPECT_TRUE(sealed_with(kKeyB, kNow + 600));
  EXPECT_TRUE(both.Open(Make(kKeyB).Seal(Alice(), kHost, kNow), kHost, kNow))
      << "a node whose clock is ahead uses the new key first";
}

TEST(Session, HoldsSixHundredGroupsAndIsNotMadeForThousands) {
  const Sessions sessions = Make(kKeyA);
  User user = Alice();
  user.groups.clear();
  for (std::uint32_t rid = 1000; rid < 1650; ++rid) {
    user.groups.push_back(*MakeSid("S-1-5-21-1-2-3").WithRid(rid));
  }

  const std::string cookie = sessions.Seal(user, kHost, kNow);

  const auto opened = sessions.Open(cookie, kHost, kNow);
  ASSERT_TRUE(opened) << cookie.size();
  EXPECT_THAT(opened->user.groups, SizeIs(650));
  for (std::uint32_t rid = 1650; rid < 2000; ++rid) {
    user.groups.push_back(*MakeSid("S-1-5-21-1-2-3").WithRid(rid));
  }
  EXPECT_THAT(sessions.Seal(user, kHost, kNow), IsEmpty());
}

TEST(SessionKeys, AreRefusedWithFileAndLine) {
  const struct {
    const char* text;
    const char* error;
  } kWrong[] = {
      {"", "keys: there is no key in it"},
      {"# nothing\n\n", "keys: there is no key in it"},
      {"\nabc\n", "keys:2: a key has 64"},
      {"zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz", "keys:1: a key has 64"},
  };
  for (const auto& [text, expected] : kWrong) {
    std::string error;
    EXPECT_FALSE(SessionKeys::Parse(text, "keys", &error)) << text;
    EXPECT_THAT(error, HasSubstr(expected));
  }
  for (const std::string& text :
       {kKeyA + " from", kKeyA + " from now", kKeyA + " until 2026-11-22T01:00:00Z",
        kKeyA + " from 2026-02-30T01:00:00Z", kKeyA + " from 2026-11-22T01:00:00Z more",
        kKeyA + "\n" + kKeyA, kKeyA + "0"}) {
    std::string error;
    EXPECT_FALSE(SessionKeys::Parse(text, "keys", &error)) << text;
    EXPECT_THAT(error, HasSubstr("keys:"));
  }
}

TEST(SessionKeys, ANewOneStandsInFrontAndTheOldestGoes) {
  std::string error;

  const auto first = SessionKeys::WithNewKey("", "keys", kNow, 2, &error);
  const auto second = SessionKeys::WithNewKey(*first, "keys", kNow, 2, &error);
  const auto third = SessionKeys::WithNewKey(*second, "keys", kNow + 600, 1, &error);

  ASSERT_TRUE(first && second && third) << error;
  const std::string sealed_first = Make(*first).Seal(Alice(), kHost, kNow);
  const std::string sealed_second = Make(*second).Seal(Alice(), kHost, kNow);
  EXPECT_TRUE(Make(*second).Open(sealed_first, kHost, kNow));
  EXPECT_FALSE(Make(*first).Open(sealed_second, kHost, kNow)) << "from now on";
  EXPECT_FALSE(Make(*third).Open(sealed_first, kHost, kNow)) << "one old key is kept";
  EXPECT_TRUE(Make(*third).Open(sealed_second, kHost, kNow));
  EXPECT_TRUE(Make(*second).Open(Make(*third).Seal(Alice(), kHost, kNow), kHost, kNow))
      << "the third is not used yet";
}

}  // namespace
}  // namespace tavrel::tools
