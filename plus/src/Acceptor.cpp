#include "tavrel/plus/Acceptor.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <list>
#include <mutex>
#include <type_traits>
#include <utility>

#include "ApRequest.h"
#include "Ascii.h"
#include "ChannelBinding.h"
#include "GssMic.h"
#include "KeyRing.h"
#include "KnownTickets.h"
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

constexpr krb5_keyusage kTicketUse = 2;  // RFC 4120, 7.5.1
constexpr krb5_keyusage kAuthenticatorUse = 11;
constexpr krb5_keyusage kReplyUse = 12;

using AuthContext =
    std::unique_ptr<std::remove_pointer_t<krb5_auth_context>, KrbFree<krb5_auth_con_free>>;
using OwnedTicket = std::unique_ptr<krb5_ticket, KrbFree<krb5_free_ticket>>;

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

krb5_data Data(std::string_view bytes) {
  return {0, static_cast<unsigned>(bytes.size()), const_cast<char*>(bytes.data())};  // only read
}

// A name for the library, which only reads it.
class BorrowedPrincipal {
 public:
  BorrowedPrincipal(const Principal& name, std::int32_t type) {
    for (const std::string& component : name.components) {
      components_.push_back(Data(component));
    }
    principal_.type = type;
    principal_.realm = Data(name.realm);
    principal_.data = components_.data();
    principal_.length = static_cast<krb5_int32>(components_.size());
  }
  BorrowedPrincipal(const BorrowedPrincipal&) = delete;
  BorrowedPrincipal& operator=(const BorrowedPrincipal&) = delete;

  krb5_const_principal Get() const { return &principal_; }

 private:
  std::vector<krb5_data> components_;
  krb5_principal_data principal_{};
};

Refusal Because(RefusalReason reason, std::string text) {
  Refusal refusal;
  refusal.reason = reason;
  refusal.text = std::move(text);
  return refusal;
}

// Likewise, because of a time that is off by so much.
Refusal Off(RefusalReason reason, std::int64_t seconds, const char* text) {
  Refusal refusal = Because(reason, text);
  refusal.seconds = seconds;
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

// Opens what `key` sealed for that use.
krb5_error_code Unseal(krb5_context context, krb5_key key, krb5_keyusage use, krb5_enctype enctype,
                       std::string_view ciphertext, Secret& bytes, std::string_view& plain) {
  bytes = Secret(ciphertext.size());
  krb5_data output{0, static_cast<unsigned>(bytes.Size()), bytes.Data()};
  krb5_enc_data sealed{};
  sealed.enctype = enctype;
  sealed.ciphertext = Data(ciphertext);
  const krb5_error_code code = krb5_k_decrypt(context, key, use, nullptr, &sealed, &output);
  if (code == 0) plain = View(output);
  return code;
}

// True when `key` is as long as those of its type, which the library knows.
bool Fits(krb5_context context, const SealedKey& key) {
  std::size_t random_bytes = 0;
  std::size_t size = 0;
  return krb5_c_keylengths(context, key.enctype, &random_bytes, &size) == 0 &&
         size == key.bytes.size();
}

Refusal OfNoPermission(const SealedKey& key) {
  Refusal refusal =
      Because(RefusalReason::kEnctype, "the session key's encryption type is not allowed");
  refusal.enctype = key.enctype;
  return refusal;
}

// The list of mechanisms is as the client made it.
std::optional<Refusal> CheckMic(krb5_context context, const krb5_keyblock& key,
                                std::uint32_t sequence, const InitialToken& token) {
  if (VerifyMic(context, key, sequence, token.mechanisms, *token.mic)) return std::nullopt;
  return Because(RefusalReason::kNotGenuine, "the mechListMIC is not of this list");
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
  // What one thread at a time uses.
  struct Worker {
    std::unique_ptr<KrbSession> session;
    ReadyKeys keys;
    KnownTickets tickets;
  };
  class Lease {
   public:
    explicit Lease(const Parts& parts);
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease();
    explicit operator bool() const { return worker_.front().session != nullptr; }
    krb5_context Context() const { return worker_.front().session->Get(); }
    ReadyKeys& Keys() { return worker_.front().keys; }
    KnownTickets& Tickets() { return worker_.front().tickets; }

   private:
    const Parts& parts_;
    std::list<Worker> worker_;  // one, whose return needs no memory
  };

  // What is known of a token on its way through.
  struct Exchange {
    Exchange(Lease& lease, const InitialToken& token, ApRequest request,
             Negotiation::State* negotiation)
        : lease(lease),
          context(lease.Context()),
          token(token),
          request(std::move(request)),
          negotiation(negotiation) {}
    bool NeedsMic() const { return negotiation != nullptr && negotiation->needs_mic; }
    const OpenedTicket& Ticket() const { return known != nullptr ? *known : opened; }
    // That of signatures of this context.
    const SealedKey& KeyOfContext() const {
      return authenticator.subkey ? *authenticator.subkey : Ticket().part.session;
    }
    krb5_keyblock Key() const { return Borrowed(KeyOfContext().bytes, KeyOfContext().enctype); }

    Lease& lease;
    krb5_context context;
    const InitialToken& token;
    ApRequest request;
    Negotiation::State* negotiation;      // null: all is decided on this token
    const OpenedTicket* known = nullptr;  // the ticket, one of the lease's; null: it is `opened`
    std::shared_ptr<const KeyRing> ring;  // that opened it
    OpenedTicket opened;
    Secret authenticator_bytes;
    Authenticator authenticator;
    GssChecksum checksum;
    Identity identity;
    std::string reply;
  };

  std::optional<Refusal> Decide(Exchange& exchange, std::string_view channel) const;
  std::optional<Refusal> CheckRequest(const Exchange& exchange) const;
  std::optional<Refusal> OpenTicket(Exchange& exchange) const;
  std::optional<Refusal> OpenTicket(Exchange& exchange,
                                    const std::shared_ptr<const KeyRing>& ring) const;
  std::optional<Refusal> ReadTicket(Exchange& exchange, std::string_view plain) const;
  static std::optional<Refusal> MakeSessionKey(Exchange& exchange);
  std::optional<Refusal> OpenAuthenticator(Exchange& exchange) const;
  std::optional<Refusal> CheckEnd(std::int64_t end_time) const;
  std::optional<Refusal> CheckTimes(const Exchange& exchange) const;
  std::optional<Refusal> CheckSession(Exchange& exchange) const;
  std::optional<Refusal> CheckChannel(Exchange& exchange, std::string_view channel) const;
  std::optional<Refusal> CheckPac(Exchange& exchange) const;
  static std::optional<Refusal> AskLibrary(Exchange& exchange);
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
  mutable std::list<Worker> idle;
};

Acceptor::Parts::Lease::Lease(const Parts& parts) : parts_(parts) {
  {
    const std::lock_guard<std::mutex> guard(parts.lock);
    if (!parts.idle.empty()) {
      worker_.splice(worker_.begin(), parts.idle, parts.idle.begin());
      return;
    }
  }
  std::string error;
  worker_.push_back(
      {KrbSession::Make(parts.overrides, error), {}, KnownTickets(parts.options.ticket_memory)});
}

Acceptor::Parts::Lease::~Lease() {
  if (!*this) return;
  const std::lock_guard<std::mutex> guard(parts_.lock);
  parts_.idle.splice(parts_.idle.begin(), worker_);
}

std::optional<Refusal> Acceptor::Parts::Decide(Exchange& exchange, std::string_view channel) const {
  std::optional<Refusal> refusal = CheckRequest(exchange);
  if (!refusal) refusal = OpenTicket(exchange);
  if (!refusal) refusal = OpenAuthenticator(exchange);
  if (!refusal) refusal = CheckTimes(exchange);
  if (!refusal) refusal = CheckSession(exchange);
  if (!refusal) refusal = CheckChannel(exchange, channel);
  if (!refusal) refusal = CheckPac(exchange);
  if (!refusal) refusal = AskLibrary(exchange);
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
    const KeyStore::Rings rings = keys->Current(exchange.context, missed);
    exchange.known = exchange.lease.Tickets().Find(rings.now, exchange.request.whole_ticket);
    if (exchange.known != nullptr) return std::nullopt;
    for (const auto& ring : {rings.now, rings.before}) {
      if (!ring) continue;
      refusal = OpenTicket(exchange, ring);
      if (!refusal || refusal->reason != RefusalReason::kNoKey) return refusal;
    }
  }
  return refusal;
}

std::optional<Refusal> Acceptor::Parts::OpenTicket(
    Exchange& exchange, const std::shared_ptr<const KeyRing>& ring) const {
  const ApRequest& request = exchange.request;
  if (!SameIgnoringCase(request.service.realm, ring->Realm())) {
    return Because(RefusalReason::kWrongService, "a ticket for a service of another realm");
  }
  for (const KeyRing::Key* key : ring->Candidates(request.key_version, request.enctype)) {
    const krb5_key ready = exchange.lease.Keys().Get(exchange.context, ring, *key, request.enctype);
    std::string_view plain;
    const krb5_error_code code = ready == nullptr
                                     ? ENOMEM
                                     : Unseal(exchange.context, ready, kTicketUse, request.enctype,
                                              request.ticket, exchange.opened.bytes, plain);
    if (code == ENOMEM)
      return Because(RefusalReason::kInternal, KrbMessage(exchange.context, code));
    if (code != 0) continue;
    exchange.ring = ring;
    exchange.opened.key = Borrowed(key->View(), request.enctype);
    return ReadTicket(exchange, plain);
  }
  return Because(RefusalReason::kNoKey, "no key opens the ticket");
}

std::optional<Refusal> Acceptor::Parts::ReadTicket(Exchange& exchange,
                                                   std::string_view plain) const {
  auto ticket = ReadTicketPart(plain);
  if (!ticket) return Because(RefusalReason::kMalformed, "the ticket is not by the letter");
  if ((ticket->flags & TKT_FLG_INVALID) != 0) {
    return Because(RefusalReason::kNotYetValid, "the ticket is marked invalid");
  }
  if (!IsAllowed(ticket->session.enctype)) return OfNoPermission(ticket->session);
  if (ticket->client.components.empty() || (ticket->flags & TKT_FLG_ANONYMOUS) != 0) {
    return Because(RefusalReason::kMalformed, "the ticket names no client");
  }
  exchange.opened.part = std::move(*ticket);
  return MakeSessionKey(exchange);
}

std::optional<Refusal> Acceptor::Parts::MakeSessionKey(Exchange& exchange) {
  const krb5_context context = exchange.context;
  const SealedKey& session = exchange.opened.part.session;
  if (!Fits(context, session)) {
    return Because(RefusalReason::kMalformed, "the session key is not as long as its type is");
  }
  const krb5_keyblock block = Borrowed(session.bytes, session.enctype);
  krb5_key key = nullptr;
  const krb5_error_code code = krb5_k_create_key(context, &block, &key);
  if (code != 0) return Because(RefusalReason::kInternal, KrbMessage(context, code));
  exchange.opened.session_key = KrbKey(key, {context});
  return std::nullopt;
}

std::optional<Refusal> Acceptor::Parts::OpenAuthenticator(Exchange& exchange) const {
  const krb5_context context = exchange.context;
  std::string_view plain;
  const krb5_error_code code =
      Unseal(context, exchange.Ticket().session_key.get(), kAuthenticatorUse,
             exchange.request.authenticator_enctype, exchange.request.authenticator,
             exchange.authenticator_bytes, plain);
  if (code == ENOMEM) return Because(RefusalReason::kInternal, KrbMessage(context, code));
  if (code != 0) {
    return Because(RefusalReason::kNotGenuine,
                   "the authenticator is not sealed with the ticket's session key");
  }
  auto authenticator = ReadAuthenticator(plain);
  if (!authenticator) {
    return Because(RefusalReason::kMalformed, "the authenticator is not by the letter");
  }
  const Principal& client = exchange.Ticket().part.client;
  if (authenticator->client.realm != client.realm ||
      authenticator->client.components != client.components) {
    return Because(RefusalReason::kNotGenuine, "ticket and authenticator name two clients");
  }
  if (authenticator->subkey) {
    if (!IsAllowed(authenticator->subkey->enctype)) return OfNoPermission(*authenticator->subkey);
    if (!Fits(context, *authenticator->subkey)) {
      return Because(RefusalReason::kMalformed, "the subkey is not as long as its type is");
    }
  }
  exchange.authenticator = std::move(*authenticator);
  return std::nullopt;
}

std::optional<Refusal> Acceptor::Parts::CheckEnd(std::int64_t end_time) const {
  const std::int64_t over = std::time(nullptr) - end_time;
  if (over <= options.clock_tolerance) return std::nullopt;
  return Off(RefusalReason::kExpired, over, "the ticket is over");
}

std::optional<Refusal> Acceptor::Parts::CheckTimes(const Exchange& exchange) const {
  if (auto over = CheckEnd(exchange.Ticket().part.end_time)) return over;
  const std::int64_t now = std::time(nullptr);
  const std::int64_t tolerance = options.clock_tolerance;
  const std::int64_t early = exchange.Ticket().part.start_time - now;
  if (early > tolerance) {
    return Off(RefusalReason::kNotYetValid, early, "the ticket has not begun");
  }
  const std::int64_t ahead = exchange.authenticator.made - now;
  if (ahead > tolerance || -ahead > tolerance) {
    return Off(RefusalReason::kClock, ahead, "the client's clock is too far off");
  }
  return std::nullopt;
}

// What the client asks for.
std::optional<Refusal> Acceptor::Parts::CheckSession(Exchange& exchange) const {
  const Authenticator& authenticator = exchange.authenticator;
  const auto checksum = authenticator.checksum_type == kGssChecksumType
                            ? ReadGssChecksum(authenticator.checksum)
                            : std::nullopt;
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
  return CheckMic(exchange.context, exchange.Key(), authenticator.sequence, exchange.token);
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
    // Whoever binds tokens, but not this one, was stripped of the channel, or came through none.
    if (required || exchange.authenticator.data.binds_channel) {
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
  if (exchange.known != nullptr) return std::nullopt;
  const TicketPart& ticket = exchange.opened.part;
  const auto& pacs = ticket.data.pacs;
  if (pacs.empty()) {
    if (!options.require_pac) return std::nullopt;
    return Because(RefusalReason::kPacMissing, "the ticket has no PAC");
  }
  if (pacs.size() > 1) return Because(RefusalReason::kPacWrong, "the ticket has two PACs");
  const BorrowedPrincipal client(ticket.client, ticket.client_type);
  const char* const wrong = ReadPac(exchange.context, Data(pacs[0]), client.Get(),
                                    static_cast<krb5_timestamp>(ticket.auth_time),
                                    exchange.opened.key, exchange.opened.authorization.emplace());
  if (wrong == nullptr) return std::nullopt;
  return Because(RefusalReason::kPacWrong, std::string("the ticket's PAC: ") + wrong);
}

// What the library alone can judge: the way through other realms, and authorization data that is
// not read here.
std::optional<Refusal> Acceptor::Parts::AskLibrary(Exchange& exchange) {
  const AuthData& of_request = exchange.authenticator.data;
  const TicketPart& part = exchange.Ticket().part;
  if (part.data.critical || of_request.critical) {
    return Because(RefusalReason::kMalformed, "authorization data that has to be understood");
  }
  if (part.transited.empty() && !part.data.others && !of_request.others &&
      of_request.pacs.empty()) {
    return std::nullopt;
  }
  const krb5_context context = exchange.context;
  krb5_auth_context auth = nullptr;
  krb5_error_code code = krb5_auth_con_init(context, &auth);
  AuthContext owned(auth, {context});
  if (code == 0) code = krb5_auth_con_setflags(context, auth, 0);  // no replay cache
  krb5_keyblock key = exchange.Ticket().key;
  if (code == 0) code = krb5_auth_con_setuseruserkey(context, auth, &key);
  krb5_ticket* ticket = nullptr;
  if (code == 0) {
    const krb5_data bytes = Data(exchange.request.whole);
    code = krb5_rd_req(context, &auth, &bytes, nullptr, nullptr, nullptr, &ticket);
  }
  const OwnedTicket owned_ticket(ticket, {context});
  switch (code) {
    case 0: return std::nullopt;
    case ENOMEM: return Because(RefusalReason::kInternal, KrbMessage(context, code));
    case KRB5KRB_AP_ERR_ILL_CR_TKT:
      return Because(RefusalReason::kNotGenuine, KrbMessage(context, code));
    default: return Because(RefusalReason::kMalformed, KrbMessage(context, code));
  }
}

std::optional<Refusal> Acceptor::Parts::CheckReplay(const Exchange& exchange) const {
  if (replays == nullptr) return std::nullopt;
  const auto made = static_cast<std::uint32_t>(exchange.authenticator.made);
  switch (replays->Remember(exchange.request.authenticator, made)) {
    case ReplayCache::Verdict::kNew: return std::nullopt;
    case ReplayCache::Verdict::kSeen:
      return Because(RefusalReason::kReplay, "the token was accepted before");
    default: return Because(RefusalReason::kReplay, "the token may have been accepted before");
  }
}

std::optional<Refusal> Acceptor::Parts::MakeReply(Exchange& exchange) {
  const krb5_context context = exchange.context;
  const Authenticator& authenticator = exchange.authenticator;
  std::uint32_t sequence = authenticator.sequence;
  std::string response;
  const bool mutual = (exchange.request.options & kMutualRequired) != 0;
  if (mutual) {
    const OpenedTicket& ticket = exchange.Ticket();
    const std::int32_t enctype = ticket.part.session.enctype;
    std::size_t size = 0;
    if (getrandom(&sequence, sizeof sequence, 0) != ssize_t{sizeof sequence}) {
      return Because(RefusalReason::kInternal, "no random number");
    }
    sequence = sequence >> 2U | 1U << 30U;
    const Secret part = ReplyPart(authenticator, sequence);
    const krb5_data plain = Data(part.View());
    krb5_error_code code = krb5_c_encrypt_length(context, enctype, part.Size(), &size);
    std::string bytes(size, '\0');
    krb5_enc_data sealed{};
    sealed.ciphertext = Data(bytes);
    if (code == 0) {
      code = krb5_k_encrypt(context, ticket.session_key.get(), kReplyUse, nullptr, &plain, &sealed);
    }
    if (code != 0) return Because(RefusalReason::kInternal, KrbMessage(context, code));
    response = ApReply(enctype, bytes);
  }

  std::string mic;
  if (exchange.token.mic || exchange.NeedsMic()) {
    const bool with_key = mutual && authenticator.subkey;
    mic = MakeMic(context, exchange.Key(), with_key, sequence, exchange.token.mechanisms);
    if (mic.empty()) return Because(RefusalReason::kInternal, "no mechListMIC can be made");
  }
  const bool complete = exchange.token.mic || !exchange.NeedsMic();
  exchange.reply = ReplyTo(exchange.token, response, mic,
                           complete ? NegotiationState::kCompleted : NegotiationState::kIncomplete);
  return std::nullopt;
}

void Acceptor::Parts::Describe(Exchange& exchange) {
  const TicketPart& ticket = exchange.Ticket().part;
  Identity& identity = exchange.identity;
  identity.client = ticket.client;
  identity.authorization = exchange.Ticket().authorization;
  identity.service = std::move(exchange.request.service);
  identity.auth_time = ticket.auth_time;
  identity.start_time = ticket.start_time;
  identity.end_time = ticket.end_time;
  identity.ticket_enctype = exchange.request.enctype;
  identity.session_enctype = ticket.session.enctype;
  identity.key_version = exchange.request.key_version.value_or(0);
  identity.ticket_flags = ticket.flags;
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
  parts->idle.push_back({std::move(session), {}, KnownTickets(options.ticket_memory)});
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
    if (!result.refusal) result.refusal = parts_->CheckEnd(negotiation.identity->end_time);
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

  Parts::Lease lease(*parts_);
  if (!lease) {
    result.refusal = Because(RefusalReason::kInternal, kNoLibrary);
    Record(*result.refusal);
    return result;
  }
  Parts::Exchange exchange(lease, token, std::move(*request), negotiation);
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
    negotiation->key = Secret(exchange.KeyOfContext().bytes);
    negotiation->enctype = exchange.KeyOfContext().enctype;
    negotiation->sequence = exchange.authenticator.sequence;
    result.refusal = Because(RefusalReason::kUnfinished, "the client is to sign its list");
    return result;
  }
  result.identity = std::move(exchange.identity);
  if (exchange.known == nullptr) {
    lease.Tickets().Keep(exchange.ring, exchange.request.whole_ticket, std::move(exchange.opened));
  }
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
