// What of a Kerberos request (RFC 4120, 5.5.1) can be read without a key.
#ifndef TAVREL_PLUS_SRC_APREQUEST_H
#define TAVREL_PLUS_SRC_APREQUEST_H

#include <cstdint>
#include <optional>
#include <string_view>

#include "tavrel/plus/Identity.h"

namespace tavrel::plus {

// It points into the request, `service` aside.
struct ApRequest {
  std::string_view whole;
  std::uint32_t options = 0;  // the first one in the highest bit
  Principal service;          // that the ticket names; nothing protects it
  std::int32_t enctype = 0;   // of the ticket
  std::optional<std::uint32_t> key_version;
  std::string_view ticket;         // ciphertext
  std::string_view authenticator;  // ciphertext
};

inline constexpr std::uint32_t kUseSessionKey = 0x40000000;
inline constexpr std::uint32_t kMutualRequired = 0x20000000;

// Nothing when `bytes` are not exactly one request by the letter.
std::optional<ApRequest> ReadApRequest(std::string_view bytes);

}  // namespace tavrel::plus

#endif
