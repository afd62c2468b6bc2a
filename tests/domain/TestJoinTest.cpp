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

}  // namespace
}  // namespace tavrel::tests
