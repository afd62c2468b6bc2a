#define OPENSSL_SUPPRESS_DEPRECATED  // SHA1_Init() and its kin
#include "tavrel/Join.h"

#include <openssl/sha.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Log.h"
#include "Reason.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/RandomString.h"
#include "tavrel/StringEncoding.h"

namespace tavrel {
namespace {

const Logger logger("ldap-join");

// userAccountControl flags ([MS-ADTS] 2.2.16)
constexpr std::uint32_t kAccountDisabled = 0x2;
constexpr std::uint32_t kNormalAccount = 0x200;
constexpr std::uint32_t kWorkstationTrustAccount = 0x1000;

// The machine passwords made so far, by upper-cased domain.
std::mutex passwords_mutex;
std::unordered_map<std::string, std::string> passwords;

// In two quotes it has to fit StringEncoding's 127 bytes. Beyond 256 bytes of /dev/urandom a signal
// may cut RandomString's one read short.
constexpr std::size_t kPasswordLength = 50;

std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

struct FreeMessage {
  void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
struct FreeValues {
  void operator()(berval** values) const { ldap_value_free_len(values); }
};
struct FreeEncoded {
  void operator()(berval* value) const {
    std::free(value->bv_val);
    std::free(value);
  }
};

// One attribute of a request.
struct Attribute {
  const char* name;
  std::vector<std::string> values;
};

// Attributes in the null-terminated form that libldap takes. It does not write to them, although
// its types would let it.
class Modifications {
 public:
  Modifications(int operation, std::vector<Attribute> attributes)
      : attributes_(std::move(attributes)), values_(attributes_.size()), mods_(attributes_.size()) {
    for (std::size_t i = 0; i < attributes_.size(); ++i) {
      for (std::string& value : attributes_[i].values)
        values_[i].push_back(value.data());
      values_[i].push_back(nullptr);
      mods_[i].mod_op = operation;
      mods_[i].mod_type = const_cast<char*>(attributes_[i].name);
      mods_[i].mod_values = values_[i].data();
      pointers_.push_back(&mods_[i]);
    }
    pointers_.push_back(nullptr);
  }
  Modifications(const Modifications&) = delete;
  Modifications& operator=(const Modifications&) = delete;

  LDAPMod** Get() { return pointers_.data(); }

 private:
  std::vector<Attribute> attributes_;
  std::vector<std::vector<char*>> values_;
  std::vector<LDAPMod> mods_;
  std::vector<LDAPMod*> pointers_;
};

// True when the account has no handle to work on. The caller is told, the log is not.
bool Disconnected(const AccountObject& account, std::string& reason) {
  if (account.ldap != nullptr) return false;
  reason = "Invalid LDAP context";
  return true;
}

// True when `code` is a failure, which is then logged at level 4 and becomes the reason.
bool Failed(int code, const LogPrefix& prefix, std::string& reason) {
  if (code == LDAP_SUCCESS) return false;
  reason = ldap_err2string(code);
  logger.Error(prefix, reason);
  return true;
}

// The userAccountControl flags of a found account; those of an ordinary computer when it does not
// have exactly one value. A value that is not a 32-bit number throws as std::stoi does.
std::uint32_t Flags(const Ldap& ldap, LDAPMessage* entry, Site site = Site::Here()) {
  const std::unique_ptr<berval*, FreeValues> values(
      ldap_get_values_len(ldap.handle, entry, "userAccountControl"));
  if (!values) {
    logger.Warning({"Missing user account controls attribute on ", site}, ldap.host);
    return kWorkstationTrustAccount;
  }
  const berval* const* value = values.get();
  if (value[0] == nullptr) {
    logger.Warning({"Unable to find userAccountControl in object on ", site}, ldap.host);
    return kWorkstationTrustAccount;
  }
  if (value[1] != nullptr) {
    logger.Warning({"Multiple values found for userAccountControl on ", site}, ldap.host);
    return kWorkstationTrustAccount;
  }
  const std::string text(value[0]->bv_val, strnlen(value[0]->bv_val, value[0]->bv_len));
  const auto flags = static_cast<std::uint32_t>(std::stoi(text));
  logger.Detail({"Found user account control on ", site}, ldap.host, ": ", flags);
  return flags;
}

}  // namespace

JoinParameters::JoinParameters(const std::string& domain, const std::list<LdapServer>& servers,
                               const std::string& user, const std::string& password)
    : domain(Upper(domain)),
      user(user),
      password(password),
      servers(std::make_unique<std::list<LdapServer>>(servers)) {}

JoinParameters::~JoinParameters() = default;

std::string JoinParameters::GetMachineName() const {
  char name[255] = {};
  if (gethostname(name, sizeof name) == -1) {
    logger.Error("gethostname failed with ", errno);
    name[0] = '\0';
  }
  name[sizeof name - 1] = '\0';
  return {name, std::strcspn(name, ".")};
}

std::string JoinParameters::GetDomainDN() const {
  if (domain.empty()) return "";
  std::string dn = "dc=";
  for (const char c : domain) {
    if (c == '.') {
      dn += ",dc=";
    } else {
      dn += c;
    }
  }
  return dn;
}

std::string JoinParameters::ShortenName(const std::string& name) const {
  constexpr std::size_t kLongest = 15;  // of a NetBIOS computer name
  constexpr std::size_t kKept = 7;
  constexpr std::size_t kDigits = 7;
  if (name.size() <= kLongest) return name;

  std::string result = name.substr(0, kKept);
  // The digest covers the characters kept, not the whole name.
  unsigned char digest[SHA_DIGEST_LENGTH];
  const auto* const kept = reinterpret_cast<const unsigned char*>(result.data());
  if (SHA1(kept, result.size(), digest) == nullptr) {
    // No provider has it (fips=yes in OPENSSL_CONF). As a name's suffix it protects nothing, and
    // these need none.
    SHA_CTX state;
    SHA1_Init(&state);
    SHA1_Update(&state, kept, result.size());
    SHA1_Final(digest, &state);
  }
  result += '-';
  for (std::size_t i = 0; i < kDigits; ++i) {
    const unsigned nibble = i % 2 == 0 ? digest[i / 2] >> 4U : digest[i / 2] & 0xFU;
    result += "0123456789abcdef"[nibble];
  }
  return result;
}

std::string JoinParameters::GetAccountName() const {
  return Upper(ShortenName(GetMachineName()));
}

std::string JoinParameters::GetMachineDN() const {
  return "cn=" + GetAccountName() + ",cn=Computers," + GetDomainDN();
}

std::string JoinParameters::GetMachinePassword() const {
  const std::lock_guard<std::mutex> lock(passwords_mutex);
  std::string& cached = passwords[domain];
  if (cached.empty()) cached = RandomString(kPasswordLength);
  return cached;
}

Joiner::Joiner(const JoinParameters* params, const DiscoveryService* discovery)
    : params(params), discovery(discovery) {}

Joiner::~Joiner() = default;

bool Joiner::Connect(std::string* error) {
  const Reason reason(error);
  std::list<LdapServer> servers = *params->servers;
  if (servers.empty()) {
    const std::list<std::string> hosts = discovery->GetLDAPHosts(params->domain);
    if (hosts.empty()) {
      reason.text = "Unable to find ldap host for domain";
      logger.Error("Unable to find ldap host for domain ", params->domain);
      return false;
    }
    for (const std::string& host : hosts) {
      logger.Detail("Adding a discovered host ", host);
      servers.emplace_back(host, vdi::LDAP_ENCRYPTION_STARTTLS, "");
    }
  }

  // Binds to all, even after one has accepted: the lookup later asks them in turn.
  bool any_bound = false;
  for (const auto& [host, encryption, cert_path] : servers) {
    Ldap session(host, encryption, cert_path);
    if (session.Connect(params->user, params->password, &reason.text)) {
      any_bound = true;
    } else {
      session.Disconnect();
    }
    sessions.push_back(session);  // moves the connection
  }
  return any_bound;
}

AccountObject Joiner::GetAccountObject(const Ldap& ldap, std::string* error) const {
  const Reason reason(error);
  AccountObject account;
  account.ldap = ldap.handle;
  if (Disconnected(account, reason.text)) {
    account.failed = true;
    return account;
  }

  timeval timeout = {5, 0};
  constexpr int kMostEntries = 2;
  LDAPMessage* found = nullptr;
  const int code =
      ldap_search_ext_s(ldap.handle, params->GetMachineDN().c_str(), LDAP_SCOPE_BASE, nullptr,
                        nullptr, 0, nullptr, nullptr, &timeout, kMostEntries, &found);
  const std::unique_ptr<LDAPMessage, FreeMessage> result(
      found);  // a failed search may have one too
  if (code == LDAP_NO_SUCH_OBJECT) return account;
  if (Failed(code, "LDAP search failed: ", reason.text)) {
    account.failed = true;
    return account;
  }

  // A notice of disconnection with a success code (RFC 4511, 4.4.1) comes without a result.
  LDAPMessage* entry = result ? ldap_first_entry(ldap.handle, result.get()) : nullptr;
  for (; entry != nullptr; entry = ldap_next_entry(ldap.handle, entry)) {
    account.exists = true;
    account.user_account_control = Flags(ldap, entry);
  }
  return account;
}

AccountObject Joiner::GetAccountObject(std::string* error) const {
  for (const Ldap& ldap : sessions) {
    if (ldap.handle == nullptr) continue;
    logger.Detail("Getting account object from ", ldap.host);
    const AccountObject account = GetAccountObject(ldap, error);
    if (!account.failed) {
      logger.Detail("Found account object from ", ldap.host);
      return account;
    }
  }
  logger.Warning("Unable to find an account object on any available server");
  AccountObject none;
  none.failed = true;
  return none;
}

AccountObject Joiner::AddAccountObject(AccountObject account, std::string* error) const {
  const Reason reason(error);
  account.failed = true;
  account.exists = false;
  account.user_account_control = kWorkstationTrustAccount;
  if (Disconnected(account, reason.text)) return account;

  const std::string machine = params->GetMachineName();
  const std::string name = params->GetAccountName();
  const std::string fqdn = Lower(machine) + "." + params->domain;
  const std::string category = "CN=Computer,CN=Schema,CN=Configuration," + params->GetDomainDN();
  Modifications attributes(LDAP_MOD_ADD,
                           {{"objectClass", {"user", "computer"}},
                            {"userAccountControl", {std::to_string(account.user_account_control)}},
                            {"dNSHostName", {fqdn}},
                            {"cn", {name}},
                            {"name", {name}},
                            {"sAMAccountName", {name + "$"}},
                            {"displayName", {name}},
                            {"servicePrincipalName", {"HOST/" + Upper(machine), "HOST/" + fqdn}},
                            {"msDs-supportedEncryptionTypes", {"4"}},  // RC4-HMAC
                            {"instanceType", {"4"}},                   // writable
                            {"operatingSystem", {"Linux"}},
                            {"objectCategory", {category}}});
  const int code = ldap_add_ext_s(account.ldap, params->GetMachineDN().c_str(), attributes.Get(),
                                  nullptr, nullptr);
  if (Failed(code, "LDAP add failed: ", reason.text)) return account;
  account.failed = false;
  account.exists = true;
  return account;
}

bool Joiner::SetPassword(const AccountObject& account, std::string* error) const {
  const Reason reason(error);
  if (Disconnected(account, reason.text)) return false;

  std::unique_ptr<berval, FreeEncoded> encoded;
  if (!params->GetMachinePassword().empty()) {
    const std::string quoted = '"' + params->GetMachinePassword() + '"';
    encoded.reset(StringEncoding::EncodeUtf8to16Octetstring(quoted.data(), quoted.size()));
  }
  if (!encoded) {
    reason.text = "Unable to generate password to join domain";
    logger.Error("Set password failed: ", reason.text);
    return false;
  }

  berval* values[] = {encoded.get(), nullptr};
  LDAPMod replace{};
  replace.mod_op = LDAP_MOD_REPLACE | LDAP_MOD_BVALUES;
  replace.mod_type = const_cast<char*>("unicodePwd");  // only read
  replace.mod_bvalues = values;
  LDAPMod* modifications[] = {&replace, nullptr};
  const int code = ldap_modify_ext_s(account.ldap, params->GetMachineDN().c_str(), modifications,
                                     nullptr, nullptr);
  return !Failed(code, "LDAP modify failed: ", reason.text);
}

bool Joiner::SetProperties(const AccountObject& account, std::string* error) const {
  const Reason reason(error);
  if (Disconnected(account, reason.text)) return false;

  const std::uint32_t flags =
      (account.user_account_control & ~(kAccountDisabled | kNormalAccount)) |
      kWorkstationTrustAccount;
  const std::string text = std::to_string(flags);
  logger.Detail("Setting user account control: ", text);
  Modifications replace(LDAP_MOD_REPLACE, {{"userAccountControl", {text}}});
  const int code = ldap_modify_ext_s(account.ldap, params->GetMachineDN().c_str(), replace.Get(),
                                     nullptr, nullptr);
  return !Failed(code, "LDAP modify failed: ", reason.text);
}

}  // namespace tavrel
