// A Kerberos request (RFC 4120, 5.5.1): what of it can be read without a key, and what is sealed in
// it.
#ifndef TAVREL_PLUS_SRC_APREQUEST_H
#define TAVREL_PLUS_SRC_APREQUEST_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Secret.h"
#include "tavrel/plus/Identity.h"

namespace tavrel::plus {

// It points into the request, `service` aside.
struct ApRequest {
  std::string_view whole;
  std::string_view whole_ticket;  // DER, without the application's tag
  std::uint32_t options = 0;      // the first one in the highest bit
  Principal service;              // that the ticket names; nothing protects it
  std::int32_t enctype = 0;       // of the ticket
  std::optional<std::uint32_t> key_version;
  std::string_view ticket;  // ciphertext
  std::int32_t authenticator_enctype = 0;
  std::string_view authenticator;  // ciphertext
};

inline constexpr std::uint32_t kUseSessionKey = 0x40000000;
inline constexpr std::uint32_t kMutualRequired = 0x20000000;

// Nothing when `bytes` are not exactly one request by the letter.
std::optional<ApRequest> ReadApRequest(std::string_view bytes);

// What follows points into the text that it was read from, which has secrets in it.

struct SealedKey {
  std::int32_t enctype = 0;
  std::string_view bytes;
  std::string_view whole;  // DER
};

// Authorization data (RFC 4120, 5.2.6), that in AD-IF-RELEVANT included.
struct AuthData {
  std::vector<std::string_view> pacs;
  bool binds_channel = false;  // the client says that it binds its tokens ([MS-KILE] 3.2.5.8)
  bool others = false;         // some that are not known to say nothing to a service
  bool critical = false;  // such that is not in AD-IF-RELEVANT: who does not know it must refuse
};

// What the service's key seals (RFC 4120, 5.3).
struct TicketPart {
  std::uint32_t flags = 0;  // the first one in the highest bit
  SealedKey session;
  Principal client;
  std::int32_t client_type = 0;  // of its name
  std::string_view transited;    // realms between the client's and the service's
  std::int64_t auth_time = 0;    // seconds since 1970, as all times are
  std::int64_t start_time = 0;   // that of `auth_time` when the ticket has none
  std::int64_t end_time = 0;
  AuthData data;
};

// What the session key seals (RFC 4120, 5.5.1).
struct Authenticator {
  Principal client;
  std::optional<std::int32_t> checksum_type;  // none: no checksum
  std::string_view checksum;
  std::int64_t made = 0;       // by the client's clock
  std::string_view made_time;  // the same in DER
  std::string_view made_microseconds;
  std::optional<SealedKey> subkey;
  std::uint32_t sequence = 0;
  AuthData data;
};

// Nothing when that is not by the letter; what follows it (padding of old encryption types) does
// not matter.
std::optional<TicketPart> ReadTicketPart(std::string_view plain);
std::optional<Authenticator> ReadAuthenticator(std::string_view plain);

// The part of an AP-REP that the session key is to seal (RFC 4120, 5.5.2): it proves to the client
// that its authenticator was read.
Secret ReplyPart(const Authenticator& authenticator, std::uint32_t sequence);

// The AP-REP around it.
std::string ApReply(std::int32_t enctype, std::string_view sealed_part);

}  // namespace tavrel::plus

#endif
