// The sample of docs/krb5 for a KDC like this one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <fstream>

#include "GssClient.h"
#include "Scene.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

const std::string kMachine = "APPLIANCE$@CORP.EXAMPLE.COM";

// Gives the KDC the name that it has in the sample.
class NamedKdc {
 public:
  explicit NamedKdc(const std::string& hosts) {
    std::ofstream(hosts) << "127.0.0.1 kdc1.corp.example.com\n";
    if (mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) {
      throw std::runtime_error("no names");
    }
  }
  NamedKdc(const NamedKdc&) = delete;
  NamedKdc& operator=(const NamedKdc&) = delete;
  ~NamedKdc() { umount("/etc/hosts"); }
};

// A machine that another process has joined.
class Machine : public KrbRealm {
 public:
  explicit Machine(const std::string& keytab) : KrbRealm("corp.example.com", "", "", keytab) {
    krb_context.SetClientPrincipal(join_parameters.GetAccountName() + "$@" +
                                   join_parameters.domain);
  }

  Keytab Keys() { return Keytab(&krb_context); }
};

TEST(TheSampleForAnMitKdc, LetsAMachineProveItsKeyAndAUserSignIn) {
  const Kdc kdc;
  const NamedKdc named(kdc / "hosts");
  const ScopedVariable settings("KRB5_CONFIG", TAVREL_KRB5_SAMPLES "/mit.conf");
  Machine machine(kdc / "keytab");
  const std::string password = Env("KDC_MACHINE_PASSWORD");
  const GssClient alice("alice@CORP.EXAMPLE.COM", Env("KDC_USER_PASSWORD"));
  std::vector<char> token = alice.Token(kMachine);

  const int by_password = machine.Keys().ASAuthenticate(password, nullptr);
  const bool written = machine.Keys().WriteKey(password, nullptr);
  const int by_key = machine.Keys().ASAuthenticate(nullptr);
  const std::string user = machine.Authenticate(token.data(), static_cast<int>(token.size()));

  EXPECT_EQ(by_password, kSuccess);
  EXPECT_TRUE(written);
  EXPECT_EQ(by_key, kSuccess);
  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
}

}  // namespace
}  // namespace tavrel::tests
