#include "Keys.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tavrel::tests {
namespace {

void Check(krb5_error_code code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": error " + std::to_string(code)));
}

// The keytab file at a path, open.
class KeytabFile {
 public:
  explicit KeytabFile(const std::string& path) {
    Check(krb5_kt_resolve(TheContext(), ("FILE:" + path).c_str(), &keytab_), "keytab");
  }
  KeytabFile(const KeytabFile&) = delete;
  KeytabFile& operator=(const KeytabFile&) = delete;
  ~KeytabFile() { krb5_kt_close(TheContext(), keytab_); }

  krb5_keytab Get() const { return keytab_; }

 private:
  krb5_keytab keytab_ = nullptr;
};

}  // namespace

krb5_context TheContext() {
  static krb5_context const context = [] {
    krb5_context made = nullptr;
    Check(krb5_init_context(&made), "context");
    return made;
  }();
  return context;
}

std::string KeyOf(const std::string& password) {
  krb5_data text{};
  text.length = static_cast<unsigned int>(password.size());
  text.data = const_cast<char*>(password.data());
  krb5_data no_salt{};
  krb5_keyblock key{};
  Check(krb5_c_string_to_key(TheContext(), ENCTYPE_ARCFOUR_HMAC, &text, &no_salt, &key), "key");
  const std::string bytes(reinterpret_cast<const char*>(key.contents), key.length);
  krb5_free_keyblock_contents(TheContext(), &key);
  return bytes;
}

std::string Hex(const std::string& bytes) {
  std::string digits;
  for (const char c : bytes) {
    digits += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
    digits += "0123456789abcdef"[c & 0xf];
  }
  return digits;
}

std::vector<KeyEntry> ReadKeytab(const std::string& path) {
  std::vector<KeyEntry> entries;
  const KeytabFile file(path);
  krb5_kt_cursor cursor = nullptr;
  if (krb5_kt_start_seq_get(TheContext(), file.Get(), &cursor) != 0) return entries;
  krb5_keytab_entry entry{};
  while (krb5_kt_next_entry(TheContext(), file.Get(), &entry, &cursor) == 0) {
    char* name = nullptr;
    Check(krb5_unparse_name(TheContext(), entry.principal, &name), "name");
    entries.push_back(
        {name, entry.vno, {reinterpret_cast<const char*>(entry.key.contents), entry.key.length}});
    krb5_free_unparsed_name(TheContext(), name);
    krb5_free_keytab_entry_contents(TheContext(), &entry);
  }
  krb5_kt_end_seq_get(TheContext(), file.Get(), &cursor);
  return entries;
}

void AppendKey(const std::string& path, const std::string& principal, krb5_kvno vno,
               const std::string& password) {
  const KeytabFile file(path);
  std::string key = KeyOf(password);
  krb5_keytab_entry entry{};
  Check(krb5_parse_name(TheContext(), principal.c_str(), &entry.principal), "principal");
  entry.vno = vno;
  entry.key.enctype = ENCTYPE_ARCFOUR_HMAC;
  entry.key.length = static_cast<unsigned int>(key.size());
  entry.key.contents = reinterpret_cast<krb5_octet*>(key.data());
  const krb5_error_code code = krb5_kt_add_entry(TheContext(), file.Get(), &entry);
  krb5_free_principal(TheContext(), entry.principal);
  Check(code, "entry");
}

std::string BytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace tavrel::tests
