// What the attacks share: what an attacker runs, and what arrives there.
#ifndef TAVREL_TESTS_ATTACKS_ATTACK_H
#define TAVREL_TESTS_ATTACKS_ATTACK_H

#include <mutex>
#include <string>
#include <vector>

#include "../domain/JoinScenario.h"
#include "../hostile/LdapScript.h"
#include "../hostile/Peer.h"

namespace tavrel::tests {

// A controller that anybody can run: it starts TLS with a certificate of its own making, takes
// every bind for a wrong password, and keeps what it was sent. It listens on 127.0.0.1.
class FalseController {
 public:
  FalseController();

  int Port() const { return peer_.Port(); }
  int Connections() const { return peer_.Connections(); }
  // The contents of all binds so far: name and password, among other bytes.
  std::string Binds() const;

 private:
  Certificate certificate_;
  mutable std::mutex mutex_;
  std::string binds_;
  Peer peer_;
};

// Runs a shell command; throws std::runtime_error when it fails.
void Shell(const std::string& command);

// A bare AP-REQ for `service` with the ticket of `client` that the credential cache file holds, or
// that can be had with it.
std::vector<char> RequestFrom(const std::string& cache, const std::string& client,
                              const std::string& service);

class Attack : public JoinScenario {
 public:
  // What the realm answers to a token: the user, or nothing.
  static std::string SignIn(KrbRealm& realm, std::vector<char> token);

  std::string Machine() const { return account + "$@" + Lab("REALM"); }
};

}  // namespace tavrel::tests

#endif
