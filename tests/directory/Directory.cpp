#include "Directory.h"

#include <cstdlib>
#include <list>
#include <stdexcept>

namespace tavrel::tests {
namespace {

void Check(int code, const std::string& what) {
  if (code != LDAP_SUCCESS) throw std::runtime_error(what + ": " + ldap_err2string(code));
}

}  // namespace

std::string ServerFile(const std::string& name) {
  const char* const folder = std::getenv("DIRECTORY_FOLDER");
  if (folder == nullptr) throw std::runtime_error("run by with-slapd only");
  return std::string(folder) + "/" + name;
}

Administrator::Administrator(const std::string& host) {
  Check(ldap_initialize(&ldap_, ("ldap://" + host).c_str()), "no session");
  const int version = LDAP_VERSION3;
  const int never = LDAP_OPT_X_TLS_NEVER;
  const int client = 0;
  ldap_set_option(ldap_, LDAP_OPT_PROTOCOL_VERSION, &version);
  ldap_set_option(ldap_, LDAP_OPT_X_TLS_REQUIRE_CERT, &never);
  ldap_set_option(ldap_, LDAP_OPT_X_TLS_NEWCTX, &client);
  std::string password = kAdminPassword;
  berval credentials = {password.size(), password.data()};
  Check(ldap_start_tls_s(ldap_, nullptr, nullptr), "no TLS with " + host);
  Check(ldap_sasl_bind_s(ldap_, kAdmin, LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr),
        "no bind to " + host);
}

Administrator::~Administrator() {
  ldap_unbind_ext(ldap_, nullptr, nullptr);
}

std::optional<Object> Administrator::Read(const std::string& dn) const {
  LDAPMessage* result = nullptr;
  const int code = ldap_search_ext_s(ldap_, dn.c_str(), LDAP_SCOPE_BASE, nullptr, nullptr, 0,
                                     nullptr, nullptr, nullptr, 0, &result);
  if (code == LDAP_NO_SUCH_OBJECT) {
    ldap_msgfree(result);
    return std::nullopt;
  }
  Check(code, "no answer about " + dn);

  Object object;
  LDAPMessage* const entry = ldap_first_entry(ldap_, result);
  BerElement* rest = nullptr;
  for (char* name = ldap_first_attribute(ldap_, entry, &rest); name != nullptr;
       name = ldap_next_attribute(ldap_, entry, rest)) {
    berval** const values = ldap_get_values_len(ldap_, entry, name);
    for (berval** value = values; *value != nullptr; ++value)
      object[name].emplace_back((*value)->bv_val, (*value)->bv_len);
    ldap_value_free_len(values);
    ldap_memfree(name);
  }
  ber_free(rest, 0);
  ldap_msgfree(result);
  return object;
}

void Administrator::Add(const std::string& dn, const Object& object) const {
  struct Attribute {
    std::string name;
    std::vector<std::string> texts;
    std::vector<char*> values;
    LDAPMod modification;
  };
  std::list<Attribute> attributes;
  std::vector<LDAPMod*> modifications;
  for (const auto& [name, texts] : object) {
    Attribute& attribute = attributes.emplace_back(Attribute{name, texts, {}, {}});
    for (std::string& text : attribute.texts)
      attribute.values.push_back(text.data());
    attribute.values.push_back(nullptr);
    attribute.modification.mod_op = LDAP_MOD_ADD;
    attribute.modification.mod_type = attribute.name.data();
    attribute.modification.mod_values = attribute.values.data();
    modifications.push_back(&attribute.modification);
  }
  modifications.push_back(nullptr);
  Check(ldap_add_ext_s(ldap_, dn.c_str(), modifications.data(), nullptr, nullptr), "no " + dn);
}

void Administrator::Delete(const std::string& dn) const {
  const int code = ldap_delete_ext_s(ldap_, dn.c_str(), nullptr, nullptr);
  if (code != LDAP_NO_SUCH_OBJECT) Check(code, "cannot delete " + dn);
}

}  // namespace tavrel::tests
