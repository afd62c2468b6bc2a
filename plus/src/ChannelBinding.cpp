#include "ChannelBinding.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>

#include "KrbSupport.h"
#include "tavrel/plus/Acceptor.h"

namespace tavrel::plus {
namespace {

constexpr std::uint32_t kDelegates = 1;  // GSS_C_DELEG_FLAG
constexpr std::size_t kFixedSize = 24;   // length, channel, flags
constexpr std::uint32_t kChannelSize = 16;

std::uint32_t LittleEndian(std::string_view bytes, std::size_t at, std::size_t size) {
  std::uint32_t value = 0;
  for (std::size_t i = size; i-- > 0;) {
    value = value << 8U | static_cast<unsigned char>(bytes[at + i]);
  }
  return value;
}

std::string EndPointOf(std::string_view certificate) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(certificate.data());
  const auto size = static_cast<std::ptrdiff_t>(certificate.size());
  const std::unique_ptr<X509, decltype(&X509_free)> parsed(d2i_X509(nullptr, &bytes, size),
                                                           X509_free);
  if (!parsed || bytes != reinterpret_cast<const unsigned char*>(certificate.data()) + size) {
    return "";
  }
  int digest_id = NID_undef;
  if (X509_get_signature_info(parsed.get(), &digest_id, nullptr, nullptr, nullptr) != 1 ||
      digest_id == NID_undef) {
    return "";
  }
  // MD5 and SHA-1 are replaced (RFC 5929, 4.1).
  if (digest_id == NID_md5 || digest_id == NID_sha1) digest_id = NID_sha256;
  const EVP_MD* const digest = EVP_get_digestbynid(digest_id);
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned hash_size = 0;
  if (digest == nullptr ||
      EVP_Digest(certificate.data(), certificate.size(), hash, &hash_size, digest, nullptr) != 1) {
    return "";
  }
  std::string name = "tls-server-end-point:";
  return name.append(reinterpret_cast<const char*>(hash), hash_size);
}

}  // namespace

std::optional<GssChecksum> ReadGssChecksum(std::string_view bytes) {
  if (bytes.size() < kFixedSize || LittleEndian(bytes, 0, 4) != kChannelSize) return std::nullopt;
  GssChecksum checksum;
  std::copy_n(bytes.begin() + 4, kChannelSize, checksum.channel.begin());
  checksum.flags = LittleEndian(bytes, 20, 4);
  if ((checksum.flags & kDelegates) != 0) {
    const bool whole = bytes.size() >= kFixedSize + 4 && LittleEndian(bytes, 24, 2) == 1 &&
                       LittleEndian(bytes, 26, 2) <= bytes.size() - kFixedSize - 4;
    if (!whole) return std::nullopt;
  }
  return checksum;
}

std::optional<ChannelDigest> DigestOf(krb5_context context, std::string_view channel) {
  // gss_channel_bindings_struct: two address types and empty addresses, then the application data.
  std::string bindings(16, '\0');
  for (unsigned shift = 0; shift < 32; shift += 8) {
    bindings += static_cast<char>(channel.size() >> shift & 0xFFU);
  }
  bindings += channel;
  const krb5_data input{0, static_cast<unsigned>(bindings.size()), bindings.data()};
  krb5_checksum made{};
  if (krb5_c_make_checksum(context, CKSUMTYPE_RSA_MD5, nullptr, 0, &input, &made) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<krb5_checksum, KrbFree<krb5_free_checksum_contents>> owned(&made,
                                                                                   {context});
  ChannelDigest digest;
  if (made.length != digest.size()) return std::nullopt;
  std::copy_n(reinterpret_cast<const char*>(made.contents), digest.size(), digest.begin());
  return digest;
}

std::string TlsServerEndPoint(std::string_view certificate) {
  ERR_set_mark();  // what is no certificate leaves no errors with the caller
  std::string name = EndPointOf(certificate);
  ERR_pop_to_mark();
  return name;
}

}  // namespace tavrel::plus
