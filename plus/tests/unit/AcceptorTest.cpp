#include "tavrel/plus/Acceptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Der.h"
#include "LogCapture.h"
#include "ReplayCache.h"
#include "Service.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::Der;
using tavrel::tests::ForgedTicket;
using tavrel::tests::kKerberosOid;
using tavrel::tests::kMicrosoftKerberosOid;
using tavrel::tests::kNtlmOid;
using tavrel::tests::LogCapture;
using tavrel::tests::der::BitString;
using tavrel::tests::der::Time;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr int kHour = 3600;

// What a fresh acceptor, made by these options, says of `token`.
Acceptance Decision(const AcceptorOptions& options, const std::string& token,
                    const std::string& channel = "") {
  return Service(options).Make()->Accept(token, channel);
}

RefusalReason Reason(const Acceptance& result) {
  EXPECT_FALSE(result.identity);
  EXPECT_TRUE(result.reply.empty());
  return result.refusal.value().reason;
}

AcceptorOptions WithoutPac() {
  AcceptorOptions options;
  options.require_pac = false;
  return options;
}

TEST(AnAcceptor, SaysWhoSignsIn) {
  const Service service;
  const auto acceptor = service.Make();
  const ForgedTicket ticket = TicketWithPac();
  LogCapture log;

  const Acceptance result = acceptor->Accept(Negotiated(ticket));

  ASSERT_TRUE(result) << result.refusal->text;
  EXPECT_FALSE(result.refusal);
  EXPECT_EQ(result.identity->RealmAndName(), "CORP.EXAMPLE.COM\\alice");
  EXPECT_EQ(result.identity->client.Text(), "alice@CORP.EXAMPLE.COM");
  EXPECT_EQ(result.identity->service.Text(), "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM");
  EXPECT_EQ(result.identity->auth_time, ticket.authtime);
  EXPECT_EQ(result.identity->start_time, ticket.starttime);
  EXPECT_EQ(result.identity->end_time, ticket.endtime);
  EXPECT_EQ(result.identity->ticket_enctype, kAes256Sha1);
  EXPECT_EQ(result.identity->session_enctype, kAes256Sha1);
  EXPECT_EQ(result.identity->key_version, 1U);
  EXPECT_EQ(result.identity->ticket_flags, static_cast<std::uint32_t>(ticket.flags));
  EXPECT_FALSE(result.identity->channel_bound);
  ASSERT_TRUE(result.identity->authorization);
  EXPECT_EQ(result.identity->authorization->user.ToText(), "S-1-5-21-1-2-3-1105");
  EXPECT_TRUE(result.identity->IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-1110")));
  EXPECT_FALSE(result.identity->IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-512")));
  EXPECT_TRUE(result.identity->IsOfDomain(*Sid::FromText("S-1-5-21-1-2-3")));
  EXPECT_FALSE(result.identity->IsOfDomain(*Sid::FromText("S-1-5-21-1-2-4")));
  EXPECT_THAT(log.Lines(), ElementsAre("2 krb-acceptor Accept: Accepted alice@CORP.EXAMPLE.COM for "
                                       "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM"));
}

TEST(AnAcceptor, OfASidInItsOwnDomainTrustsTheOwnRealmAlone) {
  ForgedTicket ticket = Ticket();
  ticket.client_realm = "TRUSTED.EXAMPLE.COM";

  const Acceptance result = Decision({}, Token(WithPac(ticket, PartsOf({}))));

  ASSERT_TRUE(result) << result.refusal->text;
  EXPECT_FALSE(result.identity->IsOfDomain(*Sid::FromText("S-1-5-21-1-2-3")));
}

// As a ticket of another forest has it: by way of a realm between the two, with groups of both
// domains, and with one that the filter of this domain's controller should have taken out.
TEST(AnAcceptor, KnowsAUserOfATrustedDomainByIdentifiersOfBoth) {
  ForgedUser bob;
  bob.logon_name = "bob";
  bob.netbios_domain = "TRUSTED";
  bob.domain = "S-1-5-21-9-8-7";
  bob.extra_sids = {{"S-1-5-21-9-8-7-1200", 7}, {"S-1-5-21-1-2-3-512", 7}};
  ForgedTicket ticket = Ticket();
  ticket.client = {"bob"};
  ticket.client_realm = "SUB.EAST.CORP.EXAMPLE.COM";
  ForgedToken token(WithPac(ticket, PartsOf(bob)));
  token.of_ticket[4] = TypedField(1, "EAST.CORP.EXAMPLE.COM");
  const auto is_member = [](const Identity& identity, const char* sid) {
    return identity.IsMemberOf(*Sid::FromText(sid));
  };

  const Acceptance result = Decision({}, token.Bytes());
  token.of_ticket[4] = TypedField(1, "EVIL.COM");
  const Acceptance by_another_way = Decision({}, token.Bytes());

  ASSERT_TRUE(result) << result.refusal->text;
  const Identity& identity = *result.identity;
  EXPECT_EQ(identity.RealmAndName(), "SUB.EAST.CORP.EXAMPLE.COM\\bob");
  EXPECT_EQ(identity.authorization->user.ToText(), "S-1-5-21-9-8-7-1105");
  EXPECT_EQ(identity.authorization->netbios_domain, "TRUSTED");
  EXPECT_TRUE(is_member(identity, "S-1-5-21-9-8-7-1110")) << "a global group of his domain";
  EXPECT_TRUE(is_member(identity, "S-1-5-21-9-8-7-1200")) << "a universal one";
  EXPECT_TRUE(is_member(identity, "S-1-5-21-1-2-3-1120")) << "a local one of the service's";
  EXPECT_TRUE(is_member(identity, "S-1-5-21-1-2-3-512")) << "as docs/identity.md warns";
  EXPECT_FALSE(identity.IsOfDomain(*Sid::FromText("S-1-5-21-1-2-3")));
  EXPECT_FALSE(identity.IsOfDomain(*Sid::FromText("S-1-5-21-9-8-7"))) << "another realm";
  EXPECT_EQ(Reason(by_another_way), RefusalReason::kNotGenuine);
}

TEST(AnAcceptor, TakesEveryFramingOfKerberos) {
  const Service service;
  const auto acceptor = service.Make();

  EXPECT_TRUE(acceptor->Accept(Token(TicketWithPac())));
  EXPECT_TRUE(acceptor->Accept(Negotiated(TicketWithPac())));
  EXPECT_TRUE(acceptor->Accept(Negotiated(TicketWithPac(), {kKerberosOid, kNtlmOid})));
  EXPECT_TRUE(acceptor->Accept(Negotiated(TicketWithPac(), {kMicrosoftKerberosOid, kKerberosOid})));
}

TEST(AnAcceptor, RefusesWhatIsNoKerberosToken) {
  const auto acceptor = Service().Make();
  const auto reason = [&](const std::string& token) { return Reason(acceptor->Accept(token)); };

  EXPECT_EQ(reason(""), RefusalReason::kNoToken);
  EXPECT_EQ(reason(std::string("NTLMSSP\0\1\0\0\0", 12)), RefusalReason::kNtlm);
  EXPECT_EQ(reason(Negotiated(TicketWithPac(), {kNtlmOid, kKerberosOid})), RefusalReason::kNtlm);
  EXPECT_EQ(reason(Negotiated(TicketWithPac(), {"\x2a\x03", kKerberosOid})),
            RefusalReason::kNotKerberos);
  EXPECT_EQ(reason("hello"), RefusalReason::kMalformed);
  EXPECT_EQ(reason(Token(TicketWithPac()) + '\0'), RefusalReason::kMalformed);
}

TEST(AnAcceptor, RefusesATokenThatIsCutOffAnywhere) {
  const auto acceptor = Service().Make();
  for (const std::string& token : {Token(TicketWithPac()), Negotiated(TicketWithPac())}) {
    for (std::size_t size = 1; size < token.size(); ++size) {
      const Acceptance result = acceptor->Accept(token.substr(0, size));
      ASSERT_EQ(Reason(result), RefusalReason::kMalformed) << size;
    }
  }
}

TEST(AnAcceptor, RefusesATokenWithOneBitWrong) {
  const Service service;
  const auto acceptor = service.Make();
  const std::string token = Token(TicketWithPac());
  // From the ticket's ciphertext on everything is protected; before it is the service's name.
  for (std::size_t i = token.size() / 4; i < token.size(); i += 7) {
    std::string changed = token;
    changed[i] = static_cast<char>(changed[i] ^ 0x10);
    EXPECT_FALSE(acceptor->Accept(changed)) << i;
  }
  EXPECT_TRUE(acceptor->Accept(token));
}

TEST(AnAcceptor, AcceptsATokenOnce) {
  const Service service;
  const auto acceptor = service.Make();
  const std::string token = Token(TicketWithPac());

  const Acceptance first = acceptor->Accept(token);
  const Acceptance second = acceptor->Accept(token);
  const Acceptance by_another = service.Make()->Accept(token);

  EXPECT_TRUE(first);
  EXPECT_EQ(Reason(second), RefusalReason::kReplay);
  EXPECT_EQ(second.refusal->text, "the token was accepted before");
  EXPECT_EQ(Reason(by_another), RefusalReason::kReplay);
}

TEST(AnAcceptor, DoesNotRememberWhatItRefused) {
  Service service;
  const std::string token = Token(Ticket());
  EXPECT_EQ(Reason(service.Make()->Accept(token)), RefusalReason::kPacMissing);
  service.options.require_pac = false;

  const Acceptance result = service.Make()->Accept(token);

  EXPECT_TRUE(result);
}

TEST(AnAcceptor, WithoutProtectionAcceptsATokenAgain) {
  Service service;
  service.options.replay_protection = false;
  service.options.replay_file.clear();
  const auto acceptor = service.Make();
  const std::string token = Token(TicketWithPac());

  EXPECT_TRUE(acceptor->Accept(token));
  EXPECT_TRUE(acceptor->Accept(token));
}

TEST(AnAcceptor, NamesTheKeyThatItDoesNotHave) {
  ForgedTicket ticket = TicketWithPac();
  ticket.kvno = 7;
  ticket.password = "Another.1";

  const Acceptance result = Decision({}, Token(ticket));

  EXPECT_EQ(Reason(result), RefusalReason::kNoKey);
  EXPECT_EQ(result.refusal->key_version, 7U);
  EXPECT_EQ(result.refusal->enctype, kAes256Sha1);
  EXPECT_EQ(result.refusal->service, "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM");
}

TEST(AnAcceptor, OpensATicketWhoseKeyHasAnotherVersionHere) {
  ForgedTicket ticket = TicketWithPac();
  ticket.kvno = 2;  // the keytab says 1

  EXPECT_TRUE(Decision({}, Token(ticket)));
}

TEST(AnAcceptor, IsNotLockedOutByItsKeyUnderAnotherName) {
  Service service;
  ForgedTicket of_another = Ticket();
  of_another.server = {"OTHER$", "x"};
  service.options.keytab = service.settings / "others";
  AddKey(service.options.keytab, of_another);
  AddKey(service.options.keytab, Ticket());

  EXPECT_TRUE(service.Make()->Accept(Token(TicketWithPac())));
}

TEST(AnAcceptor, TakesTheEncryptionTypesThatItMayAlone) {
  ForgedTicket ticket = Ticket();
  ticket.etype = ENCTYPE_ARCFOUR_HMAC;
  const std::string token = Token(WithPac(ticket, PartsOf({})));
  Service service;
  AddKey(service.options.keytab, ticket);

  const Acceptance refused = service.Make()->Accept(token);
  service.options.enctypes.push_back(kRc4);
  const Acceptance accepted = service.Make()->Accept(token);

  EXPECT_EQ(Reason(refused), RefusalReason::kEnctype);
  EXPECT_EQ(refused.refusal->enctype, kRc4);
  EXPECT_TRUE(accepted) << accepted.refusal->text;
}

TEST(AnAcceptor, TakesTheServicesThatItMayAlone) {
  ForgedTicket ticket = Ticket();
  ticket.server = {"HOST", "appliance.corp.example.com"};
  ticket = WithPac(ticket, PartsOf({}));
  const auto decision = [&](std::vector<std::string> services) {
    AcceptorOptions options;
    options.services = std::move(services);
    return Decision(options, Token(ticket));
  };

  EXPECT_EQ(Reason(decision({"HTTP"})), RefusalReason::kWrongService);
  EXPECT_EQ(Reason(decision({"HOST/other.corp.example.com"})), RefusalReason::kWrongService);
  EXPECT_EQ(Reason(decision({"HOS", "HOST/", "HOST/appliance"})), RefusalReason::kWrongService);
  EXPECT_TRUE(decision({"HTTP", "host"}));
  EXPECT_TRUE(decision({"host/Appliance.corp.example.com"}));
  EXPECT_TRUE(decision({"*"}));
}

TEST(AnAcceptor, IsNotDeceivedByASlashInAName) {
  AcceptorOptions options = WithoutPac();
  options.services = {"HTTP/a/b"};
  const auto decision = [&](std::vector<std::string> server) {
    ForgedTicket ticket = Ticket();
    ticket.server = std::move(server);
    return Decision(options, Token(ticket));
  };

  EXPECT_TRUE(decision({"HTTP", "a", "b"}));
  EXPECT_EQ(Reason(decision({"HTTP/a", "b"})), RefusalReason::kWrongService);
  EXPECT_EQ(Reason(decision({"HTTP", "a/b"})), RefusalReason::kWrongService);
}

TEST(AnAcceptor, TakesServicesOfItsOwnRealmAlone) {
  ForgedTicket ticket = Ticket();
  ticket.server_realm = "OTHER.EXAMPLE.COM";

  EXPECT_EQ(Reason(Decision({}, Token(WithPac(ticket, PartsOf({}))))),
            RefusalReason::kWrongService);
}

struct Timing {
  int start, end, sent;  // seconds from now
  RefusalReason reason;
  std::int64_t seconds;
};

// Some seconds pass between now and the decision.
class ATicketOf : public testing::TestWithParam<Timing> {};

TEST_P(ATicketOf, AnotherTimeIsRefusedAndSaysByHowMuch) {
  const auto now = static_cast<krb5_timestamp>(std::time(nullptr));
  ForgedTicket ticket = Ticket();
  ticket.authtime = now - 10 * kHour;
  ticket.starttime = now + GetParam().start;
  ticket.endtime = now + GetParam().end;
  ticket.sent_at = now + GetParam().sent;

  const Acceptance result = Decision(WithoutPac(), Token(ticket));

  EXPECT_EQ(Reason(result), GetParam().reason);
  EXPECT_NEAR(static_cast<double>(result.refusal->seconds), static_cast<double>(GetParam().seconds),
              20);
}

INSTANTIATE_TEST_SUITE_P(
    , ATicketOf,
    testing::Values(Timing{-2 * kHour, -kHour, 0, RefusalReason::kExpired, kHour},
                    Timing{kHour, 2 * kHour, 0, RefusalReason::kNotYetValid, kHour},
                    Timing{-kHour, kHour, 400, RefusalReason::kClock, 400},
                    Timing{-kHour, kHour, -400, RefusalReason::kClock, -400},
                    Timing{-kHour, kHour, 40000, RefusalReason::kClock, 40000}));

TEST(AnAcceptor, ToleratesTheClocksThatItIsTold) {
  ForgedTicket ticket = Ticket();
  ticket.sent_at = static_cast<krb5_timestamp>(std::time(nullptr)) - 100;
  AcceptorOptions options = WithoutPac();
  EXPECT_TRUE(Decision(options, Token(ticket)));
  options.clock_tolerance = 60;
  EXPECT_EQ(Reason(Decision(options, Token(ticket))), RefusalReason::kClock);
  options.clock_tolerance = 86400;
  ticket.sent_at = *ticket.sent_at - 80000;
  EXPECT_TRUE(Decision(options, Token(ticket)));
}

TEST(AnAcceptor, RefusesATicketThatIsMarkedInvalid) {
  ForgedTicket ticket = TicketWithPac();
  ticket.flags |= TKT_FLG_INVALID;

  EXPECT_EQ(Reason(Decision({}, Token(ticket))), RefusalReason::kNotYetValid);
}

TEST(AnAcceptor, RefusesARequestOfAnotherTicket) {
  const std::string mine = Token(TicketWithPac());
  std::string other = Token(TicketWithPac());
  while (other.size() != mine.size())  // some of its numbers are random, and so are their lengths
    other = Token(TicketWithPac());
  // The authenticator of the one with the ticket of the other.
  const std::string mixed = mine.substr(0, mine.size() - 100) + other.substr(other.size() - 100);

  EXPECT_EQ(Reason(Decision({}, mixed)), RefusalReason::kNotGenuine);
}

TEST(AnAcceptor, NeedsTheChecksumOfGssApi) {
  ForgedTicket ticket = Ticket();
  ticket.gss_checksum.reset();
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);
  ticket.gss_checksum = GssChecksum().substr(0, 23);
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);
  ticket.gss_checksum = "\x11" + GssChecksum().substr(1);
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);
  ticket.gss_checksum = GssChecksum("", 0x1000);
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);
  ticket.gss_checksum = GssChecksum("", 1);  // delegates, but nothing
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);
  const std::string delegates = *ticket.gss_checksum;
  ticket.gss_checksum = delegates + NdrWriter().Put16(1).Put16(1).Bytes();
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);
  ticket.gss_checksum = delegates + NdrWriter().Put16(1).Put16(0).Bytes();
  EXPECT_TRUE(Decision(WithoutPac(), Token(ticket)));
}

TEST(AnAcceptor, ThatSealsNothingTakesNoTicketOfASessionKey) {
  ForgedTicket ticket = TicketWithPac();
  ticket.options = AP_OPTS_USE_SESSION_KEY;

  EXPECT_EQ(Reason(Decision({}, Token(ticket))), RefusalReason::kMalformed);
}

// Channels, and what the client's token says of them.
TEST(AnAcceptor, ChecksTheChannelAsItIsTold) {
  const std::string ours = "tls-server-end-point:ours";
  const auto decision = [&](ChannelBinding policy, const std::string& bound_to,
                            const std::string& channel) {
    AcceptorOptions options = WithoutPac();
    options.channel_binding = policy;
    ForgedTicket ticket = Ticket();
    ticket.gss_checksum = GssChecksum(bound_to);
    return Decision(options, Token(ticket), channel);
  };
  using Policy = ChannelBinding;

  EXPECT_TRUE(decision(Policy::kOff, "another", ours));
  EXPECT_TRUE(decision(Policy::kCheckedIfOffered, "", ours));
  EXPECT_TRUE(decision(Policy::kCheckedIfOffered, "another", ""));
  EXPECT_EQ(Reason(decision(Policy::kCheckedIfOffered, "another", ours)),
            RefusalReason::kChannelBindingWrong);
  EXPECT_EQ(Reason(decision(Policy::kRequired, "another", ours)),
            RefusalReason::kChannelBindingWrong);
  EXPECT_EQ(Reason(decision(Policy::kRequired, "", ours)), RefusalReason::kChannelBindingMissing);
  EXPECT_EQ(Reason(decision(Policy::kRequired, ours, "")), RefusalReason::kChannelBindingMissing);
  for (const Policy policy : {Policy::kCheckedIfOffered, Policy::kRequired}) {
    const Acceptance bound = decision(policy, ours, ours);
    ASSERT_TRUE(bound) << bound.refusal->text;
    EXPECT_TRUE(bound.identity->channel_bound);
  }
}

TEST(AnAcceptor, NeedsAPacUnlessToldOtherwise) {
  EXPECT_EQ(Reason(Decision({}, Token(Ticket()))), RefusalReason::kPacMissing);
  const Acceptance without = Decision(WithoutPac(), Token(Ticket()));
  ASSERT_TRUE(without);
  EXPECT_FALSE(without.identity->authorization);
  EXPECT_FALSE(without.identity->IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-1110")));
  EXPECT_FALSE(without.identity->IsOfDomain(*Sid::FromText("S-1-5-21-1-2-3")));
}

TEST(AnAcceptor, RefusesAPacThatIsNotOfThisTicket) {
  const PacParts parts = PartsOf({});
  const auto decision = [&](ForgedTicket signed_for, PacParts of = {}) {
    ForgedTicket ticket = Ticket();
    ticket.authorization_data =
        AuthorizationData(128, SignedPac(signed_for, of.empty() ? parts : of));
    return Decision({}, Token(ticket));
  };
  ForgedTicket of_another = Ticket();
  of_another.client = {"bob"};
  ForgedTicket by_another = Ticket();
  by_another.password = "Another.1";
  ForgedTicket of_another_time = Ticket();
  of_another_time.authtime -= kHour;
  PacParts of_another_asker = parts;
  of_another_asker.back().second = Sid::FromText("S-1-5-21-1-2-3-1106")->ToBytes();

  PacParts of_no_asker = parts;
  of_no_asker.back().second.clear();

  PacParts twice = parts;
  twice.push_back(parts[0]);
  EXPECT_EQ(decision(Ticket(), twice).refusal.value().text,
            "the ticket's PAC: it has two parts of one kind");
  EXPECT_TRUE(decision(Ticket()));
  EXPECT_EQ(Reason(decision(Ticket(), of_no_asker)), RefusalReason::kPacWrong);
  EXPECT_EQ(Reason(decision(of_another)), RefusalReason::kPacWrong);
  EXPECT_EQ(Reason(decision(by_another)), RefusalReason::kPacWrong);
  EXPECT_EQ(Reason(decision(of_another_time)), RefusalReason::kPacWrong);
  EXPECT_EQ(Reason(decision(Ticket(), of_another_asker)), RefusalReason::kPacWrong);
  EXPECT_EQ(Reason(decision(Ticket(), {{1, ValidationInfo({}).substr(0, 100)}})),
            RefusalReason::kPacWrong);
  EXPECT_EQ(Reason(decision(Ticket(), {{12, parts[1].second}})), RefusalReason::kPacWrong);
}

// Where the bytes of the controller's own signature stand in a PAC: with its key, which no service
// has, it signs the service's signature ([MS-PAC] 2.8).
std::pair<std::size_t, std::size_t> ControllersSignature(const std::string& pac) {
  const auto number = [&](std::size_t at) {
    return static_cast<unsigned char>(pac[at]) + 256U * static_cast<unsigned char>(pac[at + 1]);
  };
  std::size_t entry = 8;
  while (number(entry) != KRB5_PAC_PRIVSVR_CHECKSUM) {
    entry += 16;
  }
  const std::size_t begin = number(entry + 8);
  return {begin + 4, begin + number(entry + 4)};  // behind its type
}

TEST(AnAcceptor, RefusesAPacWithOneBitWrongEverywhereButInTheControllersSignature) {
  ForgedTicket ticket = Ticket();
  const std::string pac = SignedPac(ticket, PartsOf({}));
  const auto [begin, end] = ControllersSignature(pac);
  Service service;
  service.options.replay_protection = false;
  const auto acceptor = service.Make();
  for (std::size_t i = 0; i < pac.size(); i += 9) {
    std::string changed = pac;
    changed[i] = static_cast<char>(changed[i] ^ 0x04);
    ticket.authorization_data = AuthorizationData(128, changed);

    const Acceptance result = acceptor->Accept(Token(ticket));

    ASSERT_EQ(result.identity.has_value(), i >= begin && i < end) << i;
    ASSERT_TRUE(result.identity || Reason(result) == RefusalReason::kPacWrong) << i;
  }
}

TEST(AnAcceptor, AnswersAClientThatAsksForIt) {
  ForgedTicket ticket = TicketWithPac();
  const Acceptance bare = Decision({}, Token(ticket));
  const Acceptance negotiated = Decision({}, Negotiated(ticket));
  ticket.options = AP_OPTS_MUTUAL_REQUIRED;
  const Acceptance mutual = Decision({}, Token(ticket));
  const Acceptance both = Decision({}, Negotiated(ticket, {kMicrosoftKerberosOid, kKerberosOid}));

  EXPECT_EQ(bare.reply, "");
  EXPECT_EQ(negotiated.reply,
            std::string("\xa1\x14\x30\x12\xa0\x03\x0a\x01\x00\xa1\x0b\x06\x09", 13) + kKerberosOid);
  EXPECT_THAT(mutual.reply, StartsWith("\x60"));
  EXPECT_THAT(mutual.reply, HasSubstr(kKerberosOid + std::string("\x02\x00\x6f", 3)));
  EXPECT_THAT(both.reply, StartsWith("\xa1"));
  EXPECT_THAT(both.reply, HasSubstr(kMicrosoftKerberosOid));
  EXPECT_THAT(both.reply, HasSubstr(kKerberosOid + std::string("\x02\x00\x6f", 3)));
}

TEST(AnAcceptor, LogsOneCleanLineForWhateverComes) {
  ForgedTicket ticket = Ticket();
  ticket.client = {"a\nb\x1b[2J" + std::string(300, 'x')};
  const std::string accepted = Token(ticket);
  ticket.server = {"evil\r\n\"\\\x7f" + std::string(300, 'y')};
  const auto acceptor = Service(WithoutPac()).Make();
  LogCapture log;

  acceptor->Accept(accepted);
  acceptor->Accept(Token(ticket));
  acceptor->Accept("nonsense");

  EXPECT_THAT(
      log.Lines(),
      ElementsAre("2 krb-acceptor Accept: Accepted a?b?[2J" + std::string(73, 'x') +
                      "... for HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM",
                  "3 krb-acceptor Accept: Refused a token: a ticket for another service for "
                  "evil?????" +
                      std::string(71, 'y') + "...",
                  "3 krb-acceptor Accept: Refused a token: neither SPNEGO nor Kerberos by "
                  "the letter"));
}

TEST(AnAcceptor, ServesThreads) {
  Service service;
  const auto acceptor = service.Make();
  std::vector<std::string> tokens;
  for (int i = 0; i < 40; ++i)
    tokens.push_back(Negotiated(TicketWithPac()));
  std::vector<std::atomic<int>> accepted(tokens.size());

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (std::size_t i = 0; i < tokens.size(); ++i)
        accepted[i] += acceptor->Accept(tokens[i]) ? 1 : 0;
    });
  }
  for (std::thread& thread : threads)
    thread.join();

  int once = 0;
  for (const auto& count : accepted) {
    EXPECT_LE(count, 1);
    once += count;
  }
  EXPECT_GT(once, 0);
}

TEST(AnAcceptor, IsNotMadeOfWhatCannotWork) {
  const auto error = [](const std::function<void(Service&)>& change) {
    Service service;
    change(service);
    std::string text;
    EXPECT_EQ(Acceptor::Make(service.options, &text), nullptr);
    return text;
  };
  const Service paths;

  EXPECT_EQ(error([](Service& s) { s.options.keytab.clear(); }), "no keytab is named");
  EXPECT_THAT(error([](Service& s) { s.options.keytab += ".none"; }),
              MatchesRegex("keytab /.*\\.none: Key table file .* not found"));
  EXPECT_THAT(error([](Service& s) { std::ofstream(s.options.keytab) << "nonsense"; }),
              StartsWith("keytab "));
  EXPECT_THAT(error([](Service& s) { s.options.principal = "other/name"; }),
              HasSubstr(": no key that counts"));
  EXPECT_THAT(error([](Service& s) { s.options.realm = "OTHER"; }),
              HasSubstr(": no key that counts"));
  EXPECT_EQ(error([](Service& s) { s.options.services.clear(); }), "no service is allowed");
  EXPECT_EQ(error([](Service& s) { s.options.enctypes.clear(); }), "no encryption type is allowed");
  EXPECT_EQ(error([](Service& s) { s.options.clock_tolerance = -1; }),
            "the clock tolerance is not 0 to 86400 seconds");
  EXPECT_EQ(error([](Service& s) { s.options.clock_tolerance = 86401; }),
            "the clock tolerance is not 0 to 86400 seconds");
  EXPECT_EQ(error([](Service& s) { s.options.replay_file.clear(); }), "no replay file is named");
  EXPECT_THAT(error([](Service& s) { s.options.replay_file += "/none/x"; }),
              HasSubstr("replay file "));
}

// So far off that the Kerberos library says it.
TEST(AnAcceptor, RefusesTimesThatAreYearsOff) {
  constexpr krb5_timestamp kElevenYears = 11 * 366 * 24 * kHour;
  ForgedTicket over = Ticket();
  over.authtime = over.starttime = over.authtime - kElevenYears - kHour;
  over.endtime -= kElevenYears;
  ForgedTicket early = Ticket();
  early.starttime += kElevenYears;
  early.endtime += kElevenYears;
  ForgedTicket wrong_clock = Ticket();
  wrong_clock.sent_at = wrong_clock.authtime - kElevenYears;

  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(over))), RefusalReason::kExpired);
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(early))), RefusalReason::kNotYetValid);
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(wrong_clock))), RefusalReason::kClock);
}

TEST(AnAcceptor, RefusesATicketWithTwoPacs) {
  ForgedTicket ticket = TicketWithPac();
  std::string_view pac;
  const std::string one = ticket.authorization_data;
  ASSERT_TRUE(der::Reader(one).Take(der::kSequence, pac));
  ticket.authorization_data = der::Value(der::kSequence, std::string(pac).append(pac));

  const Acceptance result = Decision({}, Token(ticket));

  EXPECT_EQ(Reason(result), RefusalReason::kPacWrong);
  EXPECT_EQ(result.refusal->text, "the ticket has two PACs");
}

TEST(AnAcceptor, RefusesATicketOfNobody) {
  ForgedTicket ticket = Ticket();
  ticket.client = {};
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);

  ticket.client = {"WELLKNOWN", "ANONYMOUS"};  // RFC 8062
  ticket.flags |= TKT_FLG_ANONYMOUS;
  EXPECT_EQ(Reason(Decision(WithoutPac(), Token(ticket))), RefusalReason::kMalformed);
}

// A flood of tokens made later than this one made the replay file forget.
TEST(AnAcceptor, RefusesATokenThatItMayHaveForgotten) {
  const Service service;
  const auto acceptor = service.Make();
  std::string error;
  const auto flood =
      ReplayCache::Open(service.options.replay_file, service.options.replay_capacity, error);
  ASSERT_TRUE(flood) << error;
  const auto later = static_cast<std::uint32_t>(std::time(nullptr)) + 200;
  for (int i = 0; i < 40000; ++i)
    flood->Remember(std::to_string(i), later);

  const Acceptance result = acceptor->Accept(Token(TicketWithPac()));

  EXPECT_EQ(Reason(result), RefusalReason::kReplay);
  EXPECT_EQ(result.refusal->text, "the token may have been accepted before");
}

TEST(AnAcceptor, TakesCredentialsThatAreDelegatedWhole) {
  const auto decision = [](const std::string& delegated) {
    ForgedTicket ticket = Ticket();
    ticket.gss_checksum = GssChecksum("", 1) + delegated;
    return Decision(WithoutPac(), Token(ticket));
  };

  EXPECT_TRUE(decision(std::string("\1\0\3\0abc", 7)));
  EXPECT_EQ(Reason(decision(std::string("\1\0\4\0abc", 7))), RefusalReason::kMalformed);
  EXPECT_EQ(Reason(decision(std::string("\2\0\3\0abc", 7))), RefusalReason::kMalformed);
}

TEST(AnAcceptor, ReadsWhatElseTheSettingsSay) {
  const Service service(WithoutPac());
  std::ofstream(service.settings / "krb5.conf")
      << "[libdefaults]\ndns_canonicalize_hostname = false\nclockskew = 1\n";

  EXPECT_TRUE(service.Make()->Accept(Token(Ticket())));
}

TEST(ARefusal, HasANameForItsReason) {
  std::vector<std::string> names;
  for (int i = 0; i <= static_cast<int>(RefusalReason::kInternal); ++i)
    names.emplace_back(Name(static_cast<RefusalReason>(i)));

  EXPECT_THAT(names,
              ElementsAre("no-token", "ntlm", "not-kerberos", "malformed", "no-key", "enctype",
                          "wrong-service", "not-genuine", "expired", "not-yet-valid", "clock",
                          "replay", "channel-binding-missing", "channel-binding-wrong",
                          "pac-missing", "pac-wrong", "unfinished", "internal"));
}

TEST(ARefusal, SaysWhatIsWrong) {
  AcceptorOptions options = WithoutPac();
  const auto of_token = [&](const std::string& token, const std::string& channel = "") {
    return Decision(options, token, channel).refusal.value().text;
  };
  const auto text = [&](const std::function<void(ForgedToken&)>& change) {
    ForgedToken token;
    change(token);
    return of_token(token.Bytes());
  };
  const std::string ours = "tls-server-end-point:ours";

  EXPECT_EQ(of_token(""), "no token");
  EXPECT_EQ(of_token("NTLMSSP" + std::string(5, '\0')),
            "the client sent NTLM: it has no ticket for this name");
  EXPECT_EQ(of_token(Negotiated(Ticket(), {"\x2a\x03"})), "a token of another mechanism");
  EXPECT_EQ(of_token("x"), "neither SPNEGO nor Kerberos by the letter");
  const std::vector<char> of_no_request = tavrel::tests::GssToken({'x'});
  EXPECT_EQ(of_token({of_no_request.begin(), of_no_request.end()}),
            "no Kerberos request by the letter");
  EXPECT_EQ(text([](ForgedToken& token) { token.ticket.server = {}; }),
            "a ticket for another service");
  EXPECT_EQ(text([](ForgedToken& token) { token.ticket.server_realm = "OTHER"; }),
            "a ticket for a service of another realm");
  EXPECT_EQ(text([](ForgedToken& token) { token.ticket.options = AP_OPTS_USE_SESSION_KEY; }),
            "the ticket is sealed with a session key");
  EXPECT_EQ(text([](ForgedToken& token) { token.ticket.etype = kRc4; }),
            "the ticket's encryption type is not allowed");
  EXPECT_EQ(text([](ForgedToken& token) { token.ticket.etype = kAes128Sha1; }),
            "no key opens the ticket");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket.erase(2); }),
            "the ticket is not by the letter");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket[0] = BitString(TKT_FLG_INVALID); }),
            "the ticket is marked invalid");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket[0] = BitString(TKT_FLG_ANONYMOUS); }),
            "the ticket names no client");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket[1] = KeyField(kRc4, 16); }),
            "the session key's encryption type is not allowed");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket[1] = KeyField(kAes256Sha1, 16); }),
            "the session key is not as long as its type is");
  EXPECT_EQ(text([](ForgedToken& token) { token.session_enctype = kAes128Sha1; }),
            "the authenticator is not sealed with the ticket's session key");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_authenticator.erase(5); }),
            "the authenticator is not by the letter");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_authenticator[1] = token.of_authenticator[0]; }),
            "the authenticator is not by the letter");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_authenticator[1] = Der(0x1b, "OTHER"); }),
            "ticket and authenticator name two clients");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_authenticator[6] = KeyField(kAes256Sha1, 16); }),
            "the subkey is not as long as its type is");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_authenticator.erase(3); }),
            "a request without GSS-API's checksum");
  EXPECT_EQ(text([](ForgedToken& token) {
              token.of_authenticator[3] = TypedField(0x8003, GssChecksum("", 0x1000));
            }),
            "the client wants a third message (DCE style)");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket[7] = Time(1000000000); }),
            "the ticket is over");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket[6] = token.of_ticket[7]; }),
            "the ticket has not begun");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_authenticator[5] = token.of_ticket[7]; }),
            "the client's clock is too far off");
  EXPECT_EQ(
      text([](ForgedToken& token) { token.of_authenticator[8] = Der(0x30, TypedField(7, "x")); }),
      "authorization data that has to be understood");
  options.require_pac = true;
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket.erase(10); }), "the ticket has no PAC");
  EXPECT_EQ(text([](ForgedToken& token) { token.of_ticket[10] = AuthorizationData(128, "x"); }),
            "the ticket's PAC: it cannot be parsed");
  EXPECT_EQ(
      text([](ForgedToken& token) { token.of_ticket[5] = token.of_ticket[6] = Time(1000000000); }),
      "the ticket's PAC: it is not this client's, or not signed with the service's key");
  options.channel_binding = ChannelBinding::kRequired;
  EXPECT_EQ(of_token(ForgedToken().Bytes()),
            "the channel that the token came through is not known");
  EXPECT_EQ(of_token(ForgedToken().Bytes(), ours), "the client bound its token to no channel");
  ForgedToken relayed;
  relayed.of_authenticator[3] = TypedField(0x8003, GssChecksum("theirs"));
  EXPECT_EQ(of_token(relayed.Bytes(), ours), "the token was made for another channel");
}

TEST(AnAcceptor, SetsTheKerberosLibraryUpOnceForAThread) {
  const Service service;
  const auto acceptor = service.Make();
  const std::string tokens[] = {Token(TicketWithPac()), Token(TicketWithPac())};
  std::ofstream(service.settings / "krb5.conf") << "[libdefaults\n";

  EXPECT_TRUE(acceptor->Accept(tokens[0]));
  EXPECT_TRUE(acceptor->Accept(tokens[1]));
}

TEST(AnAcceptor, NamesTheSettingsThatTheKerberosLibraryCannotRead) {
  const Service service;
  std::ofstream(service.settings / "krb5.conf") << "[libdefaults\n";
  std::string error;

  EXPECT_EQ(Acceptor::Make(service.options, &error), nullptr);
  EXPECT_THAT(error, StartsWith("Kerberos settings " + service.settings / "krb5.conf" + ": "));
}

}  // namespace
}  // namespace tavrel::plus::tests
