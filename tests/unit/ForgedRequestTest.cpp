#include "ForgedRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KrbSettings.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;

std::vector<char> Bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

// A service with one key in a keytab in memory, as libkrb5 alone makes it.
class AForgedRequest : public testing::Test {
 protected:
  AForgedRequest() {
    krb5_init_context(&context_);
    krb5_kt_resolve(context_, "MEMORY:forged-request", &keytab_);
  }
  ~AForgedRequest() override {
    krb5_free_ticket(context_, ticket_);
    krb5_kt_close(context_, keytab_);
    krb5_free_context(context_);
  }

  void Holds(const std::string& principal, const ForgedTicket& forged) {
    krb5_keytab_entry entry{};
    ASSERT_EQ(krb5_parse_name(context_, principal.c_str(), &entry.principal), 0);
    entry.vno = forged.kvno;
    std::string password = forged.password;
    std::string salt = forged.salt;
    const krb5_data password_data = {0, static_cast<unsigned>(password.size()), password.data()};
    const krb5_data salt_data = {0, static_cast<unsigned>(salt.size()), salt.data()};
    krb5_c_string_to_key(context_, forged.etype, &password_data, &salt_data, &entry.key);
    EXPECT_EQ(krb5_kt_add_entry(context_, keytab_, &entry), 0);
    krb5_free_keytab_entry_contents(context_, &entry);
  }

  krb5_error_code Read(std::vector<char> request) {
    const krb5_data data = {0, static_cast<unsigned>(request.size()), request.data()};
    krb5_auth_context auth = nullptr;
    const krb5_error_code code =
        krb5_rd_req(context_, &auth, &data, nullptr, keytab_, nullptr, &ticket_);
    krb5_auth_con_free(context_, auth);
    return code;
  }

  std::string Name(krb5_const_principal principal) const {
    char* text = nullptr;
    krb5_unparse_name(context_, principal, &text);
    const std::string name = text;
    krb5_free_unparsed_name(context_, text);
    return name;
  }

  KrbSettings settings_{kTolerateSkew};
  krb5_context context_ = nullptr;
  krb5_keytab keytab_ = nullptr;
  krb5_ticket* ticket_ = nullptr;
};

TEST_F(AForgedRequest, IsWhatTheServiceReadsFromIt) {
  ForgedTicket forged;
  forged.client_realm = "Users.Example.COM";
  forged.client = {"bob", "admin"};
  forged.server = {"HOST", "a"};
  forged.kvno = 4;
  forged.flags = TKT_FLG_FORWARDABLE | TKT_FLG_HW_AUTH;
  forged.starttime = forged.authtime - 5;
  forged.renew_till = forged.endtime + 7;
  Holds("HOST/a@CORP.EXAMPLE.COM", forged);

  const krb5_error_code code = Read(ApReq(forged));

  ASSERT_EQ(code, 0);
  const krb5_enc_tkt_part& part = *ticket_->enc_part2;
  EXPECT_EQ(Name(ticket_->server), "HOST/a@CORP.EXAMPLE.COM");
  EXPECT_EQ(Name(part.client), "bob/admin@Users.Example.COM");
  EXPECT_EQ(ticket_->enc_part.kvno, 4u);
  EXPECT_EQ(ticket_->enc_part.enctype, ENCTYPE_ARCFOUR_HMAC);
  EXPECT_EQ(part.flags, TKT_FLG_FORWARDABLE | TKT_FLG_HW_AUTH);
  EXPECT_EQ(part.times.authtime, forged.authtime);
  EXPECT_EQ(part.times.starttime, forged.starttime);
  EXPECT_EQ(part.times.endtime, forged.endtime);
  EXPECT_EQ(part.times.renew_till, forged.renew_till);
}

TEST(AForgedTicket, IsAnotherRequestEachTime) {
  const KrbSettings settings;
  const ForgedTicket forged;

  const std::vector<char> first = ApReq(forged);
  const std::vector<char> second = ApReq(forged);

  EXPECT_NE(first, second);
}

TEST(AGssToken, WritesLongLengthsInTheShortestForm) {
  const std::vector<char> medium = GssToken(std::vector<char>(200));
  const std::vector<char> large = GssToken(std::vector<char>(300));

  EXPECT_THAT(std::vector<char>(medium.begin(), medium.begin() + 4),
              ElementsAre('\x60', '\x81', '\xd5', '\x06'));
  EXPECT_THAT(std::vector<char>(large.begin(), large.begin() + 5),
              ElementsAre('\x60', '\x82', '\x01', '\x39', '\x06'));
  EXPECT_EQ(large.size(), 317u);
}

TEST(ASpnegoToken, OffersTheMechanismsInOrder) {
  const std::vector<char> token =
      SpnegoToken({'t', 'o', 'k'}, {kMicrosoftKerberosOid, kKerberosOid});

  EXPECT_EQ(token, Bytes("\x60\x2d\x06\x06\x2b\x06\x01\x05\x05\x02\xa0\x23\x30\x21"
                         "\xa0\x18\x30\x16"
                         "\x06\x09\x2a\x86\x48\x82\xf7\x12\x01\x02\x02"
                         "\x06\x09\x2a\x86\x48\x86\xf7\x12\x01\x02\x02"
                         "\xa2\x05\x04\x03tok"));
}

}  // namespace
}  // namespace tavrel::tests
