// Accounts that an administrator made before the machine joined: what a join leaves to them.
#include <cstdlib>

#include "GssClient.h"
#include "JoinScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using PreparedAccount = JoinScenario;

// Only an account that the join makes gets names and encryption types.
TEST_F(PreparedAccount, GetsNoServiceNamesAndNoEncryptionTypes) {
  NameMachine("prepared");
  Scene("precreate PREPARED");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kSuccess);
  const Attributes attributes = directory.Read(account);
  EXPECT_EQ(attributes.count("servicePrincipalName"), 0u);
  EXPECT_EQ(attributes.count("dNSHostName"), 0u);
  EXPECT_EQ(attributes.count("msDS-SupportedEncryptionTypes"), 0u);
}

TEST_F(PreparedAccount, IsSignedInToByTheServiceNamesThatItWasGiven) {
  NameMachine("prepared");
  Scene("precreate PREPARED");
  ASSERT_EQ(std::system("samba-tool spn add HTTP/www.corp.example.com 'PREPARED$' "
                        "--configfile=\"$LAB_SMB_CONF\" >/dev/null"),
            0);
  JoinedRealm realm(*this);
  const GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  std::vector<char> token = alice.Token("HTTP/www.corp.example.com@CORP.EXAMPLE.COM");

  const std::string user = realm.Authenticate(token.data(), static_cast<int>(token.size()));

  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
}

TEST_F(PreparedAccount, IsNotFoundOutsideTheContainerOfComputers) {
  NameMachine("elsewhere");
  Scene("precreate ELSEWHERE");
  ChangeDatabase("dn: " + directory.Value(account, "dn") +
                 "\nchangetype: moddn\nnewrdn: CN=ELSEWHERE\ndeleteoldrdn: 1\nnewsuperior: "
                 "CN=Users," +
                 Lab("BASE_DN") + "\n");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kFailure);
  EXPECT_EQ(joined.error, "Could not add host to CORP.EXAMPLE.COM: Already exists");
  Scene("delete 'ELSEWHERE$'");
}

}  // namespace
}  // namespace tavrel::tests
