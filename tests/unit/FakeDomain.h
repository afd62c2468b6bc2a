// A domain whose every answer a test decides: its DNS, its one controller's directory, and its KDC.
#ifndef TAVREL_TESTS_UNIT_FAKEDOMAIN_H
#define TAVREL_TESTS_UNIT_FAKEDOMAIN_H

#include <deque>
#include <string>
#include <vector>

#include "Interpose.h"

namespace tavrel::tests {

template <typename Signature>
using StandInFor = const StandIn<Interposed<Signature>>;

// Answers the library while it lives, to a machine called "appliance". As it stands, every request
// works, the account exists, and the KDC takes every secret.
class FakeDomain {
 public:
  // What a lookup of the account finds.
  struct Account {
    int code = LDAP_SUCCESS;
    std::string flags = "4098";
  };

  // What the KDC says to a secret. A ticket starts that many seconds from now.
  struct Ticket {
    krb5_error_code code = 0;
    int starts_in = 0;
  };

  FakeDomain();
  FakeDomain(const FakeDomain&) = delete;
  FakeDomain& operator=(const FakeDomain&) = delete;

  // One answer after the other; the last is given from then on.
  std::deque<int> binds = {LDAP_SUCCESS};
  std::deque<Account> lookups = {{}};
  std::deque<Ticket> by_keytab = {{}};
  std::deque<Ticket> by_password = {{}};

  // Codes of what is asked for once.
  int add = LDAP_SUCCESS;
  int set_flags = LDAP_SUCCESS;
  int set_password = LDAP_SUCCESS;
  krb5_error_code make_salt = 0;
  krb5_error_code make_key = 0;
  krb5_error_code add_key = 0;
  bool announced = true;  // in DNS

  // What was asked for, in order: "dns, bind, find, ...".
  const std::string& Steps() const { return steps_; }

  // The passwords that the directory or the KDC was given for the account.
  const std::vector<std::string>& Passwords() const { return passwords_; }

  // Sessions, search results, values and tickets that were handed out and not given back.
  int Held() const { return held_; }

 private:
  void Step(const std::string& name);
  int Modify(LDAPMod** modifications);
  krb5_error_code Issue(krb5_context context, krb5_creds* creds, krb5_principal client,
                        std::deque<Ticket>& answers);

  std::string steps_;
  std::vector<std::string> passwords_;
  int held_ = 0;
  std::string found_flags_;

  StandInFor<int(char*, size_t)> gethostname_;
  StandInFor<int(const char*, int, int, unsigned char*, int)> res_search_;
  StandInFor<int(LDAP**, const char*)> initialize_;
  StandInFor<int(LDAP*, LDAPControl**, LDAPControl**)> start_tls_;
  StandInFor<int(LDAP*, const char*, const char*, berval*, LDAPControl**, LDAPControl**, berval**)>
      bind_;
  StandInFor<int(LDAP*, LDAPControl**, LDAPControl**)> unbind_;
  StandInFor<int(LDAP*, const char*, int, const char*, char**, int, LDAPControl**, LDAPControl**,
                 timeval*, int, LDAPMessage**)>
      search_;
  StandInFor<LDAPMessage*(LDAP*, LDAPMessage*)> first_entry_;
  StandInFor<LDAPMessage*(LDAP*, LDAPMessage*)> next_entry_;
  StandInFor<berval**(LDAP*, LDAPMessage*, const char*)> get_values_;
  StandInFor<void(berval**)> value_free_;
  StandInFor<int(LDAPMessage*)> msgfree_;
  StandInFor<int(LDAP*, const char*, LDAPMod**, LDAPControl**, LDAPControl**)> add_;
  StandInFor<int(LDAP*, const char*, LDAPMod**, LDAPControl**, LDAPControl**)> modify_;
  StandInFor<krb5_error_code(krb5_context, krb5_creds*, krb5_principal, krb5_keytab, krb5_deltat,
                             const char*, krb5_get_init_creds_opt*)>
      by_keytab_;
  StandInFor<krb5_error_code(krb5_context, krb5_creds*, krb5_principal, const char*,
                             krb5_prompter_fct, void*, krb5_deltat, const char*,
                             krb5_get_init_creds_opt*)>
      by_password_;
  StandInFor<void(krb5_context, krb5_creds*)> free_creds_;
  StandInFor<krb5_error_code(krb5_context, krb5_const_principal, krb5_data*)> make_salt_;
  StandInFor<krb5_error_code(krb5_context, krb5_enctype, const krb5_data*, const krb5_data*,
                             krb5_keyblock*)>
      make_key_;
  StandInFor<krb5_error_code(krb5_context, krb5_keytab, krb5_keytab_entry*)> add_key_;
};

}  // namespace tavrel::tests

#endif
