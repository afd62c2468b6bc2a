// The checksum field of a GSS-API authenticator (RFC 4121, 4.1.1), and the channel it may name.
#ifndef TAVREL_PLUS_SRC_CHANNELBINDING_H
#define TAVREL_PLUS_SRC_CHANNELBINDING_H

#include <krb5.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tavrel::plus {

// An MD5 digest; all zeros when the client named no channel.
using ChannelDigest = std::array<char, 16>;

struct GssChecksum {
  ChannelDigest channel{};
  std::uint32_t flags = 0;
};

inline constexpr std::int32_t kGssChecksumType = 0x8003;

// Reads the field, of that type. Nothing when it is not one by the letter.
std::optional<GssChecksum> ReadGssChecksum(std::string_view bytes);

// How a client names `channel`, which is application data of its bindings alone. Nothing on
// failure.
std::optional<ChannelDigest> DigestOf(krb5_context context, std::string_view channel);

}  // namespace tavrel::plus

#endif
