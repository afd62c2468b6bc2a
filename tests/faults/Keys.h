// Keytab files and keys, as the Kerberos library alone makes and reads them.
#ifndef TAVREL_TESTS_FAULTS_KEYS_H
#define TAVREL_TESTS_FAULTS_KEYS_H

#include <krb5.h>

#include <string>
#include <vector>

namespace tavrel::tests {

// A Kerberos context of the tests' own.
krb5_context TheContext();

// The RC4-HMAC key of `password`.
std::string KeyOf(const std::string& password);

// `bytes` as hexadecimal digits.
std::string Hex(const std::string& bytes);

struct KeyEntry {
  std::string principal;
  krb5_kvno vno;
  std::string key;

  bool operator==(const KeyEntry& other) const {
    return principal == other.principal && vno == other.vno && key == other.key;
  }
};

// What the keytab file at `path` holds, in file order; nothing when there is no file.
std::vector<KeyEntry> ReadKeytab(const std::string& path);

// Appends entries, whose keys are those of the passwords.
void AppendKey(const std::string& path, const std::string& principal, krb5_kvno vno,
               const std::string& password);

// The bytes of a file; empty when there is none.
std::string BytesOf(const std::string& path);

}  // namespace tavrel::tests

#endif
