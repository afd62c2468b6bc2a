#include "ChannelBinding.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>

#include "KrbSettings.h"
#include "Service.h"
#include "TicketHolder.h"

namespace tavrel::plus::tests {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

const Key& RsaKey() {
  static const Key key(EVP_RSA_gen(2048), EVP_PKEY_free);
  return key;
}

// A certificate, in DER, whose signature has that digest; null: one of a kind that has none.
std::string Certificate(const EVP_PKEY* key, const EVP_MD* digest) {
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
  auto* const signer = const_cast<EVP_PKEY*>(key);
  X509_set_pubkey(certificate.get(), signer);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  EXPECT_NE(X509_sign(certificate.get(), signer, digest), 0);
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(certificate.get(), &bytes);
  std::string der(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  OPENSSL_free(bytes);
  return der;
}

std::string Digest(const EVP_MD* digest, const std::string& bytes) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(bytes.data(), bytes.size(), hash, &size, digest, nullptr);
  return {reinterpret_cast<const char*>(hash), size};
}

// RFC 5929, 4.1: the digest of the signature, but SHA-256 for MD5 and SHA-1.
TEST(TheEndPointOfATlsServer, IsNamedByTheDigestOfItsCertificatesSignature) {
  const struct {
    const EVP_MD* of_signature;
    const EVP_MD* of_name;
  } cases[] = {{EVP_md5(), EVP_sha256()},    {EVP_sha1(), EVP_sha256()},
               {EVP_sha224(), EVP_sha224()}, {EVP_sha256(), EVP_sha256()},
               {EVP_sha384(), EVP_sha384()}, {EVP_sha512(), EVP_sha512()}};
  for (const auto& item : cases) {
    const std::string certificate = Certificate(RsaKey().get(), item.of_signature);

    EXPECT_EQ(TlsServerEndPoint(certificate),
              "tls-server-end-point:" + Digest(item.of_name, certificate))
        << EVP_MD_get0_name(item.of_signature);
  }
}

TEST(TheEndPointOfATlsServer, HasNoNameWithoutACertificateThatHasOneDigest) {
  const Key edwards(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free);
  const std::string certificate = Certificate(RsaKey().get(), EVP_sha256());

  EXPECT_EQ(TlsServerEndPoint(Certificate(edwards.get(), nullptr)), "");
  EXPECT_EQ(TlsServerEndPoint(""), "");
  EXPECT_EQ(TlsServerEndPoint("-----BEGIN CERTIFICATE-----"), "");
  EXPECT_EQ(TlsServerEndPoint(certificate + '\0'), "");
  EXPECT_EQ(TlsServerEndPoint(certificate.substr(0, certificate.size() - 1)), "");
  EXPECT_EQ(ERR_peek_error(), 0U) << "what is no certificate leaves no errors";
}

// The system's client, which says that it binds its tokens when its settings tell it to
// ([MS-KILE] 3.2.5.8, KERB_AP_OPTIONS_CBT).
struct ABindingClient : testing::Test {
  Acceptance SignIn(bool says_so, const std::string& bound_to) {
    std::optional<tavrel::tests::KrbSettings> settings;
    if (says_so) settings.emplace("client_aware_channel_bindings = true");
    return acceptor->Accept(TicketHolder(TicketWithPac(), 0, bound_to).Step(), ours);
  }

  const std::string ours = "tls-server-end-point:ours";
  const Service service;
  const std::unique_ptr<Acceptor> acceptor = service.Make();
};

TEST_F(ABindingClient, CannotBeStrippedOfItsChannel) {
  const Acceptance silent = SignIn(false, "");
  const Acceptance stripped = SignIn(true, "");

  EXPECT_TRUE(silent);
  ASSERT_FALSE(stripped);
  EXPECT_EQ(stripped.refusal->reason, RefusalReason::kChannelBindingMissing);
}

TEST_F(ABindingClient, SaysSoWithOneBit) {
  const auto sign_in = [&](const std::string& options) {
    ForgedToken token;
    token.of_authenticator[8] = AuthorizationData(143, options);
    return acceptor->Accept(token.Bytes(), ours);
  };

  EXPECT_TRUE(sign_in(std::string("\xFF\xBF\xFF\xFF", 4)));
  EXPECT_FALSE(sign_in(std::string("\x00\x40\x00\x00", 4)));
}

TEST_F(ABindingClient, MustHaveComeThroughThisChannel) {
  const Acceptance right = SignIn(true, ours);
  const Acceptance relayed = SignIn(true, "tls-server-end-point:theirs");

  ASSERT_TRUE(right) << right.refusal->text;
  EXPECT_TRUE(right.identity->channel_bound);
  ASSERT_FALSE(relayed);
  EXPECT_EQ(relayed.refusal->reason, RefusalReason::kChannelBindingWrong);
}

}  // namespace
}  // namespace tavrel::plus::tests
