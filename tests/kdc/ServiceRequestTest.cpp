// KrbRealm::Authenticate and Keytab::APAuthenticate with what real clients send.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "ForgedRequest.h"
#include "GssClient.h"
#include "Interpose.h"
#include "LogCapture.h"
#include "Scene.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Mechanism = GssClient::Mechanism;

const std::string kMachine = "APPLIANCE$@CORP.EXAMPLE.COM";
const std::string kHost = "HOST/appliance.corp.example.com@CORP.EXAMPLE.COM";  // the machine's too
const std::string kHttp = "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM";  // another account's
const std::string kAlice = "alice@CORP.EXAMPLE.COM";

const std::string kMachinePassword = Env("KDC_MACHINE_PASSWORD");
const std::string kServicePassword = Env("KDC_SERVICE_PASSWORD");
const std::string kUserPassword = Env("KDC_USER_PASSWORD");

constexpr char kAhead[] = "KDC_PORT_AHEAD";
constexpr char kBehind[] = "KDC_PORT_BEHIND";
constexpr char kTolerant[] = "clockskew = 3600";

// A realm that has joined with these keys in its keytab.
class Machine : public KrbRealm {
 public:
  explicit Machine(const Kdc& kdc, const std::vector<Key>& keys = {{kMachine, kMachinePassword}})
      : KrbRealm("corp.example.com", "Administrator", "Admin.Pass.1", kdc / "keytab") {
    for (const Key& key : keys)
      AddKey(kdc / "keytab", key);
    krb_context.SetClientPrincipal(kMachine);
  }

  std::string Authenticate(std::vector<char> token) {
    return KrbRealm::Authenticate(token.data(), static_cast<int>(token.size()));
  }

  KrbContext& Context() { return krb_context; }
};

std::string Unreadable(const std::string& reason) {
  return "4 krb-keytab APAuthenticate: Error reading AP request: " + reason;
}

const std::string kInvalidTimes =
    "2 krb-keytab APAuthenticate: Invalid timestamp for AP request for user: "
    "CORP.EXAMPLE.COM\\alice";
const std::string kInvalidServer =
    "2 krb-keytab APAuthenticate: Invalid server principal for AP request for user "
    "CORP.EXAMPLE.COM\\alice";

// --- accepted ------------------------------------------------------------------------------------

class AUser : public testing::TestWithParam<std::tuple<Mechanism, std::string>> {};

TEST_P(AUser, IsAuthenticatedToEveryServiceOfTheMachinesKey) {
  const auto& [mechanism, service] = GetParam();
  const Kdc kdc;
  Machine machine(kdc);
  const std::vector<char> token = GssClient(kAlice, kUserPassword).Token(service, mechanism);
  LogCapture log;

  const std::string user = machine.Authenticate(token);

  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
  EXPECT_THAT(log.Notable(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, AUser,
                         testing::Combine(testing::Values(Mechanism::kKerberos, Mechanism::kSpnego),
                                          testing::Values(kMachine, kHost)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param) == Mechanism::kKerberos
                                                  ? "Kerberos"
                                                  : "Spnego") +
                                  (std::get<1>(info.param) == kMachine ? "_Account" : "_Host");
                         });

// The library does not know which TLS connection a token came through.
TEST(AToken, IsAcceptedWhateverChannelItIsBoundTo) {
  const Kdc kdc;
  Machine machine(kdc);
  const std::vector<char> token =
      GssClient(kAlice, kUserPassword).Token(kMachine, Mechanism::kKerberos, "tls-unique:another");

  const std::string user = machine.Authenticate(token);

  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
}

// --- refused by libkrb5 --------------------------------------------------------------------------

TEST(ARequest, IsAcceptedOnceByAllRealmsOfTheMachine) {
  const Kdc kdc;
  Machine machine(kdc);
  const std::vector<char> token = GssClient(kAlice, kUserPassword).Token(kMachine);
  ASSERT_NE(machine.Authenticate(token), "");
  Machine another(kdc, {});
  LogCapture log;

  const std::string user = another.Authenticate(token);

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Notable(), ElementsAre(Unreadable("Request is a replay")));
}

// Machines, or processes of different users, that share a key but no replay cache.
TEST(ARequest, IsAcceptedOnceForEveryReplayCache) {
  const Kdc kdc;
  Machine machine(kdc);
  const std::vector<char> token = GssClient(kAlice, kUserPassword).Token(kMachine);
  ASSERT_NE(machine.Authenticate(token), "");
  const ScratchFolder folder;
  const ScopedVariable other_cache("KRB5RCACHEDIR", folder / "");
  Machine another(kdc, {});

  const std::string user = another.Authenticate(token);
  const ScopedVariable no_cache("KRB5RCACHENAME", "none:");
  Machine forgetful(kdc, {});
  const std::string again = forgetful.Authenticate(token);
  const std::string and_again = forgetful.Authenticate(token);

  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
  EXPECT_EQ(again, user);
  EXPECT_EQ(and_again, user);
}

struct Unfit {
  const char* name;
  std::vector<Key> keys;
  std::string reason;
};

void PrintTo(const Unfit& unfit, std::ostream* out) {
  *out << unfit.name;
}

class AServiceKeytab : public testing::TestWithParam<Unfit> {};

TEST_P(AServiceKeytab, WithoutTheTicketsKeyRefusesIt) {
  const Kdc kdc;
  Machine machine(kdc, GetParam().keys);
  const std::vector<char> token = GssClient(kAlice, kUserPassword).Token(kMachine);
  LogCapture log;

  const std::string user = machine.Authenticate(token);

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Notable(), ElementsAre(Unreadable("Request ticket server " + kMachine + " " +
                                                    GetParam().reason)));
}

INSTANTIATE_TEST_SUITE_P(
    , AServiceKeytab,
    testing::Values(Unfit{"OfAnotherPassword",
                          {{kMachine, "wrong"}},
                          "kvno 1 enctype rc4-hmac found in keytab but cannot decrypt ticket"},
                    Unfit{"OfAnotherEncryptionType",
                          {{kMachine, kMachinePassword, ENCTYPE_AES256_CTS_HMAC_SHA1_96}},
                          "kvno 1 found in keytab but not with enctype rc4-hmac"},
                    Unfit{"OfAnotherService",
                          {{kHttp, kServicePassword}},
                          "not found in keytab (ticket kvno 1)"}),
    [](const auto& info) { return std::string(info.param.name); });

// --- refused by its server -----------------------------------------------------------------------

// --- judged by its times -------------------------------------------------------------------------

struct Timed {
  const char* name;
  const char* port;         // of the KDC that issues the ticket
  const char* libdefaults;  // clients' and machine's
  krb5_deltat lifetime;     // 0: ten hours
  bool after_exchange;      // the machine has asked that KDC too, and knows its clock
  std::string user;
  std::string record;  // none when it is good
};

void PrintTo(const Timed& timed, std::ostream* out) {
  *out << timed.name;
}

class ATicket : public testing::TestWithParam<Timed> {};

TEST_P(ATicket, IsJudgedByItsTimes) {
  const Timed& timed = GetParam();
  const Kdc kdc(timed.port, timed.libdefaults);
  Machine machine(kdc);
  if (timed.after_exchange) {
    ASSERT_EQ(Keytab(&machine.Context()).ASAuthenticate(nullptr), kClockSkew);
  }
  const std::vector<char> token =
      GssToken(GssClient(kAlice, kUserPassword, timed.lifetime).Request(kMachine));
  LogCapture log;

  const std::string user = machine.Authenticate(token);

  EXPECT_EQ(user, timed.user);
  EXPECT_THAT(log.Notable(),
              ElementsAreArray(std::vector(timed.record.empty() ? 0 : 1, timed.record)));
}

const std::string kAliceUser = "CORP.EXAMPLE.COM\\alice";

INSTANTIATE_TEST_SUITE_P(, ATicket,
                         testing::Values(Timed{"OfAnUnknownClockAheadIsRefused", kAhead, "", 0,
                                               false, "", Unreadable("Ticket not yet valid")},
                                         Timed{"OfAnUnknownClockBehindIsRefused", kBehind, "", 0,
                                               false, "", Unreadable("Clock skew too great")},
                                         Timed{"OfAKnownClockAheadHasNotStarted", kAhead, "", 0,
                                               true, "", kInvalidTimes},
                                         Timed{"OfAKnownClockBehindIsGood", kBehind, "", 0, true,
                                               kAliceUser, ""},
                                         Timed{"OfAToleratedClockAheadHasNotStarted", kAhead,
                                               kTolerant, 0, false, "", kInvalidTimes},
                                         Timed{"ThatEndedEightMinutesAgoIsRefused", kBehind,
                                               kTolerant, 120, false, "", kInvalidTimes},
                                         Timed{"ThatEndedThreeMinutesAgoIsGood", kBehind, kTolerant,
                                               420, false, kAliceUser, ""}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tavrel::tests
