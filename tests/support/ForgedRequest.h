// Kerberos service requests without a KDC: whoever knows the service's key can issue tickets for
// it.
#ifndef TAVREL_TESTS_FORGEDREQUEST_H
#define TAVREL_TESTS_FORGEDREQUEST_H

#include <krb5.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::tests {

// Contents of DER object identifiers, without tag and length.
extern const std::string kSpnegoOid;             // 1.3.6.1.5.5.2
extern const std::string kKerberosOid;           // 1.2.840.113554.1.2.2
extern const std::string kMicrosoftKerberosOid;  // 1.2.840.48018.1.2.2, as Windows also calls it
extern const std::string kNtlmOid;               // 1.3.6.1.4.1.311.2.2.10

// One DER value: tag, length in the shortest form, content.
std::string Der(unsigned char tag, std::string_view content);

// The values that Kerberos messages are made of.
namespace der {

std::string Field(unsigned char number, std::string_view value);  // [number] of a sequence
std::string Integer(std::int64_t value);
std::string BitString(std::uint32_t bits);
std::string Time(krb5_timestamp timestamp);
std::string PrincipalName(const std::vector<std::string>& components);

}  // namespace der

// A service ticket and what it is sealed with. As it stands it is good for ten hours from now.
struct ForgedTicket {
  std::string client_realm = "CORP.EXAMPLE.COM";
  std::vector<std::string> client = {"alice"};
  std::string server_realm = "CORP.EXAMPLE.COM";
  std::vector<std::string> server = {"HTTP", "appliance.corp.example.com"};

  // The service's key is derived from these; RC4-HMAC takes no salt.
  std::string password = "Secret.1";
  std::string salt;
  krb5_enctype etype = ENCTYPE_ARCFOUR_HMAC;
  krb5_kvno kvno = 1;

  krb5_flags flags = TKT_FLG_INITIAL | TKT_FLG_PRE_AUTH;
  krb5_timestamp authtime = static_cast<krb5_timestamp>(std::time(nullptr));
  krb5_timestamp starttime = authtime;  // 0: the ticket has none
  krb5_timestamp endtime = authtime + 10 * 3600;
  krb5_timestamp renew_till = 0;  // 0: the ticket has none

  // [10] of the ticket (RFC 4120, 5.2.6), in DER; empty: it has none.
  std::string authorization_data;

  // What the client's clock shows when it makes its request; the current time when not given.
  std::optional<krb5_timestamp> sent_at;
  krb5_flags options = 0;                   // of the AP-REQ
  std::optional<std::string> gss_checksum;  // of the authenticator (RFC 4121, 4.1.1), if any

  // DER and session key, once it is Issued().
  std::string issued;
  std::string session;
};

// The key that a ticket is sealed with, in memory of the context's.
krb5_keyblock ServiceKey(krb5_context context, const ForgedTicket& ticket);

// The part of a ticket that the service's key protects (RFC 4120, 5.3), before it is encrypted.
std::string EncTicketPart(const ForgedTicket& ticket, const krb5_keyblock& session);

// `plain` encrypted for one of the uses of keys (RFC 4120, 7.5.1).
inline constexpr krb5_keyusage kTicketKeyUsage = 2;
inline constexpr krb5_keyusage kAuthenticatorKeyUsage = 11;
std::string Encrypt(krb5_context context, const krb5_keyblock& key, krb5_keyusage usage,
                    std::string plain);

// The ticket as the client gets it (RFC 4120, 5.3), with `session` sealed in it.
std::string SealedTicket(krb5_context context, const ForgedTicket& ticket,
                         const krb5_keyblock& session);

// That ticket, the same for each request that is made of it.
ForgedTicket Issued(ForgedTicket ticket);

// The AP-REQ of a client that was given that ticket (RFC 4120, 5.5.1), another one at each call; of
// a ticket of its own, unless that one is Issued().
// Throws std::runtime_error when the Kerberos library refuses something.
std::vector<char> ApReq(const ForgedTicket& ticket);

// A GSS-API initial token of the Kerberos mechanism with that AP-REQ in it (RFC 1964, 1.1).
std::vector<char> GssToken(const std::vector<char>& ap_req,
                           const std::string& mechanism = kKerberosOid);

// A SPNEGO initial token that offers `mechanisms`, with a token of the first of them
// (RFC 4178, 4.2.1).
std::vector<char> SpnegoToken(const std::vector<char>& token,
                              const std::vector<std::string>& mechanisms = {kKerberosOid});

}  // namespace tavrel::tests

#endif
