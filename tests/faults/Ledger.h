// Who holds what: every object that the library obtains from another one is given back exactly
// once, by the call that belongs to it, and not used afterwards.
#ifndef TAVREL_TESTS_FAULTS_LEDGER_H
#define TAVREL_TESTS_FAULTS_LEDGER_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Calls.h"

namespace tavrel::tests {

enum class Kind {
  kContext,
  kKeytab,
  kCursor,
  kEntry,
  kPrincipal,
  kSalt,
  kKey,
  kCreds,
  kAuthContext,
  kTicket,
  kErrorMessage,
  kSession,
  kMessage,
  kValues,
  kBio,
  kDescriptor,
};

class Ledger {
 public:
  void Take(Kind kind, const void* handle);
  void Take(Kind kind, int descriptor);
  void Give(Kind kind, const void* handle, const char* call);
  void Give(Kind kind, int descriptor, const char* call);
  void Use(Kind kind, const void* handle, const char* call);

  // `tail` is given back together with `head`.
  void Chain(const void* head, const void* tail);

  // What was given back without being held, or used so; and what is still held.
  std::vector<std::string> Complaints() const;

 private:
  using Handle = std::pair<Kind, const void*>;

  std::map<Handle, int> held_;  // libcom_err hands the same text out several times
  std::map<const void*, const void*> chains_;
  std::vector<std::string> complaints_;
};

// Where the library's calls are entered.
extern Ledger* ledger;

// What a call gives back or uses; entered before it is made.
inline void Before(tags::krb5_free_context t, krb5_context a) {
  ledger->Give(Kind::kContext, a, t.kName);
}
inline void Before(tags::krb5_kt_resolve t, krb5_context a, const char*, krb5_keytab*) {
  ledger->Use(Kind::kContext, a, t.kName);
}
inline void Before(tags::krb5_kt_close t, krb5_context a, krb5_keytab b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kKeytab, b, t.kName);
}
inline void Before(tags::krb5_kt_have_content t, krb5_context a, krb5_keytab b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kKeytab, b, t.kName);
}
inline void Before(tags::krb5_kt_start_seq_get t, krb5_context a, krb5_keytab b, krb5_kt_cursor*) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kKeytab, b, t.kName);
}
inline void Before(tags::krb5_kt_next_entry t, krb5_context a, krb5_keytab b, krb5_keytab_entry*,
                   krb5_kt_cursor* d) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kKeytab, b, t.kName);
  ledger->Use(Kind::kCursor, *d, t.kName);
}
inline void Before(tags::krb5_kt_end_seq_get t, krb5_context a, krb5_keytab b, krb5_kt_cursor* c) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kKeytab, b, t.kName);
  ledger->Give(Kind::kCursor, *c, t.kName);
}
inline void Before(tags::krb5_kt_add_entry t, krb5_context a, krb5_keytab b, krb5_keytab_entry* c) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kKeytab, b, t.kName);
  ledger->Use(Kind::kPrincipal, c->principal, t.kName);
  ledger->Use(Kind::kKey, c->key.contents, t.kName);
}
inline void Before(tags::krb5_kt_remove_entry t, krb5_context a, krb5_keytab b,
                   krb5_keytab_entry* c) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kKeytab, b, t.kName);
  ledger->Use(Kind::kEntry, c->principal, t.kName);
}
inline void Before(tags::krb5_free_keytab_entry_contents t, krb5_context a, krb5_keytab_entry* b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kEntry, b->principal, t.kName);
}
inline void Before(tags::krb5_parse_name t, krb5_context a, const char*, krb5_principal*) {
  ledger->Use(Kind::kContext, a, t.kName);
}
inline void Before(tags::krb5_free_principal t, krb5_context a, krb5_principal b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kPrincipal, b, t.kName);
}
inline void Before(tags::krb5_principal2salt t, krb5_context a, krb5_const_principal b,
                   krb5_data*) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kPrincipal, b, t.kName);
}
inline void Before(tags::krb5_free_data_contents t, krb5_context a, krb5_data* b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kSalt, b->data, t.kName);
}
inline void Before(tags::krb5_c_string_to_key t, krb5_context a, krb5_enctype, const krb5_data*,
                   const krb5_data* d, krb5_keyblock*) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kSalt, d->data, t.kName);
}
inline void Before(tags::krb5_free_keyblock_contents t, krb5_context a, krb5_keyblock* b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kKey, b->contents, t.kName);
}
inline void Before(tags::krb5_get_init_creds_keytab t, krb5_context a, krb5_creds*,
                   krb5_principal c, krb5_keytab d, krb5_deltat, const char*,
                   krb5_get_init_creds_opt*) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kPrincipal, c, t.kName);
  ledger->Use(Kind::kKeytab, d, t.kName);
}
inline void Before(tags::krb5_get_init_creds_password t, krb5_context a, krb5_creds*,
                   krb5_principal c, const char*, krb5_prompter_fct, void*, krb5_deltat,
                   const char*, krb5_get_init_creds_opt*) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kPrincipal, c, t.kName);
}
inline void Before(tags::krb5_free_cred_contents t, krb5_context a, krb5_creds* b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kCreds, b->client, t.kName);
}
inline void Before(tags::krb5_auth_con_init t, krb5_context a, krb5_auth_context*) {
  ledger->Use(Kind::kContext, a, t.kName);
}
inline void Before(tags::krb5_auth_con_free t, krb5_context a, krb5_auth_context b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kAuthContext, b, t.kName);
}
inline void Before(tags::krb5_rd_req t, krb5_context a, krb5_auth_context* b, const krb5_data*,
                   krb5_const_principal, krb5_keytab e, krb5_flags*, krb5_ticket**) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Use(Kind::kAuthContext, *b, t.kName);
  ledger->Use(Kind::kKeytab, e, t.kName);
}
inline void Before(tags::krb5_free_ticket t, krb5_context a, krb5_ticket* b) {
  ledger->Use(Kind::kContext, a, t.kName);
  ledger->Give(Kind::kTicket, b, t.kName);
}
inline void Before(tags::krb5_free_error_message t, krb5_context, const char* b) {
  ledger->Give(Kind::kErrorMessage, b, t.kName);
}
inline void Before(tags::ldap_set_option t, LDAP* a, int, const void*) {
  ledger->Use(Kind::kSession, a, t.kName);
}
inline void Before(tags::ldap_start_tls_s t, LDAP* a, LDAPControl**, LDAPControl**) {
  ledger->Use(Kind::kSession, a, t.kName);
}
inline void Before(tags::ldap_sasl_bind_s t, LDAP* a, const char*, const char*, berval*,
                   LDAPControl**, LDAPControl**, berval**) {
  ledger->Use(Kind::kSession, a, t.kName);
}
inline void Before(tags::ldap_unbind_ext t, LDAP* a, LDAPControl**, LDAPControl**) {
  ledger->Give(Kind::kSession, a, t.kName);
}
inline void Before(tags::ldap_search_ext_s t, LDAP* a, const char*, int, const char*, char**, int,
                   LDAPControl**, LDAPControl**, timeval*, int, LDAPMessage**) {
  ledger->Use(Kind::kSession, a, t.kName);
}
inline void Before(tags::ldap_first_entry t, LDAP* a, LDAPMessage* b) {
  ledger->Use(Kind::kSession, a, t.kName);
  ledger->Use(Kind::kMessage, b, t.kName);
}
inline void Before(tags::ldap_next_entry t, LDAP* a, LDAPMessage* b) {
  ledger->Use(Kind::kSession, a, t.kName);
  ledger->Use(Kind::kMessage, b, t.kName);
}
inline void Before(tags::ldap_get_values_len t, LDAP* a, LDAPMessage* b, const char*) {
  ledger->Use(Kind::kSession, a, t.kName);
  ledger->Use(Kind::kMessage, b, t.kName);
}
inline void Before(tags::ldap_value_free_len t, berval** a) {
  ledger->Give(Kind::kValues, a, t.kName);
}
inline void Before(tags::ldap_msgfree t, LDAPMessage* a) {
  ledger->Give(Kind::kMessage, a, t.kName);
}
inline void Before(tags::ldap_add_ext_s t, LDAP* a, const char*, LDAPMod**, LDAPControl**,
                   LDAPControl**) {
  ledger->Use(Kind::kSession, a, t.kName);
}
inline void Before(tags::ldap_modify_ext_s t, LDAP* a, const char*, LDAPMod**, LDAPControl**,
                   LDAPControl**) {
  ledger->Use(Kind::kSession, a, t.kName);
}
inline void Before(tags::BIO_set_flags t, BIO* a, int) {
  ledger->Use(Kind::kBio, a, t.kName);
}
inline void Before(tags::BIO_push t, BIO* a, BIO* b) {
  ledger->Use(Kind::kBio, a, t.kName);
  ledger->Use(Kind::kBio, b, t.kName);
  ledger->Chain(a, b);
}
inline void Before(tags::BIO_write t, BIO* a, const void*, int) {
  ledger->Use(Kind::kBio, a, t.kName);
}
inline void Before(tags::BIO_ctrl t, BIO* a, int, long, void*) {
  ledger->Use(Kind::kBio, a, t.kName);
}
inline void Before(tags::BIO_free_all t, BIO* a) {
  ledger->Give(Kind::kBio, a, t.kName);
}
inline void Before(tags::close t, int a) {
  ledger->Give(Kind::kDescriptor, a, t.kName);
}

// What a call that was made has handed out.
inline void After(tags::krb5_init_context, krb5_error_code code, krb5_context* a) {
  if (code == 0) ledger->Take(Kind::kContext, *a);
}
inline void After(tags::krb5_kt_resolve, krb5_error_code code, krb5_context, const char*,
                  krb5_keytab* c) {
  if (code == 0) ledger->Take(Kind::kKeytab, *c);
}
inline void After(tags::krb5_kt_start_seq_get, krb5_error_code code, krb5_context, krb5_keytab,
                  krb5_kt_cursor* c) {
  if (code == 0) ledger->Take(Kind::kCursor, *c);
}
inline void After(tags::krb5_kt_next_entry, krb5_error_code code, krb5_context, krb5_keytab,
                  krb5_keytab_entry* c, krb5_kt_cursor*) {
  if (code == 0) ledger->Take(Kind::kEntry, c->principal);
}
inline void After(tags::krb5_parse_name, krb5_error_code code, krb5_context, const char*,
                  krb5_principal* c) {
  if (code == 0) ledger->Take(Kind::kPrincipal, *c);
}
inline void After(tags::krb5_principal2salt, krb5_error_code code, krb5_context,
                  krb5_const_principal, krb5_data* c) {
  if (code == 0) ledger->Take(Kind::kSalt, c->data);
}
inline void After(tags::krb5_c_string_to_key, krb5_error_code code, krb5_context, krb5_enctype,
                  const krb5_data*, const krb5_data*, krb5_keyblock* e) {
  if (code == 0) ledger->Take(Kind::kKey, e->contents);
}
inline void After(tags::krb5_get_init_creds_keytab, krb5_error_code code, krb5_context,
                  krb5_creds* b, krb5_principal, krb5_keytab, krb5_deltat, const char*,
                  krb5_get_init_creds_opt*) {
  if (code == 0) ledger->Take(Kind::kCreds, b->client);
}
inline void After(tags::krb5_get_init_creds_password, krb5_error_code code, krb5_context,
                  krb5_creds* b, krb5_principal, const char*, krb5_prompter_fct, void*, krb5_deltat,
                  const char*, krb5_get_init_creds_opt*) {
  if (code == 0) ledger->Take(Kind::kCreds, b->client);
}
inline void After(tags::krb5_auth_con_init, krb5_error_code code, krb5_context,
                  krb5_auth_context* b) {
  if (code == 0) ledger->Take(Kind::kAuthContext, *b);
}
inline void After(tags::krb5_rd_req, krb5_error_code code, krb5_context, krb5_auth_context*,
                  const krb5_data*, krb5_const_principal, krb5_keytab, krb5_flags*,
                  krb5_ticket** g) {
  if (code == 0) ledger->Take(Kind::kTicket, *g);
}
inline void After(tags::krb5_get_error_message, const char* text, krb5_context, krb5_error_code) {
  if (text != nullptr) ledger->Take(Kind::kErrorMessage, text);
}
inline void After(tags::ldap_initialize, int code, LDAP** a, const char*) {
  if (code == LDAP_SUCCESS) ledger->Take(Kind::kSession, *a);
}
inline void After(tags::ldap_search_ext_s, int, LDAP*, const char*, int, const char*, char**, int,
                  LDAPControl**, LDAPControl**, timeval*, int, LDAPMessage** k) {
  if (*k != nullptr) ledger->Take(Kind::kMessage, *k);  // a failed search may have one too
}
inline void After(tags::ldap_get_values_len, berval** values, LDAP*, LDAPMessage*, const char*) {
  if (values != nullptr) ledger->Take(Kind::kValues, values);
}
inline void After(tags::BIO_new, BIO* bio, const BIO_METHOD*) {
  if (bio != nullptr) ledger->Take(Kind::kBio, bio);
}
inline void After(tags::open, int descriptor, const char*, int, mode_t) {
  if (descriptor != -1) ledger->Take(Kind::kDescriptor, descriptor);
}

}  // namespace tavrel::tests

#endif
