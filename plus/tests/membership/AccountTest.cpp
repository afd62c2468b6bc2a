// Enrolling in every state that an account can be in.
#include <cstdlib>

#include "MembershipScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::Lab;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

class Account : public MembershipScenario {
 public:
  // Where the account is, wherever that is.
  std::string Found() const {
    MembershipStatus status;
    EXPECT_THAT(Member().Status(Administrator(), kLimit, status), ChangesNothing());
    return status.account;
  }
};

TEST_F(Account, MadeBeforehandAndDisabledIsEnabled) {
  NameMachine("prepared");
  Scene("precreate PREPARED 4098");

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_EQ(Value("userAccountControl"), "4096");
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(Account, DisabledLaterIsEnabledAndKeepsItsKeys) {
  NameMachine("disabled");
  ASSERT_THAT(Enrol(), Changes());
  const std::string state = PasswordState();
  Scene("disable 'DISABLED$'");

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_EQ(Value("userAccountControl"), "4096");
  EXPECT_EQ(PasswordState(), state);
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(Account, WhosePasswordOthersChangedGetsKeysOfItsNextVersion) {
  NameMachine("changed");
  ASSERT_THAT(Enrol(), Changes());
  PasswordChangedByOthers();

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({3, 1})));
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(Account, ThatWasDeletedIsMadeAgain) {
  NameMachine("deleted");
  ASSERT_THAT(Enrol(), Changes());
  ASSERT_THAT(Member().Rotate(kLimit), Changes());
  Scene("delete 'DELETED$'");

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_EQ(Value("msDS-KeyVersionNumber"), "1");
  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({1})));
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(Account, WithAPrincipalNameOfItsOwnIsEnrolled) {
  NameMachine("upn");
  Scene("precreate UPN");
  ChangeDatabase("dn: " + Dn() +
                 "\nchangetype: modify\nreplace: userPrincipalName\n"
                 "userPrincipalName: host/other.name@CORP.EXAMPLE.COM\n");

  EXPECT_THAT(Enrol(), Changes());
  EXPECT_EQ(SignIn(), kAlice);
  EXPECT_THAT(Member().Rotate(kLimit), Changes());
  EXPECT_EQ(SignIn(), kAlice);
}

// Until the next password, the KDC makes keys with the salt of the old name.
TEST_F(Account, ThatWasRenamedIsEnrolledByItsNewName) {
  NameMachine("newname");
  Scene("precreate NEWNAME");
  Scene("password 'NEWNAME$' Earlier.Pass.1");
  ChangeDatabase("dn: " + Dn() +
                 "\nchangetype: modify\nreplace: sAMAccountName\nsAMAccountName: RENAMED$\n");
  options.account_name = "renamed";

  EXPECT_THAT(Enrol(), Changes());
  EXPECT_THAT(Member().Rotate(kLimit), Changes());

  EXPECT_THAT(Enrol(), ChangesNothing());
  EXPECT_THAT(Entries(), Contains("RENAMED$@CORP.EXAMPLE.COM version 4 enctype 18"));
}

TEST_F(Account, OfAContainerThatIsGivenIsMadeThere) {
  NameMachine("contained");
  const std::string unit = "OU=Appliances," + Lab("BASE_DN");
  ChangeDatabase("dn: " + unit + "\nchangetype: add\nobjectClass: organizationalUnit\n");
  options.container = unit;

  EXPECT_THAT(Enrol(), Changes());
  EXPECT_EQ(Found(), "CN=CONTAINED," + unit);
  options.container.clear();
  EXPECT_THAT(Enrol(), ChangesNothing());
  EXPECT_THAT(Member().Rotate(kLimit), Changes());

  // The core knows one place only: it does not see the account, and cannot make another.
  KrbRealm realm = Realm();
  const auto joined = Join(realm);
  EXPECT_EQ(joined.status, kFailure);
  EXPECT_EQ(joined.error, "Could not add host to CORP.EXAMPLE.COM: Constraint violation");
  EXPECT_THAT(Member().Leave(Administrator(), Departure::kDelete, kLimit), Changes());
  ChangeDatabase("dn: " + unit + "\nchangetype: delete\n");
}

TEST_F(Account, OfAnotherNameThanTheHostServesAPairOfNodes) {
  NameMachine("node1", "PAIR");
  options.account_name = "pair";
  options.dns_name = "pair.corp.example.com";
  ASSERT_THAT(Enrol(), Changes());
  EXPECT_EQ(Value("dNSHostName"), "pair.corp.example.com");
  const auto first = directory.Read("PAIR");

  NameMachine("node2", "PAIR");
  EXPECT_THAT(Enrol(), ChangesNothing());  // with a copy of the keytab

  EXPECT_EQ(directory.Read("PAIR").at("pwdLastSet"), first.at("pwdLastSet"));
}

TEST_F(Account, CannotHaveAServiceNameThatAnotherHas) {
  NameMachine("first");
  options.services = {"HTTP"};
  options.dns_name = "shared.corp.example.com";
  ASSERT_THAT(Enrol(), Changes());
  NameMachine("second");
  keytab = folder / "second.keytab";

  const Result result = Enrol();

  EXPECT_THAT(result, Fails(Cause::kNameTaken, Step::kCreate));
  EXPECT_THAT(result.text, HasSubstr("CN=FIRST,CN=Computers"));
  EXPECT_FALSE(result.changed);
}

TEST_F(Account, MadeBeforehandNeedsNothingButItsOneTimePassword) {
  NameMachine("once");
  Scene("precreate ONCE");
  Scene("password 'ONCE$' One.Time.Pass.1");
  const auto once = Credentials::OneTimePassword("One.Time.Pass.1");
  MembershipStatus status;
  EXPECT_THAT(Member().Status(once, kLimit, status), ChangesNothing());
  EXPECT_FALSE(status.keys_work);  // there are none

  EXPECT_THAT(Member().Enrol(once, kLimit), Changes());
  EXPECT_EQ(Value("msDS-SupportedEncryptionTypes"), "24");
  EXPECT_EQ(Value("dNSHostName"), "once.corp.example.com");
  EXPECT_EQ(SignIn(), kAlice);
  EXPECT_THAT(Member().Enrol(once, kLimit), ChangesNothing());  // by the keys, from now on

  EXPECT_THAT(Member().Enrol(Credentials::Machine(), kLimit), ChangesNothing());
  std::remove(keytab.c_str());
  EXPECT_THAT(Member().Enrol(once, kLimit), Fails(Cause::kBadCredentials, Step::kSignIn));
}

// libkrb5 then asks for the directory's own spelling of a name.
TEST_F(Account, OfAnotherSpellingIsEnrolledUnderAnySettingOfKerberos) {
  NameMachine("spelt");
  Scene("precreate spelt");
  Scene("password 'spelt$' One.Time.Pass.1");
  AddKerberosSettings("canonicalize = true");

  EXPECT_THAT(Member().Enrol(Credentials::OneTimePassword("One.Time.Pass.1"), kLimit), Changes());
  EXPECT_THAT(Member().Rotate(kLimit), Changes());
}

TEST_F(Account, IsEnrolledWithTheTicketsOfACache) {
  NameMachine("cached");
  const std::string cache = "FILE:" + (folder / "admin.ccache");
  ASSERT_EQ(std::system(("echo \"$LAB_ADMIN_PASSWORD\" | kinit -c " + cache +
                         " Administrator >/dev/null 2>&1")
                            .c_str()),
            0);

  EXPECT_THAT(Member().Enrol(Credentials::Cache(cache), kLimit), Changes());
  EXPECT_EQ(SignIn(), kAlice);
  std::remove(keytab.c_str());
  EXPECT_THAT(Member().Enrol(Credentials::Cache("FILE:" + (folder / "none")), kLimit),
              Fails(Cause::kBadCredentials, Step::kSignIn));
  EXPECT_THAT(Member().Enrol(Credentials::Keytab(folder / "none", user), kLimit),
              Fails(Cause::kBadCredentials, Step::kSignIn));
  EXPECT_THAT(Member().Enrol(Credentials::Cache("NONE:at all"), kLimit),
              Fails(Cause::kBadArgument, Step::kSignIn));
  EXPECT_THAT(Member().Enrol(Credentials::Keytab("NONE:at all", user), kLimit),
              Fails(Cause::kBadArgument, Step::kSignIn));
}

TEST_F(Account, IsEnrolledWithAKeytabOfAnother) {
  NameMachine("helper");
  ASSERT_THAT(Enrol(), Changes());
  const std::string of_helper = keytab;
  NameMachine("helped");
  Scene("precreate HELPED");
  keytab = folder / "helped.keytab";

  // A machine has no rights to another.
  EXPECT_THAT(Member().Enrol(Credentials::Keytab(of_helper, "HELPER$@CORP.EXAMPLE.COM"), kLimit),
              Fails(Cause::kAccessDenied, Step::kUpdate));
}

TEST_F(Account, OfAnUnknownDomainNamesNoController) {
  NameMachine("nowhere");
  domain = "OTHER.EXAMPLE.COM";

  const Result result = Enrol();

  EXPECT_THAT(result, Fails(Cause::kNoController, Step::kDiscovery));
}

TEST_F(Account, IsNotTouchedWithAClockThatIsOff) {
  if (!InProcessWithClock("+10m")) return;
  NameMachine("late");

  EXPECT_THAT(Enrol(), Fails(Cause::kClockSkew, Step::kSignIn));

  EXPECT_TRUE(directory.Read(account).empty());
}

// --- by a user who is no administrator -----------------------------------------------------------

#define COMPUTER "bf967a86-0de6-11d0-a285-00aa003049e2"
constexpr char kCreateComputers[] = "(OA;;CC;" COMPUTER ";;";
constexpr char kWriteAll[] = "(OA;CIIO;WP;;" COMPUTER ";";
constexpr char kResetPassword[] = "(OA;CIIO;CR;00299570-246d-11d0-a768-00aa006e0529;" COMPUTER ";";

struct Rights {
  const char* name;
  bool made_beforehand;
  std::vector<const char*> granted;
  Cause cause;
  Step step;
};

void PrintTo(const Rights& rights, std::ostream* out) {
  *out << rights.name;
}

class Delegated : public MembershipScenario {
 public:
  Delegated() {
    Scene("user joiner Joiner.Pass.1");
    user = "joiner";
    password = "Joiner.Pass.1";
  }
  ~Delegated() override { Scene("delete joiner"); }

  static bool Grant(const std::string& right) {
    const std::string command =
        "samba-tool dsacl set -H ldap://$LAB_DC_NAME -U $LAB_ADMIN%$LAB_ADMIN_PASSWORD "
        "--objectdn=CN=Computers,$LAB_BASE_DN --sddl='" +
        right + "'$(scene show joiner objectSid | sed -n 's/^objectSid: //p')')' >/dev/null";
    return std::system(command.c_str()) == 0;
  }
};

TEST_F(Delegated, LeavingNeedsNoRightToWhatIsNotThere) {
  NameMachine("leaf");
  Scene("precreate LEAF");
  const auto leave = [&] { return Member().Leave(Administrator(), Departure::kDelete, kLimit); };
  ChangeDatabase("dn: CN=Printer," + Dn() +
                 "\nchangetype: add\nobjectClass: serviceConnectionPoint\n");
  ASSERT_TRUE(Grant("(A;CIIO;SD;;;"));

  EXPECT_THAT(leave(), Fails(Cause::kAccessDenied, Step::kRemove));
  ChangeDatabase("dn: CN=Printer," + Dn() + "\nchangetype: delete\n");
  EXPECT_THAT(leave(), Changes());

  Scene("precreate LEAF");
  ChangeDatabase("dn: CN=Printer," + Dn() +
                 "\nchangetype: add\nobjectClass: serviceConnectionPoint\n");
  user = Lab("ADMIN");
  password = Lab("ADMIN_PASSWORD");
  EXPECT_THAT(leave(), Changes());
}

class DelegatedEnrolment : public Delegated, public testing::WithParamInterface<Rights> {};
INSTANTIATE_TEST_SUITE_P(
    , DelegatedEnrolment,
    testing::Values(
        Rights{"OfANewMachineWithNone", false, {}, Cause::kAccessDenied, Step::kCreate},
        Rights{"OfANewMachine", false, {kCreateComputers}, Cause::kNone, Step::kNone},
        Rights{"OfAnAccountWithNone", true, {}, Cause::kAccessDenied, Step::kUpdate},
        Rights{"OfAnAccountWithoutItsPassword",
               true,
               {kWriteAll},
               Cause::kAccessDenied,
               Step::kPassword},
        Rights{"OfAnAccount", true, {kWriteAll, kResetPassword}, Cause::kNone, Step::kNone}),
    [](const auto& test) { return test.param.name; });

TEST_P(DelegatedEnrolment, EndsAsTheRightsAllow) {
  const Rights& rights = GetParam();
  NameMachine("delegated");
  if (rights.made_beforehand) Scene("precreate DELEGATED 4098");
  for (const char* right : rights.granted)
    ASSERT_TRUE(Grant(right)) << right;

  const Result result = Enrol();

  EXPECT_EQ(result.cause, rights.cause) << result.text;
  EXPECT_EQ(result.step, rights.step);
  if (result) {
    EXPECT_THAT(Enrol(), ChangesNothing());
  }
}

}  // namespace
}  // namespace tavrel::plus::tests
