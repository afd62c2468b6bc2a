// A service with a keytab of its own, and clients that have tickets for it.
#ifndef TAVREL_PLUS_TESTS_SERVICE_H
#define TAVREL_PLUS_TESTS_SERVICE_H

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ForgedPac.h"
#include "KrbSettings.h"
#include "tavrel/plus/Acceptor.h"

namespace tavrel::plus::tests {

// The checksum field of a GSS-API client (RFC 4121, 4.1.1).
std::string GssChecksum(const std::string& channel = "", std::uint32_t flags = 0);

// A ticket of alice's for HTTP at the appliance, of AES, with the checksum and without a PAC.
tavrel::tests::ForgedTicket Ticket();

// That ticket with a PAC.
tavrel::tests::ForgedTicket TicketWithPac(const ForgedUser& user = {});

// The token that a client makes of a ticket.
std::string Token(const tavrel::tests::ForgedTicket& ticket);
std::string Negotiated(const tavrel::tests::ForgedTicket& ticket,
                       const std::vector<std::string>& mechanisms = {tavrel::tests::kKerberosOid});

// The token of a client that needs no library for it: each sealed field goes as it stands here.
struct ForgedToken {
  // Whoever signs in by `ticket`, which has the key of Ticket(), with a session key of zeros.
  explicit ForgedToken(tavrel::tests::ForgedTicket ticket);
  ForgedToken();  // alice, by TicketWithPac()

  std::string TicketPart() const;  // RFC 4120, 5.3, before it is sealed
  std::string Authenticator() const;
  std::string Sealed(const std::string& ticket_part, const std::string& authenticator) const;
  std::string Bytes() const { return Sealed(TicketPart(), Authenticator()); }
  // Seals the ticket as it stands; from now on it is that of all tokens, whatever part they name.
  void Issue();

  using Fields = std::map<unsigned char, std::string>;  // by number, in DER
  Fields of_ticket;
  Fields of_authenticator;
  tavrel::tests::ForgedTicket ticket;  // the names and numbers beside what is sealed
  krb5_enctype session_enctype = ENCTYPE_AES256_CTS_HMAC_SHA1_96;
  std::string issued;  // ciphertext, when it is
};

// A key, and text of some type, as these fields have them.
std::string KeyField(krb5_enctype enctype, std::size_t size);
std::string TypedField(std::int32_t type, const std::string& bytes);

// Appends the key of `ticket` to the keytab file `path`, under the name of its service.
void AddKey(const std::string& path, const tavrel::tests::ForgedTicket& ticket);

class Service {
 public:
  // Its keytab has the key of Ticket().
  explicit Service(AcceptorOptions options = {});

  // Throws std::runtime_error when none can be made.
  std::unique_ptr<Acceptor> Make() const;

  tavrel::tests::KrbSettings settings;
  AcceptorOptions options;  // keytab and replay file are in a folder of their own
};

// Somebody has locked the service's keytab, which has changed, and a thread waits in the acceptor
// to read it.
class HeldUp {
 public:
  HeldUp(const Service& service, const Acceptor& acceptor);
  HeldUp(const HeldUp&) = delete;
  HeldUp& operator=(const HeldUp&) = delete;
  ~HeldUp();

  void Release() const;

 private:
  int keytab_;
  std::thread thread_;
};

}  // namespace tavrel::plus::tests

#endif
