/// @file
/// Finding a domain's LDAP servers.
#ifndef TAVREL_DISCOVERYSERVICE_H
#define TAVREL_DISCOVERYSERVICE_H

#include <list>
#include <string>

#include "tavrel/Export.h"

namespace tavrel {

/// Finds the LDAP servers of a domain.
class TAVREL_EXPORT DiscoveryService {
 public:
  /// @param domain the domain's DNS name
  /// @return its servers, each as host name, ":" and decimal port; empty when none was found.
  virtual std::list<std::string> GetLDAPHosts(const std::string& domain) const = 0;

 protected:
  ~DiscoveryService() = default;  // services are never deleted through this interface
};

/// Finds them through the SRV records that Active Directory publishes (RFC 2782).
class TAVREL_EXPORT DNSDiscoveryService : public DiscoveryService {
 public:
  /// Asks for the SRV records of "_ldap._tcp.dc._msdcs." and `domain` with the
  /// process-wide resolver (`res_search`); blocks for as long as its time-outs allow.
  /// @return the records' targets in the order of the answer, priority and weight ignored; empty on
  ///   every failure, which is logged. A record that cannot be read is logged and left out.
  std::list<std::string> GetLDAPHosts(const std::string& domain) const override;
};

}  // namespace tavrel

#endif
