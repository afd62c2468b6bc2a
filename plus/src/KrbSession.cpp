#include "KrbSession.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "KrbSupport.h"

namespace tavrel::plus {
namespace {

// Where the library finds its settings.
std::string SettingsFile() {
  const char* const named = std::getenv("KRB5_CONFIG");
  return named != nullptr ? named : "/etc/krb5.conf";
}

}  // namespace

// For FreeValues() to free.
KrbSession::Code KrbSession::CopyValues(const char* const* texts, char*** copy) {
  std::size_t count = 0;
  while (texts[count] != nullptr) {
    ++count;
  }
  auto** const made = static_cast<char**>(std::calloc(count + 1, sizeof(char*)));
  if (made == nullptr) return ENOMEM;
  for (std::size_t i = 0; i < count; ++i) {
    made[i] = strdup(texts[i]);
    if (made[i] == nullptr) {
      FreeValues(nullptr, made);
      return ENOMEM;  // the library expects that a list has at least one value
    }
  }
  *copy = made;
  return 0;
}

KrbOverrides OverridesFor(const std::vector<std::int32_t>& enctypes) {
  KrbOverrides overrides;
  for (const std::int32_t enctype : enctypes) {
    if (krb5_c_valid_enctype(enctype) == 0) continue;
    overrides.enctypes.push_back(enctype);
    if (enctype == ENCTYPE_ARCFOUR_HMAC) overrides.rc4 = true;
  }
  return overrides;
}

std::unique_ptr<KrbSession> KrbSession::Make(const KrbOverrides& overrides, std::string& error) {
  std::unique_ptr<KrbSession> session(new KrbSession(overrides));
  const auto failed = [&](Code code) {
    if (code == 0) return false;
    error = "Kerberos settings " + SettingsFile() + ": " +
            KrbMessage(session->base_, static_cast<krb5_error_code>(code));
    return true;
  };
  if (failed(krb5_init_context(&session->base_)) ||
      failed(krb5_get_profile(session->base_, &session->settings_))) {
    return nullptr;
  }
  profile_vtable table{};
  table.minor_ver = 1;
  table.get_values = GetValues;
  table.free_values = FreeValues;
  if (failed(profile_init_vtable(&table, session.get(), &session->overridden_)) ||
      failed(krb5_init_context_profile(session->overridden_, 0, &session->context_))) {
    return nullptr;
  }
  // Not a setting: the library would read it anew for each request.
  std::vector<krb5_enctype> permitted = overrides.enctypes;
  permitted.push_back(0);
  if (failed(krb5_set_default_tgs_enctypes(session->context_, permitted.data()))) return nullptr;
  return session;
}

KrbSession::~KrbSession() {
  if (context_ != nullptr) krb5_free_context(context_);
  if (overridden_ != nullptr) profile_release(overridden_);
  if (settings_ != nullptr) profile_release(settings_);
  if (base_ != nullptr) krb5_free_context(base_);
}

KrbSession::Code KrbSession::GetValues(void* data, const char* const* names, char*** values) {
  const auto* const session = static_cast<const KrbSession*>(data);
  const struct {
    std::string_view name;
    const char* value;
  } overrides[] = {{"clockskew", kClockSkew},
                   {"allow_rc4", session->overrides_.rc4 ? "true" : "false"}};
  const bool is_default = names[0] != nullptr && std::string_view(names[0]) == "libdefaults" &&
                          names[1] != nullptr && names[2] == nullptr;
  for (const auto& item : overrides) {
    const char* const list[] = {item.value, nullptr};
    if (is_default && item.name == names[1]) return CopyValues(list, values);
  }
  char** found = nullptr;
  if (const Code code = profile_get_values(session->settings_, names, &found); code != 0) {
    return code;
  }
  const Code code = CopyValues(found, values);
  profile_free_list(found);
  return code;
}

void KrbSession::FreeValues(void* /*data*/, char** values) {
  for (char** value = values; value != nullptr && *value != nullptr; ++value) {
    std::free(*value);
  }
  std::free(values);
}

}  // namespace tavrel::plus
