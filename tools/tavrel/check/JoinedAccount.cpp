// Checks of the administrator who joins, and of the account that a join uses or makes.
#include <algorithm>
#include <cstdint>
#include <string_view>

#include "common/Text.h"
#include "tavrel/check/Checks.h"
#include "tavrel/check/Session.h"

namespace tavrel::tools {
namespace {

// Why a controller refuses a bind that it calls "Invalid credentials" only: the code stands in its
// diagnostic text as "data CODE". The codes are Windows system error codes, in hexadecimal.
struct Refusal {
  std::string_view data;
  const char* meaning;
  const char* remedy;
};
constexpr Refusal kRefusals[] = {
    {"525", "no such user", "give the user as NAME@REALM"},
    {"52e", "wrong password, or no such user",
     "check the password, and give the user as NAME@REALM; every try counts towards a lockout"},
    {"530", "not allowed to sign in at this time", "use another administrator, or wait"},
    {"531", "not allowed to sign in from this machine", "use another administrator"},
    {"532", "the password has expired", "change the password"},
    {"533", "the user is disabled", "enable the user, or use another administrator"},
    {"701", "the user's account has expired", "use another administrator"},
    {"773", "the password must be changed before it can be used", "change the password"},
    {"775", "the user is locked out", "unlock the user, or wait for the lockout to end"},
};

const Refusal* FindRefusal(const std::string& explanation) {
  for (const Refusal& refusal : kRefusals) {
    if (explanation.find("data " + std::string(refusal.data) + ",") != std::string::npos) {
      return &refusal;
    }
  }
  return nullptr;
}

// `text` as a value in a filter (RFC 4515, 3).
std::string FilterValue(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (std::string_view("*()\\\0", 5).find(c) == std::string_view::npos) {
      result += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    result += {'\\', "0123456789abcdef"[byte >> 4U], "0123456789abcdef"[byte & 0xFU]};
  }
  return result;
}

// The number that an attribute holds; 0 when it holds none.
std::int64_t Number(const std::string& value) {
  return ParseNumber(value, INT32_MIN, UINT32_MAX).value_or(0);
}

// With which of the account's keys the KDC seals users' tickets. A controller takes the strongest
// that it may, so AES beside RC4 is as good as AES alone.
void CheckAccountEnctypes(const std::string& value, Findings& findings) {
  constexpr std::int64_t kRc4 = 0x4;
  constexpr std::int64_t kAes = 0x18;
  const std::string check = "account enctypes";
  const std::string remedy = "set msDS-SupportedEncryptionTypes of the account to 4 or 36";
  const std::int64_t types = Number(value);
  if (types == 0) {
    findings.Warn(check, "not set: users can sign in where controllers then take arcfour-hmac",
                  remedy);
  } else if ((types & kRc4) == 0 || (types & kAes) != 0) {
    findings.Fail(check,
                  value +
                      ": users' tickets are not of the machine's arcfour-hmac key, so nobody "
                      "can sign in",
                  remedy);
  } else {
    findings.Ok(check, value);
  }
}

}  // namespace

void CheckBind(Subject& subject, Findings& findings) {
  const std::string& user = subject.join.user;
  bool refused = false;
  for (Controller& controller : subject.controllers) {
    if (!controller.session) continue;
    const std::string check = "bind to " + Name(controller);
    if (subject.join.password.empty()) {
      findings.Warn(check, "not tried, there is no password", "give it on standard input");
      continue;
    }
    if (refused) {
      findings.Warn(check, "not tried, another controller has refused",
                    "every try counts towards a lockout");
      continue;
    }
    berval credentials;
    credentials.bv_len = subject.join.password.size();
    credentials.bv_val = const_cast<char*>(subject.join.password.data());  // only read
    const int code = ldap_sasl_bind_s(controller.session.get(), user.c_str(), LDAP_SASL_SIMPLE,
                                      &credentials, nullptr, nullptr, nullptr);
    controller.bound = code == LDAP_SUCCESS;
    if (controller.bound) {
      findings.Ok(check, user + " is accepted");
      continue;
    }
    refused = code == LDAP_INVALID_CREDENTIALS;
    const std::string explanation = Explain(controller.session.get(), code);
    const Refusal* const refusal = FindRefusal(explanation);
    std::string found = user + ": ";
    if (refusal != nullptr) found.append(refusal->meaning).append(": ");
    findings.Fail(check, found.append(explanation),
                  refusal != nullptr ? refusal->remedy : "see what the controller says");
  }
}

void CheckJoinedAccount(Subject& subject, Findings& findings) {
  LDAP* session = nullptr;
  for (const Controller& controller : subject.controllers) {
    if (controller.bound && session == nullptr) session = controller.session.get();
  }
  if (session == nullptr) return;
  const std::string name = subject.join.GetAccountName() + "$";
  const std::string check = "account " + name;
  const std::string any = "(objectClass=*)";

  int code = LDAP_SUCCESS;
  const Message own =
      Search(session, subject.join.GetMachineDN(), LDAP_SCOPE_BASE, any,
             {"userAccountControl", "dNSHostName", "msDS-SupportedEncryptionTypes"}, code);
  LDAPMessage* entry = FirstEntry(session, own);
  if (entry != nullptr) {
    const std::string host = GetValue(session, entry, "dNSHostName");
    const std::int64_t flags = Number(GetValue(session, entry, "userAccountControl"));
    std::string found = "exists";
    if (!host.empty()) found += ", for " + host;
    if ((flags & 2) != 0) found += ", disabled: a join enables it";
    if (subject.keytab_has_key) {
      findings.Ok(check, found + "; the keytab has a key of it");
    } else {
      findings.Warn(check,
                    found + "; no key of it was found in the keytab, so a join gives it a new one",
                    "see that no other machine uses it: that one would be out of the domain");
    }
    CheckAccountEnctypes(GetValue(session, entry, "msDS-SupportedEncryptionTypes"), findings);
    return;
  }
  if (code != LDAP_NO_SUCH_OBJECT) {
    findings.Fail(check, "cannot be looked up: " + Explain(session, code),
                  "let the administrator read the Computers container");
    return;
  }

  const std::string machine = subject.join.GetMachineName();
  const std::string taken = "(|(sAMAccountName=" + FilterValue(name) +
                            ")(servicePrincipalName=HOST/" + FilterValue(machine) +
                            ")(servicePrincipalName=HOST/" +
                            FilterValue(machine + "." + subject.join.domain) + "))";
  const Message other =
      Search(session, subject.join.GetDomainDN(), LDAP_SCOPE_SUBTREE, taken, {"1.1"}, code);
  entry = FirstEntry(session, other);
  if (entry != nullptr) {
    char* const dn = ldap_get_dn(session, entry);
    findings.Fail(check,
                  "cannot be made: its name or service names belong to " +
                      std::string(dn != nullptr ? dn : "?"),
                  "remove that account, move it to the Computers container, or name the machine "
                  "differently");
    ldap_memfree(dn);
    return;
  }
  if (code != LDAP_SUCCESS) {
    findings.Fail(check, "cannot be looked up: " + Explain(session, code),
                  "let the administrator read the domain");
    return;
  }

  const std::string container =
      subject.join.GetMachineDN().substr(subject.join.GetMachineDN().find(',') + 1);
  const Message folder =
      Search(session, container, LDAP_SCOPE_BASE, any, {"allowedChildClassesEffective"}, code);
  entry = FirstEntry(session, folder);
  const std::vector<std::string> classes =
      entry != nullptr ? GetValues(session, entry, "allowedChildClassesEffective")
                       : std::vector<std::string>();
  if (std::find(classes.begin(), classes.end(), "computer") == classes.end()) {
    findings.Warn(
        check,
        "does not exist, and " + subject.join.user + " has no right to make computers in " +
            container,
        "use an administrator; others are at best allowed a few by ms-DS-MachineAccountQuota");
  } else {
    findings.Ok(check, "does not exist; a join makes it");
  }
}

}  // namespace tavrel::tools
