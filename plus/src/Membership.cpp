#include "tavrel/plus/Membership.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <list>
#include <set>
#include <utility>

#include "Ascii.h"
#include "Controller.h"
#include "Deadline.h"
#include "Directory.h"
#include "Failure.h"
#include "Kdc.h"
#include "Log.h"
#include "MachineKeys.h"
#include "MachineKeytab.h"
#include "Secret.h"
#include "tavrel/Join.h"

namespace tavrel::plus {
namespace {

const Logger logger("membership");

// userAccountControl flags ([MS-ADTS] 2.2.16)
constexpr std::uint32_t kAccountDisabled = 0x2;
constexpr std::uint32_t kPasswordNotRequired = 0x20;
constexpr std::uint32_t kWorkstationTrustAccount = 0x1000;
constexpr std::uint32_t kDesKeysOnly = 0x200000;

constexpr std::size_t kLongestAccountName = 15;
constexpr std::size_t kMostShares = 3;    // of the time, however many controllers there are
constexpr std::size_t kMostRefusals = 3;  // of keys, each a failed logon: too many lock an account
constexpr std::chrono::seconds kLargestSkew{300};
constexpr std::chrono::seconds kLongestLife{1U << 31U};  // of a ticket

const std::vector<std::string> kAttributes = {"objectClass",
                                              "userAccountControl",
                                              "msDS-SupportedEncryptionTypes",
                                              "servicePrincipalName",
                                              "dNSHostName",
                                              "msDS-KeyVersionNumber",
                                              "pwdLastSet"};

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  return std::any_of(names.begin(), names.end(),
                     [&](const std::string& other) { return SameIgnoringCase(name, other); });
}

// The number that an attribute holds; 0 when it holds none.
template <typename Number>
Number ToNumber(const std::string& text) {
  std::int64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return static_cast<Number>(number);  // flags are stored with a sign
}

std::string BaseDn(const std::string& domain) {
  std::string dn;
  for (std::size_t start = 0; start <= domain.size();) {
    const std::size_t dot = std::min(domain.find('.', start), domain.size());
    dn += (dn.empty() ? "DC=" : ",DC=") + EscapeForName(domain.substr(start, dot - start));
    start = dot + 1;
  }
  return dn;
}

bool IsWorkstation(const Entry& account) {
  return (ToNumber<std::uint32_t>(account.First("useraccountcontrol")) &
          kWorkstationTrustAccount) != 0;
}

// What a distinguished name lies in.
std::string ContainerOf(const std::string& dn) {
  for (std::size_t i = 0; i < dn.size(); ++i) {
    if (dn[i] == '\\') {
      ++i;
    } else if (dn[i] == ',') {
      return dn.substr(i + 1);
    }
  }
  return "";
}

bool IsDnsName(const std::string& name) {
  return !name.empty() && name.size() <= 253 && name.front() != '.' && name.back() != '.' &&
         name.find("..") == std::string::npos && std::all_of(name.begin(), name.end(), [](char c) {
           return IsLetterOrDigit(c) || c == '-' || c == '_' || c == '.';
         });
}

std::uint32_t Now() {
  return static_cast<std::uint32_t>(std::time(nullptr));
}

// What a server says, on one line.
std::string OneLine(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, ' ');
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

// Whether a failure at one controller says nothing of the others.
bool IsOfTheController(Cause cause) {
  return cause == Cause::kUnreachable || cause == Cause::kTimedOut || cause == Cause::kNotTrusted ||
         cause == Cause::kProtocol;
}

constexpr std::array kCauses = {
    "None",       "BadArgument",    "NoController",      "Unreachable",
    "TimedOut",   "BadCredentials", "CredentialsBarred", "ClockSkew",
    "NotTrusted", "AccessDenied",   "NoAccount",         "AccountBarred",
    "NameTaken",  "Refused",        "NoEncryptionType",  "KeysDoNotWork",
    "Keytab",     "Busy",           "Protocol",          "Library",
    "Referred"};
static_assert(kCauses.size() == static_cast<std::size_t>(Cause::kReferred) + 1);

constexpr std::array kSteps = {"None",     "Arguments", "Keytab", "Discovery", "Connect",
                               "SignIn",   "Bind",      "LookUp", "Create",    "Update",
                               "Password", "Salt",      "Proof",  "Write",     "Remove"};
static_assert(kSteps.size() == static_cast<std::size_t>(Step::kRemove) + 1);

}  // namespace

const char* ToText(Cause cause) {
  return kCauses[std::min(static_cast<std::size_t>(cause), kCauses.size() - 1)];
}

const char* ToText(Step step) {
  return kSteps[std::min(static_cast<std::size_t>(step), kSteps.size() - 1)];
}

struct Credentials::Data {
  enum class Kind { kPassword, kOneTimePassword, kCache, kKeytab, kMachine };

  Kind kind;
  std::string name;  // of the user, the cache, or the keytab's principal
  std::string path;  // of the keytab
  Secret password;
};

Credentials Credentials::Password(std::string user, std::string_view password) {
  return Credentials(std::make_shared<const Data>(
      Data{Data::Kind::kPassword, std::move(user), {}, Secret(password)}));
}

Credentials Credentials::OneTimePassword(std::string_view password) {
  return Credentials(
      std::make_shared<const Data>(Data{Data::Kind::kOneTimePassword, {}, {}, Secret(password)}));
}

Credentials Credentials::Cache(std::string name) {
  return Credentials(
      std::make_shared<const Data>(Data{Data::Kind::kCache, std::move(name), {}, {}}));
}

Credentials Credentials::Keytab(std::string path, std::string principal) {
  return Credentials(std::make_shared<const Data>(
      Data{Data::Kind::kKeytab, std::move(principal), std::move(path), {}}));
}

Credentials Credentials::Machine() {
  return Credentials(std::make_shared<const Data>(Data{Data::Kind::kMachine, {}, {}, {}}));
}

// What does not change between operations.
struct Membership::Settings {
  std::string domain;  // in small letters
  std::string realm;
  std::string base;
  std::string keytab;
  MembershipOptions options;
  std::string account_name;  // without its "$"
  std::string dns_name;
  std::vector<Controller> controllers;  // those given
  std::string wrong;  // what the caller gave that cannot be used; empty when all can

  std::string Principal() const { return account_name + "$@" + realm; }
  std::string NewDn() const {
    return "CN=" + EscapeForName(account_name) + ',' +
           (options.container.empty() ? "CN=Computers," + base : options.container);
  }
  std::vector<std::string> ServiceNames() const {
    std::vector<std::string> names = {"HOST/" + Upper(dns_name.substr(0, dns_name.find('.')))};
    const auto add = [&](const std::string& service) {
      const std::string name = service + '/' + dns_name;
      if (!Contains(names, name)) names.push_back(name);
    };
    add("HOST");
    for (const std::string& service : options.services)
      add(service);
    return names;
  }
  std::uint32_t EncryptionTypes() const {
    return static_cast<std::uint32_t>(options.encryption_types);
  }
};

// One operation: at one controller after the other, until one has done it.
class Membership::Operation {
 public:
  Operation(const Settings& settings, const Credentials::Data& credentials,
            std::chrono::milliseconds limit)
      : settings_(settings), credentials_(credentials), end_(limit), keytab_(settings.keytab) {}

  Result Enrol();
  Result Rotate();
  Result RotateWhenOlderThan(std::chrono::hours age);
  Result Leave(Departure departure);
  Result Status(MembershipStatus& status);

 private:
  // All that belongs to one controller.
  struct Session {
    Session(const std::string& realm, Controller where, Deadline share)
        : controller(std::move(where)),
          deadline(share),
          kdc(realm, controller, address, deadline),
          directory(controller, deadline) {}

    const Controller controller;
    Deadline deadline;
    Address address;
    Kdc kdc;
    Directory directory;
    KrbPrincipal client;  // who is signed in; null for a simple bind
    KrbPrincipal machine;
    KrbCache cache;
    std::optional<std::uint32_t> version;  // of the machine's keys that signed in
  };
  using Body = Failure (Operation::*)(Session&);

  Result Run(Body body, bool is_held);
  Failure Hold();
  Failure Begin(Session& session);
  Failure Reach(Session& session);
  Failure ConnectTo(Session& session);
  Failure SignIn(Session& session);
  Failure SignInAsMachine(Session& session, const char* service, KrbCache& cache);
  Failure SignInOnce(Session& session, const char* service, KrbCache& cache);
  Failure SignInAgain(Session& session, const char* service, KrbCache& cache);
  Failure LookUp(Session& session, const std::string& base, int scope, const std::string& filter,
                 std::optional<Entry>& account);
  Failure LookUp(Session& session, std::optional<Entry>& account);
  Failure ReadVersion(Session& session, const std::string& dn, std::uint32_t& version);

  Failure EnrolByItself(Session& session, bool& is_done);
  Failure EnrolAt(Session& session);
  Failure Create(Session& session, const Secret& password);
  std::vector<Change> Differences(const Entry& account) const;
  Failure Update(Session& session, const Entry& account);
  Failure NameConflict(Session& session, Failure failure);
  Failure SetPassword(Session& session, const std::string& dn, const Secret& password);
  Failure ChangeOwnPassword(Session& session, const Secret& password, bool& is_unknown);
  bool IsSelf(Session& session) const;

  Failure Conclude(Session& session, const std::string& dn, const Secret& password,
                   const std::vector<krb5_enctype>& types);
  Failure Renew(Session& session, const Entry& account, const std::vector<krb5_enctype>& types);

  Failure RotateAt(Session& session);
  Failure LeaveAt(Session& session);
  Failure StatusAt(Session& session);
  Failure LookUpContainer(Session& session);
  Failure FindConflicts(Session& session);

  bool HasOneTimePassword() const {
    return credentials_.kind == Credentials::Data::Kind::kOneTimePassword;
  }
  bool IsMachines(const KeytabKey& key) const;
  std::set<std::uint32_t> Versions() const;
  std::vector<MachineKey> KeysOf(std::uint32_t version) const;
  bool Fits(std::uint32_t version, const std::vector<krb5_enctype>& types) const;
  Failure FindWorking(Session& session, const std::vector<krb5_enctype>& types, const char* service,
                      KrbCache& cache, std::optional<std::uint32_t>& working);
  std::vector<KeytabKey> Kept(std::uint32_t version, const std::vector<MachineKey>& keys,
                              std::uint32_t written) const;
  void Append(std::uint32_t version, const std::vector<MachineKey>& keys, std::uint32_t written,
              std::vector<KeytabKey>& content) const;
  void AppendOld(std::uint32_t below, std::vector<KeytabKey>& keys) const;
  Failure Write(std::vector<KeytabKey> keys, Session& session);
  Failure Settle(Session& session, std::uint32_t version, std::uint32_t in_force);
  Failure SettleEnrolled(Session& session, const Entry& account, std::uint32_t version);

  Result Ended(Failure failure, const std::string& controller = {});

  const Settings& settings_;
  const Credentials::Data& credentials_;
  const Deadline end_;
  MachineKeytab keytab_;
  Step step_ = Step::kArguments;
  bool changed_ = false;
  std::set<std::uint32_t> refused_;  // versions of keys that the controller at work refused
  Departure departure_ = Departure::kDisable;
  MembershipStatus* status_ = nullptr;
};

// --- the course of every operation ---------------------------------------------------------------

Result Membership::Operation::Ended(Failure failure, const std::string& controller) {
  Result result;
  result.changed = changed_;
  result.controller = controller;
  if (!failure) return result;
  result.cause = failure.cause;
  result.step = step_;
  result.text = OneLine(std::move(failure.text));
  logger.Warning("Membership operation ended: ", ToText(result.step), ": ", ToText(result.cause),
                 ": ", result.text);
  return result;
}

Failure Membership::Operation::Hold() {
  step_ = Step::kKeytab;
  return keytab_.Hold(end_);
}

Result Membership::Operation::Run(Body body, bool is_held) {
  step_ = Step::kArguments;
  if (!settings_.wrong.empty()) return Ended({Cause::kBadArgument, settings_.wrong});
  if (is_held) {
    if (Failure failure = Hold()) return Ended(std::move(failure));
  }

  step_ = Step::kDiscovery;
  std::vector<Controller> controllers = settings_.controllers;
  if (controllers.empty()) {
    Failure failure = FindControllers(settings_.domain, settings_.options.site, end_, controllers);
    if (failure) return Ended(std::move(failure));
  }

  Failure failure;
  std::string last;
  for (std::size_t i = 0; i < controllers.size(); ++i) {
    last = controllers[i].name;
    const Deadline share = end_.Share(std::min(controllers.size() - i, kMostShares));
    bool is_done = false;
    failure = {};
    if (body == &Operation::EnrolAt) {
      Session session(settings_.realm, controllers[i], share);
      failure = EnrolByItself(session, is_done);
    }
    if (!failure && !is_done) {
      Session session(settings_.realm, controllers[i], share);
      failure = Begin(session);
      if (!failure) failure = (this->*body)(session);
    }
    const bool is_anothers = IsOfTheController(failure.cause) || failure.cause == Cause::kReferred;
    if (!is_anothers || end_.HasPassed()) break;
    logger.Warning("Leaving controller ", last, ": ", ToText(step_), ": ", OneLine(failure.text));
  }
  return Ended(std::move(failure), last);
}

Failure Membership::Operation::Begin(Session& session) {
  if (Failure failure = Reach(session)) return failure;
  if (settings_.options.simple_bind && credentials_.kind == Credentials::Data::Kind::kPassword) {
    step_ = Step::kBind;
    std::string user = credentials_.name;
    if (user.find('@') == std::string::npos) user += '@' + settings_.realm;
    return session.directory.BindSimple(user, credentials_.password, settings_.options.ca_file);
  }
  step_ = Step::kSignIn;
  if (Failure failure = SignIn(session)) return failure;
  step_ = Step::kBind;
  return session.directory.BindKerberos(session.kdc, session.cache.get(), settings_.realm);
}

Failure Membership::Operation::Reach(Session& session) {
  if (Failure failure = ConnectTo(session)) return failure;
  if (Failure failure = session.kdc.Open()) return failure;
  return session.kdc.Parse(settings_.Principal(), session.machine);
}

Failure Membership::Operation::ConnectTo(Session& session) {
  step_ = Step::kConnect;
  std::vector<Address> addresses;
  if (Failure failure = Resolve(session.controller.name, session.deadline, addresses)) {
    return failure;
  }
  Failure failure;
  const Deadline whole = session.deadline;
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    session.address = addresses[i];
    session.deadline = whole.Share(addresses.size() - i);
    failure = session.directory.Connect(addresses[i]);
    session.deadline = whole;
    if (!failure) break;
  }
  return failure;
}

Failure Membership::Operation::SignIn(Session& session) {
  using Kind = Credentials::Data::Kind;
  const auto types = TypesOf(settings_.EncryptionTypes());
  Kdc& kdc = session.kdc;
  switch (credentials_.kind) {
    case Kind::kMachine:
    case Kind::kOneTimePassword: return SignInAsMachine(session, nullptr, session.cache);
    case Kind::kCache: return kdc.Copy(credentials_.name, session.cache);
    case Kind::kPassword:
      if (Failure failure = kdc.Parse(credentials_.name, session.client)) return failure;
      return kdc.SignIn(session.client.get(), credentials_.password, types, nullptr, session.cache);
    case Kind::kKeytab: {
      if (Failure failure = kdc.Parse(credentials_.name, session.client)) return failure;
      krb5_keytab keytab = nullptr;
      const krb5_error_code code =
          krb5_kt_resolve(kdc.Context(), credentials_.path.c_str(), &keytab);
      if (code != 0) return kdc.Explain(code);
      const std::unique_ptr<struct _krb5_kt, KrbFree<krb5_kt_close>> owned(keytab, {kdc.Context()});
      return kdc.SignIn(session.client.get(), keytab, types, nullptr, session.cache);
    }
  }
  return {};
}

// With the newest keys that the KDC takes: the very newest may never have come into force. The
// one-time password is for a machine whose keys do not work.
Failure Membership::Operation::SignInAsMachine(Session& session, const char* service,
                                               KrbCache& cache) {
  Failure failure(Cause::kBadCredentials, "The keytab has no key of the machine");
  session.version.reset();
  const std::set<std::uint32_t> versions = Versions();
  std::size_t refusals = 0;
  for (auto version = versions.rbegin(); version != versions.rend(); ++version) {
    failure = session.kdc.SignIn(session.machine.get(), KeysOf(*version), service, cache);
    if (!failure) session.version = *version;
    if (failure.cause != Cause::kBadCredentials && failure.cause != Cause::kNoEncryptionType) {
      return failure;
    }
    if (failure.cause == Cause::kBadCredentials && ++refusals == kMostRefusals) break;
  }
  if (!HasOneTimePassword()) return failure;
  return SignInOnce(session, service, cache);
}

// With the password that serves once.
Failure Membership::Operation::SignInOnce(Session& session, const char* service, KrbCache& cache) {
  return session.kdc.SignIn(session.machine.get(), credentials_.password,
                            TypesOf(settings_.EncryptionTypes()), service, cache);
}

// With what the machine has signed in with before: what was refused then is not tried again.
Failure Membership::Operation::SignInAgain(Session& session, const char* service, KrbCache& cache) {
  if (session.version) {
    return session.kdc.SignIn(session.machine.get(), KeysOf(*session.version), service, cache);
  }
  return HasOneTimePassword() ? SignInOnce(session, service, cache)
                              : SignInAsMachine(session, service, cache);
}

// --- the account ---------------------------------------------------------------------------------

Failure Membership::Operation::LookUp(Session& session, const std::string& base, int scope,
                                      const std::string& filter, std::optional<Entry>& account) {
  std::vector<Entry> found;
  if (Failure failure = session.directory.Search(base, scope, filter, kAttributes, found)) {
    return failure;
  }
  if (found.size() > 1) return {Cause::kRefused, "Several accounts have the machine's name"};
  account.reset();
  if (!found.empty()) account = std::move(found.front());
  return {};
}

Failure Membership::Operation::LookUp(Session& session, std::optional<Entry>& account) {
  step_ = Step::kLookUp;
  return LookUp(session, settings_.base, LDAP_SCOPE_SUBTREE,
                "(sAMAccountName=" + EscapeForFilter(settings_.account_name) + "$)", account);
}

Failure Membership::Operation::ReadVersion(Session& session, const std::string& dn,
                                           std::uint32_t& version) {
  step_ = Step::kLookUp;
  std::optional<Entry> account;
  if (Failure failure = LookUp(session, dn, LDAP_SCOPE_BASE, "(objectClass=*)", account)) {
    return failure;
  }
  if (!account) return {Cause::kNoAccount, "The account has gone"};
  version = ToNumber<std::uint32_t>(account->First("msds-keyversionnumber"));
  if (version == 0) return {Cause::kProtocol, "The directory tells no version of the keys"};
  return {};
}

Failure Membership::Operation::Create(Session& session, const Secret& password) {
  step_ = Step::kCreate;
  using Kind = Change::Kind;
  const Secret encoded = EncodePassword(password);
  const std::vector<Change> attributes = {
      {Kind::kAdd, "objectClass", {"computer"}},
      {Kind::kAdd, "sAMAccountName", {settings_.account_name + '$'}},
      {Kind::kAdd, "userAccountControl", {std::to_string(kWorkstationTrustAccount)}},
      {Kind::kAdd, "dNSHostName", {settings_.dns_name}},
      {Kind::kAdd, "servicePrincipalName", settings_.ServiceNames()},
      {Kind::kAdd, "msDS-SupportedEncryptionTypes", {std::to_string(settings_.EncryptionTypes())}},
      {Kind::kAdd, "unicodePwd", {}, &encoded}};
  Failure failure = session.directory.Add(settings_.NewDn(), attributes);
  if (failure) return NameConflict(session, std::move(failure));
  changed_ = true;
  logger.Notice("Created the account ", settings_.NewDn());
  return {};
}

// What is to be set, since it differs from what is wanted.
std::vector<Change> Membership::Operation::Differences(const Entry& account) const {
  using Kind = Change::Kind;
  std::vector<Change> changes;
  const auto flags = ToNumber<std::uint32_t>(account.First("useraccountcontrol"));
  const std::uint32_t wanted = flags & ~(kAccountDisabled | kPasswordNotRequired | kDesKeysOnly);
  if (flags != wanted) {
    changes.push_back({Kind::kReplace, "userAccountControl", {std::to_string(wanted)}});
  }
  if (ToNumber<std::uint32_t>(account.First("msds-supportedencryptiontypes")) !=
      settings_.EncryptionTypes()) {
    changes.push_back({Kind::kReplace,
                       "msDS-SupportedEncryptionTypes",
                       {std::to_string(settings_.EncryptionTypes())}});
  }
  if (!SameIgnoringCase(account.First("dnshostname"), settings_.dns_name)) {
    changes.push_back({Kind::kReplace, "dNSHostName", {settings_.dns_name}});
  }
  std::vector<std::string> missing;
  for (const std::string& name : settings_.ServiceNames()) {
    if (!Contains(account.All("serviceprincipalname"), name)) missing.push_back(name);
  }
  if (!missing.empty()) changes.push_back({Kind::kAdd, "servicePrincipalName", missing});
  return changes;
}

Failure Membership::Operation::Update(Session& session, const Entry& account) {
  step_ = Step::kUpdate;
  if (!IsWorkstation(account)) {
    return {Cause::kAccountBarred, account.dn + " is no computer's account"};
  }
  const std::vector<Change> changes = Differences(account);
  if (changes.empty()) return {};
  Failure failure = session.directory.Modify(account.dn, changes);
  if (failure) return NameConflict(session, std::move(failure));
  changed_ = true;
  refused_.clear();
  logger.Notice("Updated the account ", account.dn);
  return {};
}

// `failure`, or the better reason that another account has one of the service names.
Failure Membership::Operation::NameConflict(Session& session, Failure failure) {
  if (failure.cause != Cause::kRefused && failure.cause != Cause::kNameTaken) return failure;
  std::vector<Entry> found;
  std::string filter;
  for (const std::string& name : settings_.ServiceNames())
    filter += "(servicePrincipalName=" + EscapeForFilter(name) + ')';
  if (session.directory.Search(settings_.base, LDAP_SCOPE_SUBTREE,
                               "(&(!(sAMAccountName=" + EscapeForFilter(settings_.account_name) +
                                   "$))(|" + filter + "))",
                               {"servicePrincipalName"}, found) ||
      found.empty()) {
    return failure;
  }
  return {Cause::kNameTaken,
          "A service name of the machine belongs to " + found.front().dn + ": " + failure.text};
}

bool Membership::Operation::IsSelf(Session& session) const {
  if (!session.cache) return false;  // a simple bind
  krb5_principal client = nullptr;
  if (krb5_cc_get_principal(session.kdc.Context(), session.cache.get(), &client) != 0) return false;
  const KrbPrincipal owned(client, {session.kdc.Context()});
  return krb5_principal_compare(session.kdc.Context(), client, session.machine.get()) != 0;
}

Failure Membership::Operation::SetPassword(Session& session, const std::string& dn,
                                           const Secret& password) {
  step_ = Step::kPassword;
  const Secret encoded = EncodePassword(password);
  Failure failure =
      session.directory.Modify(dn, {{Change::Kind::kReplace, "unicodePwd", {}, &encoded}});
  if (!failure) changed_ = true;
  return failure;
}

// By the password service, as the machine itself. `is_unknown` tells that it may have been changed
// although there is a failure.
Failure Membership::Operation::ChangeOwnPassword(Session& session, const Secret& password,
                                                 bool& is_unknown) {
  step_ = Step::kPassword;
  is_unknown = false;
  KrbCache cache;
  if (Failure failure = SignInAgain(session, "kadmin/changepw", cache)) return failure;
  Failure failure = session.kdc.ChangePassword(cache.get(), password, is_unknown);
  if (!failure) changed_ = true;
  return failure;
}

// --- the keytab ----------------------------------------------------------------------------------

bool Membership::Operation::IsMachines(const KeytabKey& key) const {
  return key.realm == settings_.realm && key.components.size() == 1 &&
         key.components.front() == settings_.account_name + '$';
}

std::set<std::uint32_t> Membership::Operation::Versions() const {
  std::set<std::uint32_t> versions;
  for (const KeytabKey& key : keytab_.Keys()) {
    if (IsMachines(key)) versions.insert(key.version);
  }
  return versions;
}

std::vector<MachineKey> Membership::Operation::KeysOf(std::uint32_t version) const {
  std::vector<MachineKey> keys;
  for (const KeytabKey& key : keytab_.Keys()) {
    if (IsMachines(key) && key.version == version) keys.push_back({key.type, key.key.Copy()});
  }
  return keys;
}

// True when the keytab has a key of exactly each type at that version.
bool Membership::Operation::Fits(std::uint32_t version,
                                 const std::vector<krb5_enctype>& types) const {
  const std::vector<MachineKey> keys = KeysOf(version);
  return keys.size() == types.size() &&
         std::all_of(types.begin(), types.end(), [&](krb5_enctype type) {
           return std::any_of(keys.begin(), keys.end(),
                              [&](const MachineKey& key) { return key.type == type; });
         });
}

// The newest version that has the types, and that the KDC takes for a ticket for `service`; nothing
// when there is none. What the KDC has refused is not tried again.
Failure Membership::Operation::FindWorking(Session& session, const std::vector<krb5_enctype>& types,
                                           const char* service, KrbCache& cache,
                                           std::optional<std::uint32_t>& working) {
  step_ = Step::kProof;
  working.reset();
  const std::set<std::uint32_t> versions = Versions();
  for (auto version = versions.rbegin(); version != versions.rend(); ++version) {
    if (!Fits(*version, types) || refused_.count(*version) != 0) continue;
    if (refused_.size() >= kMostRefusals) break;
    // Each key was used when it was written, so the strongest speaks for all.
    Failure failure = session.kdc.SignIn(session.machine.get(), KeysOf(*version), service, cache);
    if (!failure) {
      working = *version;
      return {};
    }
    if (failure.cause == Cause::kBadCredentials) refused_.insert(*version);
    if (failure.cause != Cause::kBadCredentials && failure.cause != Cause::kNoEncryptionType) {
      return failure;
    }
  }
  return {};
}

// Appends the machine's earlier keys that a ticket may still need, the newest first, and then the
// keys of others. What was never in force goes. An earlier version that is not below `below`, of an
// account that was made anew say, gets a number that is, as long as there is one.
void Membership::Operation::AppendOld(std::uint32_t below, std::vector<KeytabKey>& keys) const {
  const std::int64_t life =
      (std::min(settings_.options.ticket_lifetime, kLongestLife) + kLargestSkew).count();
  const std::uint32_t now = Now();
  // A key was in use until the first of a later version was written.
  std::uint32_t replaced = now;
  const auto note = [&](const KeytabKey& key) {
    if (key.written != 0) replaced = std::min(replaced, key.written);
  };
  for (const KeytabKey& key : keys)
    note(key);
  const std::size_t newest = keys.size();
  const auto is_earlier = [&](const KeytabKey& key, std::uint32_t version) {
    return IsMachines(key) && key.version == version && (key.written != 0 || version < below) &&
           std::none_of(keys.begin(), keys.begin() + static_cast<std::ptrdiff_t>(newest),
                        [&](const KeytabKey& other) {
                          return other.type == key.type && other.key.View() == key.key.View();
                        });
  };
  const std::set<std::uint32_t> versions = Versions();
  std::uint32_t above = below;
  for (auto version = versions.rbegin(); version != versions.rend() && above > 1; ++version) {
    const bool is_over = std::int64_t{now} - replaced > life;
    const std::uint32_t number = std::min(*version, above - 1);
    for (const KeytabKey& key : keytab_.Keys()) {
      if (!is_earlier(key, *version)) continue;
      above = number;
      if (is_over) continue;
      keys.push_back(key.Copy());
      keys.back().version = number;
    }
    for (const KeytabKey& key : keytab_.Keys()) {
      if (IsMachines(key) && key.version == *version) note(key);
    }
  }
  for (const KeytabKey& key : keytab_.Keys()) {
    if (!IsMachines(key)) keys.push_back(key.Copy());
  }
}

void Membership::Operation::Append(std::uint32_t version, const std::vector<MachineKey>& keys,
                                   std::uint32_t written, std::vector<KeytabKey>& content) const {
  for (const MachineKey& key : keys) {
    KeytabKey entry;
    entry.realm = settings_.realm;
    entry.components = {settings_.account_name + '$'};
    entry.version = version;
    entry.written = written;
    entry.type = key.type;
    entry.key = key.key.Copy();
    content.push_back(std::move(entry));
  }
}

// What the keytab holds once `keys` are its newest.
std::vector<KeytabKey> Membership::Operation::Kept(std::uint32_t version,
                                                   const std::vector<MachineKey>& keys,
                                                   std::uint32_t written) const {
  std::vector<KeytabKey> content;
  Append(version, keys, written, content);
  AppendOld(version, content);
  return content;
}

Failure Membership::Operation::Write(std::vector<KeytabKey> keys, Session& session) {
  step_ = Step::kWrite;
  Failure failure = keytab_.Replace(std::move(keys), session.deadline);
  if (!failure) changed_ = true;
  return failure;
}

// Makes the keys of `version`, which work, the newest in the keytab, with the directory's version;
// nothing is written when they are.
Failure Membership::Operation::Settle(Session& session, std::uint32_t version,
                                      std::uint32_t in_force) {
  const bool is_newest = *Versions().rbegin() == version && version == in_force;
  const auto& all = keytab_.Keys();
  const auto of_version = std::find_if(all.begin(), all.end(), [&](const KeytabKey& key) {
    return IsMachines(key) && key.version == version;
  });
  if (is_newest && of_version->written != 0) return {};
  const std::uint32_t written = of_version->written != 0 ? of_version->written : Now();
  return Write(Kept(in_force, KeysOf(version), written), session);
}

Failure Membership::Operation::SettleEnrolled(Session& session, const Entry& account,
                                              std::uint32_t version) {
  const auto in_force = ToNumber<std::uint32_t>(account.First("msds-keyversionnumber"));
  return Settle(session, version, in_force != 0 ? in_force : version);
}

// --- the operations ------------------------------------------------------------------------------

Result Membership::Operation::Enrol() {
  return Run(&Operation::EnrolAt, true);
}

// As the machine, with the keys that it has: one exchange proves them and gets the ticket for the
// directory. Done when nothing has to be changed there; otherwise the given credentials have to.
Failure Membership::Operation::EnrolByItself(Session& session, bool& is_done) {
  is_done = false;
  if (settings_.options.simple_bind) return {};
  const std::vector<krb5_enctype> types = TypesOf(settings_.EncryptionTypes());
  const std::set<std::uint32_t> versions = Versions();
  refused_.clear();
  if (std::none_of(versions.begin(), versions.end(),
                   [&](std::uint32_t version) { return Fits(version, types); })) {
    return {};
  }
  if (Failure failure = Reach(session)) return failure;
  std::optional<std::uint32_t> working;
  const std::string service = "ldap/" + session.controller.name;
  Failure failure = FindWorking(session, types, service.c_str(), session.cache, working);
  std::optional<Entry> account;
  if (!failure && working) {
    step_ = Step::kBind;
    failure = session.directory.BindKerberos(session.kdc, session.cache.get(), settings_.realm);
    if (!failure) failure = LookUp(session, account);
  }
  if (failure.cause == Cause::kUnreachable || failure.cause == Cause::kTimedOut) return failure;
  if (!account || !IsWorkstation(*account) || !Differences(*account).empty()) return {};
  is_done = true;
  return SettleEnrolled(session, *account, *working);
}

Failure Membership::Operation::EnrolAt(Session& session) {
  std::optional<Entry> account;
  if (Failure failure = LookUp(session, account)) return failure;

  std::string dn = settings_.NewDn();
  const std::vector<krb5_enctype> types = TypesOf(settings_.EncryptionTypes());
  if (account) {
    dn = account->dn;
    if (Failure failure = Update(session, *account)) return failure;
    std::optional<std::uint32_t> working;
    KrbCache cache;
    if (Failure failure = FindWorking(session, types, nullptr, cache, working)) return failure;
    if (working) return SettleEnrolled(session, *account, *working);
  }

  if (account && IsSelf(session)) return Renew(session, *account, types);
  step_ = Step::kWrite;
  if (Failure failure = keytab_.Reserve(types.size())) return failure;
  step_ = Step::kPassword;
  const Secret password = MakePassword();
  if (password.Empty()) return {Cause::kLibrary, "There is no randomness for a password"};
  if (account) {
    if (Failure failure = SetPassword(session, dn, password)) return failure;
  } else if (Failure failure = Create(session, password)) {
    return failure;
  }
  return Conclude(session, dn, password, types);
}

// Derives the keys of the password in force, uses them, and makes them the newest in the keytab.
Failure Membership::Operation::Conclude(Session& session, const std::string& dn,
                                        const Secret& password,
                                        const std::vector<krb5_enctype>& types) {
  std::uint32_t version = 0;
  if (Failure failure = ReadVersion(session, dn, version)) return failure;
  step_ = Step::kSalt;
  std::vector<MachineKey> keys;
  if (Failure failure = DeriveKeys(session.kdc, session.machine.get(), password, types, keys)) {
    return failure;
  }
  step_ = Step::kProof;
  if (Failure failure = Prove(session.kdc, session.machine.get(), keys)) {
    if (failure.cause == Cause::kBadCredentials) failure.cause = Cause::kKeysDoNotWork;
    return failure;
  }
  if (Failure failure = Write(Kept(version, keys, Now()), session)) return failure;
  logger.Notice("The keys of ", settings_.Principal(), " are of version ", version);
  return {};
}

Result Membership::Operation::Rotate() {
  return Run(&Operation::RotateAt, true);
}

Failure Membership::Operation::RotateAt(Session& session) {
  std::optional<Entry> account;
  if (Failure failure = LookUp(session, account)) return failure;
  if (!account) return {Cause::kNoAccount, "The account has gone"};
  std::vector<krb5_enctype> types =
      TypesOf(ToNumber<std::uint32_t>(account->First("msds-supportedencryptiontypes")));
  if (types.empty()) types = TypesOf(settings_.EncryptionTypes());
  return Renew(session, *account, types);
}

// Changes the machine's own password.
Failure Membership::Operation::Renew(Session& session, const Entry& account,
                                     const std::vector<krb5_enctype>& types) {
  const auto in_force = ToNumber<std::uint32_t>(account.First("msds-keyversionnumber"));
  if (in_force == 0) return {Cause::kProtocol, "The directory tells no version of the keys"};
  // The keys that work are the newest, whatever an earlier run has left behind.
  if (session.version) {
    if (Failure failure = Settle(session, *session.version, in_force)) return failure;
    session.version = in_force;
  }
  step_ = Step::kPassword;
  const Secret password = MakePassword();
  if (password.Empty()) return {Cause::kLibrary, "There is no randomness for a password"};
  step_ = Step::kSalt;
  std::vector<MachineKey> keys;
  std::vector<MachineKey> renamed;
  if (Failure failure =
          DeriveKeys(session.kdc, session.machine.get(), password, types, keys, &renamed)) {
    return failure;
  }
  // Before the first ticket can need them; without a time, as they are not in force yet. Should
  // this run end before it can ask which they are, the next one tries both.
  const std::uint32_t next = in_force + 1;
  std::vector<KeytabKey> content = Kept(next, renamed.empty() ? keys : renamed, 0);
  if (!renamed.empty()) Append(next + 1, keys, 0, content);
  if (Failure failure = Write(std::move(content), session)) return failure;

  bool is_unknown = false;
  Failure failure = ChangeOwnPassword(session, password, is_unknown);
  if (failure && !is_unknown) {
    const Failure second = SetPassword(session, account.dn, password);
    if (second) failure.text += "; " + second.text;
    is_unknown = IsOfTheController(second.cause) || second.cause == Cause::kLibrary;
    if (second && !is_unknown) {
      // Nothing was changed, so the keys that were meant for it go again.
      content.clear();
      AppendOld(next, content);
      if (Failure unwritten = Write(std::move(content), session)) return unwritten;
      step_ = Step::kPassword;
    }
    if (!second) failure = {};
  }
  if (failure) return failure;
  return Conclude(session, account.dn, password, types);
}

Result Membership::Operation::RotateWhenOlderThan(std::chrono::hours age) {
  if (!settings_.wrong.empty()) return Ended({Cause::kBadArgument, settings_.wrong});
  if (Failure failure = Hold()) return Ended(std::move(failure));
  const std::set<std::uint32_t> versions = Versions();
  std::uint32_t written = 0;
  for (const KeytabKey& key : keytab_.Keys()) {
    if (IsMachines(key) && key.version == *versions.rbegin()) written = key.written;
  }
  const std::chrono::seconds since(std::int64_t{Now()} - written);
  const bool is_of_the_future = since < -kLargestSkew;
  if (versions.empty() || written == 0 || is_of_the_future ||
      std::chrono::floor<std::chrono::hours>(since) >= age) {
    return Run(&Operation::RotateAt, false);
  }

  step_ = Step::kWrite;
  std::vector<KeytabKey> content = Kept(*versions.rbegin(), KeysOf(*versions.rbegin()), written);
  if (content.size() == keytab_.Keys().size()) return Ended({});
  Failure failure = keytab_.Replace(std::move(content), end_);
  changed_ = !failure;
  return Ended(std::move(failure));
}

Result Membership::Operation::Leave(Departure departure) {
  departure_ = departure;
  const bool has_no_keytab = access(settings_.keytab.c_str(), F_OK) == -1 && errno == ENOENT;
  return Run(&Operation::LeaveAt, !has_no_keytab);
}

Failure Membership::Operation::LeaveAt(Session& session) {
  std::optional<Entry> account;
  if (Failure failure = LookUp(session, account)) return failure;
  step_ = Step::kRemove;
  if (account && !IsWorkstation(*account)) {
    return {Cause::kAccountBarred, account->dn + " is no computer's account"};
  }
  if (account && departure_ == Departure::kDelete) {
    Failure failure = session.directory.Delete(account->dn);
    if (failure && failure.cause != Cause::kNoAccount) return failure;
    changed_ = true;
  } else if (account) {
    const auto flags = ToNumber<std::uint32_t>(account->First("useraccountcontrol"));
    if ((flags & kAccountDisabled) == 0) {
      if (Failure failure = session.directory.Modify(
              account->dn, {{Change::Kind::kReplace,
                             "userAccountControl",
                             {std::to_string(flags | kAccountDisabled)}}})) {
        return failure;
      }
      changed_ = true;
    }
  }

  if (Versions().empty()) return {};
  std::vector<KeytabKey> others;
  for (const KeytabKey& key : keytab_.Keys()) {
    if (!IsMachines(key)) others.push_back(key.Copy());
  }
  return Write(std::move(others), session);
}

Result Membership::Operation::Status(MembershipStatus& status) {
  status = {};
  status_ = &status;
  step_ = Step::kKeytab;
  if (settings_.wrong.empty()) {
    if (Failure failure = keytab_.Read(end_)) return Ended(std::move(failure));
  }
  const std::set<std::uint32_t> versions = Versions();
  status.keytab_key_versions.assign(versions.rbegin(), versions.rend());
  return Run(&Operation::StatusAt, false);
}

// Where Enrol() would make the account, and whether it may.
Failure Membership::Operation::LookUpContainer(Session& session) {
  const std::string container = ContainerOf(settings_.NewDn());
  std::vector<Entry> found;
  Failure failure = session.directory.Search(container, LDAP_SCOPE_BASE, "(objectClass=*)",
                                             {"allowedChildClassesEffective"}, found);
  if (failure.cause == Cause::kNoAccount) return {};  // there is no container
  if (failure || found.empty()) return failure;
  status_->container = container;
  status_->may_be_made = Contains(found.front().All("allowedchildclasseseffective"), "computer");
  return {};
}

// Which of the machine's service names, and of those that it is to have, others have.
Failure Membership::Operation::FindConflicts(Session& session) {
  MembershipStatus& status = *status_;
  std::string filter;
  std::vector<std::string> names = status.service_names;
  for (const std::string& name : settings_.ServiceNames()) {
    if (!Contains(names, name)) names.push_back(name);
  }
  for (const std::string& name : names)
    filter += "(servicePrincipalName=" + EscapeForFilter(name) + ')';
  std::vector<Entry> others;
  if (Failure failure =
          session.directory.Search(settings_.base, LDAP_SCOPE_SUBTREE, "(|" + filter + ')',
                                   {"servicePrincipalName"}, others)) {
    return failure;
  }
  status.conflicts.clear();
  for (const Entry& other : others) {
    if (SameIgnoringCase(other.dn, status.account)) continue;
    for (const std::string& name : names) {
      if (Contains(other.All("serviceprincipalname"), name)) {
        status.conflicts.push_back({name, other.dn});
      }
    }
  }
  return {};
}

Failure Membership::Operation::StatusAt(Session& session) {
  std::optional<Entry> account;
  if (Failure failure = LookUp(session, account)) return failure;
  MembershipStatus& status = *status_;
  status.exists = account.has_value();
  if (!account) {
    if (Failure failure = LookUpContainer(session)) return failure;
    return FindConflicts(session);
  }
  status.account = account->dn;
  status.container = ContainerOf(account->dn);
  status.user_account_control = ToNumber<std::uint32_t>(account->First("useraccountcontrol"));
  status.enabled = (status.user_account_control & kAccountDisabled) == 0;
  status.encryption_types =
      ToNumber<std::uint32_t>(account->First("msds-supportedencryptiontypes"));
  status.dns_name = account->First("dnshostname");
  status.service_names = account->All("serviceprincipalname");
  status.key_version = ToNumber<std::uint32_t>(account->First("msds-keyversionnumber"));
  // In units of 100 ns since 1601 ([MS-DTYP] 2.3.3); 0 for never.
  constexpr std::int64_t kUnixEpoch = 116444736000000000;
  if (const auto set = ToNumber<std::int64_t>(account->First("pwdlastset")); set > kUnixEpoch) {
    status.password_set = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::microseconds((set - kUnixEpoch) / 10)));
  }

  if (Failure failure = FindConflicts(session)) return failure;

  step_ = Step::kProof;
  KrbCache cache;
  Failure failure = SignInAsMachine(session, nullptr, cache);
  status.keys_work = session.version.has_value();
  const bool is_answer = failure.cause == Cause::kBadCredentials ||
                         failure.cause == Cause::kCredentialsBarred ||
                         failure.cause == Cause::kNoEncryptionType;
  return is_answer ? Failure() : failure;
}

// --- the interface -------------------------------------------------------------------------------

Membership::Membership(std::string domain, std::string keytab, MembershipOptions options) {
  auto settings = std::make_unique<Settings>();
  settings->domain = Lower(std::move(domain));
  settings->realm = Upper(settings->domain);
  settings->base = BaseDn(settings->domain);
  settings->keytab = std::move(keytab);
  settings->options = std::move(options);
  const JoinParameters defaults(settings->domain, {}, "", "");
  settings->account_name = Upper(settings->options.account_name);
  if (settings->account_name.empty()) {
    settings->account_name = Upper(defaults.ShortenName(defaults.GetMachineName()));
  }
  settings->dns_name = settings->options.dns_name;
  if (settings->dns_name.empty()) {
    settings->dns_name = Lower(defaults.GetMachineName()) + '.' + settings->domain;
  }

  if (!IsDnsName(settings->domain)) {
    settings->wrong = "No domain: " + settings->domain;
  } else if (!IsDnsName(settings->dns_name)) {
    settings->wrong = "No name in DNS: " + settings->dns_name;
  } else if (!IsDnsName(settings->account_name) ||
             settings->account_name.size() > kLongestAccountName) {
    settings->wrong = "No name of an account: " + settings->account_name;
  } else if (settings->keytab.empty()) {
    settings->wrong = "The keytab has no path";
  } else if (!settings->options.site.empty() && !IsDnsName(settings->options.site)) {
    settings->wrong = "No site: " + settings->options.site;
  } else if (!std::all_of(settings->options.services.begin(), settings->options.services.end(),
                          IsDnsName)) {
    settings->wrong = "No name of a service";
  }
  for (const std::string& name : settings->options.controllers) {
    Controller& controller = settings->controllers.emplace_back();
    if (!ParseController(name, controller)) settings->wrong = "No name of a controller: " + name;
  }
  settings_ = std::move(settings);
}

Membership::~Membership() = default;

Result Membership::Enrol(const Credentials& credentials, std::chrono::milliseconds limit) {
  return Operation(*settings_, credentials.Get(), limit).Enrol();
}

Result Membership::Rotate(std::chrono::milliseconds limit) {
  return Operation(*settings_, Credentials::Machine().Get(), limit).Rotate();
}

Result Membership::RotateWhenOlderThan(std::chrono::hours age, std::chrono::milliseconds limit) {
  return Operation(*settings_, Credentials::Machine().Get(), limit).RotateWhenOlderThan(age);
}

Result Membership::Leave(const Credentials& credentials, Departure departure,
                         std::chrono::milliseconds limit) {
  return Operation(*settings_, credentials.Get(), limit).Leave(departure);
}

Result Membership::Status(const Credentials& credentials, std::chrono::milliseconds limit,
                          MembershipStatus& status) {
  return Operation(*settings_, credentials.Get(), limit).Status(status);
}

std::string Membership::Principal() const {
  return settings_->Principal();
}

}  // namespace tavrel::plus
