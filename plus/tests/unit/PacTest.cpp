#include "Pac.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ForgedPac.h"
#include "Ndr.h"

namespace tavrel::plus::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> Texts(const std::vector<GroupMembership>& groups) {
  std::vector<std::string> texts;
  for (const GroupMembership& group : groups)
    texts.push_back(group.sid.ToText() + " " + std::to_string(group.attributes));
  return texts;
}

// What DecodePac() says, and what it found.
struct Decoded {
  explicit Decoded(const PacBuffers& buffers) {
    const char* const text = DecodePac(buffers, result);
    if (text != nullptr) wrong = text;
  }

  std::string wrong;
  Authorization result;
};

constexpr char kUser[] = "S-1-5-21-1-2-3-1105";

TEST(APac, IsDecodedFieldByField) {
  const std::string info = ValidationInfo({});
  const std::string upn =
      UpnDnsInfo("alice@corp.example.com", "CORP.EXAMPLE.COM", 3, "alice", kUser);
  const std::string delegation = DelegationInfo("HTTP/appliance", {"svc@CORP", "gw@CORP"});
  const std::string attributes = NdrWriter().Put32(2).Put32(1).Bytes();
  const std::string requestor = Sid::FromText(kUser)->ToBytes();

  const Decoded pac({info, upn, delegation, attributes, requestor});

  ASSERT_EQ(pac.wrong, "");
  EXPECT_EQ(pac.result.logon_name, "alice");
  EXPECT_EQ(pac.result.full_name, "Alice Example");
  EXPECT_EQ(pac.result.upn, "alice@corp.example.com");
  EXPECT_TRUE(pac.result.upn_is_made_up);
  EXPECT_EQ(pac.result.netbios_domain, "CORP");
  EXPECT_EQ(pac.result.dns_domain, "CORP.EXAMPLE.COM");
  EXPECT_EQ(pac.result.logon_server, "DC1");
  EXPECT_EQ(pac.result.user.ToText(), kUser);
  EXPECT_EQ(pac.result.primary_group.ToText(), "S-1-5-21-1-2-3-513");
  EXPECT_EQ(pac.result.domain.ToText(), "S-1-5-21-1-2-3");
  EXPECT_EQ(pac.result.account_flags, 0x10U);
  EXPECT_THAT(Texts(pac.result.groups),
              ElementsAre("S-1-5-21-1-2-3-513 7", "S-1-5-21-1-2-3-1110 7"));
  EXPECT_THAT(Texts(pac.result.extra_sids), ElementsAre("S-1-18-1 7"));
  EXPECT_THAT(Texts(pac.result.resource_groups), ElementsAre("S-1-5-21-1-2-3-1120 536870919"));
  ASSERT_TRUE(pac.result.delegation);
  EXPECT_EQ(pac.result.delegation->target, "HTTP/appliance");
  EXPECT_THAT(pac.result.delegation->through, ElementsAre("svc@CORP", "gw@CORP"));
  EXPECT_EQ(pac.result.pac_attributes, 1U);
  EXPECT_EQ(pac.result.requestor, Sid::FromText(kUser));
}

TEST(APac, OfFewPartsHasNoOthers) {
  ForgedUser user;
  user.full_name.clear();
  user.groups.clear();
  user.extra_sids.clear();
  user.resource_groups.clear();
  user.resource_domain.clear();
  const std::string info = ValidationInfo(user);
  const std::string upn = UpnDnsInfo("alice@example.com", "CORP.EXAMPLE.COM", 2, "alice", kUser);

  const Decoded pac({info, upn, {}, {}, {}});

  ASSERT_EQ(pac.wrong, "");
  EXPECT_FALSE(pac.result.upn_is_made_up);
  EXPECT_EQ(pac.result.full_name, "");
  EXPECT_THAT(pac.result.groups, IsEmpty());
  EXPECT_THAT(pac.result.extra_sids, IsEmpty());
  EXPECT_THAT(pac.result.resource_groups, IsEmpty());
  EXPECT_FALSE(pac.result.delegation);
  EXPECT_FALSE(pac.result.requestor);
}

TEST(APac, CutOffAnywhereIsRefused) {
  const std::string info = ValidationInfo({});
  const std::string upn = UpnDnsInfo("a@b", "B", 2, "a", kUser);
  const std::string delegation = DelegationInfo("x/y", {"a", "b"});
  const std::string requestor = Sid::FromText(kUser)->ToBytes();
  const auto wrong = [&](const PacBuffers& buffers) { return Decoded(buffers).wrong; };

  for (std::size_t size = 0; size < info.size(); ++size)
    EXPECT_NE(wrong({std::string_view(info).substr(0, size), {}, {}, {}, {}}), "") << size;
  for (std::size_t size = 0; size < upn.size(); ++size)
    EXPECT_NE(wrong({info, std::string_view(upn).substr(0, size), {}, {}, {}}), "") << size;
  for (std::size_t size = 0; size < delegation.size(); ++size)
    EXPECT_NE(wrong({info, {}, std::string_view(delegation).substr(0, size), {}, {}}), "") << size;
  for (std::size_t size = 0; size < requestor.size(); ++size)
    EXPECT_NE(wrong({info, {}, {}, {}, std::string_view(requestor).substr(0, size)}), "") << size;
  for (std::size_t size = 0; size < 8; ++size)
    EXPECT_NE(wrong({info, {}, {}, std::string_view("\2\0\0\0\1\0\0\0", size), {}}), "") << size;
  EXPECT_EQ(wrong({info, upn, delegation, {}, requestor}), "");
}

// Behind 24 bytes of lengths and offsets: 6 of the UPN, 2 of the domain, 2 of the name, the SID.
TEST(APac, WhoseNamesAreNoTextIsRefused) {
  const std::string info = ValidationInfo({});
  const std::string upn = UpnDnsInfo("a@b", "B", 2, "a", kUser);
  const auto wrong = [&](std::size_t at, char value) {
    std::string changed = upn;
    changed[at] = value;
    return Decoded({info, changed, {}, {}, {}}).wrong;
  };

  EXPECT_EQ(wrong(24, 'x'), "");
  for (const std::size_t at : {25U, 31U, 33U})  // half of a surrogate pair
    EXPECT_EQ(wrong(at, '\xDC'), "its UPN and DNS information does not add up") << at;
  EXPECT_EQ(wrong(34, '\2'), "its parts name two users") << "no identifier of revision 1";
}

TEST(AnNdrReader, TakesNothingBehindTheEnd) {
  const auto fails = [](const std::string& bytes, int skipped) {
    NdrReader reader(bytes);
    for (int i = 0; i < skipped; ++i)
      reader.Take8();
    reader.Take32();
    return !reader.Ok();
  };
  const auto text_fails = [](std::uint32_t size, std::uint32_t room, bool present) {
    const std::string bytes = NdrWriter().Put16(size).Put16(room).PutPointer(present).Bytes();
    NdrReader reader(bytes);
    reader.TakeText();
    return !reader.Ok();
  };
  const auto body_fails = [](std::uint32_t room, std::uint32_t length) {
    NdrWriter writer;
    writer.Put16(4).Put16(4).PutPointer(true).Put32(room).Put32(0).Put32(length);
    const std::string bytes = writer.PutBytes(Utf16("ab")).Bytes();
    NdrReader reader(bytes);
    reader.TakeTextBody(reader.TakeText());
    return !reader.Ok();
  };

  EXPECT_FALSE(body_fails(2, 2));
  EXPECT_TRUE(body_fails(1, 2));
  EXPECT_TRUE(body_fails(2, 1));
  EXPECT_FALSE(fails(std::string(4, 'x'), 0));
  EXPECT_FALSE(fails(std::string(8, 'x'), 1)) << "aligned";
  EXPECT_TRUE(fails(std::string(3, 'x'), 0));
  EXPECT_TRUE(fails(std::string(3, 'x'), 1)) << "the next number would begin behind the end";
  EXPECT_TRUE(fails(std::string(7, 'x'), 1));
  EXPECT_FALSE(text_fails(0, 0, false));
  EXPECT_FALSE(text_fails(2, 2, true));
  EXPECT_TRUE(text_fails(2, 2, false));
  EXPECT_TRUE(text_fails(2, 1, true));
  EXPECT_TRUE(text_fails(1, 2, true));
}

// Each number of the structure made very large, or its pointer null, in turn: never more than a
// refusal, or other values. Sanitizers look on.
TEST(APac, OfAnyNumbersIsReadWithinItsBounds) {
  const std::string info = ValidationInfo({});
  for (std::size_t i = 0; i < info.size(); ++i) {
    for (const char value : {'\x00', '\x01', '\x7F', '\xFF'}) {
      std::string changed = info;
      changed[i] = value;
      const Decoded pac({changed, {}, {}, {}, {}});
      EXPECT_LE(pac.result.groups.size(), 2U);
      EXPECT_LE(pac.result.extra_sids.size(), 1U);
    }
  }
}

TEST(APac, ThatDoesNotAddUpIsRefused) {
  const std::string info = ValidationInfo({});
  const auto wrong = [&](const ForgedUser& user) {
    const std::string changed = ValidationInfo(user);
    return Decoded({changed, {}, {}, {}, {}}).wrong;
  };
  ForgedUser nobody;
  nobody.rid = 0;
  ForgedUser of_no_domain;
  of_no_domain.domain.clear();
  ForgedUser of_a_long_domain;
  of_a_long_domain.domain = "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15";
  ForgedUser without_resource_domain;
  without_resource_domain.resource_domain.clear();
  ForgedUser in_nothing;
  in_nothing.extra_sids = {{"", 7}};

  EXPECT_EQ(wrong(nobody), "it names no user");
  EXPECT_EQ(wrong(of_no_domain), "it names no user");
  EXPECT_EQ(wrong(of_a_long_domain), "its validation information does not add up");
  EXPECT_EQ(wrong(without_resource_domain), "its validation information does not add up");
  EXPECT_EQ(wrong(in_nothing), "its validation information does not add up");
  // Version, byte order, length of the header, length of the content.
  for (const std::size_t at : {0U, 1U, 2U, 8U}) {
    std::string of_another_kind = info;
    ++of_another_kind[at];
    EXPECT_EQ(Decoded({of_another_kind, {}, {}, {}, {}}).wrong,
              "its validation information is cut off")
        << at;
  }
  const std::string of_another = UpnDnsInfo("a@b", "B", 2, "a", "S-1-5-21-1-2-3-1106");
  EXPECT_EQ(Decoded({info, of_another, {}, {}, {}}).wrong, "its parts name two users");
  of_a_long_domain.groups.clear();
  EXPECT_EQ(wrong(of_a_long_domain), "its domain has too long an identifier");
  EXPECT_EQ(Decoded({info, {}, {}, std::string(8, '\0'), {}}).wrong,
            "its attributes do not add up");
  const std::string another = Sid::FromText("S-1-5-21-1-2-3-1106")->ToBytes();
  EXPECT_EQ(Decoded({info, {}, {}, {}, another}).wrong, "another one asked for it");
}

TEST(APac, GrantsNoExtraSidsThatItsFlagsDoNotAnnounce) {
  std::string info = ValidationInfo({});
  const std::size_t flags = 20 + 48 + 48 + 4 + 12 + 4;
  ASSERT_EQ(info.substr(flags, 2), "\x20\x02");
  info[flags] = info[flags + 1] = '\0';

  const Decoded pac({info, {}, {}, {}, {}});

  ASSERT_EQ(pac.wrong, "");
  EXPECT_THAT(pac.result.extra_sids, IsEmpty());
  EXPECT_THAT(pac.result.resource_groups, IsEmpty());
}

TEST(AMembership, GrantsWhenItIsEnabledAndNotForDenialsAlone) {
  Authorization user;
  user.user = *Sid::FromText(kUser);
  const auto sid = [](std::uint32_t rid) { return *Sid::FromText("S-1-5-32")->WithRid(rid); };
  user.groups = {{sid(1), 7}, {sid(2), 3}, {sid(3), 0x17}};
  user.extra_sids = {{sid(4), 7}};
  user.resource_groups = {{sid(5), 0x20000007}};

  EXPECT_TRUE(user.IsMemberOf(user.user));
  EXPECT_TRUE(user.IsMemberOf(sid(1)));
  EXPECT_FALSE(user.IsMemberOf(sid(2)));
  EXPECT_FALSE(user.IsMemberOf(sid(3)));
  EXPECT_TRUE(user.IsMemberOf(sid(4)));
  EXPECT_TRUE(user.IsMemberOf(sid(5)));
  EXPECT_FALSE(user.IsMemberOf(sid(6)));
}

TEST(Utf16Text, BecomesUtf8OrNothing) {
  const auto text = [](std::string_view bytes) { return FromUtf16(bytes).value_or("(none)"); };
  using namespace std::string_view_literals;

  EXPECT_EQ(text(""), "");
  EXPECT_EQ(text("a\0"sv), "a");
  EXPECT_EQ(text("\xE9\0"sv), "\xC3\xA9");
  EXPECT_EQ(text("\xAC\x20"), "\xE2\x82\xAC");
  EXPECT_EQ(text("\x3D\xD8\x00\xDE"sv), "\xF0\x9F\x98\x80");
  EXPECT_EQ(text("\x00\xD8\x00\xDC"sv), "\xF0\x90\x80\x80");
  EXPECT_EQ(text("\xFF\xDB\xFF\xDF"), "\xF4\x8F\xBF\xBF");
  EXPECT_EQ(text("a"), "(none)");
  EXPECT_EQ(text("\0\0"sv), "(none)");
  EXPECT_EQ(text("\x3D\xD8"), "(none)");
  EXPECT_EQ(text("\x3D\xD8z\0"sv), "(none)");
  EXPECT_EQ(text("\x3D\xD8\x00\xE0"sv), "(none)");
  EXPECT_EQ(text("\x00\xD8\xFF\xDB"sv), "(none)");
  EXPECT_EQ(text("\x00\xDE"sv), "(none)");
}

TEST(APrincipal, IsWrittenAsKerberosDoes) {
  const auto text = [](std::vector<std::string> components, const std::string& realm) {
    return Principal{std::move(components), realm}.Text();
  };

  EXPECT_EQ(text({"alice"}, "R"), "alice@R");
  EXPECT_EQ(text({"HTTP", "www"}, "R"), "HTTP/www@R");
  EXPECT_EQ(text({"a/b@c\\d"}, "R"), "a\\/b\\@c\\\\d@R");
  EXPECT_EQ(text({std::string("a\nb\tc\bd\0e", 9)}, "R/S@T"), "a\\nb\\tc\\bd\\0e@R/S\\@T");
  EXPECT_EQ(text({}, "R"), "@R");
}

}  // namespace
}  // namespace tavrel::plus::tests
