// A machine's life after it has enrolled.
#include <fstream>

#include "GssClient.h"
#include "MembershipScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::GssClient;
using tavrel::tests::Lab;
using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

class Rotation : public MembershipScenario {
 public:
  // The user's program, with a ticket for this machine that it keeps.
  GssClient Alice() const {
    return GssClient(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  }
  std::string Machine() const { return account + "$@CORP.EXAMPLE.COM"; }
  std::string Authenticate(KrbRealm& realm, const GssClient& client) const {
    std::vector<char> token = client.Token(Machine());
    return realm.Authenticate(token.data(), static_cast<int>(token.size()));
  }
};

TEST_F(Rotation, ChangesThePasswordWithTheMachinesOwnKeys) {
  NameMachine("rotated");
  ASSERT_THAT(Enrol(), Changes());
  const std::string state = PasswordState();

  const Result result = Member().Rotate(kLimit);

  EXPECT_THAT(result, Changes());
  EXPECT_NE(PasswordState(), state);
  EXPECT_EQ(Value("msDS-KeyVersionNumber"), "2");
  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({2, 1})));
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(Rotation, KeepsAcceptingTheTicketsOfBefore) {
  NameMachine("inflight");
  ASSERT_THAT(Enrol(), Changes());
  tavrel::tests::JoinedRealm realm(*this);
  const GssClient alice = Alice();
  ASSERT_EQ(Authenticate(realm, alice), kAlice);

  ASSERT_THAT(Member().Rotate(kLimit), Changes());
  ASSERT_THAT(Member().Rotate(kLimit), Changes());

  EXPECT_EQ(Authenticate(realm, alice), kAlice);
}

TEST_F(Rotation, CostsNoFailedLogon) {
  NameMachine("careful");
  CountFailedLogons count;
  ASSERT_THAT(Enrol(), Changes());

  EXPECT_THAT(Member().Rotate(kLimit), Changes());
  EXPECT_THAT(Member().Rotate(kLimit), Changes());

  EXPECT_THAT(Value("badPasswordTime"), AnyOf("", "0"));
}

TEST_F(Rotation, DoesNotLockTheAccountWithKeysThatAreRefused) {
  NameMachine("stale");
  Scene("precreate STALE");
  Scene("password 'STALE$' Behind.Its.Back.1");
  CountFailedLogons count;
  for (const int type : {18, 17}) {
    for (krb5_kvno version = 1; version <= 5; ++version)
      tavrel::tests::AppendKey("FILE:" + keytab,
                               {Machine(), version, std::string(type == 18 ? 32 : 16, 'k'), type});
  }

  EXPECT_THAT(Member().Rotate(kLimit), Fails(Cause::kBadCredentials, Step::kSignIn));

  EXPECT_EQ(Value("badPwdCount"), "3");
}

TEST_F(Rotation, WithoutAKeytabHasNoCredentials) {
  NameMachine("keyless");
  ASSERT_THAT(Enrol(), Changes());
  std::remove(keytab.c_str());

  EXPECT_THAT(Member().Rotate(kLimit), Fails(Cause::kBadCredentials, Step::kSignIn));
}

TEST_F(Rotation, IsRefusedForADisabledAccount) {
  NameMachine("barred");
  ASSERT_THAT(Enrol(), Changes());
  const std::string bytes = KeytabBytes();
  Scene("disable 'BARRED$'");

  EXPECT_THAT(Member().Rotate(kLimit), Fails(Cause::kCredentialsBarred, Step::kSignIn));

  EXPECT_EQ(KeytabBytes(), bytes);
}

TEST_F(Rotation, OfAYoungKeyAsksNobody) {
  NameMachine("young");
  ASSERT_THAT(Enrol(), Changes());
  options.controllers = {"nobody.corp.example.com"};

  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(1), kLimit), ChangesNothing());
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(0), kLimit),
              Fails(Cause::kUnreachable, Step::kConnect));
  options.controllers.clear();
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(0), kLimit), Changes());
}

// Tickets live for ten hours.
TEST_F(Rotation, OfADayAgoLeavesOneVersion) {
  NameMachine("steady");
  if (std::getenv("STEADY_KEYTAB") == nullptr) {
    ASSERT_THAT(Enrol(), Changes());
    ASSERT_THAT(Member().Rotate(kLimit), Changes());
    SetVariable("STEADY_KEYTAB", keytab);
  }
  keytab = std::getenv("STEADY_KEYTAB");
  if (!InProcessWithClock("+9h")) {
    EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({2, 1})));
    return;
  }
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(24), kLimit), ChangesNothing());
}

TEST_F(Rotation, DropsAVersionOnceNoTicketCanNeedIt) {
  NameMachine("dropped");
  if (std::getenv("DROPPED_KEYTAB") == nullptr) {
    ASSERT_THAT(Enrol(), Changes());
    ASSERT_THAT(Member().Rotate(kLimit), Changes());
    SetVariable("DROPPED_KEYTAB", keytab);
  }
  keytab = std::getenv("DROPPED_KEYTAB");
  if (!InProcessWithClock("+11h")) {
    EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({2})));
    return;
  }
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(24), kLimit), Changes());
}

// --- leaving -------------------------------------------------------------------------------------

TEST_F(Rotation, EndsWhenTheMachineLeaves) {
  NameMachine("leaver");
  ASSERT_THAT(Enrol(), Changes());

  EXPECT_THAT(Member().Leave(Administrator(), Departure::kDisable, kLimit), Changes());
  EXPECT_EQ(Value("userAccountControl"), "4098");
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_THAT(Member().Leave(Administrator(), Departure::kDisable, kLimit), ChangesNothing());

  EXPECT_THAT(Member().Leave(Administrator(), Departure::kDelete, kLimit), Changes());
  EXPECT_TRUE(directory.Read(account).empty());
  EXPECT_THAT(Member().Leave(Administrator(), Departure::kDelete, kLimit), ChangesNothing());

  EXPECT_THAT(Enrol(), Changes());
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(Rotation, DoesNotEndThatOfAController) {
  NameMachine("careless", "DC1");
  keytab = folder / "dc1.keytab";
  options.account_name = "dc1";

  EXPECT_THAT(Member().Leave(Administrator(), Departure::kDisable, kLimit),
              Fails(Cause::kAccountBarred, Step::kRemove));
}

TEST_F(Rotation, LeavesTheKeysOfOthersAlone) {
  NameMachine("sharing");
  AddKey("OTHER", "Other.Pass.1");
  const std::vector<std::string> others = Entries();
  ASSERT_THAT(others, testing::SizeIs(1));
  ASSERT_THAT(Enrol(), Changes());
  ASSERT_THAT(Member().Rotate(kLimit), Changes());
  std::vector<std::string> expected = AesEntries({2, 1});
  expected.push_back(others.front());
  EXPECT_THAT(Entries(), ElementsAreArray(expected));

  EXPECT_THAT(Member().Leave(Administrator(), Departure::kDelete, kLimit), Changes());

  EXPECT_EQ(Entries(), others);
}

// --- status --------------------------------------------------------------------------------------

TEST_F(Rotation, ShowsInTheStatus) {
  NameMachine("seen");
  ASSERT_THAT(Enrol(), Changes());
  ASSERT_THAT(Member().Rotate(kLimit), Changes());
  MembershipStatus status;

  const Result result = Member().Status(Credentials::Machine(), kLimit, status);

  EXPECT_THAT(result, ChangesNothing());
  EXPECT_TRUE(status.exists);
  EXPECT_EQ(status.account, Dn());
  EXPECT_EQ(status.container, "CN=Computers," + Lab("BASE_DN"));
  EXPECT_EQ(status.user_account_control, 4096U);
  EXPECT_TRUE(status.enabled);
  EXPECT_EQ(status.encryption_types, 24U);
  EXPECT_EQ(status.dns_name, "seen.corp.example.com");
  EXPECT_THAT(status.service_names,
              UnorderedElementsAre("HOST/SEEN", "HOST/seen.corp.example.com"));
  EXPECT_THAT(status.conflicts, IsEmpty());
  EXPECT_EQ(status.key_version, 2U);
  EXPECT_THAT(status.keytab_key_versions, ElementsAre(2, 1));
  EXPECT_TRUE(status.keys_work);
  ASSERT_TRUE(status.password_set);
  EXPECT_LT(std::chrono::system_clock::now() - *status.password_set, std::chrono::minutes(10));
}

TEST_F(Rotation, ShowsAMachineThatIsNone) {
  NameMachine("unseen");
  MembershipStatus status;

  EXPECT_THAT(Member().Status(Administrator(), kLimit, status), ChangesNothing());
  EXPECT_FALSE(status.exists);
  EXPECT_EQ(status.container, "CN=Computers," + Lab("BASE_DN"));
  EXPECT_TRUE(status.may_be_made);
  EXPECT_THAT(status.conflicts, IsEmpty());

  options.container = "OU=Nowhere," + Lab("BASE_DN");
  const auto alice = Credentials::Password(Lab("USER"), Lab("USER_PASSWORD"));
  EXPECT_THAT(Member().Status(alice, kLimit, status), ChangesNothing());
  EXPECT_EQ(status.container, "");
  options.container.clear();
  EXPECT_THAT(Member().Status(alice, kLimit, status), ChangesNothing());
  EXPECT_NE(status.container, "");
  EXPECT_FALSE(status.may_be_made);
}

TEST_F(Rotation, ShowsAnAccountWhoseNameAnotherHas) {
  NameMachine("unseen");
  Scene("precreate RIVAL");
  ChangeDatabase("dn: CN=RIVAL,CN=Computers," + Lab("BASE_DN") +
                 "\nchangetype: modify\nadd: servicePrincipalName\n"
                 "servicePrincipalName: HOST/unseen.corp.example.com\n");
  for (const bool exists : {false, true}) {
    SCOPED_TRACE(exists);
    if (exists) Scene("precreate UNSEEN 4098");
    MembershipStatus status;

    EXPECT_THAT(Member().Status(Administrator(), kLimit, status), ChangesNothing());

    EXPECT_EQ(status.exists, exists);
    EXPECT_FALSE(status.enabled);
    EXPECT_FALSE(status.keys_work);
    ASSERT_THAT(status.conflicts, testing::SizeIs(1));
    EXPECT_EQ(status.conflicts[0].service_name, "HOST/unseen.corp.example.com");
    EXPECT_EQ(status.conflicts[0].account, "CN=RIVAL,CN=Computers," + Lab("BASE_DN"));
  }
  EXPECT_FALSE(std::ifstream(keytab));  // nor has it made one
  Scene("delete 'RIVAL$'");
}

}  // namespace
}  // namespace tavrel::plus::tests
