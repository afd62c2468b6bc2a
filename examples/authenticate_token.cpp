// Says whose ticket a token holds, on a machine that has joined its domain before.
//
//   authenticate_token DOMAIN KEYTAB < TOKEN
//
// TOKEN is a GSS-API token in base64, as it stands in the header "Authorization: Negotiate TOKEN".
// The user is printed on standard output; why one is refused is in the library's log, on standard
// error, and all of it with PLATFORM_LOG_LEVEL=1. Exit status:
//    0 the user is who is printed
//    1 refused
//   64 the command line is wrong
//   65 standard input holds no base64, or more than a megabyte
//   66 the keytab has no key of this machine: join first
#include <openssl/evp.h>
#include <tavrel/KrbKeytab.h>
#include <tavrel/KrbRealm.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>

namespace {

constexpr std::size_t kLongest = 1 << 20;

// A realm whose machine was joined by another process.
//
// Authenticate() compares a ticket's service with the principal that a join in the same process has
// set. A join needs an administrator's password, and a program that only looks at tickets should
// not have one. So this sets the principal as a join does, and takes the keytab's word for the
// rest.
class JoinedRealm : public tavrel::KrbRealm {
 public:
  JoinedRealm(const std::string& domain, const std::string& keytab)
      : KrbRealm(domain, "", "", keytab) {
    krb_context.SetClientPrincipal(join_parameters.GetAccountName() + "$@" +
                                   join_parameters.domain);
  }

  bool HasKey() { return tavrel::Keytab(&krb_context).HasKey(); }
};

// The bytes that `text` stands for; white space between its characters does not count.
std::optional<std::string> DecodeBase64(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(),
                            [](unsigned char c) { return std::isspace(c) != 0; }),
             text.end());
  const std::size_t padding = text.size() - (text.find_last_not_of('=') + 1);
  if (text.empty() || text.size() % 4 != 0 || padding > 2) return std::nullopt;
  std::string bytes(text.size() / 4 * 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(length) - padding);  // it decodes the padding to zeros
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: authenticate_token DOMAIN KEYTAB < TOKEN\n";
    return 64;
  }
  std::string text(kLongest + 1, '\0');
  std::cin.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(std::cin.gcount()));
  std::optional<std::string> token;
  if (text.size() <= kLongest) token = DecodeBase64(std::move(text));
  if (!token) {
    std::cerr << "authenticate_token: no token in base64 on standard input\n";
    return 65;
  }

  JoinedRealm realm(argv[1], argv[2]);
  if (!realm.HasKey()) {
    std::cerr << "authenticate_token: " << argv[2] << " has no key of this machine\n";
    return 66;
  }
  const std::string user = realm.Authenticate(token->data(), static_cast<int>(token->size()));
  std::cout << (user.empty() ? "refused" : user) << '\n';
  return user.empty() ? 1 : 0;
}
