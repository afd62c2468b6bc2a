// Checks of the administrator who joins, and of the account that a join uses or makes.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

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
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "\\%02x", static_cast<unsigned char>(c));
    result += std::strchr("*()\\", c) != nullptr ? escaped : std::string(1, c);  // NUL included
  }
  return result;
}

// With which of the account's keys the KDC seals users' tickets. A controller takes the strongest
// that it may, so AES beside RC4 is as good as AES alone.
void CheckAccountEnctypes(const std::string& value, Findings& findings) {
  constexpr long kRc4 = 0x4, kAes = 0x18;
  const std::string check = "account enctypes";
  const std::string remedy = "set msDS-SupportedEncryptionTypes of the account to 4 or 36";
  const long types = std::atol(value.c_str());
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
    if (refusal != nullptr) {
      findings.Fail(check, user + ": " + refusal->meaning + ": " + explanation, refusal->remedy);
    } else {
      findings.Fail(check, user + ": " + explanation, "see what the controller says");
    }
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
    const long flags = std::atol(GetValue(session, entry, "userAccountControl").c_str());
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
    findings.Fail(
        check, "cannot be made: its name or service names belong to " + std::string(dn ? dn : "?"),
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
