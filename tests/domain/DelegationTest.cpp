// Joins by a user who is no administrator: which rights they take.
#include <cstdlib>
#include <filesystem>

#include "JoinScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

// Access control entries of the container of computers, without who receives them.
#define COMPUTER "bf967a86-0de6-11d0-a285-00aa003049e2"
constexpr char kCreateComputers[] = "(OA;;CC;" COMPUTER ";;";
constexpr char kWriteFlags[] = "(OA;CIIO;WP;bf967a68-0de6-11d0-a285-00aa003049e2;" COMPUTER ";";
constexpr char kResetPassword[] = "(OA;CIIO;CR;00299570-246d-11d0-a768-00aa006e0529;" COMPUTER ";";

struct Rights {
  const char* name;
  bool made_beforehand;  // the account, disabled and by somebody else
  std::vector<const char*> granted;
  int status;
  const char* error;
};

void PrintTo(const Rights& rights, std::ostream* out) {
  *out << rights.name;
}

// The user who joins has, but for the rights, those of every user.
class DelegatedJoin : public JoinScenario, public testing::WithParamInterface<Rights> {
 public:
  DelegatedJoin() {
    Scene("user joiner Joiner.Pass.1");
    user = "joiner@CORP.EXAMPLE.COM";
    password = "Joiner.Pass.1";
  }
  ~DelegatedJoin() override { Scene("delete joiner"); }

  static bool Grant(const std::string& right) {
    const std::string command =
        "samba-tool dsacl set -H ldap://$LAB_DC_NAME -U $LAB_ADMIN%$LAB_ADMIN_PASSWORD "
        "--objectdn=CN=Computers,$LAB_BASE_DN --sddl='" +
        right + "'$(scene show joiner objectSid | sed -n 's/^objectSid: //p')')' >/dev/null";
    return std::system(command.c_str()) == 0;
  }
};
INSTANTIATE_TEST_SUITE_P(
    , DelegatedJoin,
    testing::Values(
        Rights{"OfANewMachineWithNone",
               false,
               {},
               kFailure,
               "Could not add host to CORP.EXAMPLE.COM: Insufficient access"},
        Rights{
            "OfANewMachine", false, {kCreateComputers}, kSuccess, "Keytab file not created yet."},
        Rights{"OfAnAccountWithNone",
               true,
               {kCreateComputers},
               kFailure,
               "Could not set properties in CORP.EXAMPLE.COM: Insufficient access"},
        Rights{"OfAnAccountWithoutItsFlags",
               true,
               {kResetPassword},
               kFailure,
               "Could not set properties in CORP.EXAMPLE.COM: Insufficient access"},
        Rights{"OfAnAccountWithoutItsPassword",
               true,
               {kWriteFlags},
               kFailure,
               "Unable to set machine password for CORP.EXAMPLE.COM: Insufficient access"},
        Rights{"OfAnAccount",
               true,
               {kWriteFlags, kResetPassword},
               kSuccess,
               "Keytab file not created yet."}),
    [](const auto& test) { return test.param.name; });

TEST_P(DelegatedJoin, EndsAsTheRightsAllow) {
  const Rights& rights = GetParam();
  NameMachine("delegated");
  if (rights.made_beforehand) Scene("precreate DELEGATED 4098");
  for (const char* right : rights.granted)
    ASSERT_TRUE(Grant(right)) << right;
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);
  std::filesystem::remove(keytab);
  const Outcome again = Join(realm);

  EXPECT_EQ(joined.status, rights.status);
  EXPECT_EQ(joined.error, rights.error);
  EXPECT_EQ(again.status, rights.status);
  EXPECT_EQ(again.error, rights.error);
}

}  // namespace
}  // namespace tavrel::tests
