#include "tavrel/Ldap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <string>
#include <type_traits>
#include <vector>

#include "FakeLdap.h"
#include "LogCapture.h"

namespace tavrel::tests {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Field;
using testing::IsEmpty;
using vdi::LDAP_ENCRYPTION_LDAPS;
using vdi::LDAP_ENCRYPTION_NONE;
using vdi::LDAP_ENCRYPTION_STARTTLS;

// What a session does on its way to a bind, by what makes sessions differ.
const std::string kVersion = "ldap_set_option 1 LDAP_OPT_PROTOCOL_VERSION 3";
const std::string kUnverified = "ldap_set_option 1 LDAP_OPT_X_TLS_REQUIRE_CERT 0";
const std::string kAuthority = "ldap_set_option 1 LDAP_OPT_X_TLS_CACERTFILE /ca.pem";
const std::string kNewContext = "ldap_set_option 1 LDAP_OPT_X_TLS_NEWCTX 0";
const std::string kReferrals = "ldap_set_option 1 LDAP_OPT_REFERRALS off";
const std::string kTimeout = "ldap_set_option 1 LDAP_OPT_NETWORK_TIMEOUT 10 s 0 us";
const std::string kStartTls = "ldap_start_tls_s 1";
const std::string kBind = "ldap_sasl_bind_s 1 'admin' simple 'secret'";

const std::string kEarlier = "what an earlier call left";

struct Server {
  const char* host;
  int encryption;
  const char* cert_path;
  const char* url;
  std::vector<std::string> steps;  // between ldap_initialize and the bind
};

void PrintTo(const Server& server, std::ostream* out) {
  *out << "'" << server.host << "' with encryption " << server.encryption << " and certificates '"
       << server.cert_path << "'";
}

class ConnectTo : public testing::TestWithParam<Server> {};

TEST_P(ConnectTo, TakesTheseStepsInThisOrder) {
  const Server& server = GetParam();
  const auto encryption = static_cast<vdi::Ldap_encryption>(server.encryption);
  FakeLdap fake;
  LogCapture log;
  Ldap session(server.host, encryption, server.cert_path);
  std::string error = kEarlier;

  const bool connected = session.Connect("admin", "secret", &error);

  EXPECT_TRUE(connected);
  EXPECT_EQ(error, kEarlier);
  std::vector<std::string> steps = {std::string("ldap_initialize 1 ") + server.url, kVersion};
  steps.insert(steps.end(), server.steps.begin(), server.steps.end());
  steps.push_back(kBind);
  EXPECT_THAT(fake.Lines(), ElementsAreArray(steps));
  EXPECT_THAT(log.Notable(), IsEmpty());
  EXPECT_EQ(session.handle, fake.Handle(1));
  EXPECT_EQ(session.host, server.host);
  EXPECT_EQ(session.encryption, encryption);
  EXPECT_EQ(session.cert_path, server.cert_path);
}

const std::vector<std::string> kPlain = {kReferrals, kTimeout};
const std::vector<std::string> kTls = {kUnverified, kNewContext, kReferrals, kTimeout};
const std::vector<std::string> kVerifiedTls = {kAuthority, kNewContext, kReferrals, kTimeout};
const std::vector<std::string> kUpgraded = {kUnverified, kNewContext, kReferrals, kTimeout,
                                            kStartTls};
const std::vector<std::string> kVerifiedUpgraded = {kAuthority, kNewContext, kReferrals, kTimeout,
                                                    kStartTls};

// A host without a scheme gets StartTLS whatever was asked for.
INSTANTIATE_TEST_SUITE_P(
    HostsWithoutAScheme, ConnectTo,
    testing::Values(Server{"dc1", 0, "", "ldap://dc1", kUpgraded},
                    Server{"dc1", 0, "/ca.pem", "ldap://dc1", kVerifiedUpgraded},
                    Server{"dc1", 1, "", "ldap://dc1", kUpgraded},
                    Server{"dc1", 2, "/ca.pem", "ldap://dc1", kVerifiedUpgraded},
                    Server{"dc1", 7, "", "ldap://dc1", kUpgraded},
                    Server{"dc1:3268", 0, "", "ldap://dc1:3268", kUpgraded},
                    Server{"", 0, "", "ldap://", kUpgraded},
                    // neither upper case nor anything before it makes a scheme
                    Server{"LDAP://dc1", 0, "", "ldap://LDAP://dc1", kUpgraded},
                    Server{"LDAPS://dc1", 1, "", "ldap://LDAPS://dc1", kUpgraded},
                    Server{" ldap://dc1", 0, "", "ldap:// ldap://dc1", kUpgraded},
                    Server{"ldap:/dc1", 0, "", "ldap://ldap:/dc1", kUpgraded},
                    Server{"ldapi://dc1", 0, "", "ldap://ldapi://dc1", kUpgraded}));

INSTANTIATE_TEST_SUITE_P(
    Urls, ConnectTo,
    testing::Values(Server{"ldap://dc1", 0, "", "ldap://dc1", kPlain},
                    Server{"ldap://dc1:3268", 0, "/ca.pem", "ldap://dc1:3268", kPlain},
                    Server{"ldap://dc1", 1, "", "ldap://dc1", kTls},
                    Server{"ldap://dc1", 2, "", "ldap://dc1", kUpgraded},
                    Server{"ldap://dc1", 2, "/ca.pem", "ldap://dc1", kVerifiedUpgraded},
                    Server{"ldaps://dc1", 0, "/ca.pem", "ldaps://dc1", kPlain},
                    Server{"ldaps://dc1", 1, "", "ldaps://dc1", kTls},
                    Server{"ldaps://dc1:3269", 1, "/ca.pem", "ldaps://dc1:3269", kVerifiedTls},
                    Server{"ldaps://dc1", 2, "/ca.pem", "ldaps://dc1", kVerifiedUpgraded},
                    // any other value acts like 1
                    Server{"ldap://dc1", 7, "", "ldap://dc1", kTls},
                    Server{"ldaps://dc1", -1, "/ca.pem", "ldaps://dc1", kVerifiedTls}));

struct Step {
  std::string call;
  std::string prefix;  // of the record
  const char* cert_path = "";
};

void PrintTo(const Step& step, std::ostream* out) {
  *out << step.call;
}

class ConnectFails : public testing::TestWithParam<Step> {};

TEST_P(ConnectFails, WithoutATextForTheReasonToo) {
  const Step& step = GetParam();
  FakeLdap fake;
  fake.Refuse(step.call, LDAP_NO_MEMORY);
  LogCapture log;
  Ldap session("dc1", LDAP_ENCRYPTION_NONE, step.cert_path);

  const bool connected = session.Connect("admin", "secret", nullptr);

  EXPECT_FALSE(connected);
  EXPECT_THAT(log.Notable(),
              ElementsAre("3 ldap Connect: " + step.prefix + "ldap://dc1: Out of memory"));
}

TEST_P(ConnectFails, AtTheFirstStepThatFails) {
  const Step& step = GetParam();
  FakeLdap fake;
  fake.Refuse(step.call, LDAP_LOCAL_ERROR);
  LogCapture log;
  Ldap session("dc1", LDAP_ENCRYPTION_NONE, step.cert_path);
  std::string error = kEarlier;

  const bool connected = session.Connect("admin", "secret", &error);

  EXPECT_FALSE(connected);
  EXPECT_EQ(error, "Local error");
  const auto& all = *step.cert_path == '\0' ? kUpgraded : kVerifiedUpgraded;
  std::vector<std::string> steps = {"ldap_initialize 1 ldap://dc1", kVersion};
  steps.insert(steps.end(), all.begin(), all.end());
  steps.push_back(kBind);
  const auto failed = std::find_if(steps.begin(), steps.end(), [&](const std::string& line) {
    return line.rfind(step.call, 0) == 0;
  });
  ASSERT_NE(failed, steps.end());
  steps.erase(failed + 1, steps.end());
  EXPECT_THAT(fake.Lines(), ElementsAreArray(steps));
  EXPECT_THAT(log.Notable(),
              ElementsAre("3 ldap Connect: " + step.prefix + "ldap://dc1: Local error"));
}

TEST_P(ConnectFails, AndLeavesWhatWasOpenedToBeClosedOnce) {
  const Step& step = GetParam();
  const bool opened = step.call != "ldap_initialize";
  FakeLdap fake;
  fake.Refuse(step.call, LDAP_LOCAL_ERROR);
  Ldap session("dc1", LDAP_ENCRYPTION_NONE, step.cert_path);
  session.Connect("admin", "secret", nullptr);
  ASSERT_EQ(session.handle, opened ? fake.Handle(1) : nullptr);
  const std::size_t calls = fake.Lines().size();

  session.Disconnect();
  session.Disconnect();

  EXPECT_EQ(session.handle, nullptr);
  ASSERT_EQ(fake.Lines().size(), calls + (opened ? 1 : 0));
  if (opened) {
    EXPECT_EQ(fake.Lines().back(), "ldap_unbind_ext 1");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, ConnectFails,
    testing::Values(Step{"ldap_initialize", "LDAP init failed against "},
                    Step{kVersion, "LDAP set version failed against "},
                    Step{kUnverified, "LDAP set require cert failed against "},
                    Step{kAuthority, "LDAP set cert '/ca.pem'failed against ", "/ca.pem"},
                    Step{kNewContext, "LDAP new tls context failed against "},
                    Step{kNewContext, "LDAP new tls context failed against ", "/ca.pem"},
                    Step{kReferrals, "LDAP set referral failed against "},
                    Step{kTimeout, "LDAP set timeout failed against "},
                    Step{kStartTls, "LDAP starttls failed against "},
                    Step{kBind, "LDAP bind failed against "}));

TEST(Connect, TakesEveryCodeButZeroForAFailure) {
  for (const int code : {LDAP_SERVER_DOWN, LDAP_INVALID_CREDENTIALS, LDAP_SASL_BIND_IN_PROGRESS,
                         LDAP_REFERRAL, 4711}) {
    FakeLdap fake;
    fake.Refuse("ldap_sasl_bind_s", code);
    Ldap session("ldap://dc1", LDAP_ENCRYPTION_NONE, "");
    std::string error;

    const bool connected = session.Connect("admin", "secret", &error);

    EXPECT_FALSE(connected) << code;
    EXPECT_EQ(error, ldap_err2string(code));
  }
}

TEST(Connect, PassesUserAndPasswordAsGiven) {
  FakeLdap fake;
  const std::string password("a\0b", 3);
  const std::vector<std::pair<std::string, std::string>> given = {
      {"", ""}, {"", "secret"}, {"CORP\\Admin", ""}, {"Admin@corp.example.com", password}};

  for (const auto& [user, secret] : given) {
    Ldap session("ldap://dc1", LDAP_ENCRYPTION_NONE, "");
    EXPECT_TRUE(session.Connect(user, secret, nullptr));
  }

  std::vector<std::string> binds;
  for (const std::string& line : fake.Lines()) {
    if (line.rfind("ldap_sasl_bind_s ", 0) == 0) binds.push_back(line);
  }
  EXPECT_THAT(
      binds, ElementsAre("ldap_sasl_bind_s 1 '' simple ''", "ldap_sasl_bind_s 2 '' simple 'secret'",
                         "ldap_sasl_bind_s 3 'CORP\\Admin' simple ''",
                         "ldap_sasl_bind_s 4 'Admin@corp.example.com' simple '" + password + "'"));
}

TEST(Connect, NeverLogsThePassword) {
  for (const int code : {LDAP_SUCCESS, LDAP_INVALID_CREDENTIALS}) {
    FakeLdap fake;
    fake.Refuse("ldap_sasl_bind_s", code);
    LogCapture log;
    Ldap session("dc1", LDAP_ENCRYPTION_STARTTLS, "/ca.pem");

    session.Connect("admin", "S3cr3t!", nullptr);

    EXPECT_THAT(log.Lines(), Each(testing::Not(testing::HasSubstr("S3cr3t!"))));
  }
}

TEST(Connect, ASecondTimeDoesNotCloseTheEarlierHandle) {
  FakeLdap fake;
  Ldap session("ldap://dc1", LDAP_ENCRYPTION_NONE, "");
  session.Connect("admin", "secret", nullptr);

  session.Connect("admin", "secret", nullptr);

  EXPECT_EQ(session.handle, fake.Handle(2));
  EXPECT_THAT(fake.Lines(), Each(testing::Not(testing::StartsWith("ldap_unbind_ext"))));
}

TEST(Connect, LogsWhomItConnectsToAndThatItIsBound) {
  FakeLdap fake;
  LogCapture log;
  Ldap session("dc1", LDAP_ENCRYPTION_NONE, "");

  session.Connect("admin", "secret", nullptr);

  EXPECT_THAT(log.Lines(), ElementsAre("1 ldap Connect: Connecting to host: ldap://dc1",
                                       "1 ldap Connect: LDAP bind is successful"));
  EXPECT_THAT(log.Records(), Each(AllOf(Field(&LogRecord::file, "Ldap.cpp"),
                                        Field(&LogRecord::line, testing::Gt(0)))));
}

TEST(LdapSession, StoresItsThreeValuesAndContactsNobodyAtConstruction) {
  FakeLdap fake;
  LogCapture log;

  const Ldap session("Dc1.corp.example.com", LDAP_ENCRYPTION_LDAPS, "/etc/ca.pem");

  EXPECT_EQ(session.host, "Dc1.corp.example.com");
  EXPECT_EQ(session.encryption, LDAP_ENCRYPTION_LDAPS);
  EXPECT_EQ(session.cert_path, "/etc/ca.pem");
  EXPECT_EQ(session.handle, nullptr);
  EXPECT_THAT(fake.Lines(), IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(LdapSession, ClosesItsHandleOnceHoweverOftenItIsDisconnected) {
  FakeLdap fake;
  {
    Ldap session("dc1", LDAP_ENCRYPTION_NONE, "");
    session.handle = fake.Handle(1);

    session.Disconnect();
    session.Disconnect();

    EXPECT_EQ(session.handle, nullptr);
  }
  EXPECT_THAT(fake.Lines(), ElementsAre("ldap_unbind_ext 1"));
}

TEST(LdapSession, ClosesItsHandleWhenDestroyed) {
  FakeLdap fake;

  {
    const Ldap session("dc1", LDAP_ENCRYPTION_NONE, "");
    session.handle = fake.Handle(1);
  }

  EXPECT_THAT(fake.Lines(), ElementsAre("ldap_unbind_ext 1"));
}

TEST(LdapSession, WithoutAHandleClosesNothing) {
  FakeLdap fake;

  {
    Ldap session("dc1", LDAP_ENCRYPTION_NONE, "");
    session.Disconnect();
  }

  EXPECT_THAT(fake.Lines(), IsEmpty());
}

TEST(LdapSession, MovesItsHandleIntoACopyAlthoughItIsConst) {
  FakeLdap fake;
  {
    const Ldap original("dc1", LDAP_ENCRYPTION_LDAPS, "/ca.pem");
    original.handle = fake.Handle(1);

    const Ldap copy(original);

    EXPECT_EQ(copy.host, "dc1");
    EXPECT_EQ(copy.encryption, LDAP_ENCRYPTION_LDAPS);
    EXPECT_EQ(copy.cert_path, "/ca.pem");
    EXPECT_EQ(copy.handle, fake.Handle(1));
    EXPECT_EQ(original.handle, nullptr);
    EXPECT_EQ(original.host, "dc1");
  }
  EXPECT_THAT(fake.Lines(), ElementsAre("ldap_unbind_ext 1"));
}

TEST(LdapSession, OutlivesTheOneItWasCopiedFrom) {
  FakeLdap fake;
  std::list<Ldap> sessions;

  {
    Ldap session("dc1", LDAP_ENCRYPTION_NONE, "");
    session.handle = fake.Handle(1);
    sessions.push_back(session);
  }

  EXPECT_THAT(fake.Lines(), IsEmpty());
  EXPECT_EQ(sessions.back().handle, fake.Handle(1));
}

TEST(LdapSession, MovesItsHandleWhenAssigned) {
  FakeLdap fake;
  {
    Ldap source("dc1", LDAP_ENCRYPTION_LDAPS, "/ca.pem");
    source.handle = fake.Handle(1);
    Ldap target("dc2", LDAP_ENCRYPTION_NONE, "");

    Ldap& result = target = source;

    EXPECT_EQ(&result, &target);
    EXPECT_EQ(target.host, "dc1");
    EXPECT_EQ(target.encryption, LDAP_ENCRYPTION_LDAPS);
    EXPECT_EQ(target.cert_path, "/ca.pem");
    EXPECT_EQ(target.handle, fake.Handle(1));
    EXPECT_EQ(source.handle, nullptr);
  }
  EXPECT_THAT(fake.Lines(), ElementsAre("ldap_unbind_ext 1"));
}

TEST(LdapSession, OverwritesTheHandleThatItHeldWhenAssignedTo) {
  FakeLdap fake;
  Ldap source("dc1", LDAP_ENCRYPTION_NONE, "");
  source.handle = fake.Handle(1);
  Ldap target("dc2", LDAP_ENCRYPTION_NONE, "");
  target.handle = fake.Handle(2);

  target = source;

  EXPECT_EQ(target.handle, fake.Handle(1));
  EXPECT_THAT(fake.Lines(), IsEmpty());
}

TEST(LdapSession, AssignedToItselfStaysAsItIs) {
  FakeLdap fake;
  Ldap session("dc1", LDAP_ENCRYPTION_LDAPS, "/ca.pem");
  session.handle = fake.Handle(1);
  Ldap& same = session;

  session = same;

  EXPECT_EQ(session.host, "dc1");
  EXPECT_EQ(session.encryption, LDAP_ENCRYPTION_LDAPS);
  EXPECT_EQ(session.cert_path, "/ca.pem");
  EXPECT_EQ(session.handle, fake.Handle(1));
  EXPECT_THAT(fake.Lines(), IsEmpty());
}

// Assignment changes its source, so it must not be possible from a constant one.
static_assert(std::is_assignable_v<Ldap&, Ldap&>);
static_assert(!std::is_assignable_v<Ldap&, const Ldap&>);
static_assert(std::is_copy_constructible_v<Ldap>);
static_assert(!std::is_polymorphic_v<Ldap>);

}  // namespace
}  // namespace tavrel::tests
