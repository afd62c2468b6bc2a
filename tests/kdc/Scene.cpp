#include "Scene.h"

namespace tavrel::tests {
namespace {

void Check(const char* step, krb5_error_code code) {
  if (code != 0) throw std::runtime_error(step + (": " + std::to_string(code)));
}

}  // namespace

void AddKey(const std::string& keytab_path, const Key& key) {
  krb5_context context = nullptr;
  Check("krb5_init_context", krb5_init_context(&context));
  krb5_keytab keytab = nullptr;
  Check("krb5_kt_resolve", krb5_kt_resolve(context, keytab_path.c_str(), &keytab));

  krb5_keytab_entry entry{};
  entry.vno = key.kvno;
  Check("krb5_parse_name", krb5_parse_name(context, key.principal.c_str(), &entry.principal));
  krb5_data salt{};
  Check("krb5_principal2salt", krb5_principal2salt(context, entry.principal, &salt));
  std::string password = key.password;
  const krb5_data secret = {0, static_cast<unsigned int>(password.size()), password.data()};
  Check("krb5_c_string_to_key",
        krb5_c_string_to_key(context, key.etype, &secret, &salt, &entry.key));
  Check("krb5_kt_add_entry", krb5_kt_add_entry(context, keytab, &entry));

  krb5_free_keytab_entry_contents(context, &entry);
  krb5_free_data_contents(context, &salt);
  krb5_kt_close(context, keytab);
  krb5_free_context(context);
}

}  // namespace tavrel::tests
