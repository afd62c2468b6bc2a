// A service with a keytab of its own, and clients that have tickets for it.
#ifndef TAVREL_PLUS_TESTS_SERVICE_H
#define TAVREL_PLUS_TESTS_SERVICE_H

#include <memory>
#include <string>
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

}  // namespace tavrel::plus::tests

#endif
