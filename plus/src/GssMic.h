// The signature that protects SPNEGO's list of mechanisms: a MIC token of Kerberos (RFC
// 4121, 4.2.6.1).
#ifndef TAVREL_PLUS_SRC_GSSMIC_H
#define TAVREL_PLUS_SRC_GSSMIC_H

#include <krb5.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace tavrel::plus {

// True when `key`'s type has such tokens: RC4 has others (RFC 4757, 7.3), which no client sends
// here.
bool HasMic(const krb5_keyblock& key);

// True when `mic` is the initiator's of `message`, its first of the context.
bool VerifyMic(krb5_context context, const krb5_keyblock& key, std::uint32_t sequence,
               std::string_view message, std::string_view mic);

// The acceptor's of `message`; empty on failure. `replied_with_key` says whether the reply to the
// client has a key in it.
std::string MakeMic(krb5_context context, const krb5_keyblock& key, bool replied_with_key,
                    std::uint32_t sequence, std::string_view message);

}  // namespace tavrel::plus

#endif
