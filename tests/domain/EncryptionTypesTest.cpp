// What the account's msDS-SupportedEncryptionTypes does to join and sign-in. It decides which key
// of the account the KDC seals the users' tickets with, and the keytab has the RC4 key alone.
#include "GssClient.h"
#include "JoinScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

struct Types {
  const char* name;
  const char* value;  // of the attribute; empty: none
  bool accepted;
};

void PrintTo(const Types& types, std::ostream* out) {
  *out << types.name;
}

class AccountOfEncryptionTypes : public JoinScenario, public testing::WithParamInterface<Types> {
 public:
  void SetEncryptionTypes(const std::string& value) {
    ChangeDatabase("dn: " + directory.Value(account, "dn") +
                   "\nchangetype: modify\nreplace: msDS-SupportedEncryptionTypes\n" +
                   (value.empty() ? "" : "msDS-SupportedEncryptionTypes: " + value + "\n"));
  }
};
INSTANTIATE_TEST_SUITE_P(, AccountOfEncryptionTypes,
                         testing::Values(Types{"None", "", true}, Types{"Rc4", "4", true},
                                         Types{"Rc4WithAesSessionKeys", "36", true},
                                         Types{"Aes", "24", false}, Types{"Rc4AndAes", "28", false},
                                         Types{"Rc4AndAesWithAesSessionKeys", "60", false}),
                         [](const auto& test) { return test.param.name; });

TEST_P(AccountOfEncryptionTypes, JoinsAlwaysButSignsInByRc4Alone) {
  const auto& [name, value, accepted] = GetParam();
  NameMachine("types");
  JoinedEarlier();
  SetEncryptionTypes(value);
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);
  const GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  std::vector<char> token = alice.Token("TYPES$@CORP.EXAMPLE.COM");
  TakeLog();
  const std::string user = realm.Authenticate(token.data(), static_cast<int>(token.size()));

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(joined.error, kUntouched);
  EXPECT_EQ(user, accepted ? "CORP.EXAMPLE.COM\\alice" : "");
  EXPECT_THAT(TakeLog(),
              testing::StrEq(accepted ? ""
                                      : "4 krb-keytab APAuthenticate: Error reading AP request: "
                                        "Request ticket server TYPES$@CORP.EXAMPLE.COM kvno 1 "
                                        "found in keytab but not with enctype aes256-cts\n"));
  // A join leaves the attribute of an account that it found as it was.
  const Attributes attributes = directory.Read(account);
  const auto types = attributes.find("msDS-SupportedEncryptionTypes");
  EXPECT_EQ(types == attributes.end() ? "" : types->second.at(0), value);
}

}  // namespace
}  // namespace tavrel::tests
