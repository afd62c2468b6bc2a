#include "tavrel/KrbError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <krb5.h>
#include <profile.h>

#include <cerrno>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "GroupedDigits.h"
#include "LogCapture.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr int kBase = -1765328384;

static_assert(kSuccess == 0 && kClockSkew == 2 && kFailure == 3);
static_assert(sizeof(KrbStatus) == sizeof(int));
static_assert(std::is_convertible_v<KrbStatus, int>, "operations return it as a plain number");

// The codes at both ends of every range of the error table, by their names.
static_assert(KRB5KDC_ERR_NONE == kBase);
static_assert(KRB5KDC_ERR_NAME_EXP == kBase + 1 && KRB5KDC_ERR_SERVER_NOMATCH == kBase + 26);
static_assert(KRB5KDC_ERR_MUST_USE_USER2USER == kBase + 27);
static_assert(KRB5KRB_AP_ERR_BAD_INTEGRITY == kBase + 31 && KRB5KRB_AP_ERR_BADMATCH == kBase + 36);
static_assert(KRB5KRB_AP_ERR_SKEW == kBase + 37);
static_assert(KRB5KRB_AP_ERR_BADADDR == kBase + 38 && KRB5KRB_ERR_RESPONSE_TOO_BIG == kBase + 52);
static_assert(KRB5KRB_ERR_GENERIC == kBase + 60 && KRB5KRB_ERR_FIELD_TOOLONG == kBase + 61);
static_assert(KRB5KDC_ERR_CLIENT_NOT_TRUSTED == kBase + 62);
static_assert(KRB5_ERR_RCSID == kBase + 128 && KRB5_KDCREP_MODIFIED == kBase + 147);
static_assert(KRB5_KDCREP_SKEW == kBase + 148);
static_assert(KRB5_IN_TKT_REALM_MISMATCH == kBase + 149 && KRB5_CC_FORMAT == kBase + 199);
static_assert(KRB5_CC_NOT_KTYPE == kBase + 200);
static_assert(KRB5_INVALID_FLAGS == kBase + 201 && KRB5_SAM_UNSUPPORTED == kBase + 225);
static_assert(KRB5_SAM_INVALID_ETYPE == kBase + 226 && KRB5_SAM_BAD_CHECKSUM == kBase + 228);
static_assert(KRB5_KT_NAME_TOOLONG == kBase + 229 && KRB5_ERR_NUMERIC_REALM == kBase + 243);

std::string Unknown(int code) {
  return "3 krb-error KrbErrorToStatus: Unknown krb5 error found: " + std::to_string(code);
}

// What each code from 300 below the table's base to 600 above it means, one letter a code:
// '0' success, '2' clock skew, '3' a known failure, '?' a failure that is logged.
std::string Meanings() {
  std::string meanings(300, '?');
  const auto next = [&](int offset_of_last, char meaning) {
    meanings.resize(static_cast<std::size_t>(300 + offset_of_last + 1), meaning);
  };
  next(0, '0');
  next(26, '3');
  next(30, '?');
  next(36, '3');
  next(37, '2');
  next(52, '3');
  next(59, '?');
  next(61, '3');
  next(127, '?');
  next(147, '3');
  next(148, '2');
  next(199, '3');
  next(200, '?');
  next(225, '3');
  next(228, '?');
  next(243, '3');
  next(600, '?');
  return meanings;
}

TEST(KrbErrorToStatus, KnowsEveryCodeOfTheTableAndLogsTheOthers) {
  const std::string meanings = Meanings();
  ASSERT_EQ(meanings.size(), 901u);
  std::string seen;
  std::vector<std::string> expected_log;
  for (std::size_t i = 0; i < meanings.size(); ++i) {
    if (meanings[i] == '?') expected_log.push_back(Unknown(kBase - 300 + static_cast<int>(i)));
  }
  LogCapture log;

  for (std::size_t i = 0; i < meanings.size(); ++i) {
    const std::size_t logged_before = log.Records().size();
    const int status = KrbErrorToStatus(kBase - 300 + static_cast<int>(i));
    const bool logged = log.Records().size() != logged_before;
    seen.push_back(logged && status == 3 ? '?' : static_cast<char>('0' + status));
  }

  EXPECT_EQ(seen, meanings);
  EXPECT_THAT(log.Notable(), ElementsAreArray(expected_log));
}

TEST(KrbErrorToStatus, TakesACodeOfAnyOtherTableForAnUnknownFailure) {
  for (const int code : {0,
                         1,
                         -1,
                         2,
                         3,
                         EPERM,
                         ENOENT,
                         ENOMEM,
                         EACCES,
                         ECONNREFUSED,
                         ETIMEDOUT,
                         300,
                         -300,
                         65536,
                         static_cast<int>(KV5M_NONE),
                         static_cast<int>(KV5M_CONTEXT),
                         static_cast<int>(KV5M_PRINCIPAL),
                         static_cast<int>(ASN1_BAD_TIMEFORMAT),
                         static_cast<int>(ASN1_OVERRUN),
                         static_cast<int>(KRB5_PLUGIN_VER_NOTSUPP),
                         static_cast<int>(KRB5_DELTAT_BADFORMAT),
                         static_cast<int>(KRB524_BADKEY),
                         static_cast<int>(PROF_MODULE_SYNTAX),
                         kBase + 1000000,
                         kBase - 1000000,
                         -kBase,
                         std::numeric_limits<int>::min(),
                         std::numeric_limits<int>::max()}) {
    LogCapture log;

    const int status = KrbErrorToStatus(code);

    EXPECT_EQ(status, 3) << code;
    EXPECT_THAT(log.Notable(), ElementsAre(Unknown(code)));
  }
}

TEST(KrbErrorToStatus, WritesNumbersThatNoLocaleOfTheHostChanges) {
  const GroupedDigits digits;
  LogCapture log;

  KrbErrorToStatus(-1765328184);

  EXPECT_THAT(log.Notable(),
              ElementsAre("3 krb-error KrbErrorToStatus: Unknown krb5 error found: -1765328184"));
  EXPECT_EQ(log.Records()[0].file, "KrbError.cpp");
}

}  // namespace
}  // namespace tavrel::tests
