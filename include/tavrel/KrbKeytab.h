/// @file
/// The machine's keytab: reading it, writing keys, and the exchanges made with them.
#ifndef TAVREL_KRBKEYTAB_H
#define TAVREL_KRBKEYTAB_H

#include <krb5.h>

#include <cstdint>
#include <string>

#include "tavrel/Export.h"

namespace tavrel {

class KrbContext;

/// Visitor of a keytab's entries, see Keytab::Iterate().
class TAVREL_EXPORT KeytabAccumulator {
 public:
  /// Called once for every entry, in file order. The entry is valid during the call only. It must
  /// not write to the keytab, which is locked for reading until the walk ends: writing a key from
  /// here deadlocks.
  virtual void Process(const krb5_keytab_entry& entry) = 0;

 protected:
  ~KeytabAccumulator() = default;  // visitors are never deleted through this interface
};

/// Decides whether the keytab already holds a key as its principal's current one.
///
/// A key counts as current when an entry of the same principal has the same key bytes and no later
/// entry in file order raises the version number without them. The encryption type and the version
/// number of the reference entry are not compared. The answer depends on the order of the entries.
class TAVREL_EXPORT KeytabMatcher : public KeytabAccumulator {
 public:
  /// @param context   library context, not owned
  /// @param reference the entry to look for (principal and key); not owned, must outlive
  ///   the matcher
  KeytabMatcher(krb5_context context, krb5_keytab_entry* reference);

  void Process(const krb5_keytab_entry& entry) override;

  /// @return the answer for the entries seen so far; false before the first.
  bool IsKeyCurrent() const;

 private:
  krb5_context context_;
  krb5_keytab_entry* reference_;
  std::uint32_t last_vno_;  // of the last entry of the reference principal
  bool current_;
};

/// Logs every entry at level 1: the first name component, realm, key version number and timestamp.
class TAVREL_EXPORT KeytabPrinter : public KeytabAccumulator {
 public:
  void Process(const krb5_keytab_entry& entry) override;
};

/// The operations on the keytab and the client principal of a KrbContext. Cheap to construct; used
/// by one thread at a time.
///
/// Operations that take `error` put libkrb5's message there when they fail; it may be null. An
/// incomplete KrbContext makes an operation fail, never crash: without a context the code is
/// `KV5M_CONTEXT`, without a keytab `KRB5_KT_BADNAME`, without a client principal `KV5M_PRINCIPAL`
/// where one is needed. A null principal equals no other.
class TAVREL_EXPORT Keytab {
 public:
  /// @param context not owned, must outlive the object
  explicit Keytab(KrbContext* context);

  /// Calls `visitor` for every entry. An entry that cannot be read ends the walk, as the end
  /// of the keytab does.
  /// @return the code of opening (`krb5_kt_start_seq_get`) or else closing (`krb5_kt_end_seq_get`)
  ///   the cursor; 0 for success. Nothing is logged.
  krb5_error_code Iterate(KeytabAccumulator& visitor);

  /// Logs every entry, see KeytabPrinter.
  /// @return as Iterate().
  krb5_error_code Print();

  /// @return the highest key version number of the client principal in the keytab plus one; 1
  ///   when it has none or the keytab cannot be read.
  std::uint32_t GetNextClientVno();

  /// @return true when the keytab has an entry of the client principal, of any version and
  ///   encryption type; false also when it cannot be read, which is logged at level 4.
  bool HasKey() const;

  /// Derives the client principal's RC4-HMAC key from `password` (`krb5_c_string_to_key`, RFC 4757)
  /// and appends it with the next key version number; writes nothing when that very key is current.
  /// First removes what a full disk or a crash left of an entry at the end of a keytab file.
  /// @return true when the key was added or is current already; otherwise the keytab's
  ///   keys are as before, and a level-4 record names the step.
  bool WriteKey(const std::string& password, std::string* error);

  /// Removes every entry of the client principal (`krb5_kt_remove_entry`), after the keytab has
  /// been read, in file order.
  /// @return true when all were removed. At the first that cannot be, it stops: those
  ///   removed before stay removed. When the keytab cannot be opened `*error` is left alone. A
  ///   failure to close it is reported in `*error`, but makes the result false only when nothing
  ///   was to be removed.
  /// @warning libkrb5 overwrites a removed entry with zeros for as long as the entry's length says.
  ///   In a file where that is damaged this reaches into the entries behind, or makes the file grow
  ///   by up to 2 GiB.
  bool ClearKeys(std::string* error);

  /// Asks the KDC for an initial ticket with the keytab's keys (AS exchange, RFC 4120 3.1;
  /// `krb5_get_init_creds_keytab`).
  /// @return a KrbStatus: kSuccess; kClockSkew when the ticket starts more than
  ///   KrbTicketValidator::kMaxOffsetSeconds from now (`*error` is left alone) or the library says
  ///   so; kFailure. Without a keytab `*error` is left alone; with an empty or missing one it says
  ///   so.
  int ASAuthenticate(std::string* error);

  /// The same with a password (`krb5_get_init_creds_password`); the keytab is not looked at.
  int ASAuthenticate(std::string password, std::string* error);

  /// Verifies an AP-REQ (RFC 4120 3.2; `krb5_rd_req`) with the keytab's keys, then the ticket's
  /// times (KrbTicketValidator::IsTicketTimeValid()) and that it was issued to the client
  /// principal.
  /// @param request the AP-REQ's bytes, not kept
  /// @param length  their number; a negative one counts as 0
  /// @return the client's realm, a backslash and its last name component; empty when refused, with
  ///   the reasons in the log.
  std::string APAuthenticate(char* request, int length);

  /// Logs one level-1 record for every name component: the label, the component, "@" and the realm.
  static void PrintPrincipal(const krb5_principal& principal, const std::string& label);

  /// Logs server and client principal of `creds` at level 1.
  static void PrintCreds(const krb5_creds& creds);

 private:
  KrbContext* context_;
};

}  // namespace tavrel

#endif
