// What the tests against the KDC of with-kdc share.
#ifndef TAVREL_TESTS_KDC_SCENE_H
#define TAVREL_TESTS_KDC_SCENE_H

#include <krb5.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

#include "KrbSettings.h"

namespace tavrel::tests {

// A variable that with-kdc sets.
inline std::string Env(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr) throw std::runtime_error(std::string(name) + " not set: use with-kdc");
  return value;
}

// Contexts made while it lives use the KDC whose port is in that variable, and a replay cache of
// their own.
class Kdc {
 public:
  explicit Kdc(const char* port = "KDC_PORT", const std::string& libdefaults = "")
      : settings_(
            "dns_lookup_kdc = false\ndns_lookup_realm = false\ndns_canonicalize_hostname = false\n"
            "rdns = false\n" +
            libdefaults + "\n[realms]\n" + Env("KDC_REALM") + " = {\nkdc = 127.0.0.1:" + Env(port) +
            "\n}"),
        replay_cache_("KRB5RCACHENAME", "dfl:"),
        replay_folder_("KRB5RCACHEDIR", settings_ / "") {}

  // The path of `name` in a folder that is removed with this.
  std::string operator/(const std::string& name) const { return settings_ / name; }

 private:
  KrbSettings settings_;
  ScopedVariable replay_cache_;
  ScopedVariable replay_folder_;
};

// A key as an administrator's tool would put it into a keytab.
struct Key {
  std::string principal;
  std::string password;
  krb5_enctype etype = ENCTYPE_ARCFOUR_HMAC;
  krb5_kvno kvno = 1;
};
void AddKey(const std::string& keytab_path, const Key& key);

}  // namespace tavrel::tests

#endif
