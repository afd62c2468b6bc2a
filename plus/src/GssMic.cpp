#include "GssMic.h"

#include <openssl/crypto.h>

#include <memory>

#include "KrbSupport.h"

namespace tavrel::plus {
namespace {

constexpr char kByAcceptor = 1;  // flags
constexpr char kAcceptorSubkey = 4;
constexpr krb5_keyusage kAcceptorSigns = 23;
constexpr krb5_keyusage kInitiatorSigns = 25;

// Token identifier, flags, filler, sequence number.
std::string Header(char flags, std::uint32_t sequence) {
  std::string header("\x04\x04", 2);
  header += flags;
  header.append(5, '\xFF').append(4, '\0');
  for (unsigned shift = 32; shift != 0; shift -= 8) {
    header += static_cast<char>(sequence >> (shift - 8) & 0xFFU);
  }
  return header;
}

std::string Make(krb5_context context, const krb5_keyblock& key, krb5_keyusage usage,
                 const std::string& header, std::string_view message) {
  std::string signed_part(message);
  signed_part += header;
  const krb5_data input{0, static_cast<unsigned>(signed_part.size()), signed_part.data()};
  krb5_checksum made{};
  if (krb5_c_make_checksum(context, 0, &key, usage, &input, &made) != 0) return "";
  const std::unique_ptr<krb5_checksum, KrbFree<krb5_free_checksum_contents>> owned(&made,
                                                                                   {context});
  return header + std::string(reinterpret_cast<const char*>(made.contents), made.length);
}

}  // namespace

bool HasMic(const krb5_keyblock& key) {
  return key.enctype != ENCTYPE_ARCFOUR_HMAC;
}

bool VerifyMic(krb5_context context, const krb5_keyblock& key, std::uint32_t sequence,
               std::string_view message, std::string_view mic) {
  // A client that got a key in the reply says so; it is the one that it had sent.
  const char flags = mic.size() > 2 ? static_cast<char>(mic[2] & kAcceptorSubkey) : '\0';
  const std::string right = Make(context, key, kInitiatorSigns, Header(flags, sequence), message);
  return !right.empty() && right.size() == mic.size() &&
         CRYPTO_memcmp(right.data(), mic.data(), mic.size()) == 0;
}

std::string MakeMic(krb5_context context, const krb5_keyblock& key, bool replied_with_key,
                    std::uint32_t sequence, std::string_view message) {
  const char flags = replied_with_key ? kByAcceptor | kAcceptorSubkey : kByAcceptor;
  return Make(context, key, kAcceptorSigns, Header(flags, sequence), message);
}

}  // namespace tavrel::plus
