#include "LdapRequest.h"

namespace tavrel::tests {
namespace {

std::string Operation(int operation) {
  switch (operation) {
    case LDAP_MOD_ADD: return "add";
    case LDAP_MOD_REPLACE: return "replace";
    case LDAP_MOD_REPLACE | LDAP_MOD_BVALUES: return "replace binary";
    default: return "operation " + std::to_string(operation);
  }
}

std::vector<std::string> Values(const LDAPMod& modification) {
  std::vector<std::string> values;
  if ((modification.mod_op & LDAP_MOD_BVALUES) != 0) {
    for (berval** value = modification.mod_bvalues; *value != nullptr; ++value)
      values.push_back(Hex({(*value)->bv_val, (*value)->bv_len}));
  } else {
    for (char** value = modification.mod_values; *value != nullptr; ++value)
      values.emplace_back(*value);
  }
  return values;
}

}  // namespace

std::vector<std::string> Describe(const LDAPMod* const* modifications) {
  std::vector<std::string> texts;
  for (; *modifications != nullptr; ++modifications) {
    std::string text = Operation((*modifications)->mod_op) + " " + (*modifications)->mod_type;
    const char* separator = ": ";
    for (const std::string& value : Values(**modifications)) {
      text += separator + value;
      separator = ", ";
    }
    texts.push_back(text);
  }
  return texts;
}

}  // namespace tavrel::tests
