// A Kerberos context whose settings are the acceptor's wherever its options have a say.
#ifndef TAVREL_PLUS_SRC_KRBSESSION_H
#define TAVREL_PLUS_SRC_KRBSESSION_H

#include <krb5.h>
#include <profile.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tavrel::plus {

// Settings of krb5.conf that have no say here, as [libdefaults] has them.
struct KrbOverrides {
  std::vector<krb5_enctype> enctypes;  // permitted_enctypes, those that the library knows
  bool rc4 = false;                    // allow_rc4, which newer libraries ask for
};

KrbOverrides OverridesFor(const std::vector<std::int32_t>& enctypes);

// One thread at a time uses a session.
class KrbSession {
 public:
  // So far off may a clock be, and a ticket over, for the library: whether that is too far is
  // decided where the times are known, and a refusal can tell them.
  static constexpr char kClockSkew[] = "315360000";

  // Returns null, and the reason in `error`, when the library cannot be set up.
  static std::unique_ptr<KrbSession> Make(const KrbOverrides& overrides, std::string& error);

  KrbSession(const KrbSession&) = delete;
  KrbSession& operator=(const KrbSession&) = delete;
  ~KrbSession();

  krb5_context Get() const { return context_; }

 private:
  explicit KrbSession(const KrbOverrides& overrides) : overrides_(overrides) {}

  using Code = decltype(profile_flush(nullptr));  // libprofile's, wider than Kerberos' own
  static Code CopyValues(const char* const* texts, char*** copy);
  static Code GetValues(void* data, const char* const* names, char*** values);
  static void FreeValues(void* data, char** values);

  const KrbOverrides overrides_;
  krb5_context base_ = nullptr;  // has krb5.conf's own settings
  profile_t settings_ = nullptr;
  profile_t overridden_ = nullptr;
  krb5_context context_ = nullptr;
};

}  // namespace tavrel::plus

#endif
