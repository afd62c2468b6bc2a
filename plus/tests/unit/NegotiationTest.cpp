// Negotiations that take several tokens, with the system's GSS-API library as client.
#include <gmock/gmock.h>
#include <gssapi/gssapi.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Der.h"
#include "GssMic.h"
#include "KeyRing.h"
#include "LogCapture.h"
#include "Service.h"
#include "Spnego.h"
#include "TicketHolder.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::ForgedTicket;
using tavrel::tests::kKerberosOid;
using tavrel::tests::kNtlmOid;
using tavrel::tests::kSpnegoOid;
using tavrel::tests::LogCapture;
using testing::AnyOf;
using testing::ElementsAre;
using testing::StartsWith;

RefusalReason Reason(const Acceptance& result) {
  EXPECT_FALSE(result.identity);
  return result.refusal.value().reason;
}

std::string Field(unsigned number, unsigned char tag, const std::string& content) {
  return der::Value(der::Context(number), der::Value(tag, content));
}

std::string List(const std::vector<std::string>& mechanisms) {
  std::string list;
  for (const std::string& mechanism : mechanisms)
    list += der::Value(der::kObjectIdentifier, mechanism);
  return der::Value(der::kSequence, list);
}

// A first token with the list and the fields behind it.
std::string Init(const std::string& list, const std::string& fields) {
  const std::string init = der::Value(der::kSequence, der::Value(der::Context(0), list) + fields);
  return der::Value(der::Application(0), der::Value(der::kObjectIdentifier, kSpnegoOid) +
                                             der::Value(der::Context(0), init));
}

// A later one, and the service's.
std::string Response(const std::string& fields) {
  return der::Value(der::Context(1), der::Value(der::kSequence, fields));
}

std::string Offer(const std::string& token) {
  return Field(2, der::kOctetString, token);
}

std::string Signature(const std::string& mic) {
  return Field(3, der::kOctetString, mic);
}

// What the service's answer has in the octet string of that number.
std::string Part(const std::string& answer, unsigned number) {
  std::string_view content;
  std::string_view field;
  if (!der::Reader(answer).TakeField(1, der::kSequence, content)) return "no answer";
  der::Reader fields(content);
  fields.TakeField(0, der::kEnumerated, field);
  fields.TakeField(1, der::kObjectIdentifier, field);
  for (unsigned at = 2; at <= number; ++at) {
    field = {};
    fields.TakeField(at, der::kOctetString, field);
  }
  return std::string(field);
}

// The answer of the system's GSS-API library to a first token.
std::string AnswerOfGss(const Service& service, const std::string& token) {
  const tavrel::tests::ScopedVariable keytab("KRB5_KTNAME", service.options.keytab);
  OM_uint32 minor = 0;
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_buffer_desc input = {token.size(), const_cast<char*>(token.data())};
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  gss_accept_sec_context(&minor, &context, GSS_C_NO_CREDENTIAL, &input, GSS_C_NO_CHANNEL_BINDINGS,
                         nullptr, nullptr, &output, nullptr, nullptr, nullptr);
  const std::string answer(static_cast<const char*>(output.value), output.length);
  gss_release_buffer(&minor, &output);
  gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  return answer;
}

class ANegotiation : public testing::Test {
 protected:
  // Answers the client's next token.
  Acceptance Accept(const std::string& token) { return acceptor->Accept(token, "", negotiation); }

  const std::string list = List({kNtlmOid, kKerberosOid});
  const std::string first_token = Init(list, Offer(std::string("NTLMSSP\0\1", 9)));
  const std::string kerberos_list = List({kKerberosOid});
  const Service service;
  const std::unique_ptr<Acceptor> acceptor = service.Make();
  Negotiation negotiation;
};

TEST_F(ANegotiation, WithKerberosSecondTakesTwoTokens) {
  TicketHolder client(TicketWithPac());
  LogCapture log;

  const Acceptance first = Accept(first_token);
  const std::string request = client.Step();
  const Acceptance second = Accept(Response(Offer(request) + Signature(client.Mic(list))));

  EXPECT_EQ(Reason(first), RefusalReason::kUnfinished);
  EXPECT_EQ(first.refusal->text, "the client is asked for Kerberos");
  EXPECT_EQ(first.reply, Response(Field(0, der::kEnumerated, "\3") +
                                  Field(1, der::kObjectIdentifier, kKerberosOid)));
  EXPECT_EQ(first.reply, AnswerOfGss(service, first_token));
  ASSERT_TRUE(second) << second.refusal->text;
  EXPECT_EQ(second.identity->RealmAndName(), "CORP.EXAMPLE.COM\\alice");
  EXPECT_TRUE(client.Verifies(list, Part(second.reply, 3)));
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("2 krb-acceptor Accept: Accepted alice@")));
}

// The one that the acceptor has is in use, and its settings are no longer any.
TEST_F(ANegotiation, WithoutAKerberosLibraryIsRefused) {
  TicketHolder client(TicketWithPac(), GSS_C_MUTUAL_FLAG);
  Accept(first_token);
  const Acceptance second = Accept(Response(Offer(client.Step())));
  client.Step(Part(second.reply, 2));
  const std::string signature = Response(Signature(client.Mic(list)));
  const std::string token = Token(TicketWithPac());
  const HeldUp held_up(service, *acceptor);
  std::ofstream(service.settings / "krb5.conf") << "[libdefaults\n";

  const Acceptance third = Accept(signature);
  const Acceptance another = acceptor->Accept(token);
  std::ofstream(service.settings / "krb5.conf");  // libgssapi gives nothing back without settings

  EXPECT_EQ(Reason(second), RefusalReason::kUnfinished);
  EXPECT_EQ(Reason(third), RefusalReason::kInternal);
  EXPECT_EQ(third.refusal->text, "the Kerberos library cannot be set up");
  EXPECT_EQ(Reason(another), RefusalReason::kInternal);
}

TEST_F(ANegotiation, OfAMutualClientEndsWithItsSignature) {
  TicketHolder client(TicketWithPac(), GSS_C_MUTUAL_FLAG);
  LogCapture log;

  Accept(first_token);
  const Acceptance second = Accept(Response(Offer(client.Step())));
  client.Step(Part(second.reply, 2));
  const Acceptance third = Accept(Response(Signature(client.Mic(list))));

  EXPECT_EQ(Reason(second), RefusalReason::kUnfinished);
  EXPECT_EQ(second.reply.substr(second.reply.find('\xa0'), 5), "\xa0\x03\x0a\x01\x01");
  EXPECT_TRUE(client.IsComplete());
  EXPECT_TRUE(client.Verifies(list, Part(second.reply, 3)));
  ASSERT_TRUE(third) << third.refusal->text;
  EXPECT_EQ(third.identity->RealmAndName(), "CORP.EXAMPLE.COM\\alice");
  EXPECT_TRUE(third.identity->IsMemberOf(*Sid::FromText("S-1-5-21-1-2-3-1110")));
  EXPECT_EQ(third.reply, "");
  EXPECT_THAT(log.Lines(), ElementsAre(StartsWith("2 krb-acceptor Accept: Accepted alice@")));
}

// RFC 4121, 4.2.2: the flag says that the reply has a key.
TEST_F(ANegotiation, IsSignedWithAKeyOfTheReplyOnlyWhenThatHasOne) {
  const auto flags_of_signature = [&](bool mutual, bool subkey) {
    negotiation = Negotiation();
    ForgedToken client;
    client.ticket.options = mutual ? AP_OPTS_MUTUAL_REQUIRED : 0;
    if (subkey) client.of_authenticator[6] = KeyField(kAes256Sha1, 32);
    Accept(first_token);
    return Part(Accept(Response(Offer(client.Bytes()))).reply, 3).substr(0, 3);
  };

  EXPECT_EQ(flags_of_signature(true, true), "\4\4\5");
  EXPECT_EQ(flags_of_signature(true, false), "\4\4\1");
  EXPECT_EQ(flags_of_signature(false, true), "\4\4\1");
}

TEST_F(ANegotiation, IsSignedWithTheKeyOfATicketThatIsKnown) {
  ForgedToken client;
  client.Issue();
  EXPECT_TRUE(acceptor->Accept(client.Bytes()));
  Accept(first_token);
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);

  const Acceptance second = Accept(Response(Offer(client.Bytes())));

  const std::string key(32, '\0');
  EXPECT_EQ(Part(second.reply, 3), MakeMic(context, Borrowed(key, kAes256Sha1), false, 0, list));
  krb5_free_context(context);
}

TEST_F(ANegotiation, WithoutTheClientsSignatureEndsWithNobody) {
  for (const std::string& last :
       {Response(Signature(std::string(28, 'x'))), Response(Signature("x")), Response(""),
        std::string("nonsense"), Response(Offer(Token(TicketWithPac())))}) {
    TicketHolder client(TicketWithPac());
    Accept(first_token);
    const Acceptance second = Accept(Response(Offer(client.Step())));
    EXPECT_EQ(Reason(second), RefusalReason::kUnfinished);
    EXPECT_EQ(second.refusal->text, "the client is to sign its list");

    EXPECT_THAT(Accept(last).refusal.value().text,
                AnyOf("the mechListMIC is not of this list", "a token in place of a mechListMIC"));
    EXPECT_FALSE(Accept(Response(Signature(client.Mic(list))))) << "it is over";
  }
}

TEST_F(ANegotiation, EndsWithNobodyWhenTheTicketIsOverMeanwhile) {
  Service strict;
  strict.options.clock_tolerance = 1;
  const auto judge = strict.Make();
  ForgedTicket ticket = TicketWithPac();
  std::string signature;
  for (int seconds = 1; signature.empty(); seconds *= 2) {  // more on a machine that is slow
    try {
      ticket.endtime = static_cast<krb5_timestamp>(std::time(nullptr)) + seconds;
      TicketHolder client(ticket, GSS_C_MUTUAL_FLAG);
      negotiation = Negotiation();
      judge->Accept(first_token, "", negotiation);
      const Acceptance second = judge->Accept(Response(Offer(client.Step())), "", negotiation);
      if (Reason(second) != RefusalReason::kUnfinished) continue;
      client.Step(Part(second.reply, 2));
      signature = Response(Signature(client.Mic(list)));
    } catch (const std::runtime_error&) {  // the client knows that it is over
    }
  }
  while (std::time(nullptr) <= ticket.endtime + 1)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));

  const Acceptance third = judge->Accept(signature, "", negotiation);

  EXPECT_EQ(Reason(third), RefusalReason::kExpired);
  EXPECT_GT(third.refusal->seconds, 1);
}

// Somebody on the way made Kerberos look like the second choice.
TEST_F(ANegotiation, WhoseListWasChangedOnTheWayEndsWithNobody) {
  TicketHolder client(TicketWithPac());
  Accept(first_token);
  const std::string request = client.Step();
  const std::string mic = client.Mic(kerberos_list);

  EXPECT_EQ(Reason(Accept(Response(Offer(request) + Signature(mic)))), RefusalReason::kNotGenuine);
}

TEST_F(ANegotiation, OfRc4CannotBeSigned) {
  ForgedTicket ticket = Ticket();
  ticket.etype = ENCTYPE_ARCFOUR_HMAC;
  Service with_rc4;
  with_rc4.options.enctypes.push_back(kRc4);
  AddKey(with_rc4.options.keytab, ticket);
  const auto rc4 = with_rc4.Make();
  rc4->Accept(first_token, "", negotiation);
  const std::string token = Token(WithPac(ticket, PartsOf({})));

  const Acceptance result = rc4->Accept(Response(Offer(token)), "", negotiation);

  EXPECT_EQ(Reason(result), RefusalReason::kMalformed);
  EXPECT_EQ(result.refusal->text, "a mechListMIC of RC4");
}

TEST_F(ANegotiation, ThatBeginsWithoutATokenTakesASecondOne) {
  const Acceptance first = Accept(Init(kerberos_list, ""));
  const Acceptance second = Accept(Response(Offer(Token(TicketWithPac()))));

  EXPECT_EQ(Reason(first), RefusalReason::kUnfinished);
  EXPECT_EQ(first.reply, AnswerOfGss(service, Init(kerberos_list, "")));
  ASSERT_TRUE(second) << second.refusal->text;
  EXPECT_EQ(second.reply, Response(Field(0, der::kEnumerated, std::string(1, '\0'))));
}

TEST_F(ANegotiation, IsNotBegunWithWhoHasNoKerberos) {
  const auto first = [&](const std::string& token) {
    const Acceptance result = Accept(token);
    EXPECT_EQ(result.reply, "");
    return Reason(result);
  };
  const std::string ntlm("NTLMSSP\0\1", 9);

  EXPECT_EQ(first(Init(List({kNtlmOid}), "")), RefusalReason::kNtlm);
  EXPECT_EQ(first(Init(kerberos_list, Offer(ntlm))), RefusalReason::kNtlm);
  EXPECT_EQ(first(ntlm), RefusalReason::kNtlm);
  EXPECT_EQ(first(""), RefusalReason::kNoToken);
  const Acceptance alone = acceptor->Accept(Init(List({kKerberosOid}), ""));
  EXPECT_EQ(Reason(alone), RefusalReason::kNoToken) << "where no other token can follow";
  EXPECT_EQ(alone.refusal->text, "the client offers Kerberos, but sent no token of it");
  EXPECT_TRUE(Accept(Negotiated(TicketWithPac())));
}

TEST_F(ANegotiation, CanMoveToAnotherConnectionsState) {
  TicketHolder client(TicketWithPac());
  Accept(first_token);

  Negotiation moved = std::move(negotiation);
  negotiation = std::move(moved);

  const std::string request = client.Step();
  EXPECT_TRUE(Accept(Response(Offer(request) + Signature(client.Mic(list)))));
}

// A first token may have the signature as well; no client is known that sends it.
TEST_F(ANegotiation, TakesTheSignatureOfItsListWithTheFirstToken) {
  const auto decision = [&](const std::string& signed_list) {
    TicketHolder client(TicketWithPac());
    const std::string token = Offer(client.Step());
    return acceptor->Accept(Init(kerberos_list, token + Signature(client.Mic(signed_list))));
  };

  EXPECT_TRUE(decision(kerberos_list));
  EXPECT_EQ(Reason(decision(list)), RefusalReason::kNotGenuine);
}

TEST(ALaterToken, IsWhatItsFieldsSay) {
  const std::string kerberos = Offer(Token(TicketWithPac()));
  const std::string state = Field(0, der::kEnumerated, "\1");
  const std::string mechanism = Field(1, der::kObjectIdentifier, kKerberosOid);
  const std::string mic = Signature("mic");
  using Kind = InitialToken::Kind;
  const struct {
    std::string token;
    Kind kind;
  } cases[] = {
      {Response(kerberos), Kind::kKerberos},
      {Response(state + mechanism + kerberos + mic), Kind::kKerberos},
      {Response(state), Kind::kNothingSent},
      {Response(""), Kind::kNothingSent},
      {Response(Offer(std::string("NTLMSSP\0\3", 9))), Kind::kNtlm},
      {Response(Offer("")), Kind::kMalformed},
      {Response(Field(0, der::kEnumerated, "\2") + kerberos), Kind::kMalformed},  // it rejects
      {Response(Field(0, der::kEnumerated, "") + kerberos), Kind::kMalformed},
      {Response(Field(0, der::kInteger, "\1") + kerberos), Kind::kMalformed},
      {Response(Field(1, der::kOctetString, "") + kerberos), Kind::kMalformed},
      {Response(Field(2, der::kBitString, "")), Kind::kMalformed},
      {Response(kerberos + Field(3, der::kSequence, "")), Kind::kMalformed},
      {Response(mic + kerberos), Kind::kMalformed},
      {Response(kerberos) + "x", Kind::kMalformed},
      {Negotiated(TicketWithPac()), Kind::kMalformed},
      {"", Kind::kMalformed},
  };
  for (const auto& item : cases) {
    EXPECT_EQ(ReadLaterToken(item.token, "").kind, item.kind) << &item - cases;
  }
}

}  // namespace
}  // namespace tavrel::plus::tests
