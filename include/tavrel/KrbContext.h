/// @file
/// The Kerberos library objects that every Kerberos operation needs, and the ticket-time checks.
#ifndef TAVREL_KRBCONTEXT_H
#define TAVREL_KRBCONTEXT_H

#include <krb5.h>

#include <cstdint>
#include <string>

#include "tavrel/Export.h"

namespace tavrel {

/// Owns a libkrb5 context, the client principal and the keytab handle. Used by one thread at a
/// time.
///
/// Other modules read the three members; only the operations here write them. Each is null when
/// empty. Failures are logged at level 4; no operation throws on one.
class TAVREL_EXPORT KrbContext {
 public:
  /// Starts with everything empty and calls Init(), whose failure leaves `context` null.
  KrbContext();
  KrbContext(const KrbContext&) = delete;
  KrbContext& operator=(const KrbContext&) = delete;
  /// Releases keytab, client principal and context, in that order.
  ~KrbContext();

  /// Frees the context, if any, and creates a new one (`krb5_init_context`). A keytab or principal
  /// still held is left as it is, and logged.
  /// @return true on success; otherwise `context` is null.
  bool Init();

  /// Closes the keytab, if any, and then resolves `path` (`krb5_kt_resolve`): a file path, or a
  /// name with a keytab type in front of a colon. The file need not exist.
  /// @return true on success; otherwise `keytab` is null.
  bool SetKeytab(const std::string& path);

  /// Frees the client principal, if any, and then parses `name` (`krb5_parse_name`).
  /// @return true on success; otherwise `client_principal` is null.
  bool SetClientPrincipal(const std::string& name);

  /// Closes the keytab handle, if any (`krb5_kt_close`).
  void ReleaseKeytab();

  /// Frees the client principal, if any (`krb5_free_principal`).
  void ReleaseClientPrincipal();

  /// Frees the context, if any (`krb5_free_context`), even under a keytab or principal that is
  /// still held, which is logged.
  void ReleaseContext();

  krb5_context context;             ///< the library context
  krb5_principal client_principal;  ///< the machine account's principal
  krb5_keytab keytab;               ///< the machine's keytab
};

/// Checks of a ticket's times against the local clock (`time`). A ticket without a start time is
/// judged by its authentication time (RFC 4120, 5.3).
class TAVREL_EXPORT KrbTicketValidator {
 public:
  KrbTicketValidator() = delete;

  /// The tolerated clock difference in seconds: 300.
  static const std::int64_t kMaxOffsetSeconds;

  /// @return true when a fresh ticket's start lies within kMaxOffsetSeconds of now, both ends
  ///   included.
  static bool IsStartTimeValid(const krb5_ticket_times& times);

  /// @return true when a presented ticket has started and has not expired, each with
  ///   kMaxOffsetSeconds of grace, and does not end before it starts.
  static bool IsTicketTimeValid(const krb5_ticket_times& times);
};

}  // namespace tavrel

#endif
