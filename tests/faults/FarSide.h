// A domain without a network: the machine's name, name server, domain controllers and KDC, as the
// library's calls meet them.
#ifndef TAVREL_TESTS_FAULTS_FARSIDE_H
#define TAVREL_TESTS_FAULTS_FARSIDE_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "Calls.h"

namespace tavrel::tests {

// A computer account in the directory.
struct Account {
  std::string name;      // sAMAccountName
  std::string password;  // empty: none was set
  std::uint32_t flags = 0;
};

class FarSide {
 public:
  // A domain without accounts; its realm is `domain`.
  explicit FarSide(std::string domain) : domain(std::move(domain)) {}

  const std::string domain;
  std::vector<std::string> controllers = {"dc1.example.net"};  // that the name server knows
  std::string administrator;
  std::string administrator_password;
  std::map<std::string, Account> accounts;  // by distinguished name

  // All that accounts were created, changed and searched as, and tickets were asked for.
  std::set<std::string> names_seen;

  bool by_password = false;  // how the last ticket was had

  struct Session {
    bool bound = false;
  };
  std::map<LDAP*, Session> sessions;

  Account* Find(const std::string& dn);
  Account* FindPrincipal(const std::string& name);

  // Null when the session is bound, or else the code that a controller answers.
  int Bound(LDAP* ldap) const;
};

// The one that answers.
extern FarSide* far_side;

// The answers. What has none is answered by the real function.
int Answer(tags::gethostname, char* a, std::size_t b);
int Answer(tags::res_search, const char* a, int b, int c, unsigned char* d, int e);
int Answer(tags::ldap_initialize, LDAP** a, const char* b);
int Answer(tags::ldap_set_option, LDAP* a, int b, const void* c);
int Answer(tags::ldap_start_tls_s, LDAP* a, LDAPControl** b, LDAPControl** c);
int Answer(tags::ldap_sasl_bind_s, LDAP* a, const char* b, const char* c, berval* d,
           LDAPControl** e, LDAPControl** f, berval** g);
int Answer(tags::ldap_unbind_ext, LDAP* a, LDAPControl** b, LDAPControl** c);
int Answer(tags::ldap_search_ext_s, LDAP* a, const char* b, int c, const char* d, char** e, int f,
           LDAPControl** g, LDAPControl** h, timeval* i, int j, LDAPMessage** k);
LDAPMessage* Answer(tags::ldap_first_entry, LDAP* a, LDAPMessage* b);
LDAPMessage* Answer(tags::ldap_next_entry, LDAP* a, LDAPMessage* b);
berval** Answer(tags::ldap_get_values_len, LDAP* a, LDAPMessage* b, const char* c);
int Answer(tags::ldap_msgfree, LDAPMessage* a);
int Answer(tags::ldap_add_ext_s, LDAP* a, const char* b, LDAPMod** c, LDAPControl** d,
           LDAPControl** e);
int Answer(tags::ldap_modify_ext_s, LDAP* a, const char* b, LDAPMod** c, LDAPControl** d,
           LDAPControl** e);
krb5_error_code Answer(tags::krb5_get_init_creds_keytab, krb5_context a, krb5_creds* b,
                       krb5_principal c, krb5_keytab d, krb5_deltat e, const char* f,
                       krb5_get_init_creds_opt* g);
krb5_error_code Answer(tags::krb5_get_init_creds_password, krb5_context a, krb5_creds* b,
                       krb5_principal c, const char* d, krb5_prompter_fct e, void* f, krb5_deltat g,
                       const char* h, krb5_get_init_creds_opt* i);

}  // namespace tavrel::tests

#endif
