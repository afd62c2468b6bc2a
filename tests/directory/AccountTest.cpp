#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Directory.h"
#include "Hex.h"
#include "LogCapture.h"
#include "MachineName.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/Join.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vdi::LDAP_ENCRYPTION_NONE;
using vdi::LDAP_ENCRYPTION_STARTTLS;

constexpr char kDn[] = "cn=APPLIANCE,cn=Computers,dc=CORP,dc=EXAMPLE,dc=COM";
constexpr char kDc1[] = "dc1.corp.example.com";

LdapServer Server(const std::string& host) {
  return {host, LDAP_ENCRYPTION_STARTTLS, ""};
}

// A machine named appliance, without an account, that is to join corp.example.com.
class AccountTest : public testing::Test {
 protected:
  AccountTest() {
    admin.Delete(kDn);
    Administrator("dc2.corp.example.com").Delete(kDn);
  }

  static JoinParameters Params(const std::list<LdapServer>& servers,
                               const std::string& user = kAdmin,
                               const std::string& password = kAdminPassword) {
    return {"corp.example.com", servers, user, password};
  }

  // An account with these flags.
  void AddAccount(const std::vector<std::string>& flags) const {
    Object object = {{"objectClass", {"user", "computer"}}};
    if (!flags.empty()) object["userAccountControl"] = flags;
    admin.Add(kDn, object);
  }

  // The account's only value of `attribute`, as the directory has it now.
  std::string Stored(const std::string& attribute) const {
    const std::vector<std::string> values = admin.Read(kDn).value().at(attribute);
    return values.size() == 1 ? values[0] : "not one value";
  }

  const MachineName name{"Appliance.lab"};
  const Administrator admin;
  const DNSDiscoveryService discovery;
  std::string error;
};

// The joiner of most tests, bound to dc1.
class BoundAccountTest : public AccountTest {
 protected:
  void SetUp() override { ASSERT_TRUE(joiner.Connect(&error)) << error; }

  AccountObject Lookup() { return joiner.GetAccountObject(joiner.sessions.front(), &error); }

  JoinParameters params = Params({{kDc1, LDAP_ENCRYPTION_STARTTLS, ServerFile("ca.pem")}});
  Joiner joiner{&params, &discovery};
};

// --- connecting ----------------------------------------------------------------------------------

TEST_F(AccountTest, IsReachedThroughTheSecondServerWhenTheFirstIsDead) {
  const JoinParameters params = Params({Server("dead.corp.example.com"), Server(kDc1)});
  Joiner joiner(&params, &discovery);
  LogCapture log;

  const bool connected = joiner.Connect(&error);

  EXPECT_TRUE(connected);
  EXPECT_EQ(error, "Can't contact LDAP server");
  ASSERT_THAT(joiner.sessions, SizeIs(2));
  EXPECT_EQ(joiner.sessions.front().handle, nullptr);
  EXPECT_NE(joiner.sessions.back().handle, nullptr);
  const AccountObject account = joiner.GetAccountObject(&error);
  EXPECT_FALSE(account.failed);
  EXPECT_EQ(account.ldap, joiner.sessions.back().handle);
  EXPECT_THAT(log.Notable(),
              ElementsAre("3 ldap Connect: LDAP starttls failed against "
                          "ldap://dead.corp.example.com: Can't contact LDAP server"));
}

TEST_F(AccountTest, IsReachedThroughServersThatTheDnsNames) {
  const JoinParameters params = Params({});
  Joiner joiner(&params, &discovery);

  const bool connected = joiner.Connect(&error);

  EXPECT_TRUE(connected);
  std::vector<std::string> sessions;
  for (const Ldap& session : joiner.sessions)
    sessions.push_back(session.host + (session.handle != nullptr ? " bound" : " closed"));
  EXPECT_THAT(sessions, testing::UnorderedElementsAre("dead.corp.example.com:389 closed",
                                                      "dc1.corp.example.com:389 bound",
                                                      "dc2.corp.example.com:389 bound"));
}

// --- lookup --------------------------------------------------------------------------------------

TEST_F(BoundAccountTest, HasTheFlagsThatTheDirectoryHas) {
  AddAccount({"4098"});
  LogCapture log;

  const AccountObject account = Lookup();

  EXPECT_FALSE(account.failed);
  EXPECT_TRUE(account.exists);
  EXPECT_EQ(account.user_account_control, 4098U);
  EXPECT_EQ(account.ldap, joiner.sessions.front().handle);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(BoundAccountTest, IsNotLookedForOnTheServerOfAReferral) {
  const MachineName referred("referred");
  LogCapture log;

  const AccountObject account = Lookup();

  EXPECT_TRUE(account.failed);
  EXPECT_FALSE(account.exists);
  EXPECT_EQ(error, "Referral");
  EXPECT_THAT(log.Notable(), ElementsAre("4 ldap-join GetAccountObject: LDAP search failed: "
                                         "Referral"));
}

// --- creation ------------------------------------------------------------------------------------

// --- flags and password --------------------------------------------------------------------------

TEST_F(BoundAccountTest, LosesAllButOneOfSeveralFlagValues) {
  AddAccount({"514", "512"});

  EXPECT_TRUE(joiner.SetProperties(Lookup(), &error));

  EXPECT_EQ(Stored("userAccountControl"), "4096");
}

TEST_F(BoundAccountTest, GetsTheQuotedMachinePasswordInUtf16) {
  AddAccount({"4096"});
  std::string expected;
  for (const char c : '"' + params.GetMachinePassword() + '"')
    expected.append({c, '\0'});
  LogCapture log;

  for (int time = 1; time <= 2; ++time) {
    EXPECT_TRUE(joiner.SetPassword(Lookup(), &error)) << error;
    EXPECT_EQ(Hex(Stored("unicodePwd")), Hex(expected));
  }

  EXPECT_THAT(expected, SizeIs(104));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(AccountTest, IsNotChangedByAUserWhoMayOnlyRead) {
  const JoinParameters params = Params({Server(kDc1)}, kReader, kReaderPassword);
  Joiner joiner(&params, &discovery);
  ASSERT_TRUE(joiner.Connect(&error));
  const AccountObject absent = joiner.GetAccountObject(&error);
  LogCapture log;

  EXPECT_TRUE(joiner.AddAccountObject(absent, &error).failed);
  EXPECT_EQ(std::exchange(error, ""), "Insufficient access");
  AddAccount({"514"});
  EXPECT_FALSE(joiner.SetProperties(absent, &error));
  EXPECT_EQ(std::exchange(error, ""), "Insufficient access");
  EXPECT_FALSE(joiner.SetPassword(absent, &error));
  EXPECT_EQ(error, "Insufficient access");

  EXPECT_EQ(Stored("userAccountControl"), "514");
  EXPECT_EQ(admin.Read(kDn)->count("unicodePwd"), 0U);
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 ldap-join AddAccountObject: LDAP add failed: Insufficient access",
                          "4 ldap-join SetProperties: LDAP modify failed: Insufficient access",
                          "4 ldap-join SetPassword: LDAP modify failed: Insufficient access"));
}

}  // namespace
}  // namespace tavrel::tests
