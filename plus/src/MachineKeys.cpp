#include "MachineKeys.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "Ascii.h"

namespace tavrel::plus {
namespace {

constexpr std::size_t kPasswordLength = 64;
constexpr std::string_view kCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-";
static_assert(kCharacters.size() == 64, "a byte gives each with the same chance");

struct Type {
  std::uint32_t bit;  // [MS-KILE] 2.2.7
  krb5_enctype type;
};
constexpr Type kTypes[] = {
    {0x10, ENCTYPE_AES256_CTS_HMAC_SHA1_96},
    {0x8, ENCTYPE_AES128_CTS_HMAC_SHA1_96},
    {0x4, ENCTYPE_ARCFOUR_HMAC},
};

bool HasThreeKinds(std::string_view password) {
  const auto has = [&](int (*is)(int)) {
    return std::any_of(password.begin(), password.end(),
                       [&](unsigned char c) { return is(c) != 0; });
  };
  return has(std::isupper) && has(std::islower) && has(std::isdigit);
}

// The salt of a computer's password in Active Directory ([MS-KILE] 3.1.1.2).
std::string SaltOf(krb5_principal computer) {
  std::string name(View(computer->data[0]));
  name.resize(name.size() - 1);  // the "$"
  const std::string realm(View(computer->realm));
  return realm + "host" + Lower(name) + '.' + Lower(realm);
}

}  // namespace

Secret MakePassword() {
  Secret password(kPasswordLength);
  do {
    auto* const bytes = reinterpret_cast<unsigned char*>(password.Data());
    if (RAND_priv_bytes(bytes, kPasswordLength) != 1) return {};
    for (std::size_t i = 0; i < kPasswordLength; ++i)
      password.Data()[i] = kCharacters[bytes[i] % kCharacters.size()];
  } while (!HasThreeKinds(password.View()));
  return password;
}

Secret EncodePassword(const Secret& password) {
  const std::size_t size = password.Size();
  Secret encoded(2 * (size + 2));
  char* next = encoded.Data();
  const auto put = [&](char c) {
    *next = c;
    next += 2;  // the other half of the character is 0
  };
  put('"');
  for (const char c : password.View())
    put(c);
  put('"');
  return encoded;
}

std::vector<krb5_enctype> TypesOf(std::uint32_t encryption_types) {
  std::vector<krb5_enctype> types;
  for (const Type& type : kTypes) {
    if ((encryption_types & type.bit) != 0) types.push_back(type.type);
  }
  return types;
}

Failure DeriveKeys(Kdc& kdc, krb5_principal principal, const Secret& password,
                   const std::vector<krb5_enctype>& types, std::vector<MachineKey>& keys,
                   std::vector<MachineKey>* renamed) {
  keys.clear();
  const std::string own_salt = renamed != nullptr ? SaltOf(principal) : "";
  std::vector<MachineKey> own;
  bool is_renamed = false;
  for (const krb5_enctype type : types) {
    KeyRecipe recipe;
    if (Failure failure = kdc.GetRecipe(principal, {type}, recipe)) return failure;
    MachineKey& key = keys.emplace_back();
    if (const krb5_error_code code = DeriveKey(kdc.Context(), password, recipe, key)) {
      return kdc.Explain(code);
    }
    if (renamed == nullptr) continue;
    MachineKey& own_key = own.emplace_back();
    recipe.salt = own_salt;
    if (const krb5_error_code code = DeriveKey(kdc.Context(), password, recipe, own_key)) {
      return kdc.Explain(code);
    }
    is_renamed = is_renamed || own_key.key.View() != key.key.View();
  }
  if (is_renamed) *renamed = std::move(own);
  return {};
}

Failure Prove(Kdc& kdc, krb5_principal principal, const std::vector<MachineKey>& keys) {
  for (const MachineKey& key : keys) {
    std::vector<MachineKey> one;
    one.push_back({key.type, key.key.Copy()});
    KrbCache cache;
    if (Failure failure = kdc.SignIn(principal, one, nullptr, cache)) return failure;
  }
  return {};
}

}  // namespace tavrel::plus
