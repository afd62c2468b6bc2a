#include "tavrel/Krb.h"

namespace tavrel::tools {

Context MakeContext(krb5_error_code* code) {
  krb5_context context = nullptr;
  *code = krb5_init_context(&context);
  return Context(context);
}

std::string Explain(krb5_context context, krb5_error_code code) {
  const std::unique_ptr<const char, KrbFree<krb5_free_error_message>> text(
      krb5_get_error_message(context, code), {context});
  return text ? text.get() : "";
}

std::string Name(krb5_enctype type) {
  char name[100] = "";
  if (krb5_enctype_to_name(type, FALSE, name, sizeof name) != 0) return std::to_string(type);
  return name;
}

krb5_error_code ReadKeytab(krb5_context context, const std::string& name,
                           std::vector<KeytabEntry>& entries) {
  krb5_keytab opened = nullptr;
  krb5_error_code code = krb5_kt_resolve(context, name.c_str(), &opened);
  if (code != 0) return code;
  const std::unique_ptr<_krb5_kt, KrbFree<krb5_kt_close>> keytab(opened, {context});
  krb5_kt_cursor cursor = nullptr;
  code = krb5_kt_start_seq_get(context, opened, &cursor);
  if (code != 0) return code;
  krb5_keytab_entry entry{};
  while ((code = krb5_kt_next_entry(context, opened, &entry, &cursor)) == 0) {
    char* principal = nullptr;
    krb5_unparse_name(context, entry.principal, &principal);
    entries.push_back({principal != nullptr ? principal : "?",
                       entry.vno,
                       entry.key.enctype,
                       entry.timestamp,
                       {reinterpret_cast<const char*>(entry.key.contents), entry.key.length}});
    krb5_free_unparsed_name(context, principal);
    krb5_free_keytab_entry_contents(context, &entry);
  }
  krb5_kt_end_seq_get(context, opened, &cursor);
  return code == KRB5_KT_END ? 0 : code;
}

}  // namespace tavrel::tools
