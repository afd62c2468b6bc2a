#include "tavrel/check/Session.h"

namespace tavrel::tools {
namespace {

constexpr int kAnswerSeconds = 10;

using Values = std::unique_ptr<berval*, FreeWith<ldap_value_free_len>>;

}  // namespace

std::string Name(const Controller& controller) {
  return controller.host + ":" + std::to_string(controller.port);
}

std::string Listed(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts)
    text += (text.empty() ? "" : ", ") + part;
  return text;
}

std::string Explain(LDAP* session, int code) {
  std::string text = ldap_err2string(code);
  char* diagnostic = nullptr;
  if (session != nullptr &&
      ldap_get_option(session, LDAP_OPT_DIAGNOSTIC_MESSAGE, &diagnostic) == LDAP_OPT_SUCCESS &&
      diagnostic != nullptr) {
    if (*diagnostic != '\0') text += std::string(" (") + diagnostic + ")";
    ldap_memfree(diagnostic);
  }
  return text;
}

Session Open(const Controller& controller, Protection protection, std::string& why) {
  LDAP* handle = nullptr;
  int code = ldap_initialize(&handle, controller.url.c_str());
  if (code != LDAP_SUCCESS) {
    why = ldap_err2string(code);
    return nullptr;
  }
  Session session(handle);
  const int version = LDAP_VERSION3;
  const timeval connect_limit = {kConnectSeconds, 0};
  const timeval answer_limit = {kAnswerSeconds, 0};
  const int require =
      protection == Protection::kVerified ? LDAP_OPT_X_TLS_DEMAND : LDAP_OPT_X_TLS_NEVER;
  const int client = 0;
  ldap_set_option(handle, LDAP_OPT_PROTOCOL_VERSION, &version);
  ldap_set_option(handle, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
  ldap_set_option(handle, LDAP_OPT_NETWORK_TIMEOUT, &connect_limit);
  ldap_set_option(handle, LDAP_OPT_TIMEOUT, &answer_limit);
  ldap_set_option(handle, LDAP_OPT_X_TLS_REQUIRE_CERT, &require);
  if (protection == Protection::kVerified) {
    ldap_set_option(handle, LDAP_OPT_X_TLS_CACERTFILE, controller.ca_file.c_str());
  }
  code = ldap_set_option(handle, LDAP_OPT_X_TLS_NEWCTX, &client);
  if (code == LDAP_SUCCESS) {
    const bool start_tls = !controller.ldaps && protection != Protection::kNone;
    code = start_tls ? ldap_start_tls_s(handle, nullptr, nullptr) : ldap_connect(handle);
  }
  if (code == LDAP_SUCCESS) return session;
  why = Explain(handle, code);
  return nullptr;
}

Message Search(LDAP* session, const std::string& base, int scope, const std::string& filter,
               std::vector<const char*> attributes, int& code) {
  attributes.push_back(nullptr);
  LDAPMessage* found = nullptr;
  code = ldap_search_ext_s(session, base.c_str(), scope, filter.c_str(),
                           const_cast<char**>(attributes.data()), 0, nullptr, nullptr, nullptr,
                           LDAP_NO_LIMIT, &found);
  return Message(found);
}

LDAPMessage* FirstEntry(LDAP* session, const Message& found) {
  return found ? ldap_first_entry(session, found.get()) : nullptr;
}

std::vector<std::string> GetValues(LDAP* session, LDAPMessage* entry, const char* attribute) {
  std::vector<std::string> result;
  const Values values(ldap_get_values_len(session, entry, attribute));
  for (berval* const* value = values.get(); value != nullptr && *value != nullptr; ++value)
    result.emplace_back((*value)->bv_val, (*value)->bv_len);
  return result;
}

std::string GetValue(LDAP* session, LDAPMessage* entry, const char* attribute) {
  const std::vector<std::string> values = GetValues(session, entry, attribute);
  return values.empty() ? "" : values.front();
}

}  // namespace tavrel::tools
