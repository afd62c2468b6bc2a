/// @file
/// The status that Kerberos-backed operations report.
#ifndef TAVREL_KRBERROR_H
#define TAVREL_KRBERROR_H

#include "tavrel/Export.h"

namespace tavrel {

/// Outcome of a Kerberos-backed operation. Operations return it as a plain `int`.
enum KrbStatus : int {
  kSuccess = 0,    ///< it worked
  kClockSkew = 2,  ///< the local clock and the KDC's differ too much, see
                   ///< KrbTicketValidator::kMaxOffsetSeconds
  kFailure = 3,    ///< any other failure
};

/// Folds an error code of libkrb5 (the `krb5` error table, RFC 4120 7.5.9 and the library's own
/// codes) into a status.
///
/// @return kSuccess for `KRB5KDC_ERR_NONE` only, the table's base code; kClockSkew for
///   `KRB5KRB_AP_ERR_SKEW` and `KRB5_KDCREP_SKEW`; kFailure for everything else. A code that the
///   library does not know, the plain value 0 included, is logged at level 3.
TAVREL_EXPORT int KrbErrorToStatus(int code);

}  // namespace tavrel

#endif
