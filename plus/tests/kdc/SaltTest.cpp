// Keys as MIT's KDC wants them made.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "MachineKeys.h"

namespace tavrel::plus {
namespace {

constexpr char kPassword[] = "Salted.Pass.1";
const std::vector<krb5_enctype> kTypes = {ENCTYPE_AES256_CTS_HMAC_SHA1_96,
                                          ENCTYPE_AES128_CTS_HMAC_SHA1_96};

void Administer(const std::string& request) {
  const std::string command = "kadmin.local -q '" + request + "' >/dev/null 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0) << request;
}

Address ThisMachine() {
  Address address;
  auto& name = reinterpret_cast<sockaddr_in&>(address.storage);
  name.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.1", &name.sin_addr);
  address.size = sizeof name;
  return address;
}

class MitKdc : public testing::Test {
 public:
  MitKdc() { EXPECT_FALSE(kdc.Open()); }
  static void SetUpTestSuite() {  // its own key is of the first type alone
    Administer("setstr krbtgt/CORP.EXAMPLE.COM session_enctypes \"aes256-cts aes128-cts\"");
  }

  // Derives keys for `name` of the password as the KDC says, and uses each.
  Failure Prepare(const std::string& name, const std::vector<krb5_enctype>& types = kTypes) {
    KrbPrincipal principal;
    if (Failure failure = kdc.Parse(name, principal)) return failure;
    std::vector<MachineKey> keys;
    const Secret password{std::string_view(kPassword)};
    if (Failure failure = DeriveKeys(kdc, principal.get(), password, types, keys)) return failure;
    return Prove(kdc, principal.get(), keys);
  }

  const std::string realm = std::getenv("KDC_REALM");
  const Controller controller{"localhost"};
  const Address address = ThisMachine();
  const Deadline deadline{std::chrono::seconds(60)};
  Kdc kdc{realm, controller, address, deadline};
};

TEST_F(MitKdc, SaysTheSaltOfEveryKind) {
  for (const std::string kind : {"normal", "norealm", "onlyrealm", "special"}) {
    Administer("addprinc -pw " + std::string(kPassword) + " -e aes256-cts:" + kind +
               ",aes128-cts:" + kind + " " + kind);

    const Failure failure = Prepare(kind);

    EXPECT_FALSE(failure) << kind << ": " << failure.text;
  }
}

TEST_F(MitKdc, KeepsTheSaltOfBeforeARename) {
  Administer("addprinc -pw " + std::string(kPassword) +
             " -e aes256-cts:normal,aes128-cts:normal before");
  Administer("renprinc -force before after");

  const Failure failure = Prepare("after");

  EXPECT_FALSE(failure) << failure.text;
}

// It answers without an error, and without a salt.
TEST_F(MitKdc, HasNoKeyOfATypeThatItWasNotGiven) {
  Administer("addprinc -pw " + std::string(kPassword) + " -e aes256-cts:normal single");

  EXPECT_FALSE(Prepare("single", {ENCTYPE_AES256_CTS_HMAC_SHA1_96}));
  EXPECT_EQ(Prepare("single").cause, Cause::kNoEncryptionType);
}

TEST_F(MitKdc, RefusesTheKeysOfAnotherPassword) {
  Administer("addprinc -pw Other.Pass.1 -e aes256-cts:normal,aes128-cts:normal other");

  EXPECT_EQ(Prepare("other").cause, Cause::kBadCredentials);
}

}  // namespace
}  // namespace tavrel::plus
