#include "ApRequest.h"

#include <gtest/gtest.h>

#include <ctime>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Service.h"

namespace tavrel::plus::tests {
namespace {

namespace der = tavrel::tests::der;
using tavrel::tests::Der;

AcceptorOptions Patient() {
  AcceptorOptions options;
  options.require_pac = false;
  options.replay_protection = false;
  return options;
}

// What an acceptor says of a token after `change`.
template <typename Change>
std::optional<RefusalReason> Refused(Change change) {
  static const Service service(Patient());
  static const auto acceptor = service.Make();
  ForgedToken token;
  change(token);
  const Acceptance result = acceptor->Accept(token.Bytes());
  if (result) return std::nullopt;
  return result.refusal->reason;
}

constexpr auto kMalformed = RefusalReason::kMalformed;
constexpr auto kNotGenuine = RefusalReason::kNotGenuine;

std::string Data(const std::string& elements) {
  return Der(0x30, elements);
}

std::string Sequence(const ForgedToken::Fields& fields) {
  std::string content;
  for (const auto& [number, value] : fields) {
    content += der::Field(number, value);
  }
  return Der(0x30, content);
}

ForgedToken::Fields TicketFields(const std::string& service, const std::string& sealed) {
  return {{0, der::Integer(5)}, {1, Der(0x1b, "REALM")}, {2, service}, {3, sealed}};
}

ForgedToken::Fields RequestFields(const std::string& ticket, const std::string& authenticator) {
  return {{0, der::Integer(5)},
          {1, der::Integer(14)},
          {2, der::BitString(0)},
          {3, Der(0x61, ticket)},
          {4, authenticator}};
}

// A request with those parts, in DER.
std::string Request(const std::string& service, const std::string& sealed_ticket,
                    const std::string& sealed_authenticator) {
  const std::string ticket = Sequence(TicketFields(service, sealed_ticket));
  return Der(0x6e, Sequence(RequestFields(ticket, sealed_authenticator)));
}

// Without each of its fields, with another in place of each, and with one more.
std::vector<ForgedToken::Fields> Spoilt(const ForgedToken::Fields& right) {
  std::vector<ForgedToken::Fields> all;
  for (const auto& field : right) {
    all.emplace_back(right).erase(field.first);
    all.emplace_back(right)[field.first] = Der(0x0c, "x");
    all.emplace_back(right)[field.first] += "x";
  }
  all.emplace_back(right)[11] = Der(0x0c, "x");
  return all;
}

TEST(ARequest, IsReadByTheLetter) {
  const std::string name = der::PrincipalName({"HTTP", "a"});
  const auto sealed = [](const std::string& version) {
    return Der(0x30, der::Field(0, der::Integer(18)) + version + der::Field(2, Der(0x04, "x")));
  };
  const auto version_of = [&](const std::string& version) -> std::optional<std::uint32_t> {
    const std::string bytes = Request(name, sealed(der::Field(1, version)), sealed(""));
    const auto request = ReadApRequest(bytes);
    return request ? request->key_version : std::nullopt;
  };
  const auto is_read = [](const std::string& bytes) { return ReadApRequest(bytes).has_value(); };
  const std::string right = sealed("");

  EXPECT_TRUE(is_read(Request(name, right, right)));
  EXPECT_FALSE(is_read(Request(name, right, right) + "x"));
  EXPECT_EQ(version_of(der::Integer(2)), 2U);
  EXPECT_EQ(version_of(der::Integer(0xFFFFFFFF)), UINT32_MAX);
  EXPECT_EQ(version_of(der::Integer(-1)), UINT32_MAX) << "as some write it";
  EXPECT_EQ(version_of(der::Integer(1LL << 32)), std::nullopt);
  EXPECT_EQ(version_of(Der(0x02, std::string("\0\x7f\0\0\0", 5))), std::nullopt);
  EXPECT_EQ(version_of(Der(0x02, std::string("\0\xff\0\0\0\0", 6))), std::nullopt);
  EXPECT_EQ(version_of(Der(0x04, "x")), std::nullopt);
  for (const std::string& wrong :
       {std::string(), Der(0x30, ""), Der(0x04, "x"), Der(0x30, der::Field(0, der::Integer(1))),
        Der(0x30, der::Field(0, der::Integer(1)) + der::Field(1, Der(0x30, "x"))),
        Der(0x30, der::Field(0, der::Integer(1)) + der::Field(1, Der(0x30, "")) + "x"),
        der::PrincipalName(std::vector<std::string>(33, "a"))}) {
    EXPECT_FALSE(is_read(Request(wrong, right, right))) << testing::PrintToString(wrong);
  }
  EXPECT_TRUE(
      is_read(Request(der::PrincipalName(std::vector<std::string>(32, "a")), right, right)));
  const std::string with_more = right.substr(2) + "x";
  for (const std::string& wrong :
       {std::string(), Der(0x04, "x"), Der(0x30, ""), sealed("x"), Der(0x30, with_more),
        Der(0x30, der::Field(0, der::Integer(18)))}) {
    EXPECT_FALSE(is_read(Request(name, wrong, right))) << testing::PrintToString(wrong);
    EXPECT_FALSE(is_read(Request(name, right, wrong))) << testing::PrintToString(wrong);
  }
}

TEST(ARequest, HasEachFieldOnce) {
  const std::string sealed =
      Der(0x30, der::Field(0, der::Integer(18)) + der::Field(2, Der(0x04, "x")));
  const auto of_ticket = TicketFields(der::PrincipalName({"HTTP", "a"}), sealed);
  const auto of_request = RequestFields(Sequence(of_ticket), sealed);
  const auto is_read = [&](ForgedToken::Fields fields) {
    return ReadApRequest(Der(0x6e, Sequence(fields))).has_value();
  };
  const auto with = [&](unsigned char number, const std::string& value) {
    ForgedToken::Fields fields = of_request;
    fields[number] = value;
    return fields;
  };

  EXPECT_TRUE(is_read(of_request));
  for (const auto& fields : Spoilt(of_request))
    EXPECT_FALSE(is_read(fields)) << testing::PrintToString(fields);
  for (const auto& fields : Spoilt(of_ticket))
    EXPECT_FALSE(is_read(with(3, Der(0x61, Sequence(fields))))) << testing::PrintToString(fields);
  EXPECT_FALSE(is_read(with(0, der::Integer(4))));
  EXPECT_FALSE(is_read(with(1, der::Integer(15))));
  EXPECT_FALSE(is_read(with(2, Der(0x03, std::string("\1\0\0\0\0", 5)))));
  EXPECT_FALSE(is_read(with(3, Der(0x61, ""))));
  EXPECT_FALSE(is_read(with(3, Der(0x61, Sequence(of_ticket) + "x"))));
  EXPECT_FALSE(ReadApRequest(Der(0x30, Sequence(of_request))));
  EXPECT_FALSE(ReadApRequest(Der(0x6e, "")));
  EXPECT_FALSE(ReadApRequest(Der(0x6e, Sequence(of_request) + "x")));
}

TEST(WhatATicketSeals, IsAcceptedByTheLetter) {
  EXPECT_EQ(Refused([](ForgedToken&) {}), std::nullopt);
  EXPECT_EQ(Refused([](ForgedToken& token) {
              token.of_ticket.erase(6);  // start
              token.of_ticket[4] = TypedField(255, "");
              token.of_ticket[8] = token.of_ticket[7];
              token.of_ticket[9] = Data(TypedField(2, std::string("\x0a\0\0\1", 4)));  // addresses
              token.of_ticket[10] = Data("");
            }),
            std::nullopt);
  EXPECT_EQ(Refused([](ForgedToken& token) { token.of_ticket.erase(10); }), std::nullopt);
}

TEST(WhatATicketSeals, IsRefusedWhenAFieldIsMissingOrWrong) {
  for (const unsigned char number : std::initializer_list<unsigned char>{0, 1, 2, 3, 4, 5, 7}) {
    EXPECT_EQ(Refused([&](ForgedToken& token) { token.of_ticket.erase(number); }), kMalformed)
        << int{number};
  }
  for (const unsigned char number :
       std::initializer_list<unsigned char>{0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11}) {
    EXPECT_EQ(Refused([&](ForgedToken& token) { token.of_ticket[number] = Der(0x0c, "x"); }),
              kMalformed)
        << int{number};
  }
  const std::pair<unsigned char, std::string> wrong[] = {
      {0, Der(0x03, "\x01\x01\x01\x01")},
      {1, Der(0x30, der::Field(1, Der(0x04, "x")))},
      {1, Der(0x30, der::Field(0, der::Integer(18)))},
      {1, TypedField(18, "short")},
      {1, KeyField(18, 16)},
      {3, Der(0x30, der::Field(0, der::Integer(1)) + der::Field(1, Der(0x30, "")))},
      {4, Der(0x30, der::Field(0, der::Integer(1)))},
      {4, TypedField(-1, "")},
      {4, TypedField(256, "")},
      {10, Data("x")},
      {10, Data(Der(0x30, der::Field(0, der::Integer(1))))},
      {10, Data(Der(0x30, der::Field(0, der::Integer(7)) + der::Field(1, Der(0x04, "x")) + "x"))},
      {10, Data(TypedField(1, "x"))},
      {10, Data(TypedField(1, Data("") + "x"))},
      {10, AuthorizationData(1, Data("x"))},
  };
  for (const auto& [number, value] : wrong) {
    EXPECT_EQ(Refused([&, number = number, &value = value](ForgedToken& token) {
                token.of_ticket[number] = value;
              }),
              kMalformed)
        << int{number} << ": " << testing::PrintToString(value);
  }
}

TEST(WhatATicketSeals, HasNothingButPaddingBehindIt) {
  const ForgedToken token;
  const std::string part = token.TicketPart();

  EXPECT_TRUE(ReadTicketPart(part));
  EXPECT_TRUE(ReadTicketPart(part + std::string(7, '\0')));
  for (std::size_t size = 0; size < part.size(); ++size) {
    EXPECT_FALSE(ReadTicketPart(part.substr(0, size))) << size;
  }
  EXPECT_FALSE(ReadTicketPart(token.Authenticator()));
  EXPECT_FALSE(ReadTicketPart(Der(0x63, Der(0x30, "") + "x")));
  EXPECT_FALSE(ReadTicketPart(Der(0x63, "")));
  const auto with = [](const std::string& last) {
    ForgedToken::Fields fields = ForgedToken().of_ticket;
    fields.erase(10);
    return ReadTicketPart(Der(0x63, Der(0x30, Sequence(fields).substr(3) + last))).has_value();
  };
  EXPECT_TRUE(with(""));
  EXPECT_TRUE(with(std::string("\xa9\0", 2)));
  EXPECT_FALSE(with("\xa9\x7f")) << "addresses that are cut off";
}

TEST(ATime, IsThatOfTheCalendar) {
  const auto read = [](const std::string& text) -> std::optional<std::int64_t> {
    ForgedToken token;
    token.of_ticket[7] = Der(0x18, text);
    const std::string part = token.TicketPart();
    const auto ticket = ReadTicketPart(part);
    if (!ticket) return std::nullopt;
    return ticket->end_time;
  };
  std::tm parts{};
  for (parts.tm_year = 0; parts.tm_year < 300; ++parts.tm_year) {
    for (const auto& [month, day] : {std::pair{0, 1}, {1, 28}, {2, 1}, {11, 31}}) {
      parts.tm_mon = month;
      parts.tm_mday = day;
      char text[32];
      std::strftime(text, sizeof text, "%Y%m%d235959Z", &parts);
      std::tm copy = parts;
      copy.tm_hour = 23;
      copy.tm_min = 59;
      copy.tm_sec = 59;
      const std::time_t time = timegm(&copy);
      if (time == -1) continue;  // beyond this machine's clock of 32 bits
      const bool fits = time > 0 && time <= std::int64_t{UINT32_MAX};
      ASSERT_EQ(read(text), fits ? std::optional<std::int64_t>(time) : std::nullopt) << text;
    }
  }
  EXPECT_EQ(read("20240229000000Z"), 1709164800);
  EXPECT_EQ(read("19700101000001Z"), 1);
  EXPECT_EQ(read("21060207062815Z"), std::int64_t{UINT32_MAX});
  for (const char* text :
       {"19700101000000Z", "21060207062816Z", "20240001000000Z", "20241301000000Z",
        "20240100000000Z", "20240132000000Z", "20240101240000Z", "20240101006000Z",
        "20240101000060Z", "2024010100000Z", "202401010000000Z", "20240101000000z",
        "2024010100000/Z", "2024010100000:Z"}) {
    EXPECT_EQ(read(text), std::nullopt) << text;
  }
}

TEST(AnAuthenticator, IsRefusedWhenAFieldIsMissingOrWrong) {
  for (const unsigned char number : std::initializer_list<unsigned char>{0, 1, 2, 3, 4, 5}) {
    EXPECT_EQ(Refused([&](ForgedToken& token) { token.of_authenticator.erase(number); }),
              kMalformed)
        << int{number};
  }
  for (const unsigned char number :
       std::initializer_list<unsigned char>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}) {
    EXPECT_EQ(Refused([&](ForgedToken& token) { token.of_authenticator[number] = Der(0x0c, "x"); }),
              kMalformed)
        << int{number};
  }
  EXPECT_EQ(Refused([](ForgedToken& token) {
              token.of_authenticator[8] = Data("");
              token.of_authenticator[9] = Der(0x0c, "x");
            }),
            kMalformed);
  const std::pair<unsigned char, std::string> wrong[] = {
      {0, der::Integer(4)},        {3, TypedField(7, GssChecksum())},
      {4, Der(0x02, "")},          {4, der::Integer(1 << 24)},
      {6, KeyField(18, 31)},       {7, der::Integer(-(1LL << 32))},
      {7, der::Integer(1LL << 32)}};
  for (const auto& [number, value] : wrong) {
    EXPECT_EQ(Refused([&, number = number, &value = value](ForgedToken& token) {
                token.of_authenticator[number] = value;
              }),
              kMalformed)
        << int{number} << ": " << testing::PrintToString(value);
  }
  EXPECT_FALSE(ReadAuthenticator(ForgedToken().TicketPart()));
}

TEST(AnAuthenticator, NumbersItsMessagesWithOrWithoutASign) {
  for (const auto& [sent, read] : {std::pair{0LL, 0U},
                                   {5LL, 5U},
                                   {-1LL, UINT32_MAX},
                                   {0xFFFFFFFFLL, UINT32_MAX},
                                   {0x80000000LL, 0x80000000U}}) {
    ForgedToken token;
    token.of_authenticator[7] = der::Integer(sent);
    const std::string plain = token.Authenticator();
    const auto authenticator = ReadAuthenticator(plain);
    ASSERT_TRUE(authenticator) << sent;
    EXPECT_EQ(authenticator->sequence, read);
  }
}

TEST(AnAuthenticator, MustBeOfTheTicketsClient) {
  EXPECT_EQ(Refused([](ForgedToken& token) { token.of_authenticator[1] = Der(0x1b, "OTHER"); }),
            kNotGenuine);
  EXPECT_EQ(
      Refused([](ForgedToken& token) { token.of_authenticator[2] = der::PrincipalName({"bob"}); }),
      kNotGenuine);
  EXPECT_EQ(Refused([](ForgedToken& token) {
              token.of_authenticator[2] = der::PrincipalName({"alice", ""});
            }),
            kNotGenuine);
}

TEST(AnAuthenticator, HasKeysOfAllowedTypesAlone) {
  const auto of_rc4 = [](ForgedToken& token) {
    token.session_enctype = ENCTYPE_ARCFOUR_HMAC;
    token.of_ticket[1] = KeyField(ENCTYPE_ARCFOUR_HMAC, 16);
  };
  EXPECT_EQ(Refused(of_rc4), RefusalReason::kEnctype);
  EXPECT_EQ(Refused([](ForgedToken& token) { token.of_authenticator[6] = KeyField(23, 16); }),
            RefusalReason::kEnctype);
  EXPECT_EQ(Refused([](ForgedToken& token) { token.of_authenticator[6] = KeyField(17, 16); }),
            std::nullopt);
  // Its own type must be that of the key in the ticket.
  EXPECT_EQ(Refused([](ForgedToken& token) { token.session_enctype = 17; }), kNotGenuine);
}

// RFC 4120, 2.7: who does not check the way through other realms refuses the ticket. That way, and
// data that libkrb5 reads, are for libkrb5 to judge.
TEST(WhatIsUnusual, IsJudgedByTheLibraryToo) {
  const auto through = [](const std::string& realms) {
    return Refused([&](ForgedToken& token) {
      token.of_ticket[2] = token.of_authenticator[1] = Der(0x1b, "SUB.EAST.CORP.EXAMPLE.COM");
      token.of_ticket[4] = TypedField(1, realms);
    });
  };
  EXPECT_EQ(through(""), std::nullopt);
  EXPECT_EQ(through("EAST.CORP.EXAMPLE.COM"), std::nullopt) << "the one between the two";
  EXPECT_EQ(through("EVIL.COM"), kNotGenuine);

  constexpr std::int32_t kIssuedByKdc = 4;
  for (const std::int32_t type : {7, 141, 142}) {  // that it lets pass
    const std::string data = AuthorizationData(type, "x");
    EXPECT_EQ(Refused([&](ForgedToken& token) { token.of_ticket[10] = data; }), std::nullopt);
    EXPECT_EQ(Refused([&](ForgedToken& token) { token.of_authenticator[8] = data; }), std::nullopt);
  }
  const auto wants = [](const std::string& enctypes) {
    return Refused(
        [&](ForgedToken& token) { token.of_authenticator[8] = Data(TypedField(129, enctypes)); });
  };
  EXPECT_EQ(wants(Der(0x30, der::Integer(18) + der::Integer(17))), std::nullopt);
  EXPECT_EQ(wants("z"), kMalformed);
  EXPECT_EQ(wants(Der(0x30, "z")), kMalformed);
  EXPECT_EQ(wants(Der(0x30, der::Integer(18)) + "z"), kMalformed);
  EXPECT_EQ(Refused([](ForgedToken& token) {
              token.of_authenticator[8] = AuthorizationData(128, "of another");
            }),
            std::nullopt)
      << "a client's PAC says nothing";
  const auto has_options = [](const std::string& options) {
    return Refused(
        [&](ForgedToken& token) { token.of_authenticator[8] = AuthorizationData(143, options); });
  };
  EXPECT_EQ(has_options(std::string(4, '\0')), std::nullopt);
  EXPECT_EQ(has_options(std::string(3, '\0')), kMalformed);
  EXPECT_EQ(has_options(std::string(5, '\0')), kMalformed);
  EXPECT_EQ(Refused([&](ForgedToken& token) {
              token.of_ticket[10] = AuthorizationData(kIssuedByKdc, "x");
            }),
            kMalformed);
}

// RFC 4120, 5.2.6.
TEST(WhatNobodyKnows, IsPassedOverOnlyWhereThatMayBe) {
  const auto reason = [](const std::string& data) {
    const auto in_ticket = Refused([&](ForgedToken& token) { token.of_ticket[10] = data; });
    EXPECT_EQ(Refused([&](ForgedToken& token) { token.of_authenticator[8] = data; }), in_ticket);
    return in_ticket;
  };
  const auto if_relevant = [](const std::string& elements) { return TypedField(1, elements); };
  const std::string unknown = TypedField(7, "x");
  const std::string known = TypedField(141, "x");

  EXPECT_EQ(reason(Data(known)), std::nullopt);
  EXPECT_EQ(reason(Data(unknown)), kMalformed);
  EXPECT_EQ(reason(Data(if_relevant(Data(unknown)))), std::nullopt);
  EXPECT_EQ(reason(Data(if_relevant(Data(if_relevant(Data(unknown)))))), std::nullopt);
  EXPECT_EQ(reason(Data(if_relevant(Data(unknown)) + unknown)), kMalformed);
  EXPECT_EQ(reason(Data(unknown + if_relevant(Data(known)))), kMalformed);
  EXPECT_EQ(reason(Data(if_relevant(Data(known)) + if_relevant(Data("z")))), kMalformed);
  EXPECT_EQ(reason(Data(if_relevant(Data("z")) + if_relevant(Data(known)))), kMalformed);
}

TEST(WhatTheLibraryJudges, ItJudgesByTheClocksThatAreTolerated) {
  Service service;
  service.options.require_pac = false;
  service.options.clock_tolerance = 1200;
  ForgedToken token;
  token.of_ticket[10] = AuthorizationData(7, "x");
  token.of_authenticator[5] = der::Time(static_cast<krb5_timestamp>(std::time(nullptr)) - 600);

  const Acceptance result = service.Make()->Accept(token.Bytes());

  EXPECT_TRUE(result) << result.refusal->text;
}

// RFC 4120, 5.5.2.
TEST(AReply, RepeatsWhatTheClientSent) {
  ForgedToken token;
  token.of_authenticator[6] = KeyField(18, 32);
  const std::string plain = token.Authenticator();
  const auto authenticator = ReadAuthenticator(plain);
  ASSERT_TRUE(authenticator);

  const Secret part = ReplyPart(*authenticator, 0x40000001);

  EXPECT_EQ(part.View(), Der(0x7b, Der(0x30, der::Field(0, token.of_authenticator[5]) +
                                                 der::Field(1, token.of_authenticator[4]) +
                                                 der::Field(2, token.of_authenticator[6]) +
                                                 der::Field(3, der::Integer(0x40000001)))));
  EXPECT_EQ(
      ApReply(18, "sealed"),
      Der(0x6f, Der(0x30, der::Field(0, der::Integer(5)) + der::Field(1, der::Integer(15)) +
                              der::Field(2, Der(0x30, der::Field(0, der::Integer(18)) +
                                                          der::Field(2, Der(0x04, "sealed")))))));
}

}  // namespace
}  // namespace tavrel::plus::tests
