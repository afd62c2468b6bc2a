#include "Spnego.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Der.h"
#include "Service.h"

namespace tavrel::plus::tests {
namespace {

using der::Context;
using der::Value;
using tavrel::tests::kKerberosOid;
using tavrel::tests::kMicrosoftKerberosOid;
using tavrel::tests::kNtlmOid;
using tavrel::tests::kSpnegoOid;
using Kind = InitialToken::Kind;

std::string Oid(const std::string& content) {
  return Value(der::kObjectIdentifier, content);
}

std::string Kerberos(const std::string& oid = kKerberosOid,
                     const std::string& request = std::string("\x01\x00request", 9)) {
  return Value(der::Application(0), Oid(oid) + request);
}

std::string Field(unsigned number, unsigned char tag, const std::string& content) {
  return Value(Context(number), Value(tag, content));
}

std::string Negotiation(const std::string& fields) {
  return Value(der::Application(0),
               Oid(kSpnegoOid) + Value(Context(0), Value(der::kSequence, fields)));
}

const std::string kList = Field(0, der::kSequence, Oid(kKerberosOid));
const std::string kOfKerberos = Field(2, der::kOctetString, Kerberos());

TEST(AnInitialToken, IsWhatItsFramingSays) {
  const struct {
    std::string token;
    Kind kind;
  } cases[] = {
      {"", Kind::kEmpty},
      {std::string("NTLMSSP\0\x01", 9), Kind::kNtlm},
      {"NTLMSSP", Kind::kMalformed},
      {Kerberos(), Kind::kKerberos},
      {Kerberos(kMicrosoftKerberosOid), Kind::kOther},
      {Kerberos(kNtlmOid), Kind::kNtlm},
      {Kerberos("\x2a\x03"), Kind::kOther},
      {Kerberos(kKerberosOid, ""), Kind::kMalformed},
      {Kerberos(kKerberosOid, std::string("\x01\x00", 2)), Kind::kMalformed},
      {Kerberos(kKerberosOid, std::string("\x02\x00request", 9)), Kind::kMalformed},
      {Kerberos(kKerberosOid, "request"), Kind::kMalformed},
      {Kerberos() + "x", Kind::kMalformed},
      {Value(der::Application(0), kKerberosOid), Kind::kMalformed},
      {Value(der::kSequence, Oid(kKerberosOid)), Kind::kMalformed},
      {Negotiation(kList + kOfKerberos), Kind::kKerberos},
      {Negotiation(kList), Kind::kNothingSent},
      {Negotiation(Field(0, der::kSequence, Oid(kMicrosoftKerberosOid) + Oid(kKerberosOid)) +
                   kOfKerberos),
       Kind::kKerberos},
      {Negotiation(Field(0, der::kSequence, Oid(kNtlmOid) + Oid(kKerberosOid)) + kOfKerberos),
       Kind::kNtlm},
      {Negotiation(Field(0, der::kSequence, Oid("\x2a\x03") + Oid(kKerberosOid))), Kind::kOther},
      {Negotiation(kList + Field(2, der::kOctetString, std::string("NTLMSSP\0\x01", 9))),
       Kind::kNtlm},
      {Negotiation(kList + Field(2, der::kOctetString, Kerberos(kNtlmOid))), Kind::kMalformed},
      {Negotiation(kList + Field(2, der::kOctetString, Kerberos(kMicrosoftKerberosOid))),
       Kind::kMalformed},
      {Negotiation(kList + Field(2, der::kOctetString, "")), Kind::kMalformed},
      {Negotiation(kList + Field(1, der::kBitString, std::string("\x00\x40", 2)) + kOfKerberos +
                   Field(3, der::kOctetString, "mic")),
       Kind::kKerberos},
      {Negotiation(kList + Field(2, der::kOctetString, Kerberos(kKerberosOid, "request"))),
       Kind::kMalformed},
      {Negotiation(Field(0, der::kSequence, Oid(kNtlmOid) + Oid("\x2a\x03"))), Kind::kNtlm},
      {Value(der::Application(0), Oid(kSpnegoOid) + Value(Context(1), "")), Kind::kMalformed},
      {Value(der::Application(0),
             Oid(kSpnegoOid) + Field(0, der::kSequence, kList + kOfKerberos) + "x"),
       Kind::kMalformed},
      {Negotiation(""), Kind::kMalformed},
      {Negotiation(kOfKerberos), Kind::kMalformed},
      {Negotiation(Field(0, der::kSequence, "") + kOfKerberos), Kind::kMalformed},
      {Negotiation(Field(0, der::kSequence, Oid(kKerberosOid) + "\x06") + kOfKerberos),
       Kind::kMalformed},
      {Negotiation(kList + kList + kOfKerberos), Kind::kMalformed},
      {Negotiation(kList + kOfKerberos + kOfKerberos), Kind::kMalformed},
      {Negotiation(kOfKerberos + kList), Kind::kMalformed},
      {Negotiation(kList + kOfKerberos + Field(4, der::kOctetString, "mic")), Kind::kMalformed},
      {Negotiation(kList + Field(1, der::kOctetString, "") + kOfKerberos), Kind::kMalformed},
      {Negotiation(kList + kOfKerberos + Field(3, der::kSequence, "")), Kind::kMalformed},
      {Negotiation(kList + Field(2, der::kBitString, Kerberos())), Kind::kMalformed},
      {Value(Context(1), Value(der::kSequence, "")), Kind::kMalformed},  // an answer
  };
  for (const auto& item : cases) {
    EXPECT_EQ(ReadInitialToken(item.token).kind, item.kind) << &item - cases;
  }
}

TEST(AnInitialToken, HasItsPartsInPlace) {
  const std::string list = Oid(kMicrosoftKerberosOid) + Oid(kKerberosOid);
  const std::string token = Negotiation(Field(0, der::kSequence, list) + kOfKerberos +
                                        Field(3, der::kOctetString, "mic"));

  const InitialToken read = ReadInitialToken(token);

  EXPECT_TRUE(read.negotiated);
  EXPECT_EQ(read.request, "request");
  EXPECT_EQ(read.mechanism, kMicrosoftKerberosOid);
  EXPECT_EQ(read.mechanisms, Value(der::kSequence, list));
  EXPECT_EQ(read.mic, "mic");
}

TEST(AnInitialToken, CutOffAnywhereIsMalformed) {
  const std::string token = Negotiation(kList + kOfKerberos);
  for (std::size_t size = 1; size < token.size(); ++size) {
    EXPECT_EQ(ReadInitialToken(token.substr(0, size)).kind, Kind::kMalformed) << size;
  }
}

TEST(AReply, ComesInTheFramingOfTheToken) {
  const std::string bare = Kerberos();
  const std::string negotiated = Negotiation(kList + kOfKerberos);
  const std::string response = Kerberos(kKerberosOid, std::string("\x02\x00rep", 5));
  const std::string completed = Field(0, der::kEnumerated, std::string(1, '\0')) +
                                Field(1, der::kObjectIdentifier, kKerberosOid);
  const auto answer = [](const std::string& fields) {
    return Value(Context(1), Value(der::kSequence, fields));
  };

  EXPECT_EQ(ReplyTo(ReadInitialToken(bare), "", ""), "");
  EXPECT_EQ(ReplyTo(ReadInitialToken(bare), "rep", ""), response);
  EXPECT_EQ(ReplyTo(ReadInitialToken(negotiated), "", ""), answer(completed));
  EXPECT_EQ(ReplyTo(ReadInitialToken(negotiated), "rep", "mic"),
            answer(completed + Field(2, der::kOctetString, response) +
                   Field(3, der::kOctetString, "mic")));
}

TEST(ADerReader, TakesTheOneEncodingOfALength) {
  const auto takes = [](const std::string& bytes) {
    der::Reader reader(bytes);
    std::string_view content;
    const bool taken = reader.Take(der::kOctetString, content);
    EXPECT_EQ(reader.Empty(), taken) << "what is refused stays there";
    return taken;
  };
  const std::string of_200(200, 'x');

  EXPECT_TRUE(takes(std::string("\x04\x00", 2)));
  EXPECT_TRUE(takes("\x04\x81\xC8" + of_200));
  EXPECT_TRUE(takes(std::string("\x04\x83\x01\x00\x00", 5) + std::string(1 << 16, 'x')));
  EXPECT_FALSE(takes("\x04"));
  EXPECT_FALSE(takes("\x04\x01"));
  EXPECT_FALSE(takes("\x04\x80xx"));     // indefinite
  EXPECT_FALSE(takes("\x04\x81\x01x"));  // one byte would do
  EXPECT_FALSE(takes(std::string("\x04\x82\x00\xC8", 4) + of_200));
  EXPECT_FALSE(takes("\x04\x81"));
  EXPECT_FALSE(takes("\x04\x84\xFF\xFF\xFF\xFF"));
  EXPECT_FALSE(takes("\x04\x85\x01\x01\x01\x01\x01"));
  EXPECT_FALSE(takes("\x05\x01x"));
  EXPECT_EQ(Value(der::kOctetString, std::string(127, 'x')).substr(0, 2), "\x04\x7F");
  EXPECT_EQ(Value(der::kOctetString, std::string(128, 'x')).substr(0, 3), "\x04\x81\x80");
}

TEST(ADerReader, TakesTheOneEncodingOfAnInteger) {
  const auto number = [](const std::string& content) -> std::optional<std::int32_t> {
    const std::string field = Field(0, der::kInteger, content);
    der::Reader reader(field);
    std::int32_t value = 0;
    if (!reader.TakeField(0, value)) return std::nullopt;
    return value;
  };

  EXPECT_EQ(number(std::string(1, '\0')), 0);
  EXPECT_EQ(number("\x7F"), 127);
  EXPECT_EQ(number(std::string("\x00\x80", 2)), 128);
  EXPECT_EQ(number("\xFF"), -1);
  EXPECT_EQ(number(std::string("\x80\x00\x00\x00", 4)), INT32_MIN);
  EXPECT_EQ(number(""), std::nullopt);
  EXPECT_EQ(number(std::string("\x00\x7F", 2)), std::nullopt);
  EXPECT_EQ(number("\xFF\x80"), std::nullopt);
  EXPECT_EQ(number("\x01\x01\x01\x01\x01"), std::nullopt);
}

}  // namespace
}  // namespace tavrel::plus::tests
