/// @file
/// Accepts the Kerberos tokens of users: from a token to an identity, or to the reason of a
/// refusal.
#ifndef TAVREL_PLUS_ACCEPTOR_H
#define TAVREL_PLUS_ACCEPTOR_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavrel/Export.h"
#include "tavrel/plus/Identity.h"

namespace tavrel::plus {

struct InitialToken;

/// Encryption types by their number (RFC 3961, RFC 8009, RFC 4757).
inline constexpr std::int32_t kAes128Sha1 = 17;
inline constexpr std::int32_t kAes256Sha1 = 18;
inline constexpr std::int32_t kAes128Sha256 = 19;
inline constexpr std::int32_t kAes256Sha384 = 20;
inline constexpr std::int32_t kRc4 = 23;

/// Whether a token must come through the channel that it was made for.
enum class ChannelBinding {
  kOff,               ///< never looked at
  kCheckedIfOffered,  ///< a client that binds its token must name the channel given to Accept()
  kRequired,          ///< every client must
};

/// How an Acceptor decides. What is left alone is the safe choice.
struct AcceptorOptions {
  std::string keytab;  ///< path of the keytab; no default

  /// The principal whose keys count, with or without realm; empty: all of the keytab.
  std::string principal;
  /// The realm of the service; empty: that of `principal`, or of the keytab's first entry.
  std::string realm;

  /// Services that a ticket may be for: `HTTP` for any host name, `HTTP/www.example.com` for one,
  /// `*` for whatever the keys open. Case is ignored.
  std::vector<std::string> services = {"HTTP"};

  ChannelBinding channel_binding = ChannelBinding::kCheckedIfOffered;

  /// A ticket must have a PAC: without one there are no groups.
  bool require_pac = true;

  /// Encryption types that a ticket and its session key may have.
  std::vector<std::int32_t> enctypes = {kAes256Sha1, kAes128Sha1, kAes256Sha384, kAes128Sha256};

  /// Seconds that the client's clock may be off, and a ticket be over or not begun; 0 to 86400.
  std::int32_t clock_tolerance = 300;

  /// Refuse a token that was accepted before.
  bool replay_protection = true;
  /// The file that remembers accepted tokens, made when there is none. Its folder must exist and be
  /// this user's alone. Acceptors that share a key share it, whichever process they are in; it has
  /// to outlive them. Not used without replay_protection.
  std::string replay_file;
  /// Tokens that a new replay file has room for, at 8 bytes each; rounded up to a power of 2, at
  /// least 1,024. A quarter of it should hold the tokens of twice clock_tolerance.
  std::size_t replay_capacity = 1U << 20U;

  /// Bytes, about, in which each of the threads that accept at once keeps the tickets it accepted
  /// last. The next token of one takes about a quarter of the time: what the ticket says is known,
  /// what the token says, and the times, are checked as always. A change of the keytab's keys
  /// forgets all. 0: none is kept.
  std::size_t ticket_memory = 1U << 20U;
};

/// Why a token was refused.
enum class RefusalReason {
  kNoToken,                ///< nothing was presented
  kNtlm,                   ///< NTLM: the client has no ticket for this name
  kNotKerberos,            ///< a mechanism that is not Kerberos
  kMalformed,              ///< neither SPNEGO nor Kerberos by the letter, or a ticket of nobody
  kNoKey,                  ///< no key opens the ticket
  kEnctype,                ///< of the ticket or of its session key: not allowed
  kWrongService,           ///< a ticket for a service that is not allowed, or of another realm
  kNotGenuine,             ///< ticket and authenticator do not belong together
  kExpired,                ///< the ticket is over
  kNotYetValid,            ///< the ticket has not begun
  kClock,                  ///< the client's clock is too far off
  kReplay,                 ///< the token was accepted before, or may have been
  kChannelBindingMissing,  ///< the client did not bind its token, or the caller named no channel
  kChannelBindingWrong,    ///< the token was made for another channel
  kPacMissing,             ///< the ticket has no PAC
  kPacWrong,               ///< not signed with the service's key, of another user, or out of bounds
  kUnfinished,             ///< not decided: the client is to send another token (Negotiation)
  kInternal,               ///< of this machine: memory, files, the Kerberos library
};

/// The reason by its name in small letters, `channel-binding-missing` for example.
TAVREL_EXPORT const char* Name(RefusalReason reason);

/// A refusal, and what a person needs to know to mend it.
struct Refusal {
  RefusalReason reason = RefusalReason::kNoToken;
  std::string text;  ///< one line; no bytes of the peer's but a cleaned name
  std::optional<std::uint32_t> key_version;  ///< that the ticket asks for
  std::optional<std::int32_t>
      enctype;          ///< of the ticket; with kEnctype the one that is not allowed
  std::string service;  ///< that the ticket is for, cleaned; empty when not known
  /// With kExpired since the end, with kNotYetValid until the start, with kClock how far the
  /// client's clock is ahead of this one (behind: negative); otherwise 0.
  std::int64_t seconds = 0;
};

/// What became of a token: exactly one of `identity` and `refusal`.
struct Acceptance {
  std::optional<Identity> identity;
  std::optional<Refusal> refusal;
  /// To be sent to the client with the answer, when not empty: it completes the negotiation or goes
  /// on with it, and proves this service to a client that asked for that.
  std::string reply;

  explicit operator bool() const { return identity.has_value(); }
};

/// What is kept between the tokens of one client when its negotiation takes several (RFC 4178): it
/// prefers another mechanism to Kerberos, or sent no token with its list. One connection has one,
/// and one thread at a time uses it.
class TAVREL_EXPORT Negotiation {
 public:
  Negotiation();
  Negotiation(Negotiation&& other) noexcept;
  Negotiation& operator=(Negotiation&& other) noexcept;
  ~Negotiation();

 private:
  friend class Acceptor;
  struct State;
  std::unique_ptr<State> state_;  // null: the next token is a first one
};

/// Accepts users by the keys of a keytab. It needs no network and no administrator, and writes the
/// replay file alone. One object serves all threads. It says who signs in, and leaves nothing else:
/// no context that seals messages, no credentials that the client delegated.
///
/// The keytab is read when the acceptor is made and again when the file changes; while a
/// replacement is not whole, the keys read before stay in use. Nothing is thrown for what a peer
/// sends; std::bad_alloc passes.
class TAVREL_EXPORT Acceptor {
 public:
  /// @param error receives what is wrong when nothing is returned: a keytab that cannot be read or
  /// has no key that counts, a replay file that cannot be used, an option out of range
  static std::unique_ptr<Acceptor> Make(AcceptorOptions options, std::string* error);

  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;
  ~Acceptor();

  /// Decides on a token: a GSS-API initial token of Kerberos, bare or in SPNEGO, as it is (in HTTP:
  /// what stands behind `Negotiate`, decoded). Leaves one record in the log.
  /// @param channel names the channel that the token came through, as TlsServerEndPoint() does;
  /// empty when that is not known, and then nothing is checked unless binding is required
  Acceptance Accept(std::string_view token, std::string_view channel = {}) const;

  /// Likewise, for a connection on which a client can send more than one token. When the refusal is
  /// kUnfinished, which leaves no record, the client gets `reply`, and its next token comes here
  /// with the same `negotiation`. With any other result `negotiation` is as new.
  Acceptance Accept(std::string_view token, std::string_view channel,
                    Negotiation& negotiation) const;

 private:
  struct Parts;
  Acceptance Judge(const InitialToken& token, std::string_view channel,
                   Negotiation::State* negotiation) const;
  Acceptance Finish(const InitialToken& token, Negotiation::State& negotiation) const;
  explicit Acceptor(std::unique_ptr<const Parts> parts);

  std::unique_ptr<const Parts> parts_;
};

/// The name of the channel that a TLS server makes with its certificate, in DER: the binding type
/// `tls-server-end-point` (RFC 5929, 4), its prefix included.
/// @return empty when that is no certificate, or one whose signature has no single digest
TAVREL_EXPORT std::string TlsServerEndPoint(std::string_view certificate);

}  // namespace tavrel::plus

#endif
