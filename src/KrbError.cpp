#include "tavrel/KrbError.h"

#include <krb5.h>

#include <algorithm>
#include <iterator>

#include "Log.h"

namespace tavrel {
namespace {

const Logger logger("krb-error");

struct Range {
  krb5_error_code first, last;  // both inclusive
  KrbStatus status;
};

// Ascending. A code between two rows is unknown: the status is that of a failure, and it is logged.
constexpr Range kRanges[] = {
    {KRB5KDC_ERR_NONE, KRB5KDC_ERR_NONE, kSuccess},
    {KRB5KDC_ERR_NAME_EXP, KRB5KDC_ERR_SERVER_NOMATCH, kFailure},
    {KRB5KRB_AP_ERR_BAD_INTEGRITY, KRB5KRB_AP_ERR_BADMATCH, kFailure},
    {KRB5KRB_AP_ERR_SKEW, KRB5KRB_AP_ERR_SKEW, kClockSkew},
    {KRB5KRB_AP_ERR_BADADDR, KRB5KRB_ERR_RESPONSE_TOO_BIG, kFailure},
    {KRB5KRB_ERR_GENERIC, KRB5KRB_ERR_FIELD_TOOLONG, kFailure},
    {KRB5_ERR_RCSID, KRB5_KDCREP_MODIFIED, kFailure},
    {KRB5_KDCREP_SKEW, KRB5_KDCREP_SKEW, kClockSkew},
    {KRB5_IN_TKT_REALM_MISMATCH, KRB5_CC_FORMAT, kFailure},
    {KRB5_INVALID_FLAGS, KRB5_SAM_UNSUPPORTED, kFailure},
    {KRB5_KT_NAME_TOOLONG, KRB5_ERR_NUMERIC_REALM, kFailure},
};

constexpr bool Ascending() {
  for (std::size_t i = 0; i < std::size(kRanges); ++i) {
    if (kRanges[i].first > kRanges[i].last) return false;
    if (i > 0 && kRanges[i - 1].last >= kRanges[i].first) return false;
  }
  return true;
}
static_assert(Ascending());

}  // namespace

int KrbErrorToStatus(int code) {
  for (const Range& range : kRanges) {
    if (code >= range.first && code <= range.last) return range.status;
  }
  logger.Warning("Unknown krb5 error found: ", code);
  return kFailure;
}

}  // namespace tavrel
