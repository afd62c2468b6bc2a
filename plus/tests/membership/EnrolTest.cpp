// What enrolling does to the account and to the keytab.
#include <filesystem>
#include <optional>

#include "GssClient.h"
#include "MembershipScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::plus::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::UnorderedElementsAre;

using Enrolment = MembershipScenario;

TEST_F(Enrolment, CreatesTheAccountWithAesKeysAndWritesThem) {
  NameMachine("fresh");

  const Result result = Enrol();

  EXPECT_THAT(result, Changes());
  EXPECT_EQ(result.controller, "dc1.corp.example.com");
  EXPECT_EQ(Value("userAccountControl"), "4096");
  EXPECT_EQ(Value("msDS-SupportedEncryptionTypes"), "24");
  EXPECT_EQ(Value("dNSHostName"), "fresh.corp.example.com");
  EXPECT_THAT(directory.Read(account)["servicePrincipalName"],
              UnorderedElementsAre("HOST/FRESH", "HOST/fresh.corp.example.com"));
  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({std::stoi(Value("msDS-KeyVersionNumber"))})));
}

TEST_F(Enrolment, ChangesNothingWhenTheKeysWork) {
  NameMachine("again");
  ASSERT_THAT(Enrol(), Changes());
  const std::string state = PasswordState();
  const std::string bytes = KeytabBytes();

  const Result result = Enrol();

  EXPECT_THAT(result, ChangesNothing());
  EXPECT_EQ(PasswordState(), state);
  EXPECT_EQ(KeytabBytes(), bytes);
}

TEST_F(Enrolment, UsesTheCredentialsOnlyWhenThereIsSomethingToChange) {
  NameMachine("frugal");
  ASSERT_THAT(Enrol(), Changes());
  const std::string bytes = KeytabBytes();
  const Credentials wrong = Credentials::Password(user, "Wrong.Pass.1");

  EXPECT_THAT(Member().Enrol(wrong, kLimit), ChangesNothing());
  options.services = {"HTTP"};
  EXPECT_THAT(Member().Enrol(wrong, kLimit), Fails(Cause::kBadCredentials, Step::kSignIn));
  EXPECT_THAT(Enrol(), Changes());
  EXPECT_EQ(KeytabBytes(), bytes);
}

TEST_F(Enrolment, LeavesAMachineThatTheCoreJoinsAndAuthenticatesWith) {
  NameMachine("core");
  ASSERT_THAT(Enrol(), Changes());
  const std::string state = PasswordState();
  const std::string bytes = KeytabBytes();

  EXPECT_EQ(SignIn(), "CORP.EXAMPLE.COM\\alice");
  EXPECT_EQ(PasswordState(), state);
  EXPECT_EQ(KeytabBytes(), bytes);
}

TEST_F(Enrolment, GivesAMachineWithAnRc4KeyAesKeysAndKeepsTheOld) {
  NameMachine("upgrade");
  JoinedEarlier();
  const std::vector<std::string> before = Entries();

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_EQ(Value("msDS-SupportedEncryptionTypes"), "24");
  std::vector<std::string> expected = AesEntries({std::stoi(Value("msDS-KeyVersionNumber"))});
  expected.insert(expected.end(), before.begin(), before.end());
  EXPECT_THAT(Entries(), ElementsAreArray(expected));
  EXPECT_EQ(SignIn(), "CORP.EXAMPLE.COM\\alice");
}

// As of an account that was deleted and joined anew: the core counts on.
TEST_F(Enrolment, KeepsOldKeysOfHigherVersionsThanTheDirectorys) {
  NameMachine("ahead");
  JoinedEarlier();
  PasswordChangedByOthers();
  const auto keys = tavrel::tests::ReadKeytab("FILE:" + keytab);
  std::filesystem::remove(keytab);
  const int before = std::stoi(Value("msDS-KeyVersionNumber"));
  for (const krb5_kvno version : {8U, 9U}) {
    auto key = keys.at(0);
    key.vno = version;
    tavrel::tests::AppendKey("FILE:" + keytab, key);
  }

  EXPECT_THAT(Enrol(), Changes());

  std::vector<std::string> expected = AesEntries({before + 1});
  for (const int version : {before, before - 1})
    expected.push_back("AHEAD$@CORP.EXAMPLE.COM version " + std::to_string(version) +
                       " enctype 23");
  EXPECT_THAT(Entries(), ElementsAreArray(expected));
}

// docs/membership.md, "From RC4 to AES in a running installation", step by step.
TEST_F(Enrolment, TakesARunningInstallationFromRc4ToAes) {
  NameMachine("running");
  const std::string rc4 = tavrel::tests::Lab("DIR") + "/krb5.conf";
  std::optional<tavrel::tests::ScopedVariable> settings;
  settings.emplace("KRB5_CONFIG", rc4);
  tavrel::tests::JoinedRealm running(*this);
  const auto accepts = [&](KrbRealm& realm, const tavrel::tests::GssClient& client) {
    std::vector<char> token = client.Token("RUNNING$@CORP.EXAMPLE.COM");
    return realm.Authenticate(token.data(), static_cast<int>(token.size()));
  };
  const std::string alice = tavrel::tests::Lab("USER") + "@" + tavrel::tests::Lab("REALM");
  const std::string secret = tavrel::tests::Lab("USER_PASSWORD");
  const tavrel::tests::GssClient earlier(alice, secret);
  ASSERT_EQ(accepts(running, earlier), "CORP.EXAMPLE.COM\\alice");

  // Step 1: enrol, under the settings of before, beside the running process.
  EXPECT_THAT(Enrol(), Changes());
  EXPECT_EQ(accepts(running, earlier), "CORP.EXAMPLE.COM\\alice");
  EXPECT_EQ(accepts(running, tavrel::tests::GssClient(alice, secret)), "CORP.EXAMPLE.COM\\alice");

  // Step 2: the settings without RC4, and the process anew.
  settings.emplace("KRB5_CONFIG", tavrel::tests::Lab("KRB5_CONFIG_DEFAULT_ENCTYPES"));
  const std::string bytes = KeytabBytes();
  KrbRealm anew = Realm();
  EXPECT_EQ(Join(anew).status, kSuccess);
  EXPECT_EQ(KeytabBytes(), bytes);
  EXPECT_EQ(accepts(anew, earlier), "CORP.EXAMPLE.COM\\alice");

  // Step 3: the timer.
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(24 * 30), kLimit), ChangesNothing());
}

TEST_F(Enrolment, MendsWhatTheCoreRepairedWithRc4) {
  NameMachine("mended");
  ASSERT_THAT(Enrol(), Changes());
  PasswordChangedByOthers();
  {
    tavrel::tests::ScopedVariable rc4("KRB5_CONFIG", tavrel::tests::Lab("DIR") + "/krb5.conf");
    KrbRealm realm = Realm();
    Join(realm);  // sets a password of its own, and adds its RC4 key
  }
  ASSERT_EQ(Entries().size(), 3U);

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_EQ(SignIn(), "CORP.EXAMPLE.COM\\alice");
  EXPECT_THAT(Enrol(), ChangesNothing());
}

TEST_F(Enrolment, WithRc4BesideHasAllThreeKeys) {
  NameMachine("beside");
  options.encryption_types = EncryptionTypes::kAesAndRc4;

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_EQ(Value("msDS-SupportedEncryptionTypes"), "28");
  const std::string start = "BESIDE$@CORP.EXAMPLE.COM version 1 enctype ";
  EXPECT_THAT(Entries(), ElementsAre(start + "18", start + "17", start + "23"));
  EXPECT_EQ(SignIn(), "CORP.EXAMPLE.COM\\alice");
}

TEST_F(Enrolment, SetsAServiceNameOnceHoweverOftenItIsGiven) {
  NameMachine("oncemore");
  options.services = {"HTTP", "http", "HOST"};

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_THAT(directory.Read(account)["servicePrincipalName"],
              UnorderedElementsAre("HOST/ONCEMORE", "HOST/oncemore.corp.example.com",
                                   "HTTP/oncemore.corp.example.com"));
  options.dns_name = "oncemore";  // the same as without its domain
  EXPECT_TRUE(Enrol());
}

TEST_F(Enrolment, TellsAWrongPasswordAfterOneFailedLogon) {
  NameMachine("mistyped");
  const CountFailedLogons count;
  Scene("user carol Carol.Pass.1");
  user = "carol";
  password = "Carol.Pass.2";
  options.controllers = {"dc1.corp.example.com", "dc1.corp.example.com:389"};

  EXPECT_THAT(Enrol(), Fails(Cause::kBadCredentials, Step::kSignIn));

  const std::string shown = tavrel::tests::Lab("DIR") + "/carol";
  Scene("show carol badPwdCount >" + shown);
  EXPECT_THAT(tavrel::tests::FileBytes(shown), testing::HasSubstr("badPwdCount: 1\n"));
  Scene("delete carol");
}

}  // namespace
}  // namespace tavrel::plus::tests
