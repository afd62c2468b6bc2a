#include "ScratchKeytab.h"

#include <iterator>
#include <stdexcept>

namespace tavrel::tests {
namespace {

void Check(krb5_error_code code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": error " + std::to_string(code)));
}

std::string Text(const std::string& principal, krb5_kvno vno, krb5_enctype etype,
                 const std::string& key) {
  return principal + " " + std::to_string(vno) + " " + std::to_string(etype) + " " + Hex(key);
}

}  // namespace

std::string Rc4Key(const std::string& password) {
  std::string text = password;
  const krb5_data data = {0, static_cast<unsigned int>(text.size()), text.data()};
  krb5_keyblock key{};
  Check(krb5_c_string_to_key(nullptr, ENCTYPE_ARCFOUR_HMAC, &data, &data, &key), "key");
  const std::string bytes(reinterpret_cast<const char*>(key.contents), key.length);
  krb5_free_keyblock_contents(nullptr, &key);
  return bytes;
}

std::string FileBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

ParsedPrincipal::ParsedPrincipal(const std::string& name) {
  Check(krb5_init_context(&context_), "context");
  Check(krb5_parse_name(context_, name.c_str(), &principal_), "principal");
}

ParsedPrincipal::~ParsedPrincipal() {
  krb5_free_principal(context_, principal_);
  krb5_free_context(context_);
}

ScratchKeytab::ScratchKeytab(const std::string& type, const std::string& libdefaults)
    : settings(libdefaults), keytab(&krb) {
  if (!krb.SetKeytab(type + ":" + Path())) throw std::runtime_error("no keytab");
  if (!krb.SetClientPrincipal(kMachine)) throw std::runtime_error("no principal");
}

void ScratchKeytab::Add(const StoredKey& stored) {
  const ParsedPrincipal principal(stored.principal);
  std::string key = stored.key;
  krb5_keytab_entry entry{};
  entry.principal = principal.Get();
  entry.vno = stored.vno;
  entry.key.enctype = stored.etype;
  entry.key.length = static_cast<unsigned int>(key.size());
  entry.key.contents = reinterpret_cast<krb5_octet*>(key.data());
  Check(krb5_kt_add_entry(krb.context, krb.keytab, &entry), "entry");
}

std::vector<std::string> ScratchKeytab::Entries() const {
  std::vector<std::string> entries;
  krb5_kt_cursor cursor = nullptr;
  if (krb5_kt_start_seq_get(krb.context, krb.keytab, &cursor) != 0) return entries;
  krb5_keytab_entry entry{};
  while (krb5_kt_next_entry(krb.context, krb.keytab, &entry, &cursor) == 0) {
    char* name = nullptr;
    Check(krb5_unparse_name(krb.context, entry.principal, &name), "principal");
    entries.push_back(
        tests::Text(name, entry.vno, entry.key.enctype,
                    {reinterpret_cast<const char*>(entry.key.contents), entry.key.length}));
    krb5_free_unparsed_name(krb.context, name);
    krb5_free_keytab_entry_contents(krb.context, &entry);
  }
  krb5_kt_end_seq_get(krb.context, krb.keytab, &cursor);
  return entries;
}

std::string ScratchKeytab::Text(const StoredKey& stored) {
  return tests::Text(stored.principal, stored.vno, stored.etype, stored.key);
}

}  // namespace tavrel::tests
