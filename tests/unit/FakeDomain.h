// A domain whose every answer a test decides: its DNS, its controllers' directory, and its KDC.
#ifndef TAVREL_TESTS_UNIT_FAKEDOMAIN_H
#define TAVREL_TESTS_UNIT_FAKEDOMAIN_H

#include <deque>
#include <string>
#include <vector>

#include "FakeLdap.h"
#include "Interpose.h"
#include "MachineName.h"

namespace tavrel::tests {

// Answers the library while it lives, to a machine called "appliance". As it stands, every request
// works, the account exists, and the KDC takes every secret.
class FakeDomain {
 public:
  // What the KDC says to a secret. A ticket starts that many seconds from now.
  struct Ticket {
    krb5_error_code code = 0;
    int starts_in = 0;
  };

  FakeDomain();
  FakeDomain(const FakeDomain&) = delete;
  FakeDomain& operator=(const FakeDomain&) = delete;

  // One answer after the other; the last is given from then on.
  std::deque<Ticket> by_keytab = {{}};
  std::deque<Ticket> by_password = {{}};

  // The directory; "dns" and "key" (writing one) can be refused there, too.
  FakeLdap ldap;

  // What was asked for, in order: "dns, bind, find, ...".
  std::string Steps() const;

  // The passwords that the directory or the KDC was given for the account.
  std::vector<std::string> Passwords() const;

  // Sessions, search results and tickets that were handed out and not given back.
  int Held() const { return ldap.Held() + tickets_; }

 private:
  krb5_error_code Issue(krb5_context context, krb5_creds* creds, krb5_principal client,
                        std::deque<Ticket>& answers);

  std::vector<std::string> passwords_;  // that the KDC was given
  int tickets_ = 0;

  const MachineName name_{"appliance"};
  const StandIn<decltype(calls::res_search)> res_search_;
  const StandIn<decltype(calls::krb5_get_init_creds_keytab)> by_keytab_;
  const StandIn<decltype(calls::krb5_get_init_creds_password)> by_password_;
  const StandIn<decltype(calls::krb5_free_cred_contents)> free_creds_;
  const StandIn<decltype(calls::krb5_kt_add_entry)> add_key_;
};

}  // namespace tavrel::tests

#endif
