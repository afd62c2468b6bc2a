#include "authd/Policy.h"

#include <gmock/gmock.h>

namespace tavrel::tools {
namespace {

using testing::HasSubstr;

User Alice() {
  User user;
  user.name = "alice@CORP.EXAMPLE.COM";
  user.sid = plus::Sid::FromText("S-1-5-21-1-2-3-1104");
  user.groups = {*plus::Sid::FromText("S-1-5-21-1-2-3-513"),
                 *plus::Sid::FromText("S-1-5-21-1-2-3-1107")};
  user.service = "HTTP/box.corp.example.com";
  user.signed_in = 1'795'309'200;  // 2026-11-22T01:00:00Z
  return user;
}

User WithoutSids() {
  User user = Alice();
  user.sid.reset();
  user.groups.clear();
  return user;
}

Policy Make(const std::string& text) {
  std::string error;
  const auto policy = Policy::Parse(text, "policy", &error);
  EXPECT_TRUE(policy) << error;
  return policy.value_or(Policy());
}

// The line that decides, negative when it denies.
int Decide(const std::string& text, const User& user = Alice(), const char* client = "10.1.2.3") {
  const Policy::Verdict verdict =
      Make(text).Decide(user, client != nullptr ? Address::Parse(client) : std::nullopt);
  return verdict.allowed ? verdict.line : -verdict.line;
}

TEST(Policy, LetsNobodyPassUnlessARuleDoes) {
  EXPECT_FALSE(Make("").Decide(Alice(), std::nullopt).allowed);
  EXPECT_EQ(Decide("allow user bob@CORP.EXAMPLE.COM"), 0);
  EXPECT_EQ(Decide("# everyone may\n\n  allow everyone # here"), 3);
}

TEST(Policy, TheFirstRuleThatFitsDecides) {
  EXPECT_EQ(Decide("deny user alice@corp.example.com\nallow everyone"), -1);
  EXPECT_EQ(Decide("allow user alice@corp.example.com\ndeny everyone"), 1);
  EXPECT_EQ(Decide("deny user bob@corp.example.com\nallow everyone"), 2);
}

TEST(Policy, EachKindOfCondition) {
  EXPECT_EQ(Decide("allow user ALICE@corp.EXAMPLE.com"), 1);
  EXPECT_EQ(Decide("allow user alice@OTHER.EXAMPLE.COM"), 0);
  EXPECT_EQ(Decide("allow user S-1-5-21-1-2-3-1104"), 1);
  EXPECT_EQ(Decide("allow user S-1-5-21-1-2-3-513"), 0);
  EXPECT_EQ(Decide("allow realm corp.EXAMPLE.COM"), 1);
  EXPECT_EQ(Decide("allow realm EXAMPLE.COM"), 0);
  EXPECT_EQ(Decide("allow realm PARTNER.EXAMPLE.NET"), 0);
  EXPECT_EQ(Decide("allow group S-1-5-21-1-2-3-1107"), 1);
  EXPECT_EQ(Decide("allow group S-1-5-21-1-2-3-1108"), 0);
  EXPECT_EQ(Decide("allow service http/BOX.corp.example.com"), 1);
  EXPECT_EQ(Decide("allow service HTTP/box"), 0);
  EXPECT_EQ(Decide("allow network 10.0.0.0/8"), 1);
  EXPECT_EQ(Decide("allow network 10.1.2.3"), 1);
  EXPECT_EQ(Decide("allow network 10.1.2.4/31"), 0);
  EXPECT_EQ(Decide("allow network 0.0.0.0/0"), 1);
  EXPECT_EQ(Decide("allow network ::/0", Alice(), "2001:db8::1"), 1);
  EXPECT_EQ(Decide("allow network 2001:db8::/32", Alice(), "2001:db9::1"), 0);
  EXPECT_EQ(Decide("allow network 10.0.0.0/8", Alice(), "::ffff:10.1.2.3"), 1);
}

TEST(Policy, AllConditionsOfARuleMustHold) {
  EXPECT_EQ(Decide("allow group S-1-5-21-1-2-3-513 network 10.0.0.0/8"), 1);
  EXPECT_EQ(Decide("allow group S-1-5-21-1-2-3-513 network 11.0.0.0/8"), 0);
  EXPECT_EQ(Decide("deny group S-1-5-21-1-2-3-999 network 10.0.0.0/8"), 0);
}

TEST(Policy, WhatIsNotKnownNeverLetsAnybodyPass) {
  EXPECT_EQ(Decide("allow network 0.0.0.0/0", Alice(), nullptr), 0);
  EXPECT_EQ(Decide("deny network 10.0.0.0/8\nallow everyone", Alice(), nullptr), -1);
  EXPECT_EQ(Decide("allow group S-1-5-21-1-2-3-513", WithoutSids()), 0);
  EXPECT_EQ(Decide("deny group S-1-5-21-1-2-3-513\nallow everyone", WithoutSids()), -1);
  EXPECT_EQ(Decide("deny user S-1-5-21-1-2-3-1104\nallow everyone", WithoutSids()), -1);
}

TEST(Policy, RevokesSessionsThatBeganBefore) {
  EXPECT_FALSE(Make("allow everyone").Revoked(Alice()));
  EXPECT_FALSE(Make("revoke everyone before 2026-11-22T01:00:00Z").Revoked(Alice()));
  EXPECT_TRUE(Make("revoke everyone before 2026-11-22T01:00:01Z").Revoked(Alice()));
  EXPECT_TRUE(
      Make("revoke user alice@corp.example.com before 2026-11-23T00:00:00Z").Revoked(Alice()));
  EXPECT_TRUE(Make("revoke user S-1-5-21-1-2-3-1104 before 2026-11-23T00:00:00Z").Revoked(Alice()));
  EXPECT_FALSE(
      Make("revoke user bob@corp.example.com before 2026-11-23T00:00:00Z").Revoked(Alice()));
}

TEST(Policy, AWrongLineIsRefusedWithFileAndLine) {
  const struct {
    const char* text;
    const char* error;
  } kWrong[] = {
      {"allow everyone\npermit everyone", "policy:2: 'permit' is none of"},
      {"allow", "policy:1: behind `allow`"},
      {"allow everyone else", "policy:1: 'everyone' is none of"},
      {"allow user", "policy:1: behind `allow`"},
      {"allow user alice", "policy:1: 'alice' is neither"},
      {"allow user @CORP", "policy:1: '@CORP' is neither"},
      {"allow user alice@", "policy:1: 'alice@' is neither"},
      {"allow user a@b@c", "policy:1: 'a@b@c' is neither"},
      {"allow group Users", "policy:1: 'Users' is no SID"},
      {"allow group S-1-5-21-1-2-3-513 network", "policy:1: behind `allow`"},
      {"allow realm @CORP.EXAMPLE.COM", "policy:1: '@CORP.EXAMPLE.COM' is no realm"},
      {"allow service HTTP", "policy:1: 'HTTP' is no service"},
      {"allow network 10.0.0.1/8", "policy:1: '10.0.0.1/8' is no network"},
      {"allow network 10.0.0.0/33", "policy:1: '10.0.0.0/33' is no network"},
      {"allow network 10.0.0", "policy:1: '10.0.0' is no network"},
      {"allow network ::1/129", "policy:1: '::1/129' is no network"},
      {"Allow everyone", "policy:1: 'Allow' is none of"},
      {"revoke", "policy:1: `revoke` takes"},
      {"revoke everyone", "policy:1: `revoke` takes"},
      {"revoke everyone after 2026-11-22T01:00:00Z", "policy:1: `revoke` takes"},
      {"revoke everyone before yesterday", "policy:1: 'yesterday' is no time"},
      {"revoke everyone before 2026-11-22T01:00:00+01:00", "policy:1: '2026-11"},
      {"revoke user alice before 2026-11-22T01:00:00Z", "policy:1: 'alice' is neither"},
      {"allow everyone\x01", "policy:1: a control character"},
      {"allow everyone\r\n", "policy:1: a control character"},
  };
  for (const auto& [text, expected] : kWrong) {
    std::string error;
    EXPECT_FALSE(Policy::Parse(text, "policy", &error)) << text;
    EXPECT_THAT(error, HasSubstr(expected));
  }
}

}  // namespace
}  // namespace tavrel::tools
