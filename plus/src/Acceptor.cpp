#include "tavrel/plus/Acceptor.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <mutex>
#include <type_traits>
#include <utility>

#include "ApRequest.h"
#include "Ascii.h"
#include "ChannelBinding.h"
#include "GssMic.h"
#include "KeyRing.h"
#include "KrbSession.h"
#include "KrbSupport.h"
#include "Log.h"
#include "Pac.h"
#include "ReplayCache.h"
#include "Secret.h"
#include "Spnego.h"

namespace tavrel::plus {
namespace {

const Logger logger("krb-acceptor");

constexpr std::int32_t kMostTolerance = 86400;
constexpr std::uint32_t kDceStyle = 0x1000;  // GSS_C_DCE_STYLE

using Ticket = std::unique_ptr<krb5_ticket, KrbFree<krb5_free_ticket>>;
using OwnedAuthenticator = std::unique_ptr<krb5_authenticator, KrbFree<krb5_free_authenticator>>;
using AuthDataList = std::unique_ptr<krb5_authdata*, KrbFree<krb5_free_authdata>>;
using OwnedData = std::unique_ptr<krb5_data, KrbFree<krb5_free_data_contents>>;

// The state of one exchange; empty until it is made.
class AuthContext {
 public:
  explicit AuthContext(krb5_context context) : context_(context) {}
  AuthContext(const AuthContext&) = delete;
  AuthContext& operator=(const AuthContext&) = delete;
  ~AuthContext() { Release(); }

  // A new one, in which `key` opens the ticket and nothing is looked up in a replay cache.
  krb5_error_code Renew(krb5_keyblock& key) {
    Release();
    if (const krb5_error_code code = krb5_auth_con_init(context_, &handle_)) return code;
    krb5_auth_con_setflags(context_, handle_, 0);
    return krb5_auth_con_setuseruserkey(context_, handle_, &key);
  }
  krb5_auth_context& Get() { return handle_; }

 private:
  void Release() {
    if (handle_ != nullptr) krb5_auth_con_free(context_, handle_);
    handle_ = nullptr;
  }

  krb5_context context_;
  krb5_auth_context handle_ = nullptr;
};

// A name that a peer chose, as a record and a refusal may show it.
std::string Cleaned(std::string_view name) {
  constexpr std::size_t kMost = 80;
  const bool cut = name.size() > kMost;
  std::string clean(name.substr(0, kMost));
  for (char& c : clean) {
    if (c < ' ' || c > '~' || c == '"' || c == '\\') c = '?';
  }
  return cut ? clean + "..." : clean;
}

std::string Cleaned(const Principal& principal) {
  std::string text;
  for (const std::string& component : principal.components) {
    text.append(text.empty() ? "" : "/").append(component);
  }
  return Cleaned(text + "@" + principal.realm);
}

// True when `allowed` names the service: its first component, or all of them.
bool Allows(const std::string& allowed, const Principal& service) {
  if (allowed == "*") return true;
  if (service.components.empty()) return false;
  if (allowed.find('/') == std::string::npos) {
    return SameIgnoringCase(allowed, service.components[0]);
  }
  std::string whole = service.components[0];
  for (std::size_t i = 1; i < service.components.size(); ++i) {
    if (service.components[i].find('/') != std::string::npos) return false;
    whole += "/" + service.components[i];
  }
  return service.components[0].find('/') == std::string::npos && SameIgnoringCase(allowed, whole);
}

std::int64_t Seconds(krb5_timestamp time) {
  return static_cast<std::uint32_t>(time);  // the library counts to 2106
}

// A ticket without a start begins when the user signed in.
std::int64_t StartOf(const krb5_enc_tkt_part& ticket) {
  return Seconds(ticket.times.starttime != 0 ? ticket.times.starttime : ticket.times.authtime);
}

krb5_data Data(std::string_view bytes) {
  return {0, static_cast<unsigned>(bytes.size()), const_cast<char*>(bytes.data())};  // only read
}

Principal ToPrincipal(krb5_const_principal principal) {
  Principal result;
  result.realm = View(principal->realm);
  for (krb5_int32 i = 0; i < principal->length; ++i) {
    result.components.emplace_back(View(principal->data[i]));
  }
  return result;
}

Refusal Because(RefusalReason reason, std::string text) {
  Refusal refusal;
  refusal.reason = reason;
  refusal.text = std::move(text);
  return refusal;
}

// One line, level 3: a user was refused.
void Record(const Refusal& refusal, Site site = Site::Here("Accept")) {
  logger.Warning({"Refused a token: ", site}, refusal.text, refusal.service.empty() ? "" : " for ",
                 refusal.service);
}

// One line, level 2: a user was accepted.
void Record(const Identity& identity, const std::string& service,
            Site site = Site::Here("Accept")) {
  logger.Notice({"Accepted ", site}, Cleaned(identity.client), " for ", service);
}

constexpr char kNoLibrary[] = "the Kerberos library cannot be set up";

std::string_view BytesOf(const krb5_keyblock& key) {
  return {reinterpret_cast<const char*>(key.contents), key.length};
}

// A key for the library, which only reads it.
krb5_keyblock Borrowed(std::string_view bytes, krb5_enctype enctype) {
  krb5_keyblock key{};
  key.enctype = enctype;
  key.length = static_cast<unsigned>(bytes.size());
  key.contents = reinterpret_cast<krb5_octet*>(const_cast<char*>(bytes.data()));
  return key;
}

Refusal OfToken(const InitialToken& token) {
  using Kind = InitialToken::Kind;
  switch (token.kind) {
    case Kind::kEmpty: return Because(RefusalReason::kNoToken, "no token");
    case Kind::kNothingSent:
      return Because(RefusalReason::kNoToken,
                     "the client offers Kerberos, but sent no token of it");
    case Kind::kNtlm:
      return Because(RefusalReason::kNtlm, "the client sent NTLM: it has no ticket for this name");
    case Kind::kOther: return Because(RefusalReason::kNotKerberos, "a token of another mechanism");
    default: return Because(RefusalReason::kMalformed, "neither SPNEGO nor Kerberos by the letter");
  }
}

// True when `key` opens the request's ticket.
bool Opens(krb5_context context, const krb5_keyblock& key, const ApRequest& request) {
  constexpr krb5_keyusage kTicket = 2;  // RFC 4120, 7.5.1
  Secret plain(request.ticket.size());
  krb5_data output{0, static_cast<unsigned>(plain.Size()), plain.Data()};
  krb5_enc_data sealed{};
  sealed.enctype = request.enctype;
  sealed.ciphertext = Data(request.ticket);
  return krb5_c_decrypt(context, &key, kTicket, nullptr, &sealed, &output) == 0;
}

// Why the library refuses a request whose ticket opens.
Refusal OfCode(krb5_context context, krb5_error_code code) {
  switch (code) {
    case KRB5KRB_AP_ERR_TKT_EXPIRED: return Because(RefusalReason::kExpired, "the ticket is over");
    case KRB5KRB_AP_ERR_TKT_NYV:
      return Because(RefusalReason::kNotYetValid, "the ticket has not begun");
    case KRB5KRB_AP_ERR_TKT_INVALID:
      return Because(RefusalReason::kNotYetValid, "the ticket is marked invalid");
    case KRB5KRB_AP_ERR_SKEW:
      return Because(RefusalReason::kClock, "the client's clock is years off");
    case KRB5_NOPERM_ETYPE:
      return Because(RefusalReason::kEnctype, "an encryption type that is not allowed");
    case KRB5KRB_AP_ERR_BAD_INTEGRITY:
    case KRB5KRB_AP_ERR_BADMATCH:
    case KRB5KRB_AP_ERR_BADADDR:
    case KRB5KRB_AP_ERR_ILL_CR_TKT:
    case KRB5KRB_AP_ERR_MODIFIED:
      return Because(RefusalReason::kNotGenuine, KrbMessage(context, code));
    case EINVAL:
    case ERANGE:  // the library looks at the PAC as well
      return Because(RefusalReason::kPacWrong, "the ticket's PAC: it cannot be parsed");
    case ENOMEM: return Because(RefusalReason::kInternal, KrbMessage(context, code));
    default: return Because(RefusalReason::kMalformed, KrbMessage(context, code));
  }
}

// The list of mechanisms is as the client made it.
std::optional<Refusal> CheckMic(krb5_context context, const krb5_keyblock& key,
                                std::uint32_t sequence, const InitialToken& token) {
  if (VerifyMic(context, key, sequence, token.mechanisms, *token.mic)) return std::nullopt;
  return Because(RefusalReason::kNotGenuine, "the mechListMIC is not of this list");
}

// The list of a ticket's or an authenticator's data of one type, those in AD-IF-RELEVANT included.
AuthDataList Find(krb5_context context, krb5_authdata* const* of_ticket,
                  krb5_authdata* const* of_request, krb5_authdatatype type) {
  krb5_authdata** found = nullptr;
  if (krb5_find_authdata(context, of_ticket, of_request, type, &found) != 0) found = nullptr;
  return AuthDataList(found, {context});
}

// True when the client says that it binds its tokens ([MS-KILE] 3.2.5.8): then one that names no
// channel was stripped of it, or came through none.
bool ClaimsToBind(krb5_context context, const krb5_authenticator& authenticator) {
  constexpr krb5_authdatatype kApOptions = 143;
  constexpr unsigned char kChannelBinding = 0x40;  // of the second byte
  const auto found = Find(context, nullptr, authenticator.authorization_data, kApOptions);
  const krb5_authdata* const first = found ? found.get()[0] : nullptr;
  return first != nullptr && first->length >= 4 && (first->contents[1] & kChannelBinding) != 0;
}

}  // namespace

struct Negotiation::State {
  std::string mechanisms;  // the client's list
  bool needs_mic = false;  // Kerberos was not its first choice, so both sides sign the list
  // When nothing but the client's signature is missing: who it is, and the key of the signature.
  std::optional<Identity> identity;
  Secret key;
  krb5_enctype enctype = 0;
  std::uint32_t sequence = 0;
};

Negotiation::Negotiation() = default;
Negotiation::Negotiation(Negotiation&& other) noexcept = default;
Negotiation& Negotiation::operator=(Negotiation&& other) noexcept = default;
Negotiation::~Negotiation() = default;

// What an acceptor has; the methods that decide are const, and all state is guarded.
struct Acceptor::Parts {
  // A session that one thread uses at a time.
  class Lease {
   public:
    explicit Lease(const Parts& parts);
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease();
    explicit operator bool() const { return session_ != nullptr; }
    krb5_context Context() const { return session_->Get(); }

   private:
    const Parts& parts_;
    std::unique_ptr<KrbSession> session_;
  };

  // What is known of a token on its way through.
  struct Exchange {
    Exchange(krb5_context context, const InitialToken& token, ApRequest request,
             Negotiation::State* negotiation)
        : context(context),
          token(token),
          request(std::move(request)),
          negotiation(negotiation),
          auth(context) {}
    bool NeedsMic() const { return negotiation != nullptr && negotiation->needs_mic; }
    // That of signatures of this context.
    const krb5_keyblock& Key() const {
      return authenticator->subkey != nullptr ? *authenticator->subkey
                                              : *ticket->enc_part2->session;
    }

    krb5_context context;
    const InitialToken& token;
    ApRequest request;
    Negotiation::State* negotiation;  // null: all is decided on this token
    AuthContext auth;
    krb5_keyblock key{};  // that opens the ticket, of a ring in `rings`
    KeyStore::Rings rings;
    Ticket ticket;
    OwnedAuthenticator authenticator;
    GssChecksum checksum;
    Identity identity;
    std::string reply;
  };

  std::optional<Refusal> Decide(Exchange& exchange, std::string_view channel) const;
  std::optional<Refusal> CheckRequest(const Exchange& exchange) const;
  std::optional<Refusal> OpenTicket(Exchange& exchange) const;
  std::optional<Refusal> OpenTicket(Exchange& exchange, const KeyRing& ring) const;
  static std::optional<Refusal> TakeAuthenticator(Exchange& exchange);
  std::optional<Refusal> CheckTimes(const Exchange& exchange) const;
  std::optional<Refusal> CheckSession(Exchange& exchange) const;
  std::optional<Refusal> CheckChannel(Exchange& exchange, std::string_view channel) const;
  std::optional<Refusal> CheckPac(Exchange& exchange) const;
  std::optional<Refusal> CheckReplay(const Exchange& exchange) const;
  static std::optional<Refusal> MakeReply(Exchange& exchange);
  static void Describe(Exchange& exchange);

  bool IsAllowed(krb5_enctype enctype) const {
    return std::find(options.enctypes.begin(), options.enctypes.end(), enctype) !=
           options.enctypes.end();
  }

  AcceptorOptions options;
  KrbOverrides overrides;
  std::unique_ptr<KeyStore> keys;
  std::unique_ptr<ReplayCache> replays;  // null: no protection

  mutable std::mutex lock;
  mutable std::vector<std::unique_ptr<KrbSession>> idle;
};

Acceptor::Parts::Lease::Lease(const Parts& parts) : parts_(parts) {
  {
    const std::lock_guard<std::mutex> guard(parts.lock);
    if (!parts.idle.empty()) {
      session_ = std::move(parts.idle.back());
      parts.idle.pop_back();
      return;
    }
  }
  std::string error;
  session_ = KrbSession::Make(parts.overrides, error);
}

Acceptor::Parts::Lease::~Lease() {
  if (session_ == nullptr) return;
  const std::lock_guard<std::mutex> guard(parts_.lock);
  parts_.idle.push_back(std::move(session_));
}

std::optional<Refusal> Acceptor::Parts::Decide(Exchange& exchange, std::string_view channel) const {
  std::optional<Refusal> refusal = CheckRequest(exchange);
  if (!refusal) refusal = OpenTicket(exchange);
  if (!refusal) refusal = CheckTimes(exchange);
  if (!refusal) refusal = CheckSession(exchange);
  if (!refusal) refusal = CheckChannel(exchange, channel);
  if (!refusal) refusal = CheckPac(exchange);
  // A token is remembered when nothing else speaks against it: others cannot fill the memory.
  if (!refusal) refusal = CheckReplay(exchange);
  if (!refusal) refusal = MakeReply(exchange);
  if (!refusal) Describe(exchange);
  return refusal;
}

// What can be judged without a key.
std::optional<Refusal> Acceptor::Parts::CheckRequest(const Exchange& exchange) const {
  const ApRequest& request = exchange.request;
  if ((request.options & kUseSessionKey) != 0) {
    return Because(RefusalReason::kMalformed, "the ticket is sealed with a session key");
  }
  if (!IsAllowed(request.enctype)) {
    return Because(RefusalReason::kEnctype, "the ticket's encryption type is not allowed");
  }
  const bool allowed =
      std::any_of(options.services.begin(), options.services.end(),
                  [&](const std::string& name) { return Allows(name, request.service); });
  if (!allowed) return Because(RefusalReason::kWrongService, "a ticket for another service");
  return std::nullopt;
}

// The rings of now are tried, then those of a file that changed since.
std::optional<Refusal> Acceptor::Parts::OpenTicket(Exchange& exchange) const {
  std::optional<Refusal> refusal;
  for (const bool missed : {false, true}) {
    exchange.rings = keys->Current(exchange.context, missed);
    for (const auto& ring : {exchange.rings.now, exchange.rings.before}) {
      if (!ring) continue;
      refusal = OpenTicket(exchange, *ring);
      if (!refusal || refusal->reason != RefusalReason::kNoKey) return refusal;
    }
  }
  return refusal;
}

std::optional<Refusal> Acceptor::Parts::OpenTicket(Exchange& exchange, const KeyRing& ring) const {
  const krb5_context context = exchange.context;
  const ApRequest& request = exchange.request;
  if (!SameIgnoringCase(request.service.realm, ring.Realm())) {
    return Because(RefusalReason::kWrongService, "a ticket for a service of another realm");
  }
  for (const KeyRing::Key* key : ring.Candidates(request.key_version, request.enctype)) {
    exchange.key = Borrowed(key->View(), request.enctype);
    if (const krb5_error_code code = exchange.auth.Renew(exchange.key); code != 0) {
      return Because(RefusalReason::kInternal, KrbMessage(context, code));
    }
    const krb5_data bytes = Data(request.whole);
    krb5_ticket* ticket = nullptr;
    const krb5_error_code code =
        krb5_rd_req(context, &exchange.auth.Get(), &bytes, nullptr, nullptr, nullptr, &ticket);
    exchange.ticket = Ticket(ticket, {context});
    if (code == 0) return TakeAuthenticator(exchange);
    if (code != KRB5KRB_AP_ERR_BAD_INTEGRITY || Opens(context, exchange.key, request)) {
      return OfCode(context, code);
    }
  }
  return Because(RefusalReason::kNoKey, "no key opens the ticket");
}

std::optional<Refusal> Acceptor::Parts::TakeAuthenticator(Exchange& exchange) {
  krb5_authenticator* authenticator = nullptr;
  const krb5_error_code code =
      krb5_auth_con_getauthenticator(exchange.context, exchange.auth.Get(), &authenticator);
  exchange.authenticator = OwnedAuthenticator(authenticator, {exchange.context});
  if (code == 0) return std::nullopt;
  return Because(RefusalReason::kInternal, KrbMessage(exchange.context, code));
}

std::optional<Refusal> Acceptor::Parts::CheckTimes(const Exchange& exchange) const {
  const auto off = [](RefusalReason reason, std::int64_t seconds, const char* text) {
    Refusal refusal = Because(reason, text);
    refusal.seconds = seconds;
    return refusal;
  };
  const krb5_enc_tkt_part& ticket = *exchange.ticket->enc_part2;
  const std::int64_t now = std::time(nullptr);
  const std::int64_t tolerance = options.clock_tolerance;
  const std::int64_t over = now - Seconds(ticket.times.endtime);
  if (over > tolerance) return off(RefusalReason::kExpired, over, "the ticket is over");
  const std::int64_t early = StartOf(ticket) - now;
  if (early > tolerance) {
    return off(RefusalReason::kNotYetValid, early, "the ticket has not begun");
  }
  const std::int64_t ahead = Seconds(exchange.authenticator->ctime) - now;
  if (ahead > tolerance || -ahead > tolerance) {
    return off(RefusalReason::kClock, ahead, "the client's clock is too far off");
  }
  return std::nullopt;
}

// What the client asks for, and with which keys.
std::optional<Refusal> Acceptor::Parts::CheckSession(Exchange& exchange) const {
  const krb5_enc_tkt_part& ticket = *exchange.ticket->enc_part2;
  const krb5_keyblock* const subkey = exchange.authenticator->subkey;
  for (const krb5_keyblock* key : {static_cast<const krb5_keyblock*>(ticket.session), subkey}) {
    if (key == nullptr || IsAllowed(key->enctype)) continue;
    Refusal refusal =
        Because(RefusalReason::kEnctype, "the session key's encryption type is not allowed");
    refusal.enctype = key->enctype;
    return refusal;
  }
  if (ticket.client->length == 0) {
    return Because(RefusalReason::kMalformed, "the ticket names no client");
  }
  const auto checksum = ReadGssChecksum(*exchange.authenticator);
  if (!checksum) return Because(RefusalReason::kMalformed, "a request without GSS-API's checksum");
  if ((checksum->flags & kDceStyle) != 0) {
    return Because(RefusalReason::kMalformed, "the client wants a third message (DCE style)");
  }
  exchange.checksum = *checksum;
  if (!exchange.token.mic && !exchange.NeedsMic()) return std::nullopt;
  if (!HasMic(exchange.Key())) {
    return Because(RefusalReason::kMalformed, "a mechListMIC of RC4");
  }
  if (!exchange.token.mic) return std::nullopt;
  return CheckMic(exchange.context, exchange.Key(),
                  static_cast<std::uint32_t>(exchange.authenticator->seq_number), exchange.token);
}

std::optional<Refusal> Acceptor::Parts::CheckChannel(Exchange& exchange,
                                                     std::string_view channel) const {
  if (options.channel_binding == ChannelBinding::kOff) return std::nullopt;
  const bool required = options.channel_binding == ChannelBinding::kRequired;
  const auto missing = [](const char* text) {
    return Because(RefusalReason::kChannelBindingMissing, text);
  };
  if (channel.empty()) {
    if (required) return missing("the channel that the token came through is not known");
    return std::nullopt;
  }
  if (exchange.checksum.channel == ChannelDigest{}) {
    if (required || ClaimsToBind(exchange.context, *exchange.authenticator)) {
      return missing("the client bound its token to no channel");
    }
    return std::nullopt;
  }
  const auto expected = DigestOf(exchange.context, channel);
  if (!expected) return Because(RefusalReason::kInternal, "no digest of the channel");
  if (exchange.checksum.channel != *expected) {
    return Because(RefusalReason::kChannelBindingWrong, "the token was made for another channel");
  }
  exchange.identity.channel_bound = true;
  return std::nullopt;
}

std::optional<Refusal> Acceptor::Parts::CheckPac(Exchange& exchange) const {
  const krb5_enc_tkt_part& ticket = *exchange.ticket->enc_part2;
  const auto found =
      Find(exchange.context, ticket.authorization_data, nullptr, KRB5_AUTHDATA_WIN2K_PAC);
  const krb5_authdata* const pac = found ? found.get()[0] : nullptr;
  if (pac == nullptr) {
    if (!options.require_pac) return std::nullopt;
    return Because(RefusalReason::kPacMissing, "the ticket has no PAC");
  }
  if (found.get()[1] != nullptr)
    return Because(RefusalReason::kPacWrong, "the ticket has two PACs");
  const krb5_data bytes{0, pac->length, reinterpret_cast<char*>(pac->contents)};
  const char* const wrong = ReadPac(exchange.context, bytes, ticket.client, ticket.times.authtime,
                                    exchange.key, exchange.identity.authorization.emplace());
  if (wrong == nullptr) return std::nullopt;
  return Because(RefusalReason::kPacWrong, std::string("the ticket's PAC: ") + wrong);
}

std::optional<Refusal> Acceptor::Parts::CheckReplay(const Exchange& exchange) const {
  if (replays == nullptr) return std::nullopt;
  const auto made = static_cast<std::uint32_t>(exchange.authenticator->ctime);
  switch (replays->Remember(exchange.request.authenticator, made)) {
    case ReplayCache::Verdict::kNew: return std::nullopt;
    case ReplayCache::Verdict::kSeen:
      return Because(RefusalReason::kReplay, "the token was accepted before");
    default: return Because(RefusalReason::kReplay, "the token may have been accepted before");
  }
}

std::optional<Refusal> Acceptor::Parts::MakeReply(Exchange& exchange) {
  const krb5_context context = exchange.context;
  const krb5_auth_context auth = exchange.auth.Get();
  krb5_data response{};
  auto sequence = static_cast<krb5_int32>(exchange.authenticator->seq_number);
  krb5_error_code code = 0;
  const bool mutual = (exchange.request.options & kMutualRequired) != 0;
  if (mutual) {
    krb5_auth_con_setflags(context, auth, KRB5_AUTH_CONTEXT_DO_SEQUENCE);
    code = krb5_mk_rep(context, auth, &response);
    if (code == 0) code = krb5_auth_con_getlocalseqnumber(context, auth, &sequence);
  }
  const OwnedData owned(&response, {context});
  if (code != 0) return Because(RefusalReason::kInternal, KrbMessage(context, code));

  std::string mic;
  if (exchange.token.mic || exchange.NeedsMic()) {
    const bool with_key = mutual && exchange.authenticator->subkey != nullptr;
    mic = MakeMic(context, exchange.Key(), with_key, static_cast<std::uint32_t>(sequence),
                  exchange.token.mechanisms);
    if (mic.empty()) return Because(RefusalReason::kInternal, "no mechListMIC can be made");
  }
  const bool complete = exchange.token.mic || !exchange.NeedsMic();
  exchange.reply = ReplyTo(exchange.token, View(response), mic,
                           complete ? NegotiationState::kCompleted : NegotiationState::kIncomplete);
  return std::nullopt;
}

void Acceptor::Parts::Describe(Exchange& exchange) {
  const krb5_enc_tkt_part& ticket = *exchange.ticket->enc_part2;
  Identity& identity = exchange.identity;
  identity.client = ToPrincipal(ticket.client);
  identity.service = std::move(exchange.request.service);
  identity.auth_time = Seconds(ticket.times.authtime);
  identity.start_time = StartOf(ticket);
  identity.end_time = Seconds(ticket.times.endtime);
  identity.ticket_enctype = exchange.request.enctype;
  identity.session_enctype = ticket.session->enctype;
  identity.key_version = exchange.request.key_version.value_or(0);
  identity.ticket_flags = static_cast<std::uint32_t>(ticket.flags);
  identity.gss_flags = exchange.checksum.flags;
}

std::unique_ptr<Acceptor> Acceptor::Make(AcceptorOptions options, std::string* error) {
  std::string unused;
  std::string& reason = error != nullptr ? *error : unused;
  const auto failed = [&](const char* text) {
    reason = text;
    return nullptr;
  };
  if (options.keytab.empty()) return failed("no keytab is named");
  if (options.services.empty()) return failed("no service is allowed");
  if (options.enctypes.empty()) return failed("no encryption type is allowed");
  if (options.clock_tolerance < 0 || options.clock_tolerance > kMostTolerance) {
    return failed("the clock tolerance is not 0 to 86400 seconds");
  }
  if (options.replay_protection && options.replay_file.empty()) {
    return failed("no replay file is named");
  }

  auto parts = std::make_unique<Parts>();
  parts->overrides = OverridesFor(options.enctypes);
  if (parts->overrides.enctypes.empty()) return failed("no encryption type is allowed");
  parts->keys =
      std::make_unique<KeyStore>(options.keytab, KeyFilter{options.principal, options.realm});
  auto session = KrbSession::Make(parts->overrides, reason);
  if (!session || !parts->keys->Open(session->Get(), reason)) return nullptr;
  parts->idle.push_back(std::move(session));
  if (options.replay_protection) {
    parts->replays = ReplayCache::Open(options.replay_file, options.replay_capacity, reason);
    if (!parts->replays) return nullptr;
  }
  parts->options = std::move(options);
  return std::unique_ptr<Acceptor>(new Acceptor(std::move(parts)));
}

Acceptor::Acceptor(std::unique_ptr<const Parts> parts) : parts_(std::move(parts)) {}

Acceptor::~Acceptor() = default;

Acceptance Acceptor::Accept(std::string_view token, std::string_view channel) const {
  return Judge(ReadInitialToken(token), channel, nullptr);
}

Acceptance Acceptor::Accept(std::string_view token, std::string_view channel,
                            Negotiation& negotiation) const {
  auto state = std::move(negotiation.state_);
  InitialToken read;
  Acceptance result;
  if (state != nullptr) {
    read = ReadLaterToken(token, state->mechanisms);
    result = state->identity ? Finish(read, *state) : Judge(read, channel, state.get());
  } else {
    read = ReadInitialToken(token);
    if (read.kind == InitialToken::Kind::kKerberos || read.mechanism.empty()) {
      return Judge(read, channel, nullptr);
    }
    state = std::make_unique<Negotiation::State>();
    state->mechanisms = read.mechanisms;
    state->needs_mic = read.kind != InitialToken::Kind::kNothingSent;
    result.refusal = Because(RefusalReason::kUnfinished, "the client is asked for Kerberos");
    result.reply =
        ReplyTo(read, "", "",
                state->needs_mic ? NegotiationState::kRequestMic : NegotiationState::kIncomplete);
  }
  const bool goes_on = result.refusal && result.refusal->reason == RefusalReason::kUnfinished;
  if (goes_on) negotiation.state_ = std::move(state);
  return result;
}

// Nothing but the client's signature of its list was missing.
Acceptance Acceptor::Finish(const InitialToken& token, Negotiation::State& negotiation) const {
  Acceptance result;
  const Parts::Lease lease(*parts_);
  if (!lease) {
    result.refusal = Because(RefusalReason::kInternal, kNoLibrary);
  } else if (token.kind != InitialToken::Kind::kNothingSent || !token.mic) {
    result.refusal = Because(RefusalReason::kMalformed, "a token in place of a mechListMIC");
  } else {
    const krb5_keyblock key = Borrowed(negotiation.key.View(), negotiation.enctype);
    result.refusal = CheckMic(lease.Context(), key, negotiation.sequence, token);
  }
  const std::string service = Cleaned(negotiation.identity->service);
  if (result.refusal) {
    result.refusal->service = service;
    Record(*result.refusal);
    return result;
  }
  result.identity = std::move(negotiation.identity);
  Record(*result.identity, service);
  return result;
}

// Decides on a token that is to have a request; with `negotiation`, on a later one.
Acceptance Acceptor::Judge(const InitialToken& token, std::string_view channel,
                           Negotiation::State* negotiation) const {
  Acceptance result;
  if (token.kind != InitialToken::Kind::kKerberos) {
    result.refusal = OfToken(token);
    Record(*result.refusal);
    return result;
  }
  auto request = ReadApRequest(token.request);
  if (!request) {
    result.refusal = Because(RefusalReason::kMalformed, "no Kerberos request by the letter");
    Record(*result.refusal);
    return result;
  }
  const std::string service = Cleaned(request->service);
  const std::int32_t enctype = request->enctype;
  const auto key_version = request->key_version;

  const Parts::Lease lease(*parts_);
  if (!lease) {
    result.refusal = Because(RefusalReason::kInternal, kNoLibrary);
    Record(*result.refusal);
    return result;
  }
  Parts::Exchange exchange(lease.Context(), token, std::move(*request), negotiation);
  result.refusal = parts_->Decide(exchange, channel);
  if (result.refusal) {
    result.refusal->service = service;
    result.refusal->key_version = key_version;
    if (!result.refusal->enctype) result.refusal->enctype = enctype;
    Record(*result.refusal);
    return result;
  }
  result.reply = std::move(exchange.reply);
  if (exchange.NeedsMic() && !token.mic) {
    negotiation->identity = std::move(exchange.identity);
    negotiation->key = Secret(BytesOf(exchange.Key()));
    negotiation->enctype = exchange.Key().enctype;
    negotiation->sequence = static_cast<std::uint32_t>(exchange.authenticator->seq_number);
    result.refusal = Because(RefusalReason::kUnfinished, "the client is to sign its list");
    return result;
  }
  result.identity = std::move(exchange.identity);
  Record(*result.identity, service);
  return result;
}

const char* Name(RefusalReason reason) {
  constexpr const char* kNames[] = {"no-token",
                                    "ntlm",
                                    "not-kerberos",
                                    "malformed",
                                    "no-key",
                                    "enctype",
                                    "wrong-service",
                                    "not-genuine",
                                    "expired",
                                    "not-yet-valid",
                                    "clock",
                                    "replay",
                                    "channel-binding-missing",
                                    "channel-binding-wrong",
                                    "pac-missing",
                                    "pac-wrong",
                                    "unfinished",
                                    "internal"};
  static_assert(std::size(kNames) == static_cast<std::size_t>(RefusalReason::kInternal) + 1);
  return kNames[static_cast<std::size_t>(reason)];
}

}  // namespace tavrel::plus
