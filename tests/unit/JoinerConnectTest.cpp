#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <type_traits>
#include <vector>

#include "JoinerFixture.h"

namespace tavrel::tests {
namespace {

using JoinerConnect = JoinerFixture;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using vdi::LDAP_ENCRYPTION_LDAPS;
using vdi::LDAP_ENCRYPTION_NONE;
using vdi::LDAP_ENCRYPTION_STARTTLS;

TEST_F(JoinerConnect, OnlyStoresItsPointersAtConstruction) {
  EXPECT_EQ(joiner.params, &params);
  EXPECT_EQ(joiner.discovery, &discovery);
  EXPECT_THAT(joiner.sessions, IsEmpty());
  EXPECT_THAT(fake.Lines(), IsEmpty());
  EXPECT_THAT(discovery.asked, IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

class ConfiguredServers : public JoinerFixture {
 protected:
  ConfiguredServers()
      : JoinerFixture({{"ldap://dc1", LDAP_ENCRYPTION_NONE, ""},
                       {"ldaps://dc2", LDAP_ENCRYPTION_LDAPS, "/ca.pem"},
                       {"dc3:3268", LDAP_ENCRYPTION_NONE, ""}}) {}
};

TEST_F(ConfiguredServers, AreAllBoundInTheirOrderAlthoughTheFirstAccepted) {
  const bool connected = joiner.Connect(&error);

  EXPECT_TRUE(connected);
  EXPECT_EQ(error, kEarlier);
  EXPECT_THAT(
      fake.Lines(),
      ElementsAre(
          "ldap_initialize 1 ldap://dc1", "ldap_set_option 1 LDAP_OPT_PROTOCOL_VERSION 3",
          "ldap_set_option 1 LDAP_OPT_REFERRALS off",
          "ldap_set_option 1 LDAP_OPT_NETWORK_TIMEOUT 10 s 0 us",
          "ldap_sasl_bind_s 1 'admin' simple 'secret'",  //
          "ldap_initialize 2 ldaps://dc2", "ldap_set_option 2 LDAP_OPT_PROTOCOL_VERSION 3",
          "ldap_set_option 2 LDAP_OPT_X_TLS_CACERTFILE /ca.pem",
          "ldap_set_option 2 LDAP_OPT_X_TLS_NEWCTX 0", "ldap_set_option 2 LDAP_OPT_REFERRALS off",
          "ldap_set_option 2 LDAP_OPT_NETWORK_TIMEOUT 10 s 0 us",
          "ldap_sasl_bind_s 2 'admin' simple 'secret'",  //
          "ldap_initialize 3 ldap://dc3:3268", "ldap_set_option 3 LDAP_OPT_PROTOCOL_VERSION 3",
          "ldap_set_option 3 LDAP_OPT_X_TLS_REQUIRE_CERT 0",
          "ldap_set_option 3 LDAP_OPT_X_TLS_NEWCTX 0", "ldap_set_option 3 LDAP_OPT_REFERRALS off",
          "ldap_set_option 3 LDAP_OPT_NETWORK_TIMEOUT 10 s 0 us", "ldap_start_tls_s 3",
          "ldap_sasl_bind_s 3 'admin' simple 'secret'"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(ConfiguredServers, BecomeSessionsWhoseHandlesTheJoinerOwns) {
  joiner.Connect(&error);

  int session = 0;
  auto server = params.servers->begin();
  ASSERT_THAT(joiner.sessions, SizeIs(3));
  for (const Ldap& ldap : joiner.sessions) {
    EXPECT_EQ(LdapServer(ldap.host, ldap.encryption, ldap.cert_path), *server++);
    EXPECT_EQ(ldap.handle, fake.Handle(++session));
  }
  EXPECT_THAT(fake.Lines(), Each(testing::Not(StartsWith("ldap_unbind_ext"))));
}

TEST_F(ConfiguredServers, AreClosedWithTheJoinerEachOnce) {
  {
    Joiner other(&params, &discovery);
    other.Connect(&error);
  }

  EXPECT_THAT(StartingWith("ldap_unbind_ext", fake.Lines()),
              ElementsAre("ldap_unbind_ext 1", "ldap_unbind_ext 2", "ldap_unbind_ext 3"));
}

TEST_F(ConfiguredServers, NeedNoDiscoveryEvenWhenNoneAnswers) {
  fake.Refuse("ldap_sasl_bind_s", LDAP_SERVER_DOWN);

  joiner.Connect(&error);

  EXPECT_THAT(discovery.asked, IsEmpty());
}

TEST_F(ConfiguredServers, SucceedWhenOneAcceptsAndTheReasonIsThatOfTheLastFailure) {
  fake.Refuse("ldap_sasl_bind_s 1", LDAP_INVALID_CREDENTIALS);
  fake.Refuse("ldap_initialize 2 ldaps://dc2", LDAP_PARAM_ERROR);

  const bool connected = joiner.Connect(&error);

  EXPECT_TRUE(connected);
  EXPECT_EQ(error, "Bad parameter to an ldap routine");
  ASSERT_THAT(joiner.sessions, SizeIs(3));
  std::vector<LDAP*> handles;
  for (const Ldap& ldap : joiner.sessions)
    handles.push_back(ldap.handle);
  // The second call of ldap_initialize made no session, so the third server has the second.
  EXPECT_THAT(handles, ElementsAre(nullptr, nullptr, fake.Handle(2)));
}

TEST_F(ConfiguredServers, ThatFailAreClosedBeforeTheNextIsTried) {
  fake.Refuse("ldap_sasl_bind_s", LDAP_INVALID_CREDENTIALS);

  joiner.Connect(&error);

  std::vector<std::string> steps;
  for (const std::string& line : fake.Lines()) {
    if (line.rfind("ldap_set_option", 0) != 0) steps.push_back(line.substr(0, line.find(' ') + 2));
  }
  EXPECT_THAT(steps, ElementsAre("ldap_initialize 1", "ldap_sasl_bind_s 1", "ldap_unbind_ext 1",
                                 "ldap_initialize 2", "ldap_sasl_bind_s 2", "ldap_unbind_ext 2",
                                 "ldap_initialize 3", "ldap_start_tls_s 3", "ldap_sasl_bind_s 3",
                                 "ldap_unbind_ext 3"));
}

TEST_F(ConfiguredServers, FailWithTheReasonOfTheLastWhenNoneAccepts) {
  fake.Refuse("ldap_sasl_bind_s 1", LDAP_INVALID_CREDENTIALS);
  fake.Refuse("ldap_sasl_bind_s 2", LDAP_SERVER_DOWN);
  fake.Refuse("ldap_start_tls_s 3", LDAP_CONNECT_ERROR);

  const bool connected = joiner.Connect(&error);

  EXPECT_FALSE(connected);
  EXPECT_EQ(error, "Connect error");
  EXPECT_THAT(joiner.sessions, SizeIs(3));
  EXPECT_THAT(joiner.sessions, Each(Field(&Ldap::handle, nullptr)));
  EXPECT_THAT(
      log.Notable(),
      ElementsAre("3 ldap Connect: LDAP bind failed against ldap://dc1: Invalid credentials",
                  "3 ldap Connect: LDAP bind failed against ldaps://dc2: Can't contact LDAP server",
                  "3 ldap Connect: LDAP starttls failed against ldap://dc3:3268: Connect error"));
}

TEST_F(ConfiguredServers, AreTriedWhenTheCallerWantsNoReason) {
  fake.Refuse("ldap_sasl_bind_s 1", LDAP_INVALID_CREDENTIALS);

  EXPECT_TRUE(joiner.Connect(nullptr));

  EXPECT_THAT(joiner.sessions, SizeIs(3));
}

TEST_F(ConfiguredServers, AreAppendedOnceMoreByASecondConnect) {
  joiner.Connect(&error);
  fake.Refuse("ldap_sasl_bind_s", LDAP_SERVER_DOWN);

  const bool connected = joiner.Connect(&error);

  EXPECT_FALSE(connected);
  std::vector<std::string> sessions;
  for (const Ldap& ldap : joiner.sessions)
    sessions.push_back(ldap.host + (ldap.handle != nullptr ? " connected" : " closed"));
  EXPECT_THAT(sessions,
              ElementsAre("ldap://dc1 connected", "ldaps://dc2 connected", "dc3:3268 connected",
                          "ldap://dc1 closed", "ldaps://dc2 closed", "dc3:3268 closed"));
}

TEST_F(JoinerConnect, AsksDiscoveryForTheDomainInUpperCaseWhenNoServerIsConfigured) {
  joiner.Connect(&error);

  EXPECT_THAT(discovery.asked, ElementsAre("CORP.EXAMPLE.COM"));
}

TEST_F(JoinerConnect, ContactsDiscoveredServersWithStartTlsAndUnverified) {
  const FakeDiscovery found({"dc2.corp.example.com:389", "dc1.corp.example.com:3268", "dc3:389"});
  fake.Refuse("ldap_start_tls_s 1", LDAP_CONNECT_ERROR);
  Joiner discovering(&params, &found);

  const bool connected = discovering.Connect(&error);

  EXPECT_TRUE(connected);
  EXPECT_EQ(error, "Connect error");
  std::vector<LdapServer> servers;
  for (const Ldap& ldap : discovering.sessions)
    servers.emplace_back(ldap.host, ldap.encryption, ldap.cert_path);
  EXPECT_THAT(servers,
              ElementsAre(LdapServer("dc2.corp.example.com:389", LDAP_ENCRYPTION_STARTTLS, ""),
                          LdapServer("dc1.corp.example.com:3268", LDAP_ENCRYPTION_STARTTLS, ""),
                          LdapServer("dc3:389", LDAP_ENCRYPTION_STARTTLS, "")));
  EXPECT_THAT(fake.Lines(), Contains("ldap_set_option 3 LDAP_OPT_X_TLS_REQUIRE_CERT 0"));
  EXPECT_THAT(fake.Lines(), Contains("ldap_start_tls_s 3"));
  EXPECT_THAT(
      log.Notable(),
      ElementsAre("3 ldap Connect: LDAP starttls failed against ldap://dc2.corp.example.com:389: "
                  "Connect error"));
  EXPECT_THAT(*params.servers, IsEmpty());
}

TEST_F(JoinerConnect, FailsWhenDiscoveryFindsNothing) {
  for (std::string* const reason : {&error, static_cast<std::string*>(nullptr)}) {
    log.Clear();

    const bool connected = joiner.Connect(reason);

    EXPECT_FALSE(connected);
    EXPECT_THAT(joiner.sessions, IsEmpty());
    EXPECT_THAT(fake.Lines(), IsEmpty());
    EXPECT_THAT(log.Notable(),
                ElementsAre("4 ldap-join Connect: Unable to find ldap host for domain "
                            "CORP.EXAMPLE.COM"));
  }
  EXPECT_EQ(error, "Unable to find ldap host for domain");
}

static_assert(!std::is_polymorphic_v<Joiner>);

}  // namespace
}  // namespace tavrel::tests
