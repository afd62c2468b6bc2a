/// @file
/// The directory side of a domain join: its inputs, the names derived from them, and the computer
/// account.
#ifndef TAVREL_JOIN_H
#define TAVREL_JOIN_H

#include <ldap.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "tavrel/Export.h"
#include "tavrel/Ldap.h"

namespace tavrel {

class DiscoveryService;

/// The inputs of a join and everything derived from them. Immutable after construction; may be read
/// by any number of threads. Derived names are computed afresh on every call, from the host name of
/// that moment.
class TAVREL_EXPORT JoinParameters {
 public:
  /// Copies its arguments.
  /// @param domain   the domain's DNS name, stored upper-cased
  /// @param servers  LDAP servers to use, in order; when empty, DNS is asked for them
  /// @param user     bind name of an administrator, for example "Administrator@CORP.EXAMPLE.COM"
  /// @param password its password
  JoinParameters(const std::string& domain, const std::list<LdapServer>& servers,
                 const std::string& user, const std::string& password);
  ~JoinParameters();

  /// @return the local host name (`gethostname`) up to its first "."; empty when it cannot be read,
  ///   which is logged at level 4.
  std::string GetMachineName() const;

  /// @return the domain as a distinguished name, "dc=CORP,dc=EXAMPLE,dc=COM" (RFC 2247); empty
  ///   components are kept.
  std::string GetDomainDN() const;

  /// @return `name` when it has at most 15 characters, the NetBIOS limit; otherwise its first 7, a
  ///   "-" and the first 7 hexadecimal digits of the SHA-1 of those 7. Long names that start alike
  ///   are shortened to the same name.
  std::string ShortenName(const std::string& name) const;

  /// @return the computer account's name without its "$": the machine name, shortened and
  ///   upper-cased.
  std::string GetAccountName() const;

  /// @return the distinguished name of the account object, in the domain's Computers container.
  std::string GetMachineDN() const;

  /// @return the machine password: 50 random characters, made at the first request and the same for
  ///   every object of the domain until the process ends; empty when none could be made: the next
  ///   call tries again. May be called from any thread.
  /// @throws std::system_error when the lock of the cache cannot be taken
  std::string GetMachinePassword() const;

  std::string domain;    ///< the domain's DNS name, upper-cased
  std::string user;      ///< the administrator's bind name, as given
  std::string password;  ///< the administrator's password, as given
  /// The LDAP servers in the caller's order; never null.
  std::unique_ptr<std::list<LdapServer>> servers;
};

/// The machine's account object as last seen.
struct AccountObject {
  bool failed = false;   ///< the directory could not be asked, or an add failed
  bool exists = false;   ///< the object is in the directory
  LDAP* ldap = nullptr;  ///< handle of the session that answered; not owned
  /// The account's `userAccountControl` flags ([MS-ADTS] 2.2.16). Only meaningful when it exists;
  /// 4096, a workstation trust account, when the object has no usable value.
  std::uint32_t user_account_control = 4096;
};

/// Finds, creates and updates the computer account on the domain's controllers. Used by one thread
/// at a time.
///
/// Operations that take `error` put a reason there when they fail; it may be null.
class TAVREL_EXPORT Joiner {
 public:
  /// @param params    the join's inputs; not owned, must outlive the joiner
  /// @param discovery asked for servers when `params` has none; not owned, must outlive the joiner
  Joiner(const JoinParameters* params, const DiscoveryService* discovery);
  Joiner(const Joiner&) = delete;
  Joiner& operator=(const Joiner&) = delete;
  /// Closes every session.
  ~Joiner();

  /// Opens a session to every configured server or, when none is configured, to every discovered
  /// one (with StartTLS, the certificate not verified), and appends them all to `sessions`. Those
  /// that failed have no handle.
  /// @return true when at least one server accepted the bind. `*error` holds the text of the last
  ///   failure even then.
  bool Connect(std::string* error);

  /// Looks the account object up on one session (base search, RFC 4511 4.5; 5 s, 2 entries).
  /// @return with `failed` set, and the reason in `*error`, when the session has no handle or the
  ///   search failed. A missing object is not a failure; neither are flags without exactly one
  ///   value (level 3; 4096 is assumed).
  /// @throws std::invalid_argument, std::out_of_range when the flags are not a 32-bit number
  AccountObject GetAccountObject(const Ldap& ldap, std::string* error) const;

  /// Asks the connected sessions in order until one could answer.
  /// @return its answer; `failed` is set when none could, and `*error` is what the last one left.
  /// @throws as the form for one session
  AccountObject GetAccountObject(std::string* error) const;

  /// Creates the account object, without a password, on the server that answered for `account`.
  /// @return `account` with `exists` set on success, with `failed` set and the reason in `*error`
  ///   otherwise.
  AccountObject AddAccountObject(AccountObject account, std::string* error) const;

  /// Sets the account's password to the machine password (`unicodePwd`). The directory accepts that
  /// only over a protected connection.
  /// @return false, with the reason in `*error`, when there is no handle or no password, or
  ///   when the server refused.
  bool SetPassword(const AccountObject& account, std::string* error) const;

  /// Makes the account an enabled workstation trust account; its other flags are kept.
  /// @return false, with the reason in `*error`, when there is no handle or the server refused.
  bool SetProperties(const AccountObject& account, std::string* error) const;

  std::list<Ldap> sessions;           ///< one for every server tried, in that order
  const JoinParameters* params;       ///< not owned
  const DiscoveryService* discovery;  ///< not owned
};

}  // namespace tavrel

#endif
