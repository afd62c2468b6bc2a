#include "tavrel/plus/Acceptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "LogCapture.h"
#include "Service.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::ForgedTicket;
using tavrel::tests::LogCapture;
using testing::ElementsAre;

TEST(AnAcceptor, SaysWhoSignsIn) {
  const Service service;
  const auto acceptor = service.Make();
  const ForgedTicket ticket = TicketWithPac();
  LogCapture log;

  const Acceptance result = acceptor->Accept(Negotiated(ticket));

  ASSERT_TRUE(result) << result.refusal->text;
  EXPECT_FALSE(result.refusal);
  EXPECT_EQ(result.identity->RealmAndName(), "CORP.EXAMPLE.COM\\alice");
  EXPECT_EQ(result.identity->service.Text(), "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM");
  EXPECT_EQ(result.identity->end_time, ticket.endtime);
  EXPECT_EQ(result.identity->ticket_enctype, kAes256Sha1);
  ASSERT_TRUE(result.identity->authorization);
  EXPECT_EQ(result.identity->authorization->user.ToText(), "S-1-5-21-1-2-3-1105");
  EXPECT_TRUE(result.identity->IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-1110")));
  EXPECT_FALSE(result.identity->IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-512")));
  EXPECT_THAT(log.Lines(), ElementsAre("2 krb-acceptor Accept: Accepted alice@CORP.EXAMPLE.COM for "
                                       "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM"));
}

TEST(AnAcceptor, AcceptsATokenOnce) {
  const Service service;
  const auto acceptor = service.Make();
  const std::string token = Token(TicketWithPac());

  const Acceptance first = acceptor->Accept(token);
  const Acceptance second = acceptor->Accept(token);

  EXPECT_TRUE(first);
  ASSERT_FALSE(second);
  EXPECT_EQ(second.refusal->reason, RefusalReason::kReplay);
}

}  // namespace
}  // namespace tavrel::plus::tests
