// By whoever stands between the machine and its controllers, or answers for one.
#include <sys/resource.h>

#include <filesystem>
#include <fstream>

#include "../hostile/Child.h"
#include "Attack.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::Ge;
using testing::HasSubstr;

class TheNetwork : public Attack {};

// libldap tries the second when the first does not answer: whoever can refuse a connection chooses.
TEST_F(TheNetwork, GetsThePasswordInClearWhereAHostHoldsTwoUrls) {
  NameMachine("urls");
  const FalseController false_controller;
  servers = {{"ldaps://127.0.0.1:1 ldap://127.0.0.1:" + std::to_string(false_controller.Port()),
              vdi::LDAP_ENCRYPTION_LDAPS, Lab("CA")}};
  KrbRealm realm = Realm();

  Join(realm);

  EXPECT_THAT(false_controller.Binds(), HasSubstr(user));
  EXPECT_THAT(false_controller.Binds(), HasSubstr(password));
}

// The controller's certificate is on its authority's list of revoked ones. The library does not
// look there, neither in the CA file nor where ldap.conf says. It runs in a process of its own,
// since libldap reads ldap.conf once.
TEST_F(TheNetwork, IsTrustedWithARevokedCertificate) {
  const std::string made = Lab("DIR") + "/revoked";
  const std::string both = made + "/both.pem";
  if (!HasOtherClock()) {
    std::filesystem::create_directory(made);
    std::ofstream(made + "/index");
    std::ofstream(made + "/ca.conf") << "[ca]\ndefault_ca = lab\n[lab]\ndatabase = " << made
                                     << "/index\ndefault_md = sha256\ndefault_crl_days = 30\n";
    std::ofstream(made + "/ldap.conf") << "TLS_CRLFILE " << made << "/list.pem\n";
    const std::string authority = "openssl ca -config " + made +
                                  "/ca.conf -cert $LAB_CA -keyfile $LAB_DIR/ca.key 2>/dev/null ";
    Shell(authority + "-revoke $LAB_DIR/dc.pem");
    Shell(authority + "-gencrl -out " + made + "/list.pem");
    Shell("cat $LAB_CA " + made + "/list.pem >" + both);
  }
  SetVariable("LDAPCONF", made + "/ldap.conf");
  if (!InProcessWithClock("+0s")) return;
  Ldap session(Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_STARTTLS, both);

  const int careful = std::system(
      ("openssl verify -crl_check -CAfile " + both + " $LAB_DIR/dc.pem >/dev/null 2>&1").c_str());
  const bool trusted = session.Connect(user, password, nullptr);

  EXPECT_NE(careful, 0);
  EXPECT_TRUE(trusted);
}

// The answer to StartTLS, which nothing protects yet, may be of any length. Nothing bounds it but a
// limit of the process's memory.
TEST_F(TheNetwork, TakesMemoryBeforeTls) {
  constexpr long kMegabytes = 64;
  Peer flood([](Connection& connection) {
    Receive(connection);
    const std::string header("\x30\x84\x04\x00\x00\x00\x02\x01\x01", 9);  // 64 MiB follow
    connection.Send(header + std::string(kMegabytes << 20, '\x04'));
    connection.AwaitEnd();
  });

  const std::string grown = InChild([&] {
    const auto most = [] {  // kilobytes
      rusage usage{};
      getrusage(RUSAGE_SELF, &usage);
      return usage.ru_maxrss;
    };
    const long before = most();
    Ldap(flood.Host(), vdi::LDAP_ENCRYPTION_STARTTLS, Lab("CA")).Connect(user, password, nullptr);
    return std::to_string((most() - before) / 1024);
  });

  EXPECT_THAT(std::stol(grown), Ge(kMegabytes - 1));
}

}  // namespace
}  // namespace tavrel::tests
