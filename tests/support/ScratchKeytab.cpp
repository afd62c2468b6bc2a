#include "ScratchKeytab.h"

#include <iterator>
#include <stdexcept>

namespace tavrel::tests {
namespace {

void Check(krb5_error_code code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": error " + std::to_string(code)));
}

// A keytab, open in a context of its own.
class OpenKeytab {
 public:
  explicit OpenKeytab(const std::string& name) {
    Check(krb5_init_context(&context), "context");
    Check(krb5_kt_resolve(context, name.c_str(), &keytab), "keytab");
  }
  OpenKeytab(const OpenKeytab&) = delete;
  OpenKeytab& operator=(const OpenKeytab&) = delete;
  ~OpenKeytab() {
    krb5_kt_close(context, keytab);
    krb5_free_context(context);
  }

  krb5_context context = nullptr;
  krb5_keytab keytab = nullptr;
};

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

bool operator==(const StoredKey& a, const StoredKey& b) {
  return a.principal == b.principal && a.vno == b.vno && a.key == b.key && a.etype == b.etype;
}

std::vector<StoredKey> ReadKeytab(const std::string& name) {
  std::vector<StoredKey> entries;
  const OpenKeytab from(name);
  krb5_kt_cursor cursor = nullptr;
  if (krb5_kt_start_seq_get(from.context, from.keytab, &cursor) != 0) return entries;
  krb5_keytab_entry entry{};
  while (krb5_kt_next_entry(from.context, from.keytab, &entry, &cursor) == 0) {
    char* principal = nullptr;
    Check(krb5_unparse_name(from.context, entry.principal, &principal), "principal");
    entries.push_back({principal,
                       entry.vno,
                       {reinterpret_cast<const char*>(entry.key.contents), entry.key.length},
                       entry.key.enctype});
    krb5_free_unparsed_name(from.context, principal);
    krb5_free_keytab_entry_contents(from.context, &entry);
  }
  krb5_kt_end_seq_get(from.context, from.keytab, &cursor);
  return entries;
}

void AppendKey(const std::string& name, const StoredKey& stored) {
  const OpenKeytab to(name);
  const ParsedPrincipal principal(stored.principal);
  std::string key = stored.key;
  krb5_keytab_entry entry{};
  entry.principal = principal.Get();
  entry.vno = stored.vno;
  entry.key.enctype = stored.etype;
  entry.key.length = static_cast<unsigned int>(key.size());
  entry.key.contents = reinterpret_cast<krb5_octet*>(key.data());
  Check(krb5_kt_add_entry(to.context, to.keytab, &entry), "entry");
}

ScratchKeytab::ScratchKeytab(const std::string& type, const std::string& libdefaults)
    : settings(libdefaults), keytab(&krb), name_(type + ":" + Path()) {
  if (!krb.SetKeytab(name_)) throw std::runtime_error("no keytab");
  if (!krb.SetClientPrincipal(kMachine)) throw std::runtime_error("no principal");
}

std::vector<std::string> ScratchKeytab::Entries() const {
  std::vector<std::string> entries;
  for (const StoredKey& entry : ReadKeytab(name_))
    entries.push_back(Text(entry));
  return entries;
}

std::string ScratchKeytab::Text(const StoredKey& stored) {
  return stored.principal + " " + std::to_string(stored.vno) + " " + std::to_string(stored.etype) +
         " " + Hex(stored.key);
}

}  // namespace tavrel::tests
