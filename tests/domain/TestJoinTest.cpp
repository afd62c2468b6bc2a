// Tests of a join: with the keytab's keys when there are any, with the password otherwise.
#include <unistd.h>

#include "JoinScenario.h"
#include "Records.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;

class DomainJoinTest : public JoinScenario {};

TEST_F(DomainJoinTest, WithAKeyInTheKeytabIsTheJoin) {
  NameMachine("tested");
  JoinedEarlier();
  const std::string password_state = PasswordState();
  const std::string keytab_bytes = KeytabBytes();
  KrbRealm realm("nowhere.example.com", "nobody", "nothing", keytab);  // none of it is used

  const Outcome tested = TestJoin(realm);

  EXPECT_EQ(tested.status, kSuccess);
  EXPECT_EQ(tested.error, kUntouched);
  EXPECT_EQ(tested.log, Log({kJoined}));
  EXPECT_EQ(PasswordState(), password_state);
  EXPECT_EQ(KeytabBytes(), keytab_bytes);
}

TEST_F(DomainJoinTest, WithAKeyThatNoLongerWorksMendsTheJoin) {
  NameMachine("mended");
  JoinedEarlier();
  PasswordChangedByOthers();
  KrbRealm realm = Realm();

  const Outcome tested = TestJoin(realm);

  EXPECT_EQ(tested.status, kSuccess);
  EXPECT_EQ(tested.error, "Preauthentication failed");
  EXPECT_EQ(tested.log, Log({kJoined, kKeyRefused}));
  EXPECT_THAT(Entries(), ElementsAre("MENDED$@CORP.EXAMPLE.COM version 1 enctype 23",
                                     "MENDED$@CORP.EXAMPLE.COM version 2 enctype 23"));
}

TEST_F(DomainJoinTest, WithoutAKeytabSetsThePasswordOfANewMachineAndWritesNoKey) {
  NameMachine("nokey");
  KrbRealm realm = Realm();

  const Outcome tested = TestJoin(realm);
  const std::string password_state = PasswordState();
  const bool wrote_keytab = access(keytab.c_str(), F_OK) == 0;
  const Outcome joined = Join(realm);

  EXPECT_EQ(tested.status, kSuccess);
  EXPECT_EQ(tested.error, "KDC has no support for encryption type");
  EXPECT_EQ(tested.log, Log({kNoKeytab, kJoined, kNoPasswordYet}));
  EXPECT_FALSE(wrote_keytab);
  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.log, Log({kJoined}));
  EXPECT_NE(PasswordState(), password_state);
}

TEST_F(DomainJoinTest, WithKeysOfOthersOnlyGoesByThePassword) {
  NameMachine("owner");
  AddKey("SOMEONE", kEarlierPassword);
  const std::string keytab_bytes = KeytabBytes();
  KrbRealm realm = Realm();

  const Outcome tested = TestJoin(realm);

  EXPECT_EQ(tested.status, kSuccess);
  EXPECT_EQ(tested.error, "KDC has no support for encryption type");
  EXPECT_EQ(tested.log, Log({kJoined, kNoPasswordYet}));
  EXPECT_EQ(KeytabBytes(), keytab_bytes);
}

TEST_F(DomainJoinTest, APasswordThatIsAcceptedIsKept) {
  NameMachine("accepted");
  KrbRealm joined = Realm();
  ASSERT_EQ(Join(joined).status, kSuccess);
  const std::string password_state = PasswordState();
  keytab = folder / "other.keytab";
  KrbRealm realm = Realm();

  const Outcome tested = TestJoin(realm);

  EXPECT_EQ(tested.status, kSuccess);
  EXPECT_EQ(tested.error, kUntouched);
  EXPECT_EQ(tested.log, Log({kNoKeytab, kJoined}));
  EXPECT_EQ(PasswordState(), password_state);
  EXPECT_NE(access(keytab.c_str(), F_OK), 0);
}

TEST_F(DomainJoinTest, APasswordChangedByOthersIsSetAgain) {
  NameMachine("reset");
  JoinedEarlier();
  const std::string keytab_bytes = KeytabBytes();
  dc = Lab("DC_NAME");
  servers = {{dc, vdi::LDAP_ENCRYPTION_STARTTLS, Lab("CA")}};
  KrbRealm realm = Realm();
  const JoinParameters parameters = Parameters();

  const Outcome tested = Run([&](std::string* error) { return realm.TestJoin(parameters, error); });
  const std::string password_state = PasswordState();
  const Outcome again = Run([&](std::string* error) { return realm.TestJoin(parameters, error); });

  EXPECT_EQ(tested.status, kSuccess);
  EXPECT_EQ(tested.error, "Preauthentication failed");
  EXPECT_EQ(tested.log, Log({kJoined, kPasswordRefused}));
  EXPECT_EQ(again.status, kSuccess);
  EXPECT_EQ(again.error, kUntouched);
  EXPECT_EQ(again.log, Log({kJoined}));
  EXPECT_EQ(PasswordState(), password_state);
  EXPECT_EQ(KeytabBytes(), keytab_bytes);
}

TEST_F(DomainJoinTest, ADomainInLowerCaseIsTheSameDomain) {
  NameMachine("lowertest");
  JoinedEarlier();
  KrbRealm realm = Realm();
  domain = "corp.example.com";

  const Outcome tested = TestJoin(realm);

  EXPECT_EQ(tested.status, kSuccess);
  EXPECT_EQ(tested.log, Log({kJoined}));
}

}  // namespace
}  // namespace tavrel::tests
