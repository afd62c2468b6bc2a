// A keytab of a test's own, written and read back without the library under test.
#ifndef TAVREL_TESTS_SCRATCHKEYTAB_H
#define TAVREL_TESTS_SCRATCHKEYTAB_H

#include <krb5.h>

#include <string>
#include <vector>

#include "Hex.h"
#include "KrbSettings.h"
#include "tavrel/KrbContext.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel::tests {

inline constexpr char kMachine[] = "APPLIANCE$@CORP.EXAMPLE.COM";
inline constexpr char kOther[] = "OTHER$@CORP.EXAMPLE.COM";

// One entry of a keytab; `key` holds the key's bytes.
struct StoredKey {
  std::string principal = kMachine;
  krb5_kvno vno = 1;
  std::string key = "0123456789abcdef";
  krb5_enctype etype = ENCTYPE_ARCFOUR_HMAC;
};
bool operator==(const StoredKey& a, const StoredKey& b);

// Every entry of a keytab in its order; none when it cannot be read. `name` is as for
// krb5_kt_resolve().
std::vector<StoredKey> ReadKeytab(const std::string& name);

// Appends an entry.
void AppendKey(const std::string& name, const StoredKey& stored);

// The bytes of the RC4-HMAC key that belongs to `password`.
std::string Rc4Key(const std::string& password);

// What the file holds; empty when there is none.
std::string FileBytes(const std::string& path);

// A principal for as long as it lives, `name` parsed.
class ParsedPrincipal {
 public:
  explicit ParsedPrincipal(const std::string& name);
  ParsedPrincipal(const ParsedPrincipal&) = delete;
  ParsedPrincipal& operator=(const ParsedPrincipal&) = delete;
  ~ParsedPrincipal();

  krb5_principal Get() const { return principal_; }

 private:
  krb5_context context_ = nullptr;
  krb5_principal principal_ = nullptr;
};

// A KrbContext that is bound to an empty keytab and has the machine's principal.
class ScratchKeytab {
 public:
  // `type` is FILE or MEMORY. The file does not exist before the first entry is added.
  explicit ScratchKeytab(const std::string& type = "FILE", const std::string& libdefaults = "");

  // Appends an entry.
  void Add(const StoredKey& stored) { AppendKey(name_, stored); }

  // Every entry in file order as "principal version encryption-type key", numbers decimal, the key
  // hexadecimal.
  std::vector<std::string> Entries() const;

  // How Entries() shows `stored`.
  static std::string Text(const StoredKey& stored);

  std::string Path() const { return settings / "keytab"; }
  std::string Bytes() const { return FileBytes(Path()); }

  KrbSettings settings;
  KrbContext krb;
  Keytab keytab;

 private:
  std::string name_;
};

}  // namespace tavrel::tests

#endif
