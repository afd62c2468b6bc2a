#include "FakeDomain.h"

#include <cstring>
#include <string_view>

namespace tavrel::tests {
namespace {

// The only search result, the only entry and the only value that there are.
char the_message;
LDAPMessage* TheMessage() {
  return reinterpret_cast<LDAPMessage*>(&the_message);
}

// A DNS answer (RFC 1035, 4) of one SRV record: dc1.corp.example.com, port 389.
constexpr std::string_view kAnswer(
    "\0\0\x81\x80\0\0\0\1\0\0\0\0"
    "\0\0\x21\0\1\0\0\0\x3c\0\x1c"
    "\0\0\0\0\x01\x85\3dc1\4corp\7example\3com\0",
    12 + 11 + 28);

template <typename T>
T Next(std::deque<T>& answers) {
  const T answer = answers.front();
  if (answers.size() > 1) answers.pop_front();
  return answer;
}

// The password in a value of unicodePwd: quoted, two bytes a character.
std::string Decoded(const berval& value) {
  std::string text;
  for (std::size_t i = 2; i + 2 < value.bv_len; i += 2)
    text += value.bv_val[i];
  return text;
}

}  // namespace

FakeDomain::FakeDomain()
    : gethostname_(calls::gethostname,
                   [](char* name, size_t size) {
                     std::strncpy(name, "appliance", size);
                     return 0;
                   }),
      res_search_(calls::res_search,
                  [this](const char*, int, int, unsigned char* answer, int) {
                    Step("dns");
                    if (!announced) return -1;
                    kAnswer.copy(reinterpret_cast<char*>(answer), kAnswer.size());
                    return static_cast<int>(kAnswer.size());
                  }),
      initialize_(calls::ldap_initialize,
                  [this](LDAP** handle, const char* url) {
                    const int code = calls::ldap_initialize.Real(handle, url);
                    if (code == LDAP_SUCCESS) ++held_;
                    return code;
                  }),
      start_tls_(calls::ldap_start_tls_s, [](auto...) { return LDAP_SUCCESS; }),
      bind_(calls::ldap_sasl_bind_s,
            [this](auto...) {
              Step("bind");
              return Next(binds);
            }),
      unbind_(calls::ldap_unbind_ext,
              [this](LDAP* handle, LDAPControl** server, LDAPControl** client) {
                Step("unbind");
                --held_;
                return calls::ldap_unbind_ext.Real(handle, server, client);
              }),
      search_(calls::ldap_search_ext_s,
              [this](LDAP*, const char*, int, const char*, char**, int, LDAPControl**,
                     LDAPControl**, timeval*, int, LDAPMessage** result) {
                Step("find");
                const Account account = Next(lookups);
                found_flags_ = account.flags;
                if (account.code == LDAP_SUCCESS) {
                  *result = TheMessage();
                  ++held_;
                }
                return account.code;
              }),
      first_entry_(calls::ldap_first_entry, [](LDAP*, LDAPMessage* result) { return result; }),
      next_entry_(calls::ldap_next_entry,
                  [](LDAP*, LDAPMessage*) -> LDAPMessage* { return nullptr; }),
      get_values_(calls::ldap_get_values_len,
                  [this](LDAP*, LDAPMessage*, const char*) {
                    ++held_;
                    return new berval* [2] {
                      new berval{found_flags_.size(), found_flags_.data()}, nullptr
                    };
                  }),
      value_free_(calls::ldap_value_free_len,
                  [this](berval** values) {
                    --held_;
                    delete values[0];
                    delete[] values;
                  }),
      msgfree_(calls::ldap_msgfree,
               [this](LDAPMessage*) {
                 --held_;
                 return static_cast<int>(LDAP_RES_SEARCH_RESULT);
               }),
      add_(calls::ldap_add_ext_s,
           [this](auto...) {
             Step("add");
             return add;
           }),
      modify_(calls::ldap_modify_ext_s, [this](LDAP*, const char*, LDAPMod** modifications,
                                               auto...) { return Modify(modifications); }),
      by_keytab_(calls::krb5_get_init_creds_keytab,
                 [this](krb5_context context, krb5_creds* creds, krb5_principal client, auto...) {
                   Step("ticket by keytab");
                   return Issue(context, creds, client, by_keytab);
                 }),
      by_password_(calls::krb5_get_init_creds_password,
                   [this](krb5_context context, krb5_creds* creds, krb5_principal client,
                          const char* password, auto...) {
                     Step("ticket by password");
                     passwords_.emplace_back(password);
                     return Issue(context, creds, client, by_password);
                   }),
      free_creds_(calls::krb5_free_cred_contents,
                  [this](krb5_context context, krb5_creds* creds) {
                    --held_;
                    calls::krb5_free_cred_contents.Real(context, creds);
                  }),
      make_salt_(calls::krb5_principal2salt,
                 [this](krb5_context context, krb5_const_principal principal, krb5_data* salt) {
                   return make_salt != 0
                              ? make_salt
                              : calls::krb5_principal2salt.Real(context, principal, salt);
                 }),
      make_key_(calls::krb5_c_string_to_key,
                [this](krb5_context context, krb5_enctype type, const krb5_data* password,
                       const krb5_data* salt, krb5_keyblock* key) {
                  passwords_.emplace_back(password->data, password->length);
                  return make_key != 0
                             ? make_key
                             : calls::krb5_c_string_to_key.Real(context, type, password, salt, key);
                }),
      add_key_(calls::krb5_kt_add_entry, [this](krb5_context context, krb5_keytab keytab,
                                                krb5_keytab_entry* entry) {
        Step("key " + std::to_string(entry->vno));
        return add_key != 0 ? add_key : calls::krb5_kt_add_entry.Real(context, keytab, entry);
      }) {}

void FakeDomain::Step(const std::string& name) {
  steps_ += (steps_.empty() ? "" : ", ") + name;
}

int FakeDomain::Modify(LDAPMod** modifications) {
  const LDAPMod& first = *modifications[0];
  if (std::string_view(first.mod_type) == "unicodePwd") {
    Step("password");
    passwords_.push_back(Decoded(*first.mod_bvalues[0]));
    return set_password;
  }
  Step("flags " + std::string(first.mod_values[0]));
  return set_flags;
}

krb5_error_code FakeDomain::Issue(krb5_context context, krb5_creds* creds, krb5_principal client,
                                  std::deque<Ticket>& answers) {
  const Ticket ticket = Next(answers);
  if (ticket.code != 0) return ticket.code;
  ++held_;
  *creds = {};
  creds->times.authtime = static_cast<krb5_timestamp>(std::time(nullptr)) + ticket.starts_in;
  krb5_copy_principal(context, client, &creds->client);
  return krb5_build_principal(context, &creds->server, client->realm.length, client->realm.data,
                              "krbtgt", client->realm.data, nullptr);
}

}  // namespace tavrel::tests
