/// @file
/// One Active Directory domain, as the processes of the appliance use it.
#ifndef TAVREL_KRBREALM_H
#define TAVREL_KRBREALM_H

#include <list>
#include <string>

#include "tavrel/Export.h"
#include "tavrel/Join.h"
#include "tavrel/KrbContext.h"

namespace tavrel {

/// One Active Directory domain (Kerberos realm) in which the appliance is, or is to become, a
/// computer. One object serves one call at a time; objects are independent of each other.
///
/// Operations that take `error` put the reason of a failure there; it may be null. Decide by the
/// result: a success can leave a text too. It is that of the last of these to happen, and the
/// caller's own earlier text when none did:
/// - a server was not bound, but another was: why ("Can't contact LDAP server");
/// - a session could not look the account up, but a later one could: why;
/// - the keytab did not exist, as at each first join: "Keytab file not created yet.";
/// - the KDC refused the keytab's key, or the password of a test, and a new one was set: why
///   ("Preauthentication failed");
/// - the keytab could not be written: "Unable to write Kerberos keytab for ", the domain and why.
///   Only this one needs attention: the machine has no key.
///
/// No operation throws on a failure of the directory, of Kerberos or of DNS. Two exceptions pass:
/// `std::bad_alloc`, and the `std::system_error` of a broken threading setup
/// (JoinParameters::GetMachinePassword()). A thread that is cancelled (pthread_cancel()) inside an
/// operation returns from it first.
class TAVREL_EXPORT KrbRealm {
 public:
  /// Creates the Kerberos context and binds it to the keytab. A failure is only logged: the object
  /// exists, and operations that need the keytab fail later.
  /// @param domain      the domain's DNS name
  /// @param servers     LDAP servers to use, in order; when empty, DNS is asked for them
  /// @param user        bind name of an administrator, for example
  ///   "Administrator@CORP.EXAMPLE.COM"
  /// @param password    its password
  /// @param keytab_path the machine's keytab, as for KrbContext::SetKeytab(); it need not exist and
  ///   should hold nothing but this machine's keys
  KrbRealm(const std::string& domain, const std::list<LdapServer>& servers, const std::string& user,
           const std::string& password, const std::string& keytab_path);

  /// The same without servers.
  KrbRealm(const std::string& domain, const std::string& user, const std::string& password,
           const std::string& keytab_path);

  virtual ~KrbRealm();

  /// Authenticates a user by the Kerberos AP-REQ in a GSS-API token (RFC 4121, 4.1), bare or in a
  /// SPNEGO token (RFC 4178), with the keys in the keytab. Join() first: a realm that never tried
  /// accepts nobody. Any attempt that got as far as the account, successful or not, sets the
  /// machine's principal, and every TestJoin() changes it to that of its own domain.
  /// @param token  the token's bytes as received, not kept
  /// @param length their number; a negative one counts as 0
  /// @return the user as realm, backslash and name ("CORP.EXAMPLE.COM\alice"); empty when refused,
  ///   with the reasons in the log.
  std::string Authenticate(char* token, int length);

  /// Joins the domain given at construction, see the form with parameters.
  int Join(std::string* error);

  /// Makes the machine a working member of a domain: finds or creates its computer account and sets
  /// the account's flags. If the keys in the keytab work, that is all; otherwise it gives the
  /// account a new password, and the keytab its key. Can be repeated safely.
  /// @return a KrbStatus; kSuccess also when only the keytab could not be written.
  int Join(const JoinParameters& params, std::string* error);

  /// Finds or creates the computer account and sets its properties, on a connected joiner.
  /// @return false, with the reason in `*error`, when one of these failed.
  bool Join(const Joiner& joiner, const JoinParameters& params, std::string* error);

  /// Tests whether the machine account's password works, and sets it if it does not. Creates the
  /// account if there is none; never writes the keytab. Finds controllers as Join() does.
  /// @return a KrbStatus
  int TestJoin(const JoinParameters& params, std::string* error);

  /// Tests a join with the given credentials and controllers found through DNS: runs Join() when
  /// the keytab has a key of the machine, the password test above otherwise. Neither is read-only.
  /// Use an object that does not authenticate users.
  /// @return a KrbStatus
  virtual int TestJoin(const std::string& domain, const std::string& user,
                       const std::string& password, std::string* error);

 protected:
  KrbContext krb_context;          ///< context, keytab and the latest attempt's principal
  JoinParameters join_parameters;  ///< as given at construction
};

}  // namespace tavrel

#endif
