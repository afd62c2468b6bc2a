#include "GssMic.h"

#include <gtest/gtest.h>

#include <string>

#include "KeyRing.h"

namespace tavrel::plus::tests {
namespace {

class ASignature : public testing::Test {
 protected:
  ASignature() { krb5_init_context(&context); }
  ~ASignature() override { krb5_free_context(context); }

  krb5_context context = nullptr;
};

TEST_F(ASignature, IsOfItsLengthExactly) {
  const std::string bytes(32, 'k');
  const krb5_keyblock key = Borrowed(bytes, ENCTYPE_AES256_CTS_HMAC_SHA1_96);
  const std::string ours = MakeMic(context, key, false, 7, "list");

  EXPECT_EQ(ours.size(), 16U + 12);
  EXPECT_FALSE(VerifyMic(context, key, 7, "list", ours)) << "the acceptor's own, sent back";
  EXPECT_FALSE(VerifyMic(context, key, 7, "list", ours + "x"));
  EXPECT_FALSE(VerifyMic(context, key, 7, "list", ""));
}

TEST_F(ASignature, OfAKeyThatCannotSignIsNone) {
  const krb5_keyblock key = Borrowed("key", 9999);

  EXPECT_EQ(MakeMic(context, key, false, 0, "list"), "");
  EXPECT_FALSE(VerifyMic(context, key, 0, "list", ""));
}

}  // namespace
}  // namespace tavrel::plus::tests
