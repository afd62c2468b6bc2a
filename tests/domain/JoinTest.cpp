// Joins that work, and what they leave in the directory and in the keytab.
#include <unistd.h>

#include <cstdio>

#include "GssClient.h"
#include "JoinScenario.h"
#include "Records.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;

class DomainJoin : public JoinScenario {};

TEST_F(DomainJoin, ANewMachineGetsAnAccountAPasswordAndAKey) {
  NameMachine("newbox");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, "Keytab file not created yet.");
  EXPECT_EQ(joined.log, Log({kJoined}));
  EXPECT_THAT(Entries(), ElementsAre("NEWBOX$@CORP.EXAMPLE.COM version 1 enctype 23"));
}

TEST_F(DomainJoin, TheAccountHasTheTwelveAttributesInTheirOwnCase) {
  NameMachine("Mixed-Box", "MIXED-BOX");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  Attributes stored = directory.Read("MIXED-BOX");
  const Attributes expected = {
      {"dn", {"CN=MIXED-BOX,CN=Computers,DC=corp,DC=example,DC=com"}},
      // The directory completes the classes with those above them.
      {"objectClass", {"top", "person", "organizationalPerson", "user", "computer"}},
      {"userAccountControl", {"4096"}},
      {"dNSHostName", {"mixed-box.CORP.EXAMPLE.COM"}},
      {"cn", {"MIXED-BOX"}},
      {"name", {"MIXED-BOX"}},
      {"sAMAccountName", {"MIXED-BOX$"}},
      {"displayName", {"MIXED-BOX"}},
      {"servicePrincipalName", {"HOST/MIXED-BOX", "HOST/mixed-box.CORP.EXAMPLE.COM"}},
      {"msDS-SupportedEncryptionTypes", {"4"}},
      {"instanceType", {"4"}},
      {"operatingSystem", {"Linux"}},
      {"objectCategory", {"CN=Computer,CN=Schema,CN=Configuration,DC=corp,DC=example,DC=com"}}};
  for (auto attribute = stored.begin(); attribute != stored.end();) {
    // What the directory keeps for every account.
    attribute = expected.count(attribute->first) == 0 ? stored.erase(attribute) : ++attribute;
  }
  EXPECT_EQ(stored, expected);
}

TEST_F(DomainJoin, AJoinedMachineKeepsItsPasswordAndItsKeytab) {
  NameMachine("joined");
  JoinedEarlier();
  const std::string password_state = PasswordState();
  const std::string keytab_bytes = KeytabBytes();
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, kUntouched);
  EXPECT_EQ(joined.log, Log({kJoined}));
  EXPECT_EQ(PasswordState(), password_state);
  EXPECT_EQ(KeytabBytes(), keytab_bytes);
}

TEST_F(DomainJoin, ALostKeytabIsMadeAnew) {
  NameMachine("lost");
  JoinedEarlier();
  const std::string password_state = PasswordState();
  std::remove(keytab.c_str());
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, kNotCreated);
  EXPECT_EQ(joined.log, Log({kJoined}));
  EXPECT_NE(PasswordState(), password_state);
  EXPECT_THAT(Entries(), ElementsAre("LOST$@CORP.EXAMPLE.COM version 1 enctype 23"));
}

TEST_F(DomainJoin, APasswordChangedByOthersIsReplacedAndItsKeyIsTheNextVersion) {
  NameMachine("changed");
  JoinedEarlier();
  PasswordChangedByOthers();
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, "Preauthentication failed");
  EXPECT_EQ(joined.log, Log({kJoined, kKeyRefused}));
  EXPECT_THAT(Entries(), ElementsAre("CHANGED$@CORP.EXAMPLE.COM version 1 enctype 23",
                                     "CHANGED$@CORP.EXAMPLE.COM version 2 enctype 23"));
}

TEST_F(DomainJoin, ThePasswordOfThisProcessIsSetAgainWithoutAnotherKey) {
  JoinedRealm realm(*this, "again");
  const std::string keytab_bytes = KeytabBytes();
  PasswordChangedByOthers();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, "Preauthentication failed");
  EXPECT_EQ(joined.log, Log({kJoined, kKeyRefused}));
  EXPECT_EQ(KeytabBytes(), keytab_bytes);
}

// A program that writes a key before it sets the password may fail in between.
TEST_F(DomainJoin, AKeyThatNeverWasThePasswordsIsFollowedByOneThatWorks) {
  NameMachine("halfway");
  JoinedEarlier();
  KrbContext context;
  ASSERT_TRUE(context.SetKeytab(keytab));
  ASSERT_TRUE(context.SetClientPrincipal("HALFWAY$@CORP.EXAMPLE.COM"));
  ASSERT_TRUE(Keytab(&context).WriteKey("Never.Set.1", nullptr));
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_THAT(Entries(), ElementsAre("HALFWAY$@CORP.EXAMPLE.COM version 1 enctype 23",
                                     "HALFWAY$@CORP.EXAMPLE.COM version 2 enctype 23",
                                     "HALFWAY$@CORP.EXAMPLE.COM version 3 enctype 23"));
}

TEST_F(DomainJoin, AfterItsKeysWereClearedWritesTheCurrentOneAgain) {
  JoinedRealm realm(*this, "cleared");
  const GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  alice.Token("CLEARED$@CORP.EXAMPLE.COM");  // the client keeps its ticket
  KrbContext context;
  ASSERT_TRUE(context.SetKeytab(keytab));
  ASSERT_TRUE(context.SetClientPrincipal("CLEARED$@CORP.EXAMPLE.COM"));
  ASSERT_TRUE(Keytab(&context).ClearKeys(nullptr));
  ASSERT_THAT(Entries(), ElementsAre());

  const Outcome joined = Join(realm);
  std::vector<char> token = alice.Token("CLEARED$@CORP.EXAMPLE.COM");
  const std::string user = realm.Authenticate(token.data(), static_cast<int>(token.size()));

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
  EXPECT_THAT(Entries(), ElementsAre("CLEARED$@CORP.EXAMPLE.COM version 1 enctype 23"));
}

struct Flags {
  const char* object_class;
  std::uint32_t before;
  std::uint32_t after;
};
class JoinOfAnAccountMadeBeforehand : public JoinScenario,
                                      public testing::WithParamInterface<Flags> {};
INSTANTIATE_TEST_SUITE_P(
    WithFlags, JoinOfAnAccountMadeBeforehand,
    testing::Values(Flags{"computer", 0x1002, 0x1000},  // disabled
                    Flags{"computer", 0x1022, 0x1020},  // it needs no password, too
                    Flags{"user", 0x202, 0x1000},       // a disabled user's
                    Flags{"user", 0x10202, 0x11000}),   // its password never expires, too
    [](const auto& test) { return "From" + std::to_string(test.param.before); });

TEST_P(JoinOfAnAccountMadeBeforehand, EnablesAWorkstationAndKeepsItsOtherFlags) {
  const std::string before = std::to_string(GetParam().before);
  const std::string after = std::to_string(GetParam().after);
  NameMachine("beforehand");
  directory.Add(account, "", GetParam().object_class, GetParam().before);
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, kNotCreated);
  EXPECT_EQ(joined.log, Log({kJoined}));
  EXPECT_EQ(directory.Value(account, "userAccountControl"), after);
}

struct HostName {
  const char* what;
  const char* host;
  const char* account;
  const char* machine;  // the name in the service names
};
class JoinOfAHostNamed : public JoinScenario, public testing::WithParamInterface<HostName> {};
INSTANTIATE_TEST_SUITE_P(
    As, JoinOfAHostNamed,
    testing::Values(
        HostName{"FifteenCharacters", "fifteen-letters", "FIFTEEN-LETTERS", "fifteen-letters"},
        HostName{"SixteenCharacters", "sixteen--letters", "SIXTEEN-C0D94D0", "sixteen--letters"},
        HostName{"ALongName", "ApplianceClusterNode", "APPLIAN-40746CC", "ApplianceClusterNode"},
        HostName{
            "TheLongestName", "longest-host-name-that-the-kernel-takes-0123456789-0123456789-01",
            "LONGEST-1118AA5", "longest-host-name-that-the-kernel-takes-0123456789-0123456789-01"},
        HostName{"AFullName", "dotted.corp.example.com", "DOTTED", "dotted"}),
    [](const auto& test) { return test.param.what; });

std::string WithCase(std::string text, int (*change)(int)) {
  for (char& c : text)
    c = static_cast<char>(change(static_cast<unsigned char>(c)));
  return text;
}

TEST_P(JoinOfAHostNamed, ShortensTheAccountAndKeepsTheServiceNamesWhole) {
  const HostName& name = GetParam();
  NameMachine(name.host, name.account);
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, kNotCreated);
  EXPECT_EQ(joined.log, Log({kJoined}));
  const std::string fqdn = WithCase(name.machine, std::tolower) + ".CORP.EXAMPLE.COM";
  Attributes stored = directory.Read(name.account);
  EXPECT_THAT(stored["sAMAccountName"], ElementsAre(name.account + std::string("$")));
  EXPECT_THAT(stored["dNSHostName"], ElementsAre(fqdn));
  EXPECT_THAT(stored["servicePrincipalName"],
              ElementsAre("HOST/" + WithCase(name.machine, std::toupper), "HOST/" + fqdn));
  EXPECT_THAT(Entries(),
              ElementsAre(name.account + std::string("$@CORP.EXAMPLE.COM version 1 enctype 23")));
}

TEST_F(DomainJoin, LongNamesThatStartAlikeAreOneAccount) {
  NameMachine("cluster-node-number-1", "CLUSTER-DA68BF3");
  JoinedRealm first(*this);
  NameMachine("cluster-node-number-2", "CLUSTER-DA68BF3");
  keytab = folder / "second.keytab";
  KrbRealm second = Realm();

  const Outcome joined = Join(second);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.log, Log({kJoined}));
  EXPECT_EQ(directory.Value(account, "dNSHostName"), "cluster-node-number-1.CORP.EXAMPLE.COM");
}

// Announces the dead controller in DNS while it lives.
class DeadController {
 public:
  DeadController() {
    JoinScenario::Scene("dns add " + Lab("DEAD_NAME") + " A " + Lab("DEAD_IP"));
    JoinScenario::Scene("dns add " + kService + " SRV " + kRecord);
  }
  DeadController(const DeadController&) = delete;
  DeadController& operator=(const DeadController&) = delete;
  ~DeadController() {
    JoinScenario::Scene("dns delete " + kService + " SRV " + kRecord);
    JoinScenario::Scene("dns delete " + Lab("DEAD_NAME"));
  }

 private:
  const std::string kService = "_ldap._tcp.dc._msdcs." + Lab("DOMAIN");
  const std::string kRecord = "0 100 389 " + Lab("DEAD_NAME") + ".";
};

TEST_F(DomainJoin, ADeadControllerInDnsIsPassedOverWhereverItStands) {
  NameMachine("discovering");
  JoinedEarlier();
  const DeadController dead;
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, "Can't contact LDAP server");
  EXPECT_EQ(joined.log,
            Log({"3 ldap Connect: LDAP starttls failed against ldap://dc2.corp.example.com:389: "
                 "Can't contact LDAP server\n",
                 kJoined}));
}

}  // namespace
}  // namespace tavrel::tests
