#include "Kdc.h"

#include <arpa/inet.h>
#include <profile.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

namespace tavrel::plus {
namespace {

constexpr std::uint16_t kKdcPort = 88;
constexpr std::uint16_t kPasswordPort = 464;
constexpr std::uint32_t kLargestReply = 1U << 20U;
constexpr std::size_t kLargestSalt = 1024;
constexpr std::uint32_t kFewestRounds = 1U << 12U;  // as is usual: with less, guessing gets cheaper
constexpr std::uint32_t kMostRounds = 1U << 18U;
// Four tries of TCP's. The host has just answered at another port, so this one is closed: there is
// another way.
constexpr std::chrono::milliseconds kLongestConnect{8000};
constexpr krb5_deltat kTicketLife = 600;  // longer than any operation needs it
constexpr krb5_deltat kLargestSkew = 300;

using KrbInitOptions =
    std::unique_ptr<krb5_get_init_creds_opt, KrbFree<krb5_get_init_creds_opt_free>>;
using KrbInit = std::unique_ptr<struct _krb5_init_creds_context, KrbFree<krb5_init_creds_free>>;
using KrbMemoryKeytab = std::unique_ptr<struct _krb5_kt, KrbFree<krb5_kt_close>>;
using KrbCredentials = std::unique_ptr<krb5_creds, KrbFree<krb5_free_creds>>;
using KrbAuth = std::unique_ptr<struct _krb5_auth_context, KrbFree<krb5_auth_con_free>>;
using KrbContents = std::unique_ptr<krb5_data, KrbFree<krb5_free_data_contents>>;

// The machine's settings, but for what says where the realm's KDC is and how it names a client.
struct PinnedProfile {
  int owners = 1;
  profile_t machine = nullptr;
  std::string realm;
  std::string kdc;
};

char** Values(const std::string& value) {
  auto** const values = static_cast<char**>(std::calloc(2, sizeof(char*)));
  if (values == nullptr) return nullptr;
  values[0] = strdup(value.c_str());
  if (values[0] != nullptr) return values;
  std::free(values);
  return nullptr;
}

errcode_t GetValues(void* data, const char* const* names, char*** values) {
  const auto& pinned = *static_cast<const PinnedProfile*>(data);
  const auto is = [&](std::size_t i, std::string_view name) {
    return names[i] != nullptr && name == names[i];
  };
  if (is(0, "realms") && is(1, pinned.realm)) {
    if (!is(2, "kdc")) return PROF_NO_RELATION;
    *values = Values(pinned.kdc);
    return *values != nullptr ? 0 : ENOMEM;
  }
  // A client is known by the name that it has here, however the directory spells it.
  if (is(0, "libdefaults") && is(1, "canonicalize")) return PROF_NO_RELATION;
  char** found = nullptr;
  const errcode_t code = profile_get_values(pinned.machine, names, &found);
  if (code != 0) return code;
  // Their owner frees them in a way of its own, and libkrb5 would not ask it.
  std::size_t count = 0;
  while (found[count] != nullptr)
    ++count;
  auto** const copy = static_cast<char**>(std::calloc(count + 1, sizeof(char*)));
  for (std::size_t i = 0; copy != nullptr && i < count; ++i)
    copy[i] = strdup(found[i]);
  profile_free_list(found);
  *values = copy;
  return copy != nullptr ? 0 : ENOMEM;
}

void FreeValues(void* /*data*/, char** values) {
  for (char** value = values; *value != nullptr; ++value)
    std::free(*value);
  std::free(values);
}

void Cleanup(void* data) {
  auto* const pinned = static_cast<PinnedProfile*>(data);
  if (--pinned->owners > 0) return;
  profile_abandon(pinned->machine);
  delete pinned;
}

// A copy is the same one, with an owner more.
errcode_t CopyProfile(void* data, void** copy) {
  ++static_cast<PinnedProfile*>(data)->owners;
  *copy = data;
  return 0;
}

struct Meaning {
  krb5_error_code code;
  Cause cause;
};
const Meaning kMeanings[] = {
    {KRB5_PARSE_MALFORMED, Cause::kBadArgument},
    {KRB5_CC_UNKNOWN_TYPE, Cause::kBadArgument},
    {KRB5_KT_UNKNOWN_TYPE, Cause::kBadArgument},
    {KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, Cause::kBadCredentials},
    {KRB5KDC_ERR_PREAUTH_FAILED, Cause::kBadCredentials},
    {KRB5_PREAUTH_FAILED, Cause::kBadCredentials},  // no way to prove it
    {KRB5KDC_ERR_WRONG_REALM, Cause::kBadCredentials},
    {KRB5KRB_AP_ERR_BAD_INTEGRITY, Cause::kBadCredentials},
    {KRB5KRB_AP_ERR_TKT_EXPIRED, Cause::kBadCredentials},
    {KRB5_KT_NOTFOUND, Cause::kBadCredentials},
    {KRB5_CC_NOTFOUND, Cause::kBadCredentials},
    {KRB5_FCC_NOFILE, Cause::kBadCredentials},
    {KRB5_KDC_UNREACH, Cause::kUnreachable},
    {KRB5KDC_ERR_SVC_UNAVAILABLE, Cause::kUnreachable},
    {KRB5KDC_ERR_CLIENT_REVOKED, Cause::kCredentialsBarred},
    {KRB5KDC_ERR_CLIENT_NOTYET, Cause::kCredentialsBarred},
    {KRB5KDC_ERR_KEY_EXP, Cause::kCredentialsBarred},
    {KRB5KDC_ERR_NAME_EXP, Cause::kCredentialsBarred},
    {KRB5KDC_ERR_POLICY, Cause::kCredentialsBarred},
    {KRB5KRB_AP_ERR_SKEW, Cause::kClockSkew},
    {KRB5_KDCREP_SKEW, Cause::kClockSkew},
    {KRB5KDC_ERR_S_PRINCIPAL_UNKNOWN, Cause::kNotTrusted},
    {KRB5KRB_AP_ERR_MODIFIED, Cause::kNotTrusted},
    {KRB5_KDCREP_MODIFIED, Cause::kNotTrusted},
    {KRB5KRB_AP_WRONG_PRINC, Cause::kNotTrusted},
    {KRB5KDC_ERR_ETYPE_NOSUPP, Cause::kNoEncryptionType},
    {KRB5_CONFIG_ETYPE_NOSUPP, Cause::kNoEncryptionType},
    {KRB5_PROG_ETYPE_NOSUPP, Cause::kNoEncryptionType},
    {KRB5KRB_ERR_RESPONSE_TOO_BIG, Cause::kProtocol},
    {KRB5_BADMSGTYPE, Cause::kProtocol},
    {KRB5KRB_AP_ERR_MSG_TYPE, Cause::kProtocol},
    {KRB5KRB_AP_ERR_BADVERSION, Cause::kProtocol},
};

// The number of rounds (RFC 3962), which whoever answers for the KDC chooses and this side has to
// go; 0 stands for 2^32.
bool IsModest(const std::string& parameters) {
  if (parameters.empty()) return true;
  std::uint32_t rounds = 0;
  if (parameters.size() != sizeof rounds) return false;
  std::memcpy(&rounds, parameters.data(), sizeof rounds);
  rounds = ntohl(rounds);
  return rounds >= kFewestRounds && rounds <= kMostRounds;
}

bool IsAsn1Error(krb5_error_code code) {
  return code >= ASN1_BAD_TIMEFORMAT && code < ASN1_BAD_TIMEFORMAT + 256;
}

// Of the codes that a KDC can answer with (RFC 4120, 7.5.9).
bool IsOfProtocol(krb5_error_code code) {
  return code >= KRB5KDC_ERR_NONE && code < KRB5KDC_ERR_NONE + 128;
}

std::uint16_t Number16(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[at]) << 8U |
                                    static_cast<unsigned char>(bytes[at + 1]));
}

std::string Bytes16(std::size_t number) {
  return {static_cast<char>(number >> 8U & 0xFFU), static_cast<char>(number & 0xFFU)};
}

Failure Nonsense() {
  return {Cause::kProtocol, "The password service's answer cannot be read"};
}

krb5_data Data(std::string_view bytes) {
  krb5_data data{};
  data.length = static_cast<unsigned>(bytes.size());
  data.data = const_cast<char*>(bytes.data());  // only read
  return data;
}

}  // namespace

Kdc::~Kdc() {
  if (context_ != nullptr) krb5_free_context(context_);
}

Failure Kdc::Open() {
  krb5_context machine = nullptr;
  if (const krb5_error_code code = krb5_init_context(&machine)) {
    return {Cause::kLibrary, KrbMessage(machine, code)};
  }
  auto pinned = std::make_unique<PinnedProfile>();
  pinned->realm = realm_;
  pinned->kdc = controller_.name;
  const krb5_error_code copied = krb5_get_profile(machine, &pinned->machine);
  krb5_free_context(machine);
  if (copied != 0) return {Cause::kLibrary, KrbMessage(nullptr, copied)};

  profile_vtable calls{};
  calls.minor_ver = 1;
  calls.get_values = GetValues;
  calls.free_values = FreeValues;
  calls.cleanup = Cleanup;
  calls.copy = CopyProfile;
  profile_t profile = nullptr;
  if (const errcode_t code = profile_init_vtable(&calls, pinned.get(), &profile)) {
    profile_abandon(pinned->machine);
    return {Cause::kLibrary, KrbMessage(nullptr, static_cast<krb5_error_code>(code))};
  }
  static_cast<void>(pinned.release());  // the profile's
  const krb5_error_code code = krb5_init_context_profile(profile, 0, &context_);
  profile_release(profile);
  if (code != 0) return Explain(code);
  krb5_set_kdc_send_hook(context_, Send, this);
  return {};
}

krb5_error_code Kdc::Send(krb5_context context, void* self, const krb5_data* realm,
                          const krb5_data* message, krb5_data** /*new_message*/,
                          krb5_data** reply) try {
  auto& kdc = *static_cast<Kdc*>(self);
  if (View(*realm) != kdc.realm_) return 0;  // a user of another realm gets tickets there
  std::string answer;
  // A busy KDC drops connections; a request for a ticket can be sent again.
  constexpr int kMostTries = 3;
  const auto exchange = [&] {
    Socket socket;
    return kdc.Connect(kKdcPort, kdc.deadline_, socket) &&
           kdc.Exchange(socket, View(*message), kLargestReply, answer);
  };
  for (int tries = 1; !exchange(); ++tries) {
    const bool was_dropped = errno == ECONNRESET || errno == EPIPE;
    if (was_dropped && tries < kMostTries) continue;
    kdc.error_ = errno;
    return KRB5_KDC_UNREACH;
  }
  krb5_data bytes = Data(answer);
  return krb5_copy_data(context, &bytes, reply);
} catch (const std::bad_alloc&) {  // which must not pass through libkrb5
  return ENOMEM;
}

// Leaves `errno` when it fails.
bool Kdc::Connect(std::uint16_t port, const Deadline& limit, Socket& socket) const {
  Address address = address_;
  address.SetPort(port);
  return socket.Connect(address, limit);
}

// One message and its answer over TCP (RFC 4120, 7.2.2). Leaves `errno` when it fails.
bool Kdc::Exchange(Socket& socket, std::string_view message, std::uint32_t largest,
                   std::string& reply) const {
  std::uint32_t size = htonl(static_cast<std::uint32_t>(message.size()));
  std::string framed(reinterpret_cast<const char*>(&size), sizeof size);
  framed += message;
  if (!socket.WriteAll(framed.data(), framed.size(), deadline_) ||
      !socket.ReadAll(&size, sizeof size, deadline_)) {
    return false;
  }
  size = ntohl(size);
  if (size > largest) {
    errno = EMSGSIZE;
    return false;
  }
  reply.resize(size);
  return socket.ReadAll(reply.data(), reply.size(), deadline_);
}

Failure Kdc::Explain(krb5_error_code code) const {
  if (error_ != 0) {
    Failure failure = ConnectionFailure(error_);
    if (error_ == EMSGSIZE) failure.cause = Cause::kProtocol;
    return failure;
  }
  Cause cause = IsAsn1Error(code)    ? Cause::kProtocol
                : IsOfProtocol(code) ? Cause::kRefused
                                     : Cause::kLibrary;
  for (const Meaning& meaning : kMeanings) {
    if (meaning.code == code) cause = meaning.cause;
  }
  return {cause, KrbMessage(context_, code)};
}

Failure Kdc::Parse(const std::string& name, KrbPrincipal& principal) {
  krb5_principal parsed = nullptr;
  krb5_error_code code =
      krb5_parse_name_flags(context_, name.c_str(), KRB5_PRINCIPAL_PARSE_NO_DEF_REALM, &parsed);
  if (code != 0) return Explain(code);
  principal = KrbPrincipal(parsed, {context_});
  // A realm may be written as the domain is.
  const std::string_view realm = View(parsed->realm);
  if (realm.empty() || (realm.size() == realm_.size() &&
                        strncasecmp(realm.data(), realm_.data(), realm.size()) == 0)) {
    code = krb5_set_principal_realm(context_, parsed, realm_.c_str());
    if (code != 0) return Explain(code);
  }
  return {};
}

// Not by libkrb5's own way with a password, which takes whatever work a KDC asks for.
Failure Kdc::SignIn(krb5_principal client, const Secret& password,
                    const std::vector<krb5_enctype>& types, const char* service, KrbCache& cache) {
  KeyRecipe recipe;
  if (Failure failure = GetRecipe(client, types, recipe)) return failure;
  std::vector<MachineKey> keys(1);
  if (const krb5_error_code code = DeriveKey(context_, password, recipe, keys.front())) {
    return Explain(code);
  }
  return SignIn(client, keys, service, cache);
}

Failure Kdc::SignIn(krb5_principal client, krb5_keytab keytab,
                    const std::vector<krb5_enctype>& types, const char* service, KrbCache& cache) {
  error_ = 0;
  krb5_get_init_creds_opt* options = nullptr;
  krb5_error_code code = krb5_get_init_creds_opt_alloc(context_, &options);
  if (code != 0) return Explain(code);
  const KrbInitOptions owned_options(options, {context_});
  std::vector<krb5_enctype> of_ours = types;
  krb5_get_init_creds_opt_set_etype_list(options, of_ours.data(), static_cast<int>(types.size()));
  krb5_get_init_creds_opt_set_tkt_life(options, kTicketLife);
  krb5_get_init_creds_opt_set_renew_life(options, 0);
  krb5_get_init_creds_opt_set_forwardable(options, 0);
  krb5_get_init_creds_opt_set_proxiable(options, 0);

  // The keys are known, so the first request proves that.
  krb5_preauthtype timestamp = KRB5_PADATA_ENC_TIMESTAMP;
  krb5_get_init_creds_opt_set_preauth_list(options, &timestamp, 1);

  krb5_init_creds_context init = nullptr;
  code = krb5_init_creds_init(context_, client, nullptr, nullptr, 0, options, &init);
  if (code != 0) return Explain(code);
  const KrbInit owned_init(init, {context_});
  if (code == 0) code = krb5_init_creds_set_keytab(context_, init, keytab);
  if (code == 0 && service != nullptr) code = krb5_init_creds_set_service(context_, init, service);
  if (code == 0) code = krb5_init_creds_get(context_, init);
  if (code != 0) return Explain(code);

  krb5_timestamp offset = 0;
  krb5_int32 microseconds = 0;
  code = krb5_get_time_offsets(context_, &offset, &microseconds);
  if (code == 0 && std::abs(std::int64_t{offset}) > kLargestSkew) code = KRB5KRB_AP_ERR_SKEW;
  if (code != 0) return Explain(code);

  krb5_ccache memory = nullptr;
  code = krb5_cc_new_unique(context_, "MEMORY", nullptr, &memory);
  if (code != 0) return Explain(code);
  cache = KrbCache(memory, {context_});
  krb5_creds credentials{};
  code = krb5_init_creds_get_creds(context_, init, &credentials);
  if (code != 0) return Explain(code);
  code = krb5_cc_initialize(context_, memory, credentials.client);
  if (code == 0) code = krb5_cc_store_cred(context_, memory, &credentials);
  krb5_free_cred_contents(context_, &credentials);
  return code != 0 ? Explain(code) : Failure();
}

Failure Kdc::SignIn(krb5_principal client, const std::vector<MachineKey>& keys, const char* service,
                    KrbCache& cache) {
  static std::atomic<unsigned> count{0};
  const std::string name = "MEMORY:tavrel-" + std::to_string(count++);
  krb5_keytab keytab = nullptr;
  krb5_error_code code = krb5_kt_resolve(context_, name.c_str(), &keytab);
  if (code != 0) return Explain(code);
  const KrbMemoryKeytab owned(keytab, {context_});
  std::vector<krb5_enctype> types;
  for (const MachineKey& key : keys) {
    krb5_keytab_entry entry{};
    entry.principal = client;
    entry.vno = 1;
    entry.key.enctype = key.type;
    entry.key.length = static_cast<unsigned>(key.key.Size());
    entry.key.contents = reinterpret_cast<krb5_octet*>(const_cast<char*>(key.key.View().data()));
    code = krb5_kt_add_entry(context_, keytab, &entry);
    if (code != 0) return Explain(code);
    types.push_back(key.type);
  }
  return SignIn(client, keytab, types, service, cache);
}

Failure Kdc::Copy(const std::string& name, KrbCache& cache) {
  krb5_ccache given = nullptr;
  krb5_error_code code = name.empty() ? krb5_cc_default(context_, &given)
                                      : krb5_cc_resolve(context_, name.c_str(), &given);
  if (code != 0) return Explain(code);
  const std::unique_ptr<struct _krb5_ccache, KrbFree<krb5_cc_close>> owned(given, {context_});
  krb5_principal client = nullptr;
  code = krb5_cc_get_principal(context_, given, &client);
  if (code != 0) return Explain(code);
  const KrbPrincipal owned_client(client, {context_});
  krb5_ccache memory = nullptr;
  code = krb5_cc_new_unique(context_, "MEMORY", nullptr, &memory);
  if (code != 0) return Explain(code);
  cache = KrbCache(memory, {context_});
  code = krb5_cc_initialize(context_, memory, client);
  if (code == 0) code = krb5_cc_copy_creds(context_, given, memory);
  return code != 0 ? Explain(code) : Failure();
}

Failure Kdc::GetTicket(const char* service, krb5_ccache cache) {
  error_ = 0;
  krb5_creds wanted{};
  krb5_error_code code = krb5_cc_get_principal(context_, cache, &wanted.client);
  if (code != 0) return Explain(code);
  const KrbPrincipal client(wanted.client, {context_});
  code = krb5_build_principal(context_, &wanted.server, static_cast<unsigned>(realm_.size()),
                              realm_.c_str(), service, controller_.name.c_str(), nullptr);
  if (code != 0) return Explain(code);
  const KrbPrincipal server(wanted.server, {context_});
  krb5_creds* got = nullptr;
  code = krb5_get_credentials(context_, 0, cache, &wanted, &got);
  if (code != 0) return Explain(code);
  const KrbCredentials owned(got, {context_});
  return {};
}

Failure Kdc::GetRecipe(krb5_principal principal, const std::vector<krb5_enctype>& types,
                       KeyRecipe& recipe) {
  error_ = 0;
  krb5_get_init_creds_opt* options = nullptr;
  krb5_error_code code = krb5_get_init_creds_opt_alloc(context_, &options);
  if (code != 0) return Explain(code);
  const KrbInitOptions owned_options(options, {context_});
  std::vector<krb5_enctype> of_ours = types;
  krb5_get_init_creds_opt_set_etype_list(options, of_ours.data(), static_cast<int>(types.size()));
  krb5_data salt{};
  krb5_data parameters{};
  code = krb5_get_etype_info(context_, principal, options, &recipe.type, &salt, &parameters);
  if (code != 0) return Explain(code);
  const KrbContents owned_salt(&salt, {context_});
  const KrbContents owned_parameters(&parameters, {context_});
  // A KDC that has no such key may say so by nothing at all.
  if (std::find(types.begin(), types.end(), recipe.type) == types.end()) {
    return {Cause::kNoEncryptionType, "The KDC has no key of a type that was asked for"};
  }
  recipe.salt = View(salt);
  recipe.parameters = View(parameters);
  if (recipe.salt.size() > kLargestSalt || !IsModest(recipe.parameters)) {
    return {Cause::kProtocol, "The KDC's way to make keys is beyond measure"};
  }
  return {};
}

Failure Kdc::ChangePassword(krb5_ccache cache, const Secret& password, bool& is_unknown) {
  error_ = 0;
  is_unknown = false;
  krb5_creds wanted{};
  krb5_error_code code = krb5_cc_get_principal(context_, cache, &wanted.client);
  if (code != 0) return Explain(code);
  const KrbPrincipal client(wanted.client, {context_});
  code = krb5_build_principal(context_, &wanted.server, static_cast<unsigned>(realm_.size()),
                              realm_.c_str(), "kadmin", "changepw", nullptr);
  if (code != 0) return Explain(code);
  const KrbPrincipal server(wanted.server, {context_});
  krb5_creds* ticket = nullptr;
  code = krb5_get_credentials(context_, KRB5_GC_CACHED, cache, &wanted, &ticket);
  if (code != 0) return Explain(code);
  const KrbCredentials owned_ticket(ticket, {context_});

  krb5_auth_context auth = nullptr;
  code = krb5_auth_con_init(context_, &auth);
  if (code != 0) return Explain(code);
  const KrbAuth owned_auth(auth, {context_});
  krb5_auth_con_setflags(context_, auth, KRB5_AUTH_CONTEXT_DO_SEQUENCE);
  krb5_data request{};
  code = krb5_mk_req_extended(context_, &auth, AP_OPTS_USE_SUBKEY | AP_OPTS_MUTUAL_REQUIRED,
                              nullptr, ticket, &request);
  if (code != 0) return Explain(code);
  const KrbContents owned_request(&request, {context_});

  // A private message has to name its sender's address, which nobody looks at.
  krb5_octet anywhere[4] = {127, 0, 0, 1};
  krb5_address local{};
  local.addrtype = ADDRTYPE_INET;
  local.length = sizeof anywhere;
  local.contents = anywhere;
  code = krb5_auth_con_setaddrs(context_, auth, &local, nullptr);
  if (code != 0) return Explain(code);
  krb5_data text = Data(password.View());
  krb5_data sealed{};
  code = krb5_mk_priv(context_, auth, &text, &sealed, nullptr);
  if (code != 0) return Explain(code);
  const KrbContents owned_sealed(&sealed, {context_});

  constexpr std::size_t kHeader = 6;  // length, version and length of the AP-REQ
  constexpr std::size_t kVersion = 1;
  const std::string message = Bytes16(kHeader + request.length + sealed.length) +
                              Bytes16(kVersion) + Bytes16(request.length) +
                              std::string(View(request)) + std::string(View(sealed));
  Socket socket;
  const Deadline limit(std::min(deadline_.Left() / 2, kLongestConnect));
  if (!Connect(kPasswordPort, limit, socket)) return ConnectionFailure(errno);
  is_unknown = true;  // until the answer has been proven to be the service's
  std::string reply;
  if (!Exchange(socket, message, kLargestReply, reply)) return ConnectionFailure(errno);
  if (reply.size() < kHeader) return Nonsense();
  const std::size_t proof_size = Number16(reply, 4);
  // A refusal before anything could be proven has no AP-REP, or is a bare KRB-ERROR.
  if (proof_size == 0 || kHeader + proof_size > reply.size()) return Nonsense();
  const std::string_view whole = reply;
  krb5_data proof = Data(whole.substr(kHeader, proof_size));
  krb5_ap_rep_enc_part* proven = nullptr;
  code = krb5_rd_rep(context_, auth, &proof, &proven);
  if (code != 0) return {Cause::kNotTrusted, KrbMessage(context_, code)};
  krb5_free_ap_rep_enc_part(context_, proven);

  krb5_data answer = Data(whole.substr(kHeader + proof_size));
  // The sender's address is none that could be compared.
  code = krb5_auth_con_setaddrs(context_, auth, nullptr, nullptr);
  if (code != 0) return Explain(code);
  krb5_data content{};
  code = krb5_rd_priv(context_, auth, &answer, &content, nullptr);
  if (code != 0) return {Cause::kNotTrusted, KrbMessage(context_, code)};
  const KrbContents owned_content(&content, {context_});
  const std::string_view result = View(content);
  if (result.size() < 2) return Nonsense();
  is_unknown = false;
  const unsigned number = Number16(result, 0);
  if (number == KRB5_KPASSWD_SUCCESS) return {};
  char* words = nullptr;
  krb5_data rest = Data(result.substr(2));
  if (krb5_chpw_message(context_, &rest, &words) != 0) words = nullptr;
  const std::unique_ptr<char, KrbFree<krb5_free_string>> owned_words(words, {context_});
  const Cause cause = number == KRB5_KPASSWD_ACCESSDENIED ? Cause::kAccessDenied : Cause::kRefused;
  return {cause, "The password service refused (" + std::to_string(number) +
                     "): " + (words != nullptr ? words : "")};
}

krb5_error_code DeriveKey(krb5_context context, const Secret& password, const KeyRecipe& recipe,
                          MachineKey& key) {
  krb5_data text = Data(password.View());
  krb5_data salt = Data(recipe.salt);
  krb5_data parameters = Data(recipe.parameters);
  krb5_keyblock block{};
  const krb5_error_code code =
      krb5_c_string_to_key_with_params(context, recipe.type, &text, &salt,
                                       recipe.parameters.empty() ? nullptr : &parameters, &block);
  if (code != 0) return code;
  key.type = recipe.type;
  key.key = Secret({reinterpret_cast<const char*>(block.contents), block.length});
  krb5_free_keyblock_contents(context, &block);
  return 0;
}

}  // namespace tavrel::plus
