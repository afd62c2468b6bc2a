/// @file
/// Transport security of an LDAP server, as the appliance's configuration stores it.
#ifndef PLATFORM_LDAP_ENCRYPTION_H
#define PLATFORM_LDAP_ENCRYPTION_H

#include <cstdint>

namespace vdi {

/// How the connection to an LDAP server is protected. Any other non-zero value acts like
/// LDAP_ENCRYPTION_LDAPS.
enum Ldap_encryption : std::int32_t {
  LDAP_ENCRYPTION_NONE = 0,      ///< no TLS
  LDAP_ENCRYPTION_LDAPS = 1,     ///< TLS from the start, with an "ldaps://" URL
  LDAP_ENCRYPTION_STARTTLS = 2,  ///< StartTLS (RFC 4511, 4.14) before the bind
};

}  // namespace vdi

#endif
