// An appliance that has joined, and the clients that sign in to it, without a KDC: whoever knows
// the machine's key can issue tickets for it.
#ifndef TAVREL_BENCH_APPLIANCE_H
#define TAVREL_BENCH_APPLIANCE_H

#include <gssapi/gssapi.h>
#include <krb5.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tavrel/KrbRealm.h"

namespace tavrel::bench {

inline constexpr char kRealm[] = "CORP.EXAMPLE.COM";
inline constexpr char kMachine[] = "APPLIANCE$@CORP.EXAMPLE.COM";

// The machine's current RC4 key.
std::string MachineKey();

// Writes a keytab with `keys` RC4 keys of the machine, of versions 1 and up. The current key is the
// last one, as it is after password changes. `others` entries of another principal come first.
void WriteKeytab(const std::string& path, int keys, int others = 0);

// A realm that is joined as far as Authenticate() is concerned.
class JoinedRealm : public KrbRealm {
 public:
  explicit JoinedRealm(const std::string& keytab) : KrbRealm(kRealm, "", "", keytab) {
    krb_context.SetClientPrincipal(kMachine);
  }
  KrbContext& Krb() { return krb_context; }
};

// What a client sends.
struct TokenShape {
  std::size_t pac = 0;  // bytes of logon information in the ticket, sealed as a KDC does; 0: none
  bool spnego = false;  // wrapped in SPNEGO, as browsers do
};

struct Token {
  std::string bytes;
  std::size_t request_start;  // of the AP-REQ in it

  std::string_view Request() const { return std::string_view(bytes).substr(request_start); }
};

// A client with a service ticket, the real GSS-API library as its mouth.
class Client {
 public:
  explicit Client(const TokenShape& shape);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client();

  // A security token, another one at each call.
  Token NextToken();

  std::vector<Token> Tokens(std::size_t count);

 private:
  TokenShape shape_;
  krb5_context context_ = nullptr;
  krb5_ccache cache_ = nullptr;
  gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
  gss_name_t target_ = GSS_C_NO_NAME;
};

// Verifies requests with the Kerberos library alone.
class BareVerifier {
 public:
  explicit BareVerifier(const std::string& keytab);
  BareVerifier(const BareVerifier&) = delete;
  BareVerifier& operator=(const BareVerifier&) = delete;
  ~BareVerifier();

  // False when the library refuses it.
  bool Verify(std::string_view request) const;

 private:
  krb5_context context_ = nullptr;
  krb5_keytab keytab_ = nullptr;
};

// Verifies tokens with the GSS-API library.
class GssVerifier {
 public:
  explicit GssVerifier(const std::string& keytab);
  GssVerifier(const GssVerifier&) = delete;
  GssVerifier& operator=(const GssVerifier&) = delete;
  ~GssVerifier();

  bool Verify(std::string& token) const;

 private:
  gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
};

}  // namespace tavrel::bench

#endif
