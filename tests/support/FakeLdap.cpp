#include "FakeLdap.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "LdapRequest.h"

namespace tavrel::tests {
namespace {

std::string OptionName(int option) {
  switch (option) {
    case LDAP_OPT_PROTOCOL_VERSION: return "LDAP_OPT_PROTOCOL_VERSION";
    case LDAP_OPT_X_TLS_REQUIRE_CERT: return "LDAP_OPT_X_TLS_REQUIRE_CERT";
    case LDAP_OPT_X_TLS_CACERTFILE: return "LDAP_OPT_X_TLS_CACERTFILE";
    case LDAP_OPT_X_TLS_NEWCTX: return "LDAP_OPT_X_TLS_NEWCTX";
    case LDAP_OPT_REFERRALS: return "LDAP_OPT_REFERRALS";
    case LDAP_OPT_NETWORK_TIMEOUT: return "LDAP_OPT_NETWORK_TIMEOUT";
    default: return "option " + std::to_string(option);
  }
}

std::string Text(const timeval& time) {
  return std::to_string(time.tv_sec) + " s " + std::to_string(time.tv_usec) + " us";
}

std::string OptionValue(int option, const void* value) {
  switch (option) {
    case LDAP_OPT_X_TLS_CACERTFILE: return static_cast<const char*>(value);
    case LDAP_OPT_REFERRALS: return value == LDAP_OPT_OFF ? "off" : "on";
    case LDAP_OPT_NETWORK_TIMEOUT: return Text(*static_cast<const timeval*>(value));
    default: return std::to_string(*static_cast<const int*>(value));
  }
}

// Nothing when both are null, as they are to be.
std::string Controls(LDAPControl** server, LDAPControl** client) {
  return server == nullptr && client == nullptr ? "" : " with controls";
}

}  // namespace

FakeLdap::FakeLdap()
    : initialize_(calls::ldap_initialize,
                  [this](LDAP** handle, const char* url) {
                    const int session = static_cast<int>(sessions_.size()) + 1;
                    const int code =
                        Record("ldap_initialize " + std::to_string(session) + " " + url);
                    if (code == LDAP_SUCCESS) {
                      *handle = Handle(session);
                      ++open_;
                    }
                    return code;
                  }),
      set_option_(calls::ldap_set_option,
                  [this](LDAP* handle, int option, const void* value) {
                    return Record("ldap_set_option " + Session(handle) + " " + OptionName(option) +
                                  " " + OptionValue(option, value));
                  }),
      start_tls_(calls::ldap_start_tls_s,
                 [this](LDAP* handle, LDAPControl** server, LDAPControl** client) {
                   return Record("ldap_start_tls_s " + Session(handle) + Controls(server, client));
                 }),
      bind_(calls::ldap_sasl_bind_s,
            [this](LDAP* handle, const char* name, const char* mechanism, berval* credentials,
                   LDAPControl** server, LDAPControl** client, berval** answer) {
              return Record("ldap_sasl_bind_s " + Session(handle) + " '" + name + "' " +
                            (mechanism == nullptr ? "simple" : mechanism) + " '" +
                            std::string(credentials->bv_val, credentials->bv_len) + "'" +
                            Controls(server, client) +
                            (answer == nullptr ? "" : " and wants credentials"));
            }),
      unbind_(calls::ldap_unbind_ext,
              [this](LDAP* handle, LDAPControl** server, LDAPControl** client) {
                --open_;
                return Record("ldap_unbind_ext " + Session(handle) + Controls(server, client));
              }),
      search_(calls::ldap_search_ext_s,
              [this](LDAP* handle, const char* base, int scope, const char* filter,
                     char** attributes, int attributes_only, LDAPControl** server,
                     LDAPControl** client, timeval* timeout, int limit, LDAPMessage** result) {
                Record("ldap_search_ext_s " + Session(handle) + " '" + base + "' scope " +
                       std::to_string(scope) + " filter " + (filter == nullptr ? "none" : filter) +
                       " attributes " + (attributes == nullptr ? "all" : "some") +
                       (attributes_only == 0 ? "" : " without values") + ", " + Text(*timeout) +
                       ", limit " + std::to_string(limit) + Controls(server, client));
                Answer answer = answers[std::stoi(Session(handle))];
                if (!next_answers.empty()) {
                  answer = next_answers.front();
                  next_answers.pop_front();
                }
                if (answer.has_result) {
                  Result& found = results_.emplace_back(Result{answer, {}});
                  for (std::size_t i = 0; i < answer.entries.size(); ++i)
                    found.entries.push_back({&found, i});
                  *result = reinterpret_cast<LDAPMessage*>(&found);
                }
                return answer.code;
              }),
      first_entry_(calls::ldap_first_entry,
                   [this](LDAP* handle, LDAPMessage* result) {
                     Record("ldap_first_entry " + Session(handle));
                     return EntryAt(reinterpret_cast<Result*>(result), 0);
                   }),
      next_entry_(calls::ldap_next_entry,
                  [this](LDAP* handle, LDAPMessage* entry) {
                    Record("ldap_next_entry " + Session(handle));
                    const auto& found = *reinterpret_cast<Found*>(entry);
                    return EntryAt(found.result, found.index + 1);
                  }),
      get_values_(calls::ldap_get_values_len,
                  [this](LDAP* handle, LDAPMessage* entry, const char* attribute) {
                    return Values(handle, entry, attribute);
                  }),
      value_free_(calls::ldap_value_free_len, [this](berval** values) { FreeValues(values); }),
      msgfree_(calls::ldap_msgfree,
               [this](LDAPMessage* message) {
                 Record("ldap_msgfree");
                 const std::size_t before = results_.size();
                 results_.remove_if([message](const Result& result) {
                   return reinterpret_cast<const LDAPMessage*>(&result) == message;
                 });
                 EXPECT_LT(results_.size(), before) << "not a result, or not any more";
                 return static_cast<int>(LDAP_RES_SEARCH_RESULT);
               }),
      add_(calls::ldap_add_ext_s,
           [this](LDAP* handle, const char* dn, LDAPMod** attributes, LDAPControl** server,
                  LDAPControl** client) {
             return Change(
                 "ldap_add_ext_s " + Session(handle) + " '" + dn + "'" + Controls(server, client),
                 attributes);
           }),
      modify_(
          calls::ldap_modify_ext_s, [this](LDAP* handle, const char* dn, LDAPMod** modifications,
                                           LDAPControl** server, LDAPControl** client) {
            return Change(
                "ldap_modify_ext_s " + Session(handle) + " '" + dn + "'" + Controls(server, client),
                modifications);
          }) {}

FakeLdap::~FakeLdap() {
  EXPECT_EQ(results_.size(), 0U) << "search results that were not released";
  EXPECT_EQ(values_.size(), 0U) << "lists of values that were not released";
}

LDAP* FakeLdap::Handle(int session) {
  while (sessions_.size() < static_cast<std::size_t>(session))
    sessions_.push_back('\0');
  return reinterpret_cast<LDAP*>(&sessions_[static_cast<std::size_t>(session) - 1]);
}

int FakeLdap::Record(const std::string& line) {
  lines_.push_back(line);
  const auto rule = std::find_if(refusals_.begin(), refusals_.end(), [&](const auto& refusal) {
    return line.rfind(refusal.first, 0) == 0;
  });
  return rule == refusals_.end() ? LDAP_SUCCESS : rule->second;
}

int FakeLdap::Change(const std::string& line, LDAPMod** modifications) {
  int code = Record(line);
  for (const std::string& modification : Describe(modifications)) {
    const int refused = Record(modification);
    if (code == LDAP_SUCCESS) code = refused;
  }
  return code;
}

std::string FakeLdap::Session(const LDAP* handle) const {
  const auto session = std::find_if(sessions_.begin(), sessions_.end(), [handle](const char& c) {
    return reinterpret_cast<const LDAP*>(&c) == handle;
  });
  return session == sessions_.end() ? "0" : std::to_string(session - sessions_.begin() + 1);
}

LDAPMessage* FakeLdap::EntryAt(Result* result, std::size_t index) {
  if (index >= result->entries.size()) return nullptr;
  return reinterpret_cast<LDAPMessage*>(&result->entries[index]);
}

berval** FakeLdap::Values(LDAP* handle, LDAPMessage* entry, const char* attribute) {
  Record("ldap_get_values_len " + Session(handle) + " " + attribute);
  const auto& found = *reinterpret_cast<Found*>(entry);
  const Entry& texts = found.result->answer.entries[found.index];
  if (!texts) return nullptr;
  // Every value is exactly as long as it says, so that reading past it is noticed.
  auto** const values = new berval*[texts->size() + 1];
  for (std::size_t i = 0; i < texts->size(); ++i) {
    const std::string& text = (*texts)[i];
    values[i] = new berval{text.size(), new char[text.size()]};
    std::copy(text.begin(), text.end(), values[i]->bv_val);
  }
  values[texts->size()] = nullptr;
  values_.push_back(values);
  return values;
}

void FakeLdap::FreeValues(berval** values) {
  Record("ldap_value_free_len");
  const auto known = std::find(values_.begin(), values_.end(), values);
  ASSERT_NE(known, values_.end()) << "not a list of values, or not any more";
  values_.erase(known);
  for (berval** value = values; *value != nullptr; ++value) {
    delete[](*value)->bv_val;
    delete *value;
  }
  delete[] values;
}

}  // namespace tavrel::tests
