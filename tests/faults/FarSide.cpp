#include "FarSide.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "DnsMessage.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

// The host name; longer than a computer's name may be.
constexpr char kHostName[] = "applianceclusternode.lab.example";

constexpr std::uint32_t kAccountDisabled = 0x2;

// A search's result, behind the type that libldap does not tell.
struct Found {
  std::optional<std::string> flags;  // of the one entry, if there is one
};

Found* AsFound(LDAPMessage* message) {
  return reinterpret_cast<Found*>(message);
}

// The single value of `type` among the modifications, which are strings; empty when there is none.
std::string ValueOf(LDAPMod** modifications, std::string_view type) {
  for (LDAPMod** mod = modifications; *mod != nullptr; ++mod) {
    if (type == (*mod)->mod_type) return (*mod)->mod_values[0];
  }
  return "";
}

// A `unicodePwd` value without quotes; nothing when it is none.
std::optional<std::string> PasswordIn(const berval& value) {
  std::string text;
  for (std::size_t i = 0; i + 1 < value.bv_len; i += 2) {
    if (value.bv_val[i + 1] != 0) return std::nullopt;
    text.push_back(value.bv_val[i]);
  }
  if (text.size() < 2 || text.front() != '"' || text.back() != '"') return std::nullopt;
  return text.substr(1, text.size() - 2);
}

std::string NameOf(krb5_context context, krb5_const_principal principal) {
  char* text = nullptr;
  if (krb5_unparse_name(context, principal, &text) != 0) return "?";
  const std::string name = text;
  krb5_free_unparsed_name(context, text);
  return name;
}

// A ticket for `client` that has just been issued.
krb5_error_code Issue(krb5_context context, krb5_const_principal client, krb5_creds* creds) {
  const std::string realm(client->realm.data, client->realm.length);
  *creds = {};
  krb5_copy_principal(context, client, &creds->client);
  krb5_build_principal(context, &creds->server, static_cast<unsigned>(realm.size()), realm.c_str(),
                       "krbtgt", realm.c_str(), nullptr);
  krb5_c_make_random_key(context, ENCTYPE_ARCFOUR_HMAC, &creds->keyblock);
  krb5_timestamp now = 0;
  krb5_timeofday(context, &now);
  creds->times.authtime = now;
  creds->times.starttime = now;
  creds->times.endtime = now + 36000;
  return 0;
}

// The account that may have a ticket, or null and the KDC's code.
Account* Admitted(krb5_context context, krb5_const_principal client, krb5_error_code& code) {
  const std::string name = NameOf(context, client);
  far_side->names_seen.insert(name);
  Account* const account = far_side->FindPrincipal(name);
  code = account == nullptr                         ? KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN
         : (account->flags & kAccountDisabled) != 0 ? KRB5KDC_ERR_CLIENT_REVOKED
                                                    : 0;
  return code == 0 ? account : nullptr;
}

}  // namespace

FarSide* far_side = nullptr;

Account* FarSide::Find(const std::string& dn) {
  names_seen.insert(dn);
  const auto found = accounts.find(dn);
  return found != accounts.end() ? &found->second : nullptr;
}

Account* FarSide::FindPrincipal(const std::string& name) {
  for (auto& [dn, account] : accounts) {
    if (account.name + "@" + domain == name) return &account;
  }
  return nullptr;
}

int FarSide::Bound(LDAP* ldap) const {
  const auto found = sessions.find(ldap);
  return found != sessions.end() && found->second.bound ? LDAP_SUCCESS : LDAP_OPERATIONS_ERROR;
}

int Answer(tags::gethostname, char* a, std::size_t b) {
  std::strncpy(a, kHostName, b);
  return 0;
}

int Answer(tags::res_search, const char* a, int, int, unsigned char* d, int e) {
  if (a != "_ldap._tcp.dc._msdcs." + far_side->domain || far_side->controllers.empty()) return -1;
  DnsMessage message(far_side->domain);
  for (const std::string& controller : far_side->controllers)
    message.Srv(389, DnsName(controller));
  const std::size_t length = std::min(message.Bytes().size(), static_cast<std::size_t>(e));
  std::memcpy(d, message.Bytes().data(), length);
  return static_cast<int>(length);
}

// The sessions are libldap's own, so that a sanitizer sees one that is not closed.
int Answer(tags::ldap_initialize, LDAP** a, const char* b) {
  const int code = calls::ldap_initialize.Real(a, b);
  if (code == LDAP_SUCCESS) far_side->sessions[*a] = {};
  return code;
}

int Answer(tags::ldap_set_option, LDAP* a, int b, const void* c) {
  // No TLS without a connection: a context of its own for every session takes milliseconds.
  if (b == LDAP_OPT_X_TLS_NEWCTX) return LDAP_SUCCESS;
  return calls::ldap_set_option.Real(a, b, c);
}

int Answer(tags::ldap_start_tls_s, LDAP*, LDAPControl**, LDAPControl**) {
  return LDAP_SUCCESS;
}

int Answer(tags::ldap_sasl_bind_s, LDAP* a, const char* b, const char*, berval* d, LDAPControl**,
           LDAPControl**, berval**) {
  if (b != far_side->administrator ||
      std::string_view(d->bv_val, d->bv_len) != far_side->administrator_password) {
    return LDAP_INVALID_CREDENTIALS;
  }
  far_side->sessions[a].bound = true;
  return LDAP_SUCCESS;
}

int Answer(tags::ldap_unbind_ext, LDAP* a, LDAPControl** b, LDAPControl** c) {
  far_side->sessions.erase(a);
  return calls::ldap_unbind_ext.Real(a, b, c);
}

int Answer(tags::ldap_search_ext_s, LDAP* a, const char* b, int, const char*, char**, int,
           LDAPControl**, LDAPControl**, timeval*, int, LDAPMessage** k) {
  if (const int code = far_side->Bound(a); code != LDAP_SUCCESS) return code;
  auto found = std::make_unique<Found>();
  const Account* const account = far_side->Find(b);
  if (account != nullptr) found->flags = std::to_string(account->flags);
  *k = reinterpret_cast<LDAPMessage*>(found.release());
  return account != nullptr ? LDAP_SUCCESS : LDAP_NO_SUCH_OBJECT;
}

LDAPMessage* Answer(tags::ldap_first_entry, LDAP*, LDAPMessage* b) {
  return AsFound(b)->flags ? b : nullptr;
}

LDAPMessage* Answer(tags::ldap_next_entry, LDAP*, LDAPMessage*) {
  return nullptr;
}

// Freed by libldap.
berval** Answer(tags::ldap_get_values_len, LDAP*, LDAPMessage* b, const char*) {
  auto** const values = static_cast<berval**>(ber_memcalloc(2, sizeof(berval*)));
  values[0] = ber_bvstrdup(AsFound(b)->flags->c_str());
  return values;
}

int Answer(tags::ldap_msgfree, LDAPMessage* a) {
  delete AsFound(a);
  return LDAP_RES_SEARCH_RESULT;
}

int Answer(tags::ldap_add_ext_s, LDAP* a, const char* b, LDAPMod** c, LDAPControl**,
           LDAPControl**) {
  if (const int code = far_side->Bound(a); code != LDAP_SUCCESS) return code;
  if (far_side->Find(b) != nullptr) return LDAP_ALREADY_EXISTS;
  const std::string cn = ValueOf(c, "cn");
  const std::string name = ValueOf(c, "sAMAccountName");
  const std::string start = "cn=" + cn + ",cn=Computers,";
  if (cn.empty() || start.compare(0, start.size(), b, 0, start.size()) != 0 || name != cn + "$") {
    return LDAP_NAMING_VIOLATION;
  }
  const auto flags = static_cast<std::uint32_t>(std::stoul(ValueOf(c, "userAccountControl")));
  far_side->accounts[b] = {name, "", flags};
  return LDAP_SUCCESS;
}

int Answer(tags::ldap_modify_ext_s, LDAP* a, const char* b, LDAPMod** c, LDAPControl**,
           LDAPControl**) {
  if (const int code = far_side->Bound(a); code != LDAP_SUCCESS) return code;
  Account* const account = far_side->Find(b);
  if (account == nullptr) return LDAP_NO_SUCH_OBJECT;
  const std::string_view type = c[0]->mod_type;
  if (type == "userAccountControl") {
    account->flags = static_cast<std::uint32_t>(std::stoul(c[0]->mod_values[0]));
    return LDAP_SUCCESS;
  }
  if (type != "unicodePwd") return LDAP_UNDEFINED_TYPE;
  const std::optional<std::string> password = PasswordIn(*c[0]->mod_bvalues[0]);
  if (!password || password->empty()) return LDAP_CONSTRAINT_VIOLATION;
  account->password = *password;
  return LDAP_SUCCESS;
}

krb5_error_code Answer(tags::krb5_get_init_creds_keytab, krb5_context a, krb5_creds* b,
                       krb5_principal c, krb5_keytab d, krb5_deltat, const char*,
                       krb5_get_init_creds_opt*) {
  krb5_error_code code = 0;
  const Account* const account = Admitted(a, c, code);
  if (account == nullptr) return code;
  krb5_keytab_entry entry{};
  code = krb5_kt_get_entry(a, d, c, 0, ENCTYPE_ARCFOUR_HMAC, &entry);
  if (code != 0) return code;
  const std::string key(reinterpret_cast<const char*>(entry.key.contents), entry.key.length);
  krb5_free_keytab_entry_contents(a, &entry);
  if (account->password.empty() || key != Rc4Key(account->password)) {
    return KRB5KDC_ERR_PREAUTH_FAILED;
  }
  far_side->by_password = false;
  return Issue(a, c, b);
}

krb5_error_code Answer(tags::krb5_get_init_creds_password, krb5_context a, krb5_creds* b,
                       krb5_principal c, const char* d, krb5_prompter_fct, void*, krb5_deltat,
                       const char*, krb5_get_init_creds_opt*) {
  krb5_error_code code = 0;
  const Account* const account = Admitted(a, c, code);
  if (account == nullptr) return code;
  if (account->password.empty() || account->password != d) return KRB5KDC_ERR_PREAUTH_FAILED;
  far_side->by_password = true;
  return Issue(a, c, b);
}

}  // namespace tavrel::tests
