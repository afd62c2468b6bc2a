// Construction and destruction of a realm, and connections to the controllers.
#include <algorithm>

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

Rows ConstructionRows() {
  const std::string no_keytab =
      "4 krb-realm KrbRealm: Error initializing kerberos keytab to <keytab>";
  const std::string no_context = "Bad magic number for krb5_context structure";
  const Expected without_context = {
      "constructed",
      "untouched",
      {"4 krb-param Init: Error initializing context: <why>",
       "4 krb-param SetKeytab: Error resolving keytab: " + no_context, no_keytab}};
  const Expected without_keytab = {
      "constructed",
      "untouched",
      {"4 krb-param SetKeytab: Error resolving keytab: <why>", no_keytab}};
  return {{"krb5_init_context", without_context, {}}, {"krb5_kt_resolve", without_keytab, {}}};
}

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

// A step of the connection to the controller `number` of three, at `url`. The failure of one server
// leaves the two others; when all that follows fails as well, only those before it are left, and
// the last text is that of the last server.
Row ConnectStep(const std::string& call, int number, const std::string& url,
                const std::string& step) {
  const std::string record = "3 ldap Connect: " + step + url + ": <why>";
  const std::string before = std::to_string(number - 1);
  return {call, Expected{"true, 2 of 3 bound", "<why>", {record}},
          Expected{(number > 1 ? "true, " : "false, ") + before + " of 3 bound",
                   number == 3 ? "<why>" : "Out of memory",
                   {record}}};
}

Rows ConfiguredRows() {
  const std::string dc1 = "ldaps://dc1.example.net";
  const std::string dc2 = "ldap://dc2.example.net";
  const std::string dc3 = "ldap://dc3.example.net";
  const std::string tls = "LDAP new tls context failed against ";
  return {
      ConnectStep("ldap_initialize#1", 1, dc1, "LDAP init failed against "),
      ConnectStep("ldap_set_option(PROTOCOL_VERSION)#1", 1, dc1,
                  "LDAP set version failed against "),
      ConnectStep("ldap_set_option(X_TLS_CACERTFILE)", 1, dc1,
                  "LDAP set cert '/ca.pem'failed against "),
      ConnectStep("ldap_set_option(X_TLS_NEWCTX)#1", 1, dc1, tls),
      ConnectStep("ldap_set_option(REFERRALS)#1", 1, dc1, "LDAP set referral failed against "),
      ConnectStep("ldap_set_option(NETWORK_TIMEOUT)#1", 1, dc1, "LDAP set timeout failed against "),
      ConnectStep("ldap_sasl_bind_s#1", 1, dc1, "LDAP bind failed against "),
      ConnectStep("ldap_initialize#2", 2, dc2, "LDAP init failed against "),
      ConnectStep("ldap_set_option(PROTOCOL_VERSION)#2", 2, dc2,
                  "LDAP set version failed against "),
      ConnectStep("ldap_set_option(REFERRALS)#2", 2, dc2, "LDAP set referral failed against "),
      ConnectStep("ldap_set_option(NETWORK_TIMEOUT)#2", 2, dc2, "LDAP set timeout failed against "),
      ConnectStep("ldap_sasl_bind_s#2", 2, dc2, "LDAP bind failed against "),
      ConnectStep("ldap_initialize#3", 3, dc3, "LDAP init failed against "),
      ConnectStep("ldap_set_option(PROTOCOL_VERSION)#3", 3, dc3,
                  "LDAP set version failed against "),
      ConnectStep("ldap_set_option(X_TLS_REQUIRE_CERT)", 3, dc3,
                  "LDAP set require cert failed against "),
      ConnectStep("ldap_set_option(X_TLS_NEWCTX)#2", 3, dc3, tls),
      ConnectStep("ldap_set_option(REFERRALS)#3", 3, dc3, "LDAP set referral failed against "),
      ConnectStep("ldap_set_option(NETWORK_TIMEOUT)#3", 3, dc3, "LDAP set timeout failed against "),
      ConnectStep("ldap_start_tls_s", 3, dc3, "LDAP starttls failed against "),
      ConnectStep("ldap_sasl_bind_s#3", 3, dc3, "LDAP bind failed against ")};
}

Rows DiscoveredRows() {
  const auto none = [](const std::string& call, const std::string& record) -> Row {
    return {call,
            Expected{"false, 0 of 0 bound",
                     "Unable to find ldap host for domain",
                     {record,
                      "4 ldap-join Connect: Unable to find ldap host for domain "
                      "<domain>"}},
            {}};
  };
  Rows rows = {
      none("res_search", "4 discovery GetLDAPHosts: Error in dns search for domain  <domain>"),
      none("ns_initparse", "4 discovery GetLDAPHosts: Error parsing DNS answer for <domain>")};
  for (int number = 1; number <= 3; ++number) {
    const std::string n = std::to_string(number);
    const std::string before = std::to_string(number - 1);
    const std::string url = "ldap://dc" + n + ".example.net:389";
    const auto skipped = [&](const std::string& call, const std::string& record) -> Row {
      return {call + "#" + n, Expected{"true, 2 of 2 bound", "untouched", {record}},
              Expected{"false, 0 of " + before + " bound",
                       number == 1 ? "Unable to find ldap host for domain" : "Out of memory",
                       {record}}};
    };
    rows =
        rows +
        Rows{skipped("ns_parserr", "3 discovery GetLDAPHosts: Error parsing DNS response record " +
                                       before + " for <domain>"),
             skipped("ns_name_uncompress",
                     "4 discovery GetLDAPHosts: Error uncompressing target for <domain>"),
             ConnectStep("ldap_initialize#" + n, number, url, "LDAP init failed against "),
             ConnectStep("ldap_set_option(PROTOCOL_VERSION)#" + n, number, url,
                         "LDAP set version failed against "),
             ConnectStep("ldap_set_option(X_TLS_REQUIRE_CERT)#" + n, number, url,
                         "LDAP set require cert failed against "),
             ConnectStep("ldap_set_option(X_TLS_NEWCTX)#" + n, number, url,
                         "LDAP new tls context failed against "),
             ConnectStep("ldap_set_option(REFERRALS)#" + n, number, url,
                         "LDAP set referral failed against "),
             ConnectStep("ldap_set_option(NETWORK_TIMEOUT)#" + n, number, url,
                         "LDAP set timeout failed against "),
             ConnectStep("ldap_start_tls_s#" + n, number, url, "LDAP starttls failed against "),
             ConnectStep("ldap_sasl_bind_s#" + n, number, url, "LDAP bind failed against ")};
  }
  return rows;
}

}  // namespace

std::vector<Scenario> RealmScenarios() {
  const Expected connected = {"true, 3 of 3 bound", "untouched", {}};
  return {{"Construction",
           Make<Construction>,
           {"constructed", "untouched", {}},
           kUnchanged,
           ConstructionRows()},
          {"Destruction",
           Make<Destruction>,
           {"destroyed", "untouched", {}},
           kUnchanged,
           {{"krb5_kt_close", {}, {}}}},
          {"ConnectToThreeConfigured", Make<ConfiguredConnection>, connected, kUnchanged,
           ConfiguredRows()},
          {"ConnectToThreeDiscovered", Make<DiscoveredConnection>, connected, kUnchanged,
           DiscoveredRows()}};
}

}  // namespace tavrel::tests
