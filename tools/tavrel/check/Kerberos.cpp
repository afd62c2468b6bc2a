// Checks of libkrb5's settings, of the keys in the keytab, and of the KDC. None of them sends a key
// or a password.
#include <krb5.h>
#include <openssl/asn1.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "tavrel/Krb.h"
#include "tavrel/check/Checks.h"

namespace tavrel::tools {
namespace {

using Principal = std::unique_ptr<krb5_principal_data, KrbFree<krb5_free_principal>>;

Context MakeContext() {
  krb5_error_code code = 0;
  return tools::MakeContext(&code);
}

Principal MachinePrincipal(krb5_context context, const Subject& subject) {
  krb5_principal principal = nullptr;
  krb5_parse_name(context, subject.Principal().c_str(), &principal);
  return Principal(principal, {context});
}

std::string Names(const std::vector<krb5_enctype>& types) {
  std::string text;
  for (const krb5_enctype type : types)
    text += (text.empty() ? "" : " ") + Name(type);
  return text.empty() ? "none" : text;
}

// Whether a machine can use that type: a join writes an RC4 key alone, and an enrolment AES.
bool Serves(const Subject& subject, krb5_enctype type) {
  if (subject.call.join) return type == ENCTYPE_ARCFOUR_HMAC;
  return type == ENCTYPE_AES256_CTS_HMAC_SHA1_96 || type == ENCTYPE_AES128_CTS_HMAC_SHA1_96;
}
std::string Wanted(const Subject& subject) {
  return subject.call.join ? "arcfour-hmac" : "aes256-cts-hmac-sha1-96";
}

// --- a request, read back ------------------------------------------------------------------------

// The content of the first element with that tag in `der`; empty when there is none.
std::string_view Find(std::string_view der, int tag) {
  while (!der.empty()) {
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    const auto* const start = at;
    long length = 0;  // NOLINT(google-runtime-int): libcrypto's type
    int found = 0;
    int of_class = 0;
    const int form =
        ASN1_get_object(&at, &length, &found, &of_class, static_cast<std::ptrdiff_t>(der.size()));
    if ((form & 0x80) != 0) return {};
    const auto header = static_cast<std::size_t>(at - start);
    const auto size = static_cast<std::size_t>(length);
    if ((of_class | found) == tag) return der.substr(header, size);
    der.remove_prefix(header + size);
  }
  return {};
}

// The encryption types that an AS-REQ asks for (RFC 4120, 5.4.1).
std::vector<krb5_enctype> RequestedEnctypes(std::string_view request) {
  constexpr int kOfContext = V_ASN1_CONTEXT_SPECIFIC;
  for (const int tag : {V_ASN1_APPLICATION | 10, V_ASN1_SEQUENCE, kOfContext | 4, V_ASN1_SEQUENCE,
                        kOfContext | 8, V_ASN1_SEQUENCE})  // req-body, in it etype
    request = Find(request, tag);
  std::vector<krb5_enctype> types;
  for (std::string_view number; !(number = Find(request, V_ASN1_INTEGER)).empty();) {
    krb5_enctype type = 0;
    for (const char c : number)
      type = type * 256 + static_cast<unsigned char>(c);
    types.push_back(type);
    request.remove_prefix(static_cast<std::size_t>(number.data() + number.size() - request.data()));
  }
  return types;
}

// --- keytab entries ------------------------------------------------------------------------------

// The entry of another principal that stands ahead of one of the machine with the same key: a
// ticket counts as that one's then.
const KeytabEntry* Impostor(const std::vector<KeytabEntry>& entries, const std::string& machine) {
  for (auto own = entries.begin(); own != entries.end(); ++own) {
    if (own->principal != machine) continue;
    const auto other = std::find_if(entries.begin(), own, [&](const KeytabEntry& entry) {
      return entry.principal != machine && entry.type == own->type && entry.key == own->key;
    });
    if (other != own) return &*other;
  }
  return nullptr;
}

}  // namespace

void CheckKerberosSettings(Subject& /*subject*/, Findings& findings) {
  krb5_error_code code = 0;
  if (tools::MakeContext(&code)) {
    findings.Ok("krb5.conf", "well-formed");
  } else {
    findings.Fail("krb5.conf", Explain(nullptr, code), "mend it: without it there is no Kerberos");
  }
}

void CheckPermittedEnctypes(Subject& subject, Findings& findings) {
  const Context context = MakeContext();
  if (!context) return;
  krb5_enctype* list = nullptr;
  std::vector<krb5_enctype> types;
  if (krb5_get_permitted_enctypes(context.get(), &list) == 0) {
    for (const krb5_enctype* type = list; *type != 0; ++type)
      types.push_back(*type);
    krb5_free_enctypes(context.get(), list);
  }
  if (std::any_of(types.begin(), types.end(),
                  [&](krb5_enctype type) { return Serves(subject, type); })) {
    findings.Ok("permitted enctypes", Names(types));
  } else {
    findings.Fail("permitted enctypes", Names(types),
                  "permitted_enctypes in krb5.conf must include " + Wanted(subject));
  }
}

void CheckRequestedEnctypes(Subject& subject, Findings& findings) {
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
  if (std::find(types.begin(), types.end(), ENCTYPE_ARCFOUR_HMAC) == types.end()) {
    findings.Fail("requested enctypes", Names(types) + why, remedy);
  } else if (types.size() > 1) {
    findings.Warn("requested enctypes",
                  Names(types) +
                      ": a KDC that prefers another than arcfour-hmac ends the join with "
                      "\"No key table entry found\"",
                  remedy);
  } else {
    findings.Ok("requested enctypes", Names(types));
  }
}

void CheckKeytabEntries(Subject& subject, Findings& findings) {
  const Context context = MakeContext();
  if (!subject.keytab_readable || !context) return;
  std::vector<KeytabEntry> entries;
  const krb5_error_code code = ReadKeytab(context.get(), subject.keytab(), entries);
  if (code != 0 && entries.empty()) {
    findings.Fail("keytab entries", Explain(context.get(), code),
                  "remove the keytab, and join or enrol");
    return;
  }

  const std::string machine = subject.Principal();
  std::string found;
  bool others = false;
  bool serves = false;
  for (const KeytabEntry& entry : entries) {
    found += (found.empty() ? "" : ", ") + entry.principal + " version " +
             std::to_string(entry.version) + " " + Name(entry.type);
    const bool ours = entry.principal == machine;
    others = others || !ours;
    subject.keytab_has_key = subject.keytab_has_key || ours;
    serves = serves || (ours && Serves(subject, entry.type));
  }
  const std::string remedy = "give the machine a keytab of its own";
  const KeytabEntry* const impostor = subject.call.join ? Impostor(entries, machine) : nullptr;
  if (impostor != nullptr) {
    findings.Fail("keytab entries",
                  found + ": " + impostor->principal +
                      " has the machine's key and stands ahead of it, so everybody is refused",
                  remedy);
  } else if (others && subject.call.join) {
    findings.Warn("keytab entries", found + ": not the machine's alone", remedy);
  } else if (!serves && !entries.empty()) {
    findings.Warn("keytab entries",
                  found + ": no " + Wanted(subject) + " key, so a new password will be set",
                  subject.call.join ? "tavrel join" : "tavrel enrol");
  } else {
    findings.Ok("keytab entries", found.empty() ? "none yet" : found);
  }
}

void CheckKdc(Subject& subject, Findings& findings) {
  const Context context = MakeContext();
  if (!context) return;
  const Principal machine = MachinePrincipal(context.get(), subject);
  const std::string check = "KDC of " + subject.join.domain;
  if (!machine) {
    findings.Fail(check, "there is no such realm", "see the domain's name");
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
    case KRB5KDC_ERR_CLIENT_REVOKED:  // one that is disabled, which can be mended
      findings.Ok(check, "answers, and knows " + subject.Principal());
      break;
    case KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN:
      findings.Ok(check, "answers, and does not know " + subject.Principal() + " yet");
      break;
    case KRB5KDC_ERR_ETYPE_NOSUPP:
      findings.Fail(check, Explain(context.get(), code),
                    "let the KDC issue " + Wanted(subject) + " tickets for the machine's account");
      break;
    default:
      findings.Fail(
          check, Explain(context.get(), code),
          "set dns_lookup_kdc = true, or name the realm's KDC, in krb5.conf; see to port 88");
  }
}

}  // namespace tavrel::tools
