#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "GroupedDigits.h"
#include "Interpose.h"
#include "JoinerFixture.h"
#include "LdapRequest.h"

namespace tavrel::tests {
namespace {

using AccountChange = JoinerFixture;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

// --- creation ------------------------------------------------------------------------------------

std::vector<std::string> AddRequest(const std::string& dn, const std::string& account,
                                    const std::string& upper_host, const std::string& fqdn) {
  return {"ldap_add_ext_s 1 'cn=" + account + ",cn=Computers," + dn + "'",
          "add objectClass: user, computer",
          "add userAccountControl: 4096",
          "add dNSHostName: " + fqdn,
          "add cn: " + account,
          "add name: " + account,
          "add sAMAccountName: " + account + "$",
          "add displayName: " + account,
          "add servicePrincipalName: HOST/" + upper_host + ", HOST/" + fqdn,
          "add msDs-supportedEncryptionTypes: 4",
          "add instanceType: 4",
          "add operatingSystem: Linux",
          "add objectCategory: CN=Computer,CN=Schema,CN=Configuration," + dn};
}

TEST_F(AccountChange, AddsTheAccountWithTwelveAttributesInThisOrder) {
  struct Case {
    std::string host, domain, dn, account, upper_host, fqdn;
  };
  const Case cases[] = {
      {"node01", "lab.local", "dc=LAB,dc=LOCAL", "NODE01", "NODE01", "node01.LAB.LOCAL"},
      {"Appliance.Other.net", "corp.example.com", "dc=CORP,dc=EXAMPLE,dc=COM", "APPLIANCE",
       "APPLIANCE", "appliance.CORP.EXAMPLE.COM"},
      // Only the account's names are shortened.
      {"ApplianceClusterNode", "corp", "dc=CORP", "APPLIAN-40746CC", "APPLIANCECLUSTERNODE",
       "applianceclusternode.CORP"},
      {"", "", "", "", "", "."},
  };

  for (const Case& the : cases) {
    const MachineName host(the.host);
    const JoinParameters parameters(the.domain, {}, "admin", "secret");
    const AccountObject absent = {false, false, fake.Handle(1), 0};
    fake.Clear();

    Joiner(&parameters, &discovery).AddAccountObject(absent, &error);

    EXPECT_THAT(fake.Lines(),
                ElementsAreArray(AddRequest(the.dn, the.account, the.upper_host, the.fqdn)));
  }
}

TEST_F(AccountChange, ReportsTheAccountItAdded) {
  // Only the handle of what came in counts.
  for (const bool failed : {false, true}) {
    const AccountObject account =
        joiner.AddAccountObject({failed, failed, fake.Handle(1), 514}, &error);

    EXPECT_FALSE(account.failed);
    EXPECT_TRUE(account.exists);
    EXPECT_EQ(account.ldap, fake.Handle(1));
    EXPECT_EQ(account.user_account_control, 4096U);
  }
  EXPECT_EQ(error, kEarlier);
  EXPECT_THAT(fake.Lines(), Contains("add userAccountControl: 4096").Times(2));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(AccountChange, ReportsThatTheAccountCouldNotBeAdded) {
  fake.Refuse("ldap_add_ext_s", LDAP_ALREADY_EXISTS);
  for (std::string* const reason : {&error, static_cast<std::string*>(nullptr)}) {
    log.Clear();

    const AccountObject account = joiner.AddAccountObject(Account(514), reason);

    EXPECT_TRUE(account.failed);
    EXPECT_FALSE(account.exists);
    EXPECT_EQ(account.ldap, fake.Handle(1));
    EXPECT_EQ(account.user_account_control, 4096U);
    EXPECT_THAT(log.Notable(),
                ElementsAre("4 ldap-join AddAccountObject: LDAP add failed: Already exists"));
  }
  EXPECT_EQ(error, "Already exists");
}

TEST_F(AccountChange, TakesNoResultCodeForASmallerOne) {
  for (const int code : {256, 4096}) {
    const auto refuses = [&](auto...) { return code; };
    const StandIn add(calls::ldap_add_ext_s, refuses);
    const StandIn modify(calls::ldap_modify_ext_s, refuses);

    EXPECT_TRUE(joiner.AddAccountObject(Account(), &error).failed) << code;
    EXPECT_FALSE(joiner.SetProperties(Account(), &error)) << code;
    EXPECT_FALSE(joiner.SetPassword(Account(), &error)) << code;
    EXPECT_EQ(error, ldap_err2string(code));
  }
}

TEST_F(AccountChange, CannotAddWithoutAHandle) {
  for (std::string* const reason : {&error, static_cast<std::string*>(nullptr)}) {
    const AccountObject account = joiner.AddAccountObject({false, true, nullptr, 514}, reason);

    EXPECT_TRUE(account.failed);
    EXPECT_FALSE(account.exists);
    EXPECT_EQ(account.user_account_control, 4096U);
    EXPECT_EQ(account.ldap, nullptr);
  }
  EXPECT_EQ(error, "Invalid LDAP context");
  EXPECT_THAT(fake.Lines(), IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

// --- password ------------------------------------------------------------------------------------

// The machine password in double quotes, in UTF-16LE.
std::string PasswordValue(const JoinParameters& params) {
  std::string bytes;
  for (const char c : '"' + params.GetMachinePassword() + '"')
    bytes.append({c, '\0'});
  return Hex(bytes);
}

TEST_F(AccountChange, ReplacesThePasswordByTheMachinesWithTheSameValueEveryTime) {
  EXPECT_TRUE(joiner.SetPassword(Account(), &error));
  EXPECT_TRUE(joiner.SetPassword(Account(), nullptr));

  const std::string value = PasswordValue(params);
  EXPECT_THAT(value, SizeIs(2 * 104));
  EXPECT_THAT(fake.Lines(),
              ElementsAre("ldap_modify_ext_s 1 " + kDn, "replace binary unicodePwd: " + value,
                          "ldap_modify_ext_s 1 " + kDn, "replace binary unicodePwd: " + value));
  EXPECT_EQ(error, kEarlier);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(AccountChange, ReportsThatThePasswordWasRefusedAndDoesNotTellIt) {
  fake.Refuse("ldap_modify_ext_s", LDAP_UNWILLING_TO_PERFORM);
  for (std::string* const reason : {&error, static_cast<std::string*>(nullptr)}) {
    log.Clear();

    const bool set = joiner.SetPassword(Account(), reason);

    EXPECT_FALSE(set);
    EXPECT_THAT(log.Notable(),
                ElementsAre("4 ldap-join SetPassword: LDAP modify failed: Server is unwilling to "
                            "perform"));
  }
  EXPECT_EQ(error, "Server is unwilling to perform");
}

TEST_F(AccountChange, SetsNoPasswordWhenNoneCouldBeMade) {
  const JoinParameters unmade("unmade.example.com", {}, "admin", "secret");
  const Joiner other(&unmade, &discovery);
  const StandIn no_device(calls::open, [](auto...) {
    errno = ENOENT;
    return -1;
  });
  for (std::string* const reason : {&error, static_cast<std::string*>(nullptr)}) {
    log.Clear();

    const bool set = other.SetPassword(Account(), reason);

    EXPECT_FALSE(set);
    EXPECT_THAT(log.Notable(),
                ElementsAre("4 random-string RandomString: Unable to open /dev/urandom: No such "
                            "file or directory",
                            "4 ldap-join SetPassword: Set password failed: Unable to generate "
                            "password to join domain"));
  }
  EXPECT_EQ(error, "Unable to generate password to join domain");
  EXPECT_THAT(fake.Lines(), IsEmpty());
}

TEST_F(AccountChange, SetsNoPasswordThatCannotBeEncoded) {
  const JoinParameters odd("odd.example.com", {}, "admin", "secret");
  const Joiner other(&odd, &discovery);
  std::string text(68, '\xFF');
  BUF_MEM memory = {text.size(), text.data(), text.size(), 0};
  const StandIn garbling(calls::BIO_ctrl, [&](BIO* bio, int command, long number, void* pointer) {
    if (command != BIO_C_GET_BUF_MEM_PTR) {
      return calls::BIO_ctrl.Real(bio, command, number, pointer);
    }
    *static_cast<BUF_MEM**>(pointer) = &memory;
    return 1L;
  });
  log.Clear();

  const bool set = other.SetPassword(Account(), &error);

  EXPECT_FALSE(set);
  EXPECT_EQ(error, "Unable to generate password to join domain");
  EXPECT_THAT(fake.Lines(), IsEmpty());
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 string_encoding EncodeUtf8to16Octetstring: support for UTF8 encoded "
                          "with more than 1 byte not implemented",
                          "4 ldap-join SetPassword: Set password failed: Unable to generate "
                          "password to join domain"));
}

// --- flags ---------------------------------------------------------------------------------------

TEST_F(AccountChange, MakesTheAccountAnEnabledWorkstationAndKeepsItsOtherFlags) {
  const GroupedDigits digits;
  const std::pair<std::uint32_t, std::string> cases[] = {
      {4096, "4096"},
      {0, "4096"},
      {514, "4096"},
      {0x202, "4096"},
      {0x10202, "69632"},
      {0x11202, "69632"},
      {0x1002, "4096"},
      {0x80000, "528384"},
      {0xFFFFFFFF, "4294966781"},
      {0x80000000, "2147487744"},
  };

  for (const auto& [flags, written] : cases) {
    fake.Clear();
    log.Clear();

    const bool set = joiner.SetProperties(Account(flags), &error);

    EXPECT_TRUE(set);
    EXPECT_THAT(fake.Lines(),
                ElementsAre("ldap_modify_ext_s 1 " + kDn, "replace userAccountControl: " + written))
        << "from " << flags;
    EXPECT_THAT(log.Lines(),
                ElementsAre("1 ldap-join SetProperties: Setting user account control: " + written));
  }
  EXPECT_EQ(error, kEarlier);
}

TEST_F(AccountChange, ReportsThatTheFlagsWereRefused) {
  fake.Refuse("ldap_modify_ext_s", LDAP_INSUFFICIENT_ACCESS);
  for (std::string* const reason : {&error, static_cast<std::string*>(nullptr)}) {
    log.Clear();

    const bool set = joiner.SetProperties(Account(), reason);

    EXPECT_FALSE(set);
    EXPECT_THAT(log.Notable(),
                ElementsAre("4 ldap-join SetProperties: LDAP modify failed: Insufficient access"));
  }
  EXPECT_EQ(error, "Insufficient access");
}

TEST_F(AccountChange, SetsNothingWithoutAHandle) {
  AccountObject account = Account();
  account.ldap = nullptr;
  for (const auto set : {&Joiner::SetPassword, &Joiner::SetProperties}) {
    error = kEarlier;

    EXPECT_FALSE((joiner.*set)(account, &error));
    EXPECT_FALSE((joiner.*set)(account, nullptr));

    EXPECT_EQ(error, "Invalid LDAP context");
  }
  EXPECT_THAT(fake.Lines(), IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(AccountChange, ActsUnderTheNameThatTheMachineHasAtThatMoment) {
  Sessions({"dc1"});
  const AccountObject account = joiner.GetAccountObject(&error);
  const MachineName renamed("renamed");

  joiner.SetProperties(account, &error);

  EXPECT_THAT(fake.Lines(),
              Contains("ldap_modify_ext_s 1 'cn=RENAMED,cn=Computers,dc=CORP,dc=EXAMPLE,dc=COM'"));
}

}  // namespace
}  // namespace tavrel::tests
