#include "KnownTickets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Interpose.h"
#include "Service.h"

namespace {
std::atomic<int> pacs_read = 0;
}

extern "C" krb5_error_code krb5_pac_parse(krb5_context context, const void* bytes, std::size_t size,
                                          krb5_pac* pac) {
  static const auto real =
      reinterpret_cast<decltype(&krb5_pac_parse)>(tavrel::tests::RealSymbol("krb5_pac_parse"));
  ++pacs_read;
  return real(context, bytes, size, pac);
}

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::Der;
using tavrel::tests::ForgedTicket;
using tavrel::tests::Issued;
using testing::Optional;

constexpr char kChannel[] = "tls-server-end-point:ours";

// How often a PAC is read for these tokens, of which the first one is accepted.
int PacsReadFor(const Acceptor& acceptor, const std::vector<std::string>& tokens) {
  pacs_read = 0;
  EXPECT_TRUE(acceptor.Accept(tokens.front()));
  for (std::size_t i = 1; i < tokens.size(); ++i)
    acceptor.Accept(tokens[i]);
  return pacs_read;
}

TEST(AKnownTicket, SaysTheSameAgain) {
  const Service service;
  const auto acceptor = service.Make();
  ForgedTicket ticket = Issued(TicketWithPac());
  ticket.options = AP_OPTS_MUTUAL_REQUIRED;
  pacs_read = 0;

  const Acceptance first = acceptor->Accept(Negotiated(ticket));
  const Acceptance second = acceptor->Accept(Negotiated(ticket));

  ASSERT_TRUE(first) << first.refusal->text;
  ASSERT_TRUE(second) << second.refusal->text;
  EXPECT_EQ(pacs_read, 1);
  EXPECT_EQ(second.reply.size(), first.reply.size());
  const Identity& known = *second.identity;
  EXPECT_EQ(known.client.Text(), "alice@CORP.EXAMPLE.COM");
  EXPECT_EQ(known.service.Text(), first.identity->service.Text());
  EXPECT_EQ(known.auth_time, ticket.authtime);
  EXPECT_EQ(known.end_time, ticket.endtime);
  EXPECT_EQ(known.session_enctype, kAes256Sha1);
  EXPECT_EQ(known.ticket_flags, static_cast<std::uint32_t>(ticket.flags));
  EXPECT_EQ(known.authorization->upn, first.identity->authorization->upn);
  EXPECT_EQ(known.authorization->groups.size(), first.identity->authorization->groups.size());
  EXPECT_TRUE(known.IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-1110")));
  EXPECT_FALSE(known.IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-512")));
}

TEST(AKnownTicket, LetsNobodyInWhoseTokenIsWrong) {
  const Service service;
  const auto acceptor = service.Make();
  ForgedTicket right = Issued(TicketWithPac());
  right.gss_checksum = GssChecksum(kChannel);
  const auto reason = [&](const std::string& token) {
    const Acceptance result = acceptor->Accept(token, kChannel);
    return result ? std::nullopt : std::optional(result.refusal->reason);
  };
  const std::string accepted = Token(right);
  ForgedTicket without_its_key = right;
  without_its_key.session.assign(32, 'x');
  ForgedTicket of_another = right;
  of_another.client = {"bob"};
  ForgedTicket late = right;
  late.sent_at = static_cast<krb5_timestamp>(std::time(nullptr)) - 600;
  ForgedTicket relayed = right;
  relayed.gss_checksum = GssChecksum("theirs");
  pacs_read = 0;

  EXPECT_EQ(reason(accepted), std::nullopt);
  EXPECT_THAT(reason(accepted), Optional(RefusalReason::kReplay));
  EXPECT_THAT(reason(Token(without_its_key)), Optional(RefusalReason::kNotGenuine));
  EXPECT_THAT(reason(Token(of_another)), Optional(RefusalReason::kNotGenuine));
  EXPECT_THAT(reason(Token(late)), Optional(RefusalReason::kClock));
  EXPECT_THAT(reason(Token(relayed)), Optional(RefusalReason::kChannelBindingWrong));
  EXPECT_EQ(reason(Token(right)), std::nullopt);
  EXPECT_EQ(pacs_read, 1);
}

// What else a token brings is judged as with a ticket that nobody knows.
TEST(AKnownTicket, IsNoMoreThanATicket) {
  Service service;
  service.options.replay_protection = false;
  const auto knowing = service.Make();
  service.options.ticket_memory = 0;
  const auto opening = service.Make();
  ForgedTicket ticket = Ticket();
  ticket.client_realm = "SUB.EAST.CORP.EXAMPLE.COM";
  ForgedToken token(WithPac(ticket, PartsOf({})));
  token.of_ticket[4] = TypedField(1, "EAST.CORP.EXAMPLE.COM");
  token.Issue();
  const auto verdict = [&](const std::function<void(ForgedToken&)>& change) {
    ForgedToken changed = token;
    change(changed);
    const std::string bytes = changed.Bytes();
    const Acceptance known = knowing->Accept(bytes);
    const Acceptance opened = opening->Accept(bytes);
    if (!known || !opened) {
      EXPECT_EQ(known.refusal.value().text, opened.refusal.value().text);
      return known.refusal->text;
    }
    EXPECT_EQ(known.identity->client.Text(), opened.identity->client.Text());
    EXPECT_EQ(known.identity->start_time, opened.identity->start_time);
    EXPECT_EQ(known.identity->ticket_enctype, opened.identity->ticket_enctype);
    EXPECT_EQ(known.identity->session_enctype, opened.identity->session_enctype);
    EXPECT_EQ(known.identity->gss_flags, opened.identity->gss_flags);
    return known.identity->client.Text();
  };
  const std::string alice = "alice@SUB.EAST.CORP.EXAMPLE.COM";

  EXPECT_EQ(verdict([](ForgedToken&) {}), alice);
  EXPECT_EQ(verdict([](ForgedToken& t) {
              t.of_authenticator[3] = TypedField(0x8003, GssChecksum("", 2));
              t.of_authenticator[6] = KeyField(kAes128Sha1, 16);
              t.ticket.options = AP_OPTS_MUTUAL_REQUIRED;
            }),
            alice);
  EXPECT_EQ(verdict([](ForgedToken& t) { t.of_authenticator[6] = KeyField(kRc4, 16); }),
            "the session key's encryption type is not allowed");
  EXPECT_EQ(verdict([](ForgedToken& t) { t.of_authenticator[8] = Der(0x30, TypedField(7, "x")); }),
            "authorization data that has to be understood");
  EXPECT_EQ(verdict([](ForgedToken& t) { t.session_enctype = kAes128Sha1; }),
            "the authenticator is not sealed with the ticket's session key");
  EXPECT_EQ(verdict([](ForgedToken& t) {
              t.ticket.server = {"HOST", "a"};
            }),
            "a ticket for another service");
  EXPECT_EQ(verdict([](ForgedToken& t) { t.ticket.server_realm = "OTHER"; }),
            "a ticket for a service of another realm");
  EXPECT_EQ(verdict([](ForgedToken& t) { t.ticket.etype = kAes128Sha1; }),
            "no key opens the ticket");
  EXPECT_EQ(verdict([](ForgedToken&) {}), alice);
}

TEST(AKnownTicket, IsOverAtItsEnd) {
  Service service;
  service.options.replay_protection = false;  // its small file would be full first
  const auto acceptor = service.Make();
  ForgedTicket ticket = TicketWithPac();
  ticket.starttime = ticket.authtime - 3600;
  ticket.endtime =
      static_cast<krb5_timestamp>(std::time(nullptr)) - service.options.clock_tolerance + 3;
  ticket = Issued(ticket);
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  pacs_read = 0;

  Acceptance result = acceptor->Accept(Token(ticket));
  EXPECT_TRUE(result);
  while (result && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    result = acceptor->Accept(Token(ticket));
  }

  ASSERT_FALSE(result);
  EXPECT_EQ(result.refusal->reason, RefusalReason::kExpired);
  EXPECT_EQ(pacs_read, 1);
}

// Nothing protects the name of the service and the version of the key, which stand in it.
TEST(AKnownTicket, IsTheWholeTicket) {
  Service service;
  service.options.services = {"*"};
  const auto acceptor = service.Make();
  ForgedToken token;
  token.Issue();
  pacs_read = 0;
  EXPECT_TRUE(acceptor->Accept(token.Bytes()));
  token.ticket.server = {"HOST", "x"};
  const Acceptance of_another_service = acceptor->Accept(token.Bytes());
  token.ticket.kvno = 2;

  EXPECT_TRUE(acceptor->Accept(token.Bytes()));
  ASSERT_TRUE(of_another_service) << of_another_service.refusal->text;
  EXPECT_EQ(of_another_service.identity->service.components.front(), "HOST");
  EXPECT_EQ(pacs_read, 3);
}

TEST(AKnownTicket, IsOneThatSomebodySignedInWith) {
  const Service service;
  const auto acceptor = service.Make();
  const ForgedTicket ticket = Issued(TicketWithPac());
  ForgedTicket stolen = ticket;
  stolen.session.assign(32, 'x');
  pacs_read = 0;
  EXPECT_FALSE(acceptor->Accept(Token(stolen)));

  EXPECT_EQ(PacsReadFor(*acceptor, {Token(ticket)}), 1);
}

TEST(AKnownTicket, TakesNoMoreMemoryThanItMay) {
  Service service;
  const ForgedTicket ticket = Issued(TicketWithPac());
  const auto token = [&] { return Token(ticket); };

  EXPECT_EQ(PacsReadFor(*service.Make(), {token(), token(), token()}), 1);
  service.options.ticket_memory = 0;
  EXPECT_EQ(PacsReadFor(*service.Make(), {token(), token(), token()}), 3);
}

class Known : public testing::Test {
 protected:
  void Keep(const std::string& ticket, std::size_t groups = 0,
            std::shared_ptr<const KeyRing> by = nullptr) {
    OpenedTicket opened;
    opened.bytes = Secret(std::size_t{1000});
    opened.part.flags = static_cast<std::uint32_t>(ticket.front());
    if (groups != 0) opened.authorization.emplace().extra_sids.resize(groups);
    tickets.Keep(by ? by : ring, ticket, std::move(opened));
  }
  // Those that are known; the last one is then the one used last.
  std::string Names(const std::string& of = "abcd") {
    std::string names;
    for (const char name : of) {
      const OpenedTicket* const found = tickets.Find(ring, Ticket(name));
      if (found != nullptr) names += static_cast<char>(found->part.flags);
    }
    return names;
  }
  static std::string Ticket(char name) { return std::string(1000, name); }

  std::shared_ptr<const KeyRing> ring = std::make_shared<KeyRing>();
  KnownTickets tickets{std::size_t{17000}};  // room for three
};

TEST_F(Known, TicketsAreThoseUsedLast) {
  EXPECT_EQ(Names(), "");
  for (const char name : {'a', 'b', 'c'})
    Keep(Ticket(name));
  EXPECT_EQ(Names("bca"), "bca");

  Keep(Ticket('d'));
  EXPECT_EQ(Names("abcd"), "acd") << "b was used first";

  Keep(Ticket('b'), 60);
  EXPECT_EQ(Names(), "bd") << "groups take memory as well";

  Keep(Ticket('a'), 1000);
  EXPECT_EQ(Names(), "bd") << "it would not fit at all";
}

TEST_F(Known, TicketsAreThoseOfOneRing) {
  Names();
  Keep(Ticket('a'));
  Keep(Ticket('b'), 0, std::make_shared<KeyRing>());
  EXPECT_EQ(Names(), "a");

  ring = std::make_shared<KeyRing>();
  EXPECT_EQ(Names(), "");
  for (const char name : {'b', 'c', 'd'})
    Keep(Ticket(name));
  EXPECT_EQ(Names(), "bcd") << "what was forgotten takes no memory";
}

}  // namespace
}  // namespace tavrel::plus::tests
