// What several scenarios are made of.
#ifndef TAVREL_TESTS_FAULTS_SCENARIOS_H
#define TAVREL_TESTS_FAULTS_SCENARIOS_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ForgedRequest.h"
#include "Scenario.h"
#include "ScratchKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {

using Rows = std::vector<Row>;

inline Rows operator+(Rows a, const Rows& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The same for several calls.
inline Rows Each(const std::vector<std::string>& calls, const Result& once,
                 const Result& then = {}) {
  Rows rows;
  for (const std::string& call : calls)
    rows.push_back({call, once, then});
  return rows;
}

// The calls that look at a keytab file before a key is added, each of which keeps it from being
// added; `transfer` reads it, or writes to it when it is empty; null when there is no file.
inline Rows LookRows(const char* transfer, const std::string& result) {
  const Rows rows = Each({"krb5_kt_get_name", "open"}, result);
  if (transfer == nullptr) return rows;
  return rows + Rows{{"fcntl EINVAL", {}, result}} +  // there are locks of another kind
         Each({"fcntl", "lseek", transfer}, result) + Rows{{"close", {}, result}};
}

template <typename T>
std::unique_ptr<Case> Make() {
  return std::make_unique<T>();
}

// A realm whose Kerberos objects can be seen.
class OpenRealm : public KrbRealm {
 public:
  using KrbRealm::krb_context;
  using KrbRealm::KrbRealm;
};

// A realm object of the run's domain, which finds its controllers through DNS.
class RealmCase : public Case {
 protected:
  void Construct() {
    realm = std::make_unique<OpenRealm>(world.domain, world.far_side.administrator,
                                        world.far_side.administrator_password, world.keytab);
  }

  // The machine's account, with a password that nobody here knows.
  void AddAccount() {
    world.far_side.accounts[world.dn] = {world.account + "$", "Unknown.1", 4096};
  }

  std::string MachinePassword() {
    const Account* const account = world.far_side.Find(world.dn);
    return account != nullptr ? account->password : "";
  }

  // A user's ticket for the machine, as its account now is, and a fresh token with it.
  ForgedTicket Ticket() {
    ForgedTicket ticket;
    ticket.client_realm = world.far_side.domain;
    ticket.server_realm = world.far_side.domain;
    ticket.server = {world.account + "$"};
    ticket.password = MachinePassword();
    return ticket;
  }
  std::vector<char> Token() { return GssToken(ApReq(Ticket())); }

  std::string Authenticate(std::vector<char> token) {
    return realm->Authenticate(token.data(), static_cast<int>(token.size()));
  }

  // A join that works, and what it is for. Returns what is wrong.
  std::string JoinsAndAuthenticates() {
    std::string error;
    const int status = realm->Join(&error);
    if (status != 0) return "joining gives " + std::to_string(status) + ", " + error;
    const std::string user = Authenticate(Token());
    if (user != world.far_side.domain + "\\alice") return "the user is \"" + user + "\"";
    return "";
  }

  std::unique_ptr<OpenRealm> realm;
};

}  // namespace tavrel::tests

#endif
