#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <type_traits>

#include "Interpose.h"
#include "LogCapture.h"
#include "tavrel/KrbContext.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr krb5_timestamp kEarliest = std::numeric_limits<krb5_timestamp>::min();
constexpr krb5_timestamp kLatest = std::numeric_limits<krb5_timestamp>::max();
constexpr bool kClockHas32Bits = sizeof(std::time_t) == sizeof(krb5_timestamp);

static_assert(std::is_same_v<decltype(KrbTicketValidator::kMaxOffsetSeconds), const std::int64_t>);
static_assert(!std::is_default_constructible_v<KrbTicketValidator>);

krb5_ticket_times Times(krb5_timestamp authtime, krb5_timestamp starttime, krb5_timestamp endtime) {
  krb5_ticket_times times{};
  times.authtime = authtime;
  times.starttime = starttime;
  times.endtime = endtime;
  return times;
}

// What the checks answer when the library's clock shows `now`.
bool StartValid(std::int64_t now, const krb5_ticket_times& times) {
  const StandIn clock(calls::time, [=](std::time_t*) { return static_cast<std::time_t>(now); });
  return KrbTicketValidator::IsStartTimeValid(times);
}
bool TicketValid(std::int64_t now, const krb5_ticket_times& times) {
  const StandIn clock(calls::time, [=](std::time_t*) { return static_cast<std::time_t>(now); });
  return KrbTicketValidator::IsTicketTimeValid(times);
}

constexpr krb5_timestamp kNow = 1700000000;

struct Offset {
  krb5_timestamp seconds;
  bool valid;
};

TEST(IsStartTimeValid, AcceptsAStartUpTo300SecondsFromNow) {
  for (const auto& [seconds, valid] :
       {Offset{0, true}, Offset{1, true}, Offset{-1, true}, Offset{299, true}, Offset{-299, true},
        Offset{300, true}, Offset{-300, true}, Offset{301, false}, Offset{-301, false},
        Offset{86400, false}, Offset{-86400, false}}) {
    const auto start = Times(1, kNow + seconds, 0);
    const auto no_start = Times(kNow + seconds, 0, 0);

    EXPECT_EQ(StartValid(kNow, start), valid) << "start " << seconds << " s from now";
    EXPECT_EQ(StartValid(kNow, no_start), valid) << "authenticated " << seconds << " s from now";
  }
}

TEST(IsStartTimeValid, UsesTheStartTimeWheneverThereIsOne) {
  EXPECT_TRUE(StartValid(kNow, Times(kNow + 9999, kNow, 0)));
  EXPECT_FALSE(StartValid(kNow, Times(kNow, kNow + 9999, 0)));
  EXPECT_FALSE(StartValid(kNow, Times(kNow, 1, 0)));
  EXPECT_FALSE(StartValid(kNow, Times(kNow, -1, 0)));
}

TEST(IsStartTimeValid, DoesNotLookAtTheEnd) {
  EXPECT_TRUE(StartValid(kNow, Times(kNow, kNow, kEarliest)));
  EXPECT_TRUE(StartValid(kNow, Times(kNow, kNow, kLatest)));
}

TEST(IsStartTimeValid, DoesNotWrapAtTheEndsOf32Bits) {
  const std::int64_t latest = kLatest;
  const std::int64_t earliest = kEarliest;

  EXPECT_TRUE(StartValid(latest, Times(0, kLatest, 0)));
  EXPECT_FALSE(StartValid(earliest, Times(0, kLatest, 0)));
  EXPECT_TRUE(StartValid(earliest, Times(0, kEarliest, 0)));
  EXPECT_FALSE(StartValid(latest, Times(0, kEarliest, 0)));
  EXPECT_TRUE(StartValid(0, Times(0, 0, 0)));
  if (kClockHas32Bits) return;
  EXPECT_TRUE(StartValid(latest + 300, Times(0, kLatest, 0)));
  EXPECT_FALSE(StartValid(latest + 301, Times(0, kLatest, 0)));
  EXPECT_TRUE(StartValid(earliest - 300, Times(0, kEarliest, 0)));
  EXPECT_FALSE(StartValid(earliest - 301, Times(0, kEarliest, 0)));
}

struct Presented {
  const char* what;
  krb5_timestamp starts;  // seconds from now
  krb5_timestamp ends;    // likewise
  bool valid;
};

TEST(IsTicketTimeValid, GrantsTheStartAndTheEnd300SecondsOfGrace) {
  for (const auto& [what, starts, ends, valid] : {
           Presented{"under way", -3600, 3600, true},
           Presented{"just begun", 0, 3600, true},
           Presented{"about to begin", 299, 3600, true},
           Presented{"begins at the end of the grace", 300, 3600, true},
           Presented{"begins after the grace", 301, 3600, false},
           Presented{"ends now", -3600, 0, true},
           Presented{"ended within the grace", -3600, -299, true},
           Presented{"ended at the end of the grace", -3600, -300, true},
           Presented{"ended before the grace", -3600, -301, false},
           Presented{"begun long ago", -1000000, 1, true},
           Presented{"of no length, now", 0, 0, true},
           Presented{"of no length, at the end of the grace", -300, -300, true},
           Presented{"of no length, to come", 300, 300, true},
           Presented{"ends before it begins", 1, 0, false},
           Presented{"ends before it begins, though both are recent", 100, 99, false},
           Presented{"ends before it begins, and has not begun", 301, 300, false},
           Presented{"ends before it begins, and has ended", -301, -302, false},
       }) {
    const auto start = Times(1, kNow + starts, kNow + ends);
    const auto no_start = Times(kNow + starts, 0, kNow + ends);

    EXPECT_EQ(TicketValid(kNow, start), valid) << what;
    EXPECT_EQ(TicketValid(kNow, no_start), valid) << what << ", without a start time";
  }
}

TEST(IsTicketTimeValid, UsesTheStartTimeWheneverThereIsOne) {
  EXPECT_TRUE(TicketValid(kNow, Times(kNow + 9999, kNow, kNow)));
  EXPECT_FALSE(TicketValid(kNow, Times(kNow, kNow + 9999, kLatest)));
}

TEST(IsTicketTimeValid, DoesNotWrapAtTheEndsOf32Bits) {
  const std::int64_t latest = kLatest;
  const std::int64_t earliest = kEarliest;

  EXPECT_TRUE(TicketValid(latest, Times(0, kEarliest, kLatest)));
  EXPECT_TRUE(TicketValid(earliest, Times(0, kEarliest, kLatest)));
  EXPECT_FALSE(TicketValid(earliest, Times(0, kLatest, kEarliest)));
  EXPECT_FALSE(TicketValid(kNow, Times(0, kEarliest, kEarliest)));
  EXPECT_FALSE(TicketValid(kNow, Times(0, kLatest, kLatest)));
  if (kClockHas32Bits) return;
  EXPECT_TRUE(TicketValid(latest + 300, Times(0, kLatest, kLatest)));
  EXPECT_FALSE(TicketValid(latest + 301, Times(0, kLatest, kLatest)));
  EXPECT_TRUE(TicketValid(earliest - 300, Times(0, kEarliest, kLatest)));
  EXPECT_FALSE(TicketValid(earliest - 301, Times(0, kEarliest, kLatest)));
}

TEST(BothChecks, ReadTheClockOnceAndLogNothing) {
  std::vector<std::time_t*> arguments;
  const StandIn clock(calls::time, [&](std::time_t* result) {
    arguments.push_back(result);
    return std::time_t{kNow};
  });
  LogCapture log;
  CallTrace trace;

  const bool fresh = KrbTicketValidator::IsStartTimeValid(Times(kNow, kNow, kNow));
  const bool valid = KrbTicketValidator::IsTicketTimeValid(Times(kNow, kNow, kNow));

  EXPECT_TRUE(fresh);
  EXPECT_TRUE(valid);
  EXPECT_THAT(trace.Names(), ElementsAre("time", "time"));
  EXPECT_THAT(arguments, ElementsAre(nullptr, nullptr));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(BothChecks, GoByTheLocalClock) {
  const auto now = static_cast<krb5_timestamp>(std::time(nullptr));

  EXPECT_TRUE(KrbTicketValidator::IsStartTimeValid(Times(now, now, now + 3600)));
  EXPECT_FALSE(KrbTicketValidator::IsStartTimeValid(Times(now, now - 3600, now + 3600)));
  EXPECT_TRUE(KrbTicketValidator::IsTicketTimeValid(Times(now, now - 3600, now + 3600)));
  EXPECT_FALSE(KrbTicketValidator::IsTicketTimeValid(Times(now, now - 7200, now - 3600)));
}

}  // namespace
}  // namespace tavrel::tests
