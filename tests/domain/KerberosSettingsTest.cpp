// What settings of libkrb5 do to a join and to sign-in: the samples of docs/krb5, and those under
// which RC4, the one type of the machine's key, is not used or not allowed.
#include "GssClient.h"
#include "JoinScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::EndsWith;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

class KerberosSettings : public JoinScenario {
 public:
  // A fresh token of alice for this machine.
  std::vector<char> Token() const {
    const GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
    return alice.Token(account + "$@" + Lab("REALM"));
  }
  static std::string Authenticate(KrbRealm& realm, std::vector<char> token) {
    return realm.Authenticate(token.data(), static_cast<int>(token.size()));
  }
};

class SampleSettings : public KerberosSettings, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(, SampleSettings, testing::Values("ad-dns", "ad-fixed"),
                         [](const auto& test) { return test.param[3] == 'd' ? "Dns" : "Fixed"; });

TEST_P(SampleSettings, LetAMachineJoinAndAUserSignIn) {
  NameMachine("sample");
  SetVariable("KRB5_CONFIG", TAVREL_KRB5_SAMPLES + std::string("/") + GetParam() + ".conf");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);
  const std::string user = Authenticate(realm, Token());

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(user, kAlice);
}

struct Settings {
  const char* name;
  const char* lines;  // beside those of every machine here
  int status;
  const char* error;  // of a first join
};

void PrintTo(const Settings& settings, std::ostream* out) {
  *out << settings.name;
}

constexpr char kNoSuchKey[] =
    "Unable to authenticate to CORP.EXAMPLE.COM: Pre-authentication failed: "
    "No key table entry found for SETTINGS$@CORP.EXAMPLE.COM";
constexpr char kNotCreatedYet[] = "Keytab file not created yet.";

class JoinUnder : public KerberosSettings, public testing::WithParamInterface<Settings> {};
INSTANTIATE_TEST_SUITE_P(
    , JoinUnder,
    testing::Values(
        Settings{"Rc4First", "default_tkt_enctypes = arcfour-hmac aes256-cts-hmac-sha1-96",
                 kFailure, kNoSuchKey},
        Settings{"Rc4PermittedFirst", "permitted_enctypes = arcfour-hmac aes256-cts-hmac-sha1-96",
                 kFailure, kNoSuchKey},
        Settings{"Rc4Forbidden", "permitted_enctypes = aes256-cts-hmac-sha1-96", kFailure,
                 kNoSuchKey},
        Settings{"Rc4AskedFor", "default_tkt_enctypes = arcfour-hmac", kSuccess, kNotCreatedYet},
        Settings{"Rc4AskedForThoughForbidden",
                 "default_tkt_enctypes = arcfour-hmac\n"
                 "permitted_enctypes = aes256-cts-hmac-sha1-96",
                 kSuccess, kNotCreatedYet}),
    [](const auto& test) { return test.param.name; });

TEST_P(JoinUnder, WorksWhenRc4AloneIsAskedFor) {
  NameMachine("settings");
  SetVariable("KRB5_CONFIG", Lab("KRB5_CONFIG_DEFAULT_ENCTYPES"));
  AddKerberosSettings(GetParam().lines);
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, GetParam().status);
  EXPECT_EQ(joined.error, GetParam().error);
}

// The join cannot tell: it works all the same.
TEST_F(KerberosSettings, ThatForbidRc4RefuseEveryUser) {
  NameMachine("forbidden");
  JoinedEarlier();
  const std::vector<char> token = Token();
  AddKerberosSettings("permitted_enctypes = aes256-cts-hmac-sha1-96");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);
  const std::string user = Authenticate(realm, token);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(user, "");
  EXPECT_THAT(TakeLog(), EndsWith("4 krb-keytab APAuthenticate: Error reading AP request: Request "
                                  "ticket server FORBIDDEN$@CORP.EXAMPLE.COM kvno 1 enctype "
                                  "rc4-hmac found in keytab but cannot decrypt ticket\n"));
}

TEST_F(KerberosSettings, ThatAllowRc4BesideAesAcceptThem) {
  NameMachine("allowed");
  JoinedEarlier();
  const std::vector<char> token = Token();
  AddKerberosSettings("permitted_enctypes = aes256-cts-hmac-sha1-96 arcfour-hmac");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);
  const std::string user = Authenticate(realm, token);

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(user, kAlice);
}

}  // namespace
}  // namespace tavrel::tests
