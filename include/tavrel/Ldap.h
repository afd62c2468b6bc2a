/// @file
/// One session with one LDAP server.
#ifndef TAVREL_LDAP_H
#define TAVREL_LDAP_H

#include <ldap.h>

#include <string>
#include <tuple>

#include "platform/ldap_encryption.h"
#include "tavrel/Export.h"

namespace tavrel {

/// An LDAP server to be contacted: host, transport security and CA certificate file, as the
/// constructor of Ldap takes them.
using LdapServer = std::tuple<std::string, vdi::Ldap_encryption, std::string>;

/// A session with an LDAP server (a domain controller). Owns its library handle; used by one thread
/// at a time. Copying moves the handle, so that a connection is closed exactly once.
class TAVREL_EXPORT Ldap {
 public:
  /// Stores its arguments; nothing is contacted.
  /// @param host       host name, host name with ":" and port, or "ldap://" or "ldaps://" URL
  /// @param encryption transport security; a host without a scheme always gets StartTLS
  /// @param cert_path  file of trusted CA certificates; when empty the server is not verified
  Ldap(const std::string& host, vdi::Ldap_encryption encryption, const std::string& cert_path);

  /// Takes over the handle of `other`, which is left without one: a session can be connected on the
  /// stack and then put into a list.
  Ldap(const Ldap& other);

  /// As the copy constructor; does nothing for itself. A handle held before is overwritten, not
  /// closed: assign only to a session without one.
  Ldap& operator=(Ldap& other);

  /// Disconnects.
  ~Ldap();

  /// Opens the session (`ldap_initialize`), sets protocol version 3, TLS, no referrals and a
  /// network time-out of 10 s, upgrades it with StartTLS if asked for, and binds (simple bind, RFC
  /// 4513 5.1). To be called once; a failure is logged at level 3 and may leave an unbound handle.
  /// @param user     bind name, as the server wants it
  /// @param password its password
  /// @param error    receives the text of the failed step (`ldap_err2string`); may be null
  /// @return true when the bind was accepted.
  bool Connect(const std::string& user, const std::string& password, std::string* error);

  /// Closes the connection, if any (`ldap_unbind_ext`).
  void Disconnect();

  std::string host;                 ///< the server, as given
  vdi::Ldap_encryption encryption;  ///< the transport security asked for
  std::string cert_path;            ///< trusted CA certificates, or empty
  mutable LDAP* handle;             ///< the library's session; null when not connected
};

}  // namespace tavrel

#endif
