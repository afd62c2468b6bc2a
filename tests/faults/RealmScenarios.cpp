// Construction and destruction of a realm, and connections to the controllers.
#include <algorithm>
#include <map>

#include "Scenarios.h"
#include "tavrel/DiscoveryService.h"

namespace tavrel::tests {
namespace {

// What was constructed under a fault is used afterwards, whatever became of it.
class Construction : public RealmCase {
 public:
  std::string Act(std::string*) override {
    Construct();
    return "constructed";
  }

  std::string Again() override {
    if (!realm) Construct();
    const bool has_context = realm->krb_context.context != nullptr;
    if (realm->krb_context.keytab != nullptr) return JoinsAndAuthenticates();

    // Such a realm goes as far as it can. A join that lacks the keytab only is a success.
    const int expected = has_context ? 0 : 3;
    std::string error;
    const int joined = realm->Join(&error);
    const std::string user = Authenticate(Token());
    const int tested = realm->TestJoin(world.domain, world.far_side.administrator,
                                       world.far_side.administrator_password, nullptr);
    if (joined == expected && tested == expected && user.empty()) return "";
    return "a realm without keytab gives " + std::to_string(joined) + ", " +
           std::to_string(tested) + ", \"" + user + "\", " + error;
  }
};

// A realm that has all it can have.
class Destruction : public RealmCase {
 public:
  Destruction() {
    Construct();
    realm->Join(nullptr);
  }

  std::string Act(std::string*) override {
    realm.reset();
    return "destroyed";
  }

  std::string Again() override {
    Construct();
    return JoinsAndAuthenticates();
  }
};

// Connections to three controllers, which are configured or discovered.
class Connection : public Case {
 public:
  explicit Connection(const std::list<LdapServer>& servers)
      : params_(world.domain, servers, world.far_side.administrator,
                world.far_side.administrator_password),
        joiner_(&params_, &discovery_) {
    world.far_side.controllers = {"dc1.example.net", "dc2.example.net", "dc3.example.net"};
  }

  std::string Act(std::string* error) override {
    const std::size_t earlier = joiner_.sessions.size();
    const bool connected = joiner_.Connect(error);
    std::size_t bound = 0;
    std::size_t unbound = 0;
    for (auto it = std::next(joiner_.sessions.begin(), static_cast<std::ptrdiff_t>(earlier));
         it != joiner_.sessions.end(); ++it) {
      if (it->handle == nullptr) continue;
      ++(world.far_side.Bound(it->handle) == LDAP_SUCCESS ? bound : unbound);
    }
    return std::string(connected ? "true, " : "false, ") + std::to_string(bound) + " of " +
           std::to_string(joiner_.sessions.size() - earlier) + " bound" +
           (unbound != 0 ? ", others open" : "");
  }

  std::string Again() override {
    std::string error = "untouched";
    const std::string result = Act(&error);
    return result == "true, 3 of 3 bound" && error == "untouched" ? "" : result + ", " + error;
  }

 private:
  JoinParameters params_;
  DNSDiscoveryService discovery_;
  Joiner joiner_;
};

class ConfiguredConnection : public Connection {
 public:
  ConfiguredConnection()
      : Connection({{"ldaps://dc1.example.net", vdi::LDAP_ENCRYPTION_LDAPS, "/ca.pem"},
                    {"ldap://dc2.example.net", vdi::LDAP_ENCRYPTION_NONE, ""},
                    {"dc3.example.net", vdi::LDAP_ENCRYPTION_NONE, ""}}) {}
};

class DiscoveredConnection : public Connection {
 public:
  DiscoveredConnection() : Connection({}) {}
};

// The steps to each of three controllers. The failure of one leaves the two others; when all that
// follows fails as well, only those before it are left.
Rows ConnectRows(const std::vector<std::vector<std::string>>& steps) {
  std::map<std::string, int> made;
  Rows rows;
  for (std::size_t before = 0; before < steps.size(); ++before) {
    for (const std::string& call : steps[before]) {
      rows.push_back(
          {call + "#" + std::to_string(++made[call]), "true, 2 of 3 bound",
           (before > 0 ? "true, " : "false, ") + std::to_string(before) + " of 3 bound"});
    }
  }
  return rows;
}

const std::string kVersion = "ldap_set_option(PROTOCOL_VERSION)";
const std::string kReferrals = "ldap_set_option(REFERRALS)";
const std::string kTimeout = "ldap_set_option(NETWORK_TIMEOUT)";
const std::string kNewContext = "ldap_set_option(X_TLS_NEWCTX)";
const std::string kUnverified = "ldap_set_option(X_TLS_REQUIRE_CERT)";
const std::vector<std::string> kOverStartTls = {"ldap_initialize",  kVersion,          kUnverified,
                                                kNewContext,        kReferrals,        kTimeout,
                                                "ldap_start_tls_s", "ldap_sasl_bind_s"};

Rows DiscoveredRows() {
  Rows rows = Each({"res_search", "ns_initparse"}, "false, 0 of 0 bound");
  for (int number = 1; number <= 3; ++number) {  // a target that is left out
    const std::string n = "#" + std::to_string(number);
    rows = rows + Each({"ns_parserr" + n, "ns_name_uncompress" + n}, "true, 2 of 2 bound",
                       "false, 0 of " + std::to_string(number - 1) + " bound");
  }
  return rows + ConnectRows({kOverStartTls, kOverStartTls, kOverStartTls});
}

}  // namespace

std::vector<Scenario> RealmScenarios() {
  return {{"Construction", Make<Construction>, "constructed", kUnchanged,
           Each({"krb5_init_context", "krb5_kt_resolve"}, "constructed")},
          {"Destruction", Make<Destruction>, "destroyed", kUnchanged, {{"krb5_kt_close", {}, {}}}},
          {"ConnectToThreeConfigured", Make<ConfiguredConnection>, "true, 3 of 3 bound", kUnchanged,
           ConnectRows({{"ldap_initialize", kVersion, "ldap_set_option(X_TLS_CACERTFILE)",
                         kNewContext, kReferrals, kTimeout, "ldap_sasl_bind_s"},
                        {"ldap_initialize", kVersion, kReferrals, kTimeout, "ldap_sasl_bind_s"},
                        kOverStartTls})},
          {"ConnectToThreeDiscovered", Make<DiscoveredConnection>, "true, 3 of 3 bound", kUnchanged,
           DiscoveredRows()}};
}

}  // namespace tavrel::tests
