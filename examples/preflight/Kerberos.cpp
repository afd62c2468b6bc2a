// Checks of libkrb5's settings, of the keys in the keytab, and of the KDC. None of them sends a key
// or a password.
#include <krb5.h>
#include <profile.h>
#include <tavrel/KrbContext.h>
#include <tavrel/KrbKeytab.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "Checks.h"
#include "Files.h"

namespace {

constexpr krb5_enctype kMachineKey = ENCTYPE_ARCFOUR_HMAC;  // the one that a join writes

template <auto Free>
struct KrbFree {
  krb5_context context;
  template <typename T>
  void operator()(T* object) const {
    Free(context, object);
  }
};
struct FreeContext {
  void operator()(krb5_context context) const { krb5_free_context(context); }
};
using Context = std::unique_ptr<_krb5_context, FreeContext>;
using Principal = std::unique_ptr<krb5_principal_data, KrbFree<krb5_free_principal>>;

std::string Explain(krb5_context context, krb5_error_code code) {
  const std::unique_ptr<const char, KrbFree<krb5_free_error_message>> text(
      krb5_get_error_message(context, code), {context});
  return text.get();
}

Context MakeContext(krb5_error_code& code) {
  krb5_context context = nullptr;
  code = krb5_init_context(&context);
  return Context(context);
}
Context MakeContext() {
  krb5_error_code code = 0;
  return MakeContext(code);
}

std::string MachineName(const Subject& subject) {
  return subject.join.GetAccountName() + "$@" + subject.join.domain;
}

Principal MachinePrincipal(krb5_context context, const Subject& subject) {
  krb5_principal principal = nullptr;
  krb5_parse_name(context, MachineName(subject).c_str(), &principal);
  return Principal(principal, {context});
}

std::string Name(krb5_enctype type) {
  char name[64];
  if (krb5_enctype_to_name(type, FALSE, name, sizeof name) != 0) return std::to_string(type);
  return name;
}

std::string Names(const std::vector<krb5_enctype>& types) {
  std::string text;
  for (const krb5_enctype type : types)
    text += (text.empty() ? "" : " ") + Name(type);
  return text.empty() ? "none" : text;
}

bool Has(const std::vector<krb5_enctype>& types, krb5_enctype type) {
  return std::find(types.begin(), types.end(), type) != types.end();
}

// --- a request, read back ----------------------------------------------------

// Takes the first element of `der` off, and returns its tag and content (X.690, 8.1). Nothing when
// there is none.
std::optional<std::pair<char, std::string_view>> TakeElement(std::string_view& der) {
  if (der.size() < 2) return std::nullopt;
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(der[i]); };
  std::size_t length = byte(1);
  std::size_t header = 2;
  if (length > 0x80) {
    header += length & 0x7F;
    length = 0;
    if (header > 2 + sizeof length || header > der.size()) return std::nullopt;
    for (std::size_t i = 2; i < header; ++i)
      length = length << 8 | byte(i);
  }
  if (length > der.size() - header) return std::nullopt;
  const auto element = std::make_pair(der[0], der.substr(header, length));
  der.remove_prefix(header + length);
  return element;
}

// The content of the first element with that tag in `der`; empty when there is none.
std::string_view Find(std::string_view der, char tag) {
  while (const auto element = TakeElement(der)) {
    if (element->first == tag) return element->second;
  }
  return {};
}

// The encryption types that an AS-REQ asks for (RFC 4120, 5.4.1).
std::vector<krb5_enctype> RequestedEnctypes(std::string_view request) {
  for (const char tag : {'\x6A', '\x30', '\xA4', '\x30', '\xA8', '\x30'})  // req-body, in it etype
    request = Find(request, tag);
  std::vector<krb5_enctype> types;
  while (const auto element = TakeElement(request)) {
    krb5_enctype type = 0;
    for (const char c : element->second)
      type = type * 256 + static_cast<unsigned char>(c);
    types.push_back(type);
  }
  return types;
}

// --- keytab entries ----------------------------------------------------------

struct Entry {
  bool ours;
  std::string principal;
  krb5_kvno version;
  krb5_enctype type;
  std::string key;
};

class EntryList : public tavrel::KeytabAccumulator {
 public:
  EntryList(krb5_context context, krb5_const_principal machine)
      : context_(context), machine_(machine) {}

  void Process(const krb5_keytab_entry& entry) override {
    char* name = nullptr;
    krb5_unparse_name(context_, entry.principal, &name);
    const auto* bytes = reinterpret_cast<const char*>(entry.key.contents);
    entries.push_back({krb5_principal_compare(context_, entry.principal, machine_) != 0,
                       name != nullptr ? name : "?", entry.vno, entry.key.enctype,
                       std::string(bytes, entry.key.length)});
    krb5_free_unparsed_name(context_, name);
  }

  std::vector<Entry> entries;

 private:
  krb5_context context_;
  krb5_const_principal machine_;
};

// True when a ticket that `own` decrypts would be decrypted with an entry of another principal,
// which stands ahead of it: the ticket then counts as the other's.
const Entry* Impostor(const std::vector<Entry>& entries) {
  for (auto own = entries.begin(); own != entries.end(); ++own) {
    const auto other = std::find_if(entries.begin(), own, [&](const Entry& entry) {
      return !entry.ours && entry.type == own->type && entry.key == own->key;
    });
    if (own->ours && other != own) return &*other;
  }
  return nullptr;
}

// The replay cache that libkrb5 uses, in the order in which it looks (MIT krb5 1.18 and later).
std::string ReplayCacheName(krb5_context context) {
  if (const char* const name = std::getenv("KRB5RCACHENAME")) return name;
  if (const char* const type = std::getenv("KRB5RCACHETYPE")) return std::string(type) + ":";
  std::string name = "dfl:";
  profile_t profile = nullptr;
  if (krb5_get_profile(context, &profile) != 0) return name;
  char* configured = nullptr;
  if (profile_get_string(profile, "libdefaults", "default_rcache_name", nullptr,
                         "dfl:", &configured) == 0) {
    name = configured;
    profile_release_string(configured);
  }
  profile_release(profile);
  return name;
}

}  // namespace

void CheckKerberosSettings(Subject&, Report& report) {
  krb5_error_code code = 0;
  if (MakeContext(code)) {
    report.Ok("krb5.conf", "well-formed");
  } else {
    report.Fail("krb5.conf", Explain(nullptr, code), "mend it: without it there is no Kerberos");
  }
}

void CheckPermittedEnctypes(Subject&, Report& report) {
  const Context context = MakeContext();
  if (!context) return;
  krb5_enctype* list = nullptr;
  std::vector<krb5_enctype> types;
  if (krb5_get_permitted_enctypes(context.get(), &list) == 0) {
    for (const krb5_enctype* type = list; *type != 0; ++type)
      types.push_back(*type);
    krb5_free_enctypes(context.get(), list);
  }
  if (Has(types, kMachineKey)) {
    report.Ok("permitted enctypes", Names(types));
  } else {
    report.Fail("permitted enctypes", Names(types),
                "permitted_enctypes in krb5.conf must include arcfour-hmac");
  }
}

void CheckRequestedEnctypes(Subject& subject, Report& report) {
  const Context context = MakeContext();
  if (!context) return;
  const Principal machine = MachinePrincipal(context.get(), subject);
  if (!machine) return;
  // The library composes the request of a join; it is looked at, and not sent.
  krb5_init_creds_context exchange = nullptr;
  krb5_data request = {};
  krb5_data realm = {};
  krb5_data answer = {};
  unsigned flags = 0;
  krb5_error_code code =
      krb5_init_creds_init(context.get(), machine.get(), nullptr, nullptr, 0, nullptr, &exchange);
  if (code == 0) {
    code = krb5_init_creds_step(context.get(), exchange, &answer, &request, &realm, &flags);
  }
  const std::vector<krb5_enctype> types =
      code == 0 ? RequestedEnctypes({request.data, request.length}) : std::vector<krb5_enctype>();
  const std::string why = code == 0 ? "" : ": " + Explain(context.get(), code);
  krb5_free_data_contents(context.get(), &request);
  krb5_free_data_contents(context.get(), &realm);
  krb5_init_creds_free(context.get(), exchange);

  const std::string remedy = "set default_tkt_enctypes = arcfour-hmac in krb5.conf";
  if (!Has(types, kMachineKey)) {
    report.Fail("requested enctypes", Names(types) + why, remedy);
  } else if (types.size() > 1) {
    report.Warn("requested enctypes",
                Names(types) +
                    ": a KDC that prefers another than arcfour-hmac ends the join with "
                    "\"No key table entry found\"",
                remedy);
  } else {
    report.Ok("requested enctypes", Names(types));
  }
}

void CheckKeytabEntries(Subject& subject, Report& report) {
  if (!subject.keytab_readable) return;
  tavrel::KrbContext context;
  if (context.context == nullptr || !context.SetKeytab(subject.keytab) ||
      !context.SetClientPrincipal(MachineName(subject))) {
    return;
  }
  EntryList list(context.context, context.client_principal);
  const krb5_error_code code = tavrel::Keytab(&context).Iterate(list);
  if (code != 0) {
    report.Fail("keytab entries", Explain(context.context, code), "remove the keytab, and join");
    return;
  }

  std::string found;
  bool others = false;
  bool machine_key = false;
  for (const Entry& entry : list.entries) {
    found += (found.empty() ? "" : ", ") + entry.principal + " version " +
             std::to_string(entry.version) + " " + Name(entry.type);
    others = others || !entry.ours;
    subject.keytab_has_key = subject.keytab_has_key || entry.ours;
    machine_key = machine_key || (entry.ours && entry.type == kMachineKey);
  }
  const std::string remedy = "give the library a keytab of its own";
  if (const Entry* const impostor = Impostor(list.entries)) {
    report.Fail("keytab entries",
                found + ": " + impostor->principal +
                    " has the machine's key and stands ahead of it, so everybody is refused",
                remedy);
  } else if (others) {
    report.Warn("keytab entries", found + ": not the machine's alone", remedy);
  } else if (!machine_key && !list.entries.empty()) {
    report.Warn("keytab entries", found + ": no arcfour-hmac key, a join sets a new password",
                "join again");
  } else {
    report.Ok("keytab entries", found.empty() ? "none yet" : found);
  }
}

void CheckKdc(Subject& subject, Report& report) {
  const Context context = MakeContext();
  if (!context) return;
  const Principal machine = MachinePrincipal(context.get(), subject);
  const std::string check = "KDC of " + subject.join.domain;
  if (!machine) {
    report.Fail(check, "there is no such realm", "see the domain's name");
    return;
  }
  // Without a password and nobody to ask for it, the exchange ends when the KDC wants proof of one.
  krb5_creds credentials = {};
  const krb5_error_code code = krb5_get_init_creds_password(
      context.get(), &credentials, machine.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr);
  if (code == 0) krb5_free_cred_contents(context.get(), &credentials);
  switch (code) {
    case KRB5_PREAUTH_FAILED:
    case KRB5_LIBOS_CANTREADPWD:      // an account that needs no proof
    case KRB5KDC_ERR_CLIENT_REVOKED:  // one that is disabled, which a join mends
      report.Ok(check, "answers, and knows " + MachineName(subject));
      break;
    case KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN:
      report.Ok(check, "answers, and does not know " + MachineName(subject) + " yet");
      break;
    case KRB5KDC_ERR_ETYPE_NOSUPP:
      report.Fail(check, Explain(context.get(), code),
                  "let the KDC issue arcfour-hmac tickets for the machine's account");
      break;
    default:
      report.Fail(
          check, Explain(context.get(), code),
          "set dns_lookup_kdc = true, or name the realm's KDC, in krb5.conf; see to port 88");
  }
}

void CheckReplayCache(Subject&, Report& report) {
  const Context context = MakeContext();
  if (!context) return;
  const std::string name = ReplayCacheName(context.get());
  const std::string type = name.substr(0, name.find(':'));
  const std::string rest = name.substr(std::min(type.size() + 1, name.size()));
  const std::string remedy = "unset KRB5RCACHENAME, KRB5RCACHETYPE and default_rcache_name";
  std::string path;
  if (type == "none") {
    report.Warn("replay cache", name + ": whoever copies a token can use it again", remedy);
    return;
  }
  if (type == "dfl") {
    const char* folder = std::getenv("KRB5RCACHEDIR");
    if (folder == nullptr) folder = std::getenv("TMPDIR");
    path = std::string(folder != nullptr ? folder : "/var/tmp") + "/krb5_" +
           std::to_string(geteuid()) + ".rcache2";
  } else if (type == "file2" && name != type) {
    path = rest;
  } else {
    report.Fail("replay cache", name + ": unknown to libkrb5, so everybody is refused", remedy);
    return;
  }
  if (path.find("%{") != std::string::npos) {
    report.Warn("replay cache", path + ": not looked at, what stands for itself is not known here",
                "see that this process can write into that folder");
    return;
  }
  struct stat status;
  std::string why = WhyUnusable(FolderOf(path));
  if (why.empty() && lstat(path.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode))
      why = "is no ordinary file";
    else if (status.st_uid != geteuid())
      why = "belongs to user " + std::to_string(status.st_uid);
    else if (faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) != 0)
      why = strerror(errno);
  }
  if (why.empty()) {
    report.Ok("replay cache", path);
  } else {
    report.Fail("replay cache", path + ": " + why + ", so everybody is refused",
                "name a folder that this process can write into: KRB5RCACHEDIR");
  }
}
