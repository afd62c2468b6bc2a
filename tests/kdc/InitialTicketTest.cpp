// Keytab::ASAuthenticate against a real KDC.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <tuple>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "Scene.h"
#include "tavrel/KrbContext.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

const std::string kMachine = "APPLIANCE$@CORP.EXAMPLE.COM";
const std::string kPassword = Env("KDC_MACHINE_PASSWORD");

// What the exchange is made with: a keytab that has the key, or the password.
enum class With { kKeytab, kPassword };

int Authenticate(KrbContext& context, With with, const std::string& password, std::string* error) {
  Keytab keytab(&context);
  return with == With::kKeytab ? keytab.ASAuthenticate(error)
                               : keytab.ASAuthenticate(password, error);
}

const std::string kAnotherTime = "3 krb-keytab ASAuthenticate: Clock difference with KDC detected";

std::string Refused(With with, const std::string& text) {
  const std::string means = with == With::kKeytab ? "keytab" : "password";
  return "4 krb-keytab ASAuthenticate: Error authenticating through " + means + ": " + text;
}

struct Exchange {
  const char* name;
  std::string principal;
  std::string password;
  const char* port;
  const char* libdefaults;
  int status;
  std::string text;  // libkrb5's; empty when the exchange took place
};

void PrintTo(const Exchange& exchange, std::ostream* out) {
  *out << exchange.name;
}

class AnInitialTicket : public testing::TestWithParam<std::tuple<Exchange, With>> {};

TEST_P(AnInitialTicket, EndsAsTheKdcDecides) {
  const auto& [exchange, with] = GetParam();
  const Kdc kdc(exchange.port, exchange.libdefaults);
  KrbContext context;
  ASSERT_TRUE(context.SetClientPrincipal(exchange.principal));
  ASSERT_TRUE(context.SetKeytab(kdc / "keytab"));
  if (with == With::kKeytab) AddKey(kdc / "keytab", {exchange.principal, exchange.password});
  std::string error = "as before";
  LogCapture log;

  const int status = Authenticate(context, with, exchange.password, &error);
  const std::vector<std::string> lines = log.Notable();
  log.Clear();
  const int status_without_text = Authenticate(context, with, exchange.password, nullptr);

  EXPECT_EQ(status, exchange.status);
  EXPECT_EQ(error, exchange.text.empty() ? "as before" : exchange.text);
  if (!exchange.text.empty()) {
    EXPECT_THAT(lines, ElementsAre(Refused(with, exchange.text)));
  } else if (status == kSuccess) {
    EXPECT_THAT(lines, IsEmpty());
  } else {
    EXPECT_THAT(lines, ElementsAre(kAnotherTime));
  }
  EXPECT_EQ(status_without_text, status);
  EXPECT_EQ(log.Notable(), lines);
}

std::string NameOf(const testing::TestParamInfo<std::tuple<Exchange, With>>& info) {
  const auto& [exchange, with] = info.param;
  return std::string(exchange.name) + (with == With::kKeytab ? "_Keytab" : "_Password");
}

constexpr char kNow[] = "KDC_PORT";
constexpr char kAhead[] = "KDC_PORT_AHEAD";
constexpr char kBehind[] = "KDC_PORT_BEHIND";
constexpr char kDead[] = "KDC_PORT_DEAD";

Exchange Succeeds(const char* name, const std::string& principal) {
  return {name, principal, kPassword, kNow, "", kSuccess, ""};
}

Exchange Fails(const char* name, const std::string& principal, const std::string& text,
               const std::string& password = kPassword, const char* port = kNow) {
  return {name, principal, password, port, "", kFailure, text};
}

// The client still gets its ticket.
Exchange Notices(const char* name, const char* port) {
  return {name, kMachine, kPassword, port, "", kClockSkew, ""};
}

// A client that takes no clock but its own has none.
Exchange Insists(const char* name, const std::string& principal, const char* port,
                 const std::string& text) {
  return {name, principal, kPassword, port, "kdc_timesync = 0", kClockSkew, text};
}

// The KDC has every client but this one prove who it is beforehand.
const std::string kTrusted = "TRUSTED$@CORP.EXAMPLE.COM";

INSTANTIATE_TEST_SUITE_P(
    , AnInitialTicket,
    testing::Combine(
        testing::Values(
            Succeeds("TheRightSecret", kMachine), Succeeds("TheRightSecretAfterwards", kTrusted),
            Succeeds("ANameOfTwoComponents", "HOST/appliance.corp.example.com@CORP.EXAMPLE.COM"),
            Fails("AWrongSecret", kMachine, "Preauthentication failed", "wrong"),
            Fails("AWrongSecretAfterwards", kTrusted, "Decrypt integrity check failed", "wrong"),
            Fails("AnUnknownPrincipal", "NOBODY$@CORP.EXAMPLE.COM",
                  "Client 'NOBODY$@CORP.EXAMPLE.COM' not found in Kerberos database"),
            Fails("ADisabledAccount", "DISABLED$@CORP.EXAMPLE.COM",
                  "Client's credentials have been revoked"),
            Fails("AnExpiredAccount", "EXPIRED$@CORP.EXAMPLE.COM",
                  "Client's entry in database has expired"),
            Fails("AnExpiredPassword", "STALE$@CORP.EXAMPLE.COM", "Password has expired"),
            Fails("AKdcThatDoesNotAnswer", kMachine,
                  "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'", kPassword, kDead),
            Fails("ARealmWithoutAKdc", "APPLIANCE$@OTHER.EXAMPLE.COM",
                  "Cannot find KDC for realm \"OTHER.EXAMPLE.COM\""),
            Notices("AClockAhead", kAhead), Notices("AClockBehind", kBehind),
            Insists("AClockAheadThatTheKdcRefuses", kMachine, kAhead, "Clock skew too great"),
            Insists("AClockBehindThatTheKdcRefuses", kMachine, kBehind, "Clock skew too great"),
            Insists("AReplyFromAhead", kTrusted, kAhead, "Clock skew too great in KDC reply"),
            Insists("AReplyFromBehind", kTrusted, kBehind, "Clock skew too great in KDC reply")),
        testing::Values(With::kKeytab, With::kPassword)),
    NameOf);

// A keytab that is of no use, and what the exchange says to that.
struct UselessKeytab {
  const char* name;
  void (*make)(const std::string& path);
  const char* libdefaults;
  std::string text;
  std::vector<std::string> log;
};

void PrintTo(const UselessKeytab& keytab, std::ostream* out) {
  *out << keytab.name;
}

class AKeytab : public testing::TestWithParam<UselessKeytab> {};

TEST_P(AKeytab, WithoutAKeyThatTheKdcTakesFails) {
  const UselessKeytab& keytab = GetParam();
  const Kdc kdc("KDC_PORT", keytab.libdefaults);
  keytab.make(kdc / "keytab");
  KrbContext context;
  ASSERT_TRUE(context.SetClientPrincipal(kMachine));
  ASSERT_TRUE(context.SetKeytab(kdc / "keytab"));
  std::string error;
  LogCapture log;

  const int status = Keytab(&context).ASAuthenticate(&error);

  EXPECT_EQ(status, kFailure);
  EXPECT_EQ(error, keytab.text);
  EXPECT_THAT(log.Notable(), ElementsAreArray(keytab.log));
}

UselessKeytab Tried(const char* name, void (*make)(const std::string& path),
                    const std::string& text, const char* libdefaults = "") {
  return {name, make, libdefaults, text, {Refused(With::kKeytab, text)}};
}

void MakeRight(const std::string& path) {
  AddKey(path, {kMachine, kPassword});
}

void MakeForAnother(const std::string& path) {
  AddKey(path, {"OTHER$@CORP.EXAMPLE.COM", kPassword});
}

void MakeOfAes(const std::string& path) {
  AddKey(path, {kMachine, kPassword, ENCTYPE_AES256_CTS_HMAC_SHA1_96});
}

INSTANTIATE_TEST_SUITE_P(
    , AKeytab,
    testing::Values(Tried("OfAnotherPrincipal", MakeForAnother,
                          "Keytab contains no suitable keys for APPLIANCE$@CORP.EXAMPLE.COM"),
                    Tried("OfAnEncryptionTypeThatTheAccountHasNot", MakeOfAes,
                          "Pre-authentication failed: No key table entry found for "
                          "APPLIANCE$@CORP.EXAMPLE.COM"),
                    Tried("OfAnEncryptionTypeThatIsForbidden", MakeRight,
                          "Generic preauthentication failure",
                          "permitted_enctypes = aes256-cts-hmac-sha1-96"),
                    Tried("WhenItsEncryptionTypeAloneIsAskedFor", MakeRight,
                          "KDC has no support for encryption type",
                          "default_tkt_enctypes = arcfour-hmac"),
                    Tried("WhenNoEncryptionTypeIsAllowed", MakeRight,
                          "No supported encryption types (config file error?)",
                          "default_tkt_enctypes = des-cbc-crc")),
    [](const auto& info) { return std::string(info.param.name); });

mode_t ModeOf(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 ? file.st_mode & 07777U : 0;
}

TEST(AWrittenKey, MayBeReadByTheKeytabsOwnerAlone) {
  const Kdc kdc;
  KrbContext context;
  ASSERT_TRUE(context.SetClientPrincipal(kMachine));
  ASSERT_TRUE(context.SetKeytab(kdc / "keytab"));
  const mode_t earlier = umask(0);

  const bool written = Keytab(&context).WriteKey(kPassword, nullptr);

  umask(earlier);
  EXPECT_TRUE(written);
  EXPECT_EQ(ModeOf(kdc / "keytab"), 0600U);
}

// Nobody looks at who may read a keytab that is there.
TEST(AWrittenKey, LeavesTheModeOfAKeytabThatExists) {
  const Kdc kdc;
  AddKey(kdc / "keytab", {kMachine, kPassword});
  ASSERT_EQ(chmod((kdc / "keytab").c_str(), 0644), 0);
  KrbContext context;
  ASSERT_TRUE(context.SetClientPrincipal(kMachine));
  ASSERT_TRUE(context.SetKeytab(kdc / "keytab"));

  const bool written = Keytab(&context).WriteKey("Second.1", nullptr);

  EXPECT_TRUE(written);
  EXPECT_EQ(ModeOf(kdc / "keytab"), 0644U);
}

// The key is always of one encryption type, which not every account has.
TEST(AWrittenKey, IsOfNoUseToAnAccountWithAesKeysAlone) {
  const Kdc kdc;
  KrbContext context;
  ASSERT_TRUE(context.SetClientPrincipal("MODERN$@CORP.EXAMPLE.COM"));
  ASSERT_TRUE(context.SetKeytab(kdc / "keytab"));
  Keytab keytab(&context);
  ASSERT_TRUE(keytab.WriteKey(kPassword, nullptr));
  std::string error;

  const int by_key = keytab.ASAuthenticate(&error);
  const int by_password = keytab.ASAuthenticate(kPassword, nullptr);

  EXPECT_EQ(by_key, kFailure);
  EXPECT_EQ(error,
            "Pre-authentication failed: No key table entry found for MODERN$@CORP.EXAMPLE.COM");
  EXPECT_EQ(by_password, kSuccess);
}

}  // namespace
}  // namespace tavrel::tests
