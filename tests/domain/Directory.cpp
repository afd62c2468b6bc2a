#include "Directory.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <utility>

namespace tavrel::tests {
namespace {

void Check(int code, const std::string& what) {
  if (code != LDAP_SUCCESS) throw std::runtime_error(what + ": " + ldap_err2string(code));
}

std::string DnOf(const std::string& name) {
  return "CN=" + name + ",CN=Computers," + Lab("BASE_DN");
}

}  // namespace

Directory::Directory() {
  const int version = LDAP_VERSION3;
  const int client = 0;
  const std::string ca = Lab("CA");
  std::string password = Lab("ADMIN_PASSWORD");
  berval credentials;
  credentials.bv_len = password.size();
  credentials.bv_val = password.data();

  Check(ldap_initialize(&ldap_, ("ldap://" + Lab("DC_NAME")).c_str()), "initialize");
  Check(ldap_set_option(ldap_, LDAP_OPT_PROTOCOL_VERSION, &version), "version");
  Check(ldap_set_option(ldap_, LDAP_OPT_X_TLS_CACERTFILE, ca.c_str()), "authority");
  Check(ldap_set_option(ldap_, LDAP_OPT_X_TLS_NEWCTX, &client), "TLS context");
  Check(ldap_start_tls_s(ldap_, nullptr, nullptr), "StartTLS");
  Check(ldap_sasl_bind_s(ldap_, Lab("ADMIN").c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr,
                         nullptr, nullptr),
        "bind");
}

Directory::~Directory() {
  ldap_unbind_ext(ldap_, nullptr, nullptr);
}

Attributes Directory::Read(const std::string& name) const {
  char all[] = "*";
  char key_version[] = "msDS-KeyVersionNumber";
  char* wanted[] = {all, key_version, nullptr};
  LDAPMessage* found = nullptr;
  const int code = ldap_search_ext_s(ldap_, DnOf(name).c_str(), LDAP_SCOPE_BASE, nullptr, wanted, 0,
                                     nullptr, nullptr, nullptr, 0, &found);
  const std::unique_ptr<LDAPMessage, int (*)(LDAPMessage*)> result(found, ldap_msgfree);
  if (code == LDAP_NO_SUCH_OBJECT) return {};
  Check(code, "search");

  Attributes attributes;
  LDAPMessage* const entry = ldap_first_entry(ldap_, found);
  const std::unique_ptr<char, void (*)(void*)> dn(ldap_get_dn(ldap_, entry), ldap_memfree);
  attributes["dn"] = {dn.get()};
  BerElement* position = nullptr;
  char* attribute = ldap_first_attribute(ldap_, entry, &position);
  for (; attribute != nullptr; attribute = ldap_next_attribute(ldap_, entry, position)) {
    berval** const values = ldap_get_values_len(ldap_, entry, attribute);
    for (berval** value = values; value != nullptr && *value != nullptr; ++value)
      attributes[attribute].emplace_back((*value)->bv_val, (*value)->bv_len);
    ldap_value_free_len(values);
    ldap_memfree(attribute);
  }
  ber_free(position, 0);
  return attributes;
}

std::string Directory::Value(const std::string& name, const std::string& attribute) const {
  const Attributes account = Read(name);
  const auto found = account.find(attribute);
  if (found == account.end() || found->second.size() != 1) {
    throw std::runtime_error(name + " has not one " + attribute);
  }
  return found->second.front();
}

void Directory::Add(const std::string& name, const std::string& password,
                    const std::string& object_class, std::uint32_t flags) const {
  std::vector<std::pair<std::string, std::string>> attributes = {
      {"objectClass", object_class},
      {"sAMAccountName", name + "$"},
      {"userAccountControl", std::to_string(flags)}};
  if (!password.empty()) {
    std::string encoded;  // in quotes, and two bytes a character
    for (const char c : '"' + password + '"')
      encoded.append({c, '\0'});
    attributes.emplace_back("unicodePwd", encoded);
  }

  std::vector<berval> values(attributes.size());
  std::vector<std::array<berval*, 2>> lists(attributes.size());
  std::vector<LDAPMod> mods(attributes.size());
  std::vector<LDAPMod*> request;
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    values[i].bv_val = attributes[i].second.data();
    values[i].bv_len = attributes[i].second.size();
    lists[i] = {&values[i], nullptr};
    mods[i].mod_op = LDAP_MOD_ADD | LDAP_MOD_BVALUES;
    mods[i].mod_type = attributes[i].first.data();
    mods[i].mod_bvalues = lists[i].data();
    request.push_back(&mods[i]);
  }
  request.push_back(nullptr);
  Check(ldap_add_ext_s(ldap_, DnOf(name).c_str(), request.data(), nullptr, nullptr), "add");
}

void Directory::Delete(const std::string& name) const {
  const int code = ldap_delete_ext_s(ldap_, DnOf(name).c_str(), nullptr, nullptr);
  if (code != LDAP_NO_SUCH_OBJECT) Check(code, "delete");
}

}  // namespace tavrel::tests
