// A machine whose clock is wrong is told so, and is not given another password for it.
#include <ctime>

#include "Interpose.h"
#include "JoinScenario.h"
#include "Records.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

constexpr char kDifference[] = "3 krb-keytab ASAuthenticate: Clock difference with KDC detected\n";

struct Clock {
  const char* name;
  const char* offset;
  bool corrected;  // libkrb5 goes by the clock of the KDC
};
class JoinWithAWrongClock : public JoinScenario, public testing::WithParamInterface<Clock> {};
INSTANTIATE_TEST_SUITE_P(Running, JoinWithAWrongClock,
                         testing::Values(Clock{"Ahead", "+10m", true},
                                         Clock{"Behind", "-10m", true},
                                         Clock{"AheadAndNotCorrected", "+10m", false},
                                         Clock{"BehindAndNotCorrected", "-10m", false}),
                         [](const auto& test) { return test.param.name; });

TEST_P(JoinWithAWrongClock, HasTheStatusOfAWrongClock) {
  if (!InProcessWithClock(GetParam().offset)) return;
  NameMachine("clock");
  if (!GetParam().corrected) AddKerberosSettings("  kdc_timesync = 0");
  // What an exchange leaves in the log, and what in the error text.
  const std::string by = GetParam().corrected
                             ? std::string(kDifference)
                             : "4 krb-keytab ASAuthenticate: Error authenticating through {WAY}: "
                               "Clock skew too great\n";
  const auto exchanged = [&](const std::string& way) {
    const std::size_t at = by.find("{WAY}");
    return at == std::string::npos ? by : std::string(by).replace(at, 5, way);
  };
  const std::string reason = GetParam().corrected ? kUntouched : "Clock skew too great";
  KrbRealm realm = Realm();

  const Outcome first = Join(realm);
  const Outcome untold = RunWithoutError([&](std::string* error) { return realm.Join(error); });
  const std::string password_state = PasswordState();
  const Outcome tested = TestJoin(realm);
  AddKey(account, Parameters().GetMachinePassword());
  const std::string keytab_bytes = KeytabBytes();
  const Outcome joined = Join(realm);

  EXPECT_EQ(first.status, kClockSkew);
  EXPECT_EQ(first.error, "Unable to authenticate to CORP.EXAMPLE.COM KDC after setting password: " +
                             (GetParam().corrected ? kNotCreated : reason));
  EXPECT_EQ(first.log, Log({kJoined, exchanged("password")}));
  EXPECT_EQ(untold.status, kClockSkew);
  EXPECT_EQ(untold.log, first.log);

  EXPECT_EQ(tested.status, kClockSkew);
  EXPECT_EQ(tested.error, reason);
  EXPECT_EQ(tested.log, Log({kNoKeytab, kJoined, exchanged("password")}));

  EXPECT_EQ(joined.status, kClockSkew);
  EXPECT_EQ(joined.error, reason);
  EXPECT_EQ(joined.log, Log({kJoined, exchanged("keytab")}));
  EXPECT_EQ(PasswordState(), password_state);
  EXPECT_EQ(KeytabBytes(), keytab_bytes);
}

class WrongClock : public JoinScenario {};

TEST_F(WrongClock, IsFoundByTheTicketsStartTime) {
  JoinedRealm realm(*this, "start");
  const StandIn ahead(calls::time, [](time_t* now) {
    const time_t shifted = calls::time.Real(nullptr) + 330;
    if (now != nullptr) *now = shifted;
    return shifted;
  });

  const Outcome joined = Join(realm);

  EXPECT_EQ(joined.status, kClockSkew);
  EXPECT_EQ(joined.error, kUntouched);
  EXPECT_EQ(joined.log, Log({kJoined, kDifference}));
}

}  // namespace
}  // namespace tavrel::tests
