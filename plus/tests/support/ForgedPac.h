// PACs without a domain controller: whoever knows the service's key can sign one that the service
// believes.
#ifndef TAVREL_PLUS_TESTS_FORGEDPAC_H
#define TAVREL_PLUS_TESTS_FORGEDPAC_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ForgedRequest.h"
#include "tavrel/plus/Sid.h"

namespace tavrel::plus::tests {

// Little-endian UTF-16 for text of ASCII characters.
std::string Utf16(const std::string& ascii);

// NDR as it is read: each number aligned to its size.
class NdrWriter {
 public:
  NdrWriter& Put(std::size_t size, std::uint64_t value);
  NdrWriter& Put8(std::uint64_t value) { return Put(1, value); }
  NdrWriter& Put16(std::uint64_t value) { return Put(2, value); }
  NdrWriter& Put32(std::uint64_t value) { return Put(4, value); }
  NdrWriter& PutBytes(const std::string& bytes);
  NdrWriter& PutPointer(bool present);
  NdrWriter& PutText(const std::string& text);      // RPC_UNICODE_STRING, in the structure
  NdrWriter& PutTextBody(const std::string& text);  // and behind it
  NdrWriter& PutSidBody(const Sid& sid);
  const std::string& Bytes() const { return bytes_; }
  // With the headers of a serialized type and the pointer to it before it.
  std::string Type() const;

 private:
  std::string bytes_;
  std::uint32_t pointers_ = 0;
};

using Rids = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // and attributes

// What a controller of CORP knows of alice.
struct ForgedUser {
  std::string logon_name = "alice";
  std::string full_name = "Alice Example";
  std::string logon_server = "DC1";
  std::string netbios_domain = "CORP";
  std::string domain = "S-1-5-21-1-2-3";
  std::uint32_t rid = 1105;
  std::uint32_t primary_group = 513;
  std::uint32_t account_flags = 0x10;
  Rids groups = {{513, 7}, {1110, 7}};
  std::vector<std::pair<std::string, std::uint32_t>> extra_sids = {{"S-1-18-1", 7}};
  std::string resource_domain = "S-1-5-21-1-2-3";
  Rids resource_groups = {{1120, 0x20000007}};
};

std::string ValidationInfo(const ForgedUser& user);
std::string UpnDnsInfo(const std::string& upn, const std::string& dns_domain, std::uint32_t flags,
                       const std::string& name = "", const std::string& sid = "");
std::string DelegationInfo(const std::string& target, const std::vector<std::string>& through);

using PacParts = std::vector<std::pair<std::uint32_t, std::string>>;  // type and content

// What a controller sends of that user.
PacParts PartsOf(const ForgedUser& user);

// A PAC of those parts, signed for the ticket's client and service.
std::string SignedPac(const tavrel::tests::ForgedTicket& ticket, const PacParts& parts);

// Authorization data of one type, as a controller wraps it (AD-IF-RELEVANT), in DER.
std::string AuthorizationData(std::int32_t type, const std::string& content);

// `ticket` with a PAC of `parts`.
tavrel::tests::ForgedTicket WithPac(tavrel::tests::ForgedTicket ticket, const PacParts& parts);

}  // namespace tavrel::plus::tests

#endif
