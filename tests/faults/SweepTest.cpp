#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

#include "Course.h"

// There when a leak sanitizer is.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace tavrel::tests {

void PrintTo(const Scenario& scenario, std::ostream* stream) {
  *stream << scenario.name;
}

namespace {

// One way to let things fail.
struct Sweep {
  const char* name;
  Mode mode;
  bool with_error;
};
void PrintTo(const Sweep& sweep, std::ostream* stream) {
  *stream << sweep.name;
}
constexpr Sweep kSweeps[] = {
    {"OneCall", Mode::kOneCall, true},
    {"OneCallWithoutErrorText", Mode::kOneCall, false},
    {"AllLaterCalls", Mode::kAllLaterCalls, true},
    {"CallThenNoMemory", Mode::kCallThenNoMemory, true},
    {"OneAllocation", Mode::kOneAllocation, true},
    {"AllLaterAllocations", Mode::kAllLaterAllocations, true},
};

bool FailsCalls(Mode mode) {
  return mode == Mode::kOneCall || mode == Mode::kAllLaterCalls || mode == Mode::kCallThenNoMemory;
}

// The figures of a whole program.
struct Figure {
  int points = 0;
  int armed = 0;
  int fired = 0;
};
struct Totals {
  bool repeated = false;  // the one fault that was asked for
  std::map<std::string, Figure> scenarios;
  std::set<std::pair<const Fallible*, const Failure*>> failures;
};
Totals totals;

// "FirstJoin:OneCall:17:2" in TAVREL_FAULT repeats that fault alone and shows its log.
struct Repeated {
  std::string sweep;
  Plan plan;
};
std::optional<Repeated> ToBeRepeated(const std::string& sweep, Mode mode) {
  const char* const wanted = std::getenv("TAVREL_FAULT");
  if (wanted == nullptr) return std::nullopt;
  Repeated repeated{sweep, {mode, 0, 0}};
  const std::string start = sweep + ":";
  if (std::strncmp(wanted, start.c_str(), start.size()) == 0) {
    std::sscanf(wanted + start.size(), "%d:%zu", &repeated.plan.nth, &repeated.plan.failure);
  }
  return repeated;
}

std::vector<Scenario> AllScenarios() {
  std::vector<Scenario> all;
  for (auto* list : {RealmScenarios, JoinScenarios, KeytabScenarios, AuthenticateScenarios}) {
    for (Scenario& scenario : list())
      all.push_back(std::move(scenario));
  }
  return all;
}

class FaultSweep : public testing::TestWithParam<std::tuple<Scenario, Sweep>> {
 protected:
  // Runs one plan and checks it. Returns the course.
  Course RunAndCheck(const Plan& plan, const Course& undisturbed) {
    const auto& [scenario, sweep] = GetParam();
    Course course = RunOnce(scenario, plan, sweep.with_error);
    if (course.fired == 0) {
      CheckUnnoticed(undisturbed, sweep.with_error, course);
    } else if (FailsCalls(sweep.mode)) {
      CheckCall(scenario, sweep.mode, sweep.with_error, undisturbed, course);
    } else {
      CheckAllocation(course);
    }
    if (!course.wrong.empty()) ADD_FAILURE() << Report(plan, course);
    return course;
  }

  static std::string Report(const Plan& plan, const Course& course) {
    const auto& [scenario, sweep] = GetParam();
    std::ostringstream text;
    text << "TAVREL_FAULT=" << scenario.name << ":" << sweep.name << ":" << plan.nth << ":"
         << plan.failure << ": ";
    if (course.first) {
      text << course.first->call << "#" << course.first->occurrence << " "
           << course.first->failure->name;
    }
    for (const std::string& wrong : course.wrong)
      text << "\n  " << wrong;
    text << "\n  the log is" << Listed(course.lines);
    return text.str();
  }
};

TEST_P(FaultSweep, EveryFailureIsSurvived) {
  constexpr int kMostFailures = 10;  // reported of one sweep
  const auto& [scenario, sweep] = GetParam();
  const auto repeated = ToBeRepeated(std::string(scenario.name) + ":" + sweep.name, sweep.mode);
  if (repeated && repeated->plan.nth == 0) return;
  const bool brief = std::getenv("TAVREL_FAULTS_BRIEF") != nullptr;

  Course undisturbed = RunOnce(scenario, {}, true);
  CheckUndisturbed(scenario, undisturbed);
  ASSERT_THAT(undisturbed.wrong, testing::IsEmpty()) << Listed(undisturbed.lines);
  if (repeated) {
    totals.repeated = true;
    const Course course = RunAndCheck(repeated->plan, undisturbed);
    std::printf("%s\n", Report(repeated->plan, course).c_str());
    EXPECT_NE(course.fired, 0) << "the sweep has no such fault";
    return;
  }

  std::set<const Row*> used;
  Figure& figure = totals.scenarios[scenario.name];
  int failed = 0;
  for (int nth = 1; failed < kMostFailures; ++nth) {
    const Course course = RunAndCheck({sweep.mode, nth, 0}, undisturbed);
    if (course.fired == 0) break;  // there are no more calls
    ++figure.points;
    ++figure.armed;
    ++figure.fired;
    used.insert(course.row);
    failed += course.wrong.empty() ? 0 : 1;
    if (!course.first) continue;

    totals.failures.insert({course.first->row, course.first->failure});
    const std::size_t failures = brief ? 1 : course.first->row->failures.size();
    for (std::size_t failure = 1; failure < failures && failed < kMostFailures; ++failure) {
      const Course other = RunAndCheck({sweep.mode, nth, failure}, undisturbed);
      ++figure.armed;
      failed += other.wrong.empty() ? 0 : 1;
      if (other.fired == 0) continue;
      ++figure.fired;
      used.insert(other.row);
      EXPECT_EQ(other.first->call, course.first->call) << "another call was the " << nth << "th";
      totals.failures.insert({other.first->row, other.first->failure});
    }
  }
  EXPECT_LT(failed, kMostFailures) << "there may be more";
  if (FailsCalls(sweep.mode) && !brief) {
    for (const Row& row : scenario.rows)
      EXPECT_EQ(used.count(&row), 1u) << "nothing is as in the row of " << row.call;
  }

  static bool leaked = false;  // what leaked is found again by every later check
  if (__lsan_do_recoverable_leak_check != nullptr && !leaked) {
    leaked = __lsan_do_recoverable_leak_check() != 0;
  }
  EXPECT_FALSE(leaked) << "this sweep, or one before it, leaks";
}

INSTANTIATE_TEST_SUITE_P(
    Of, FaultSweep, testing::Combine(testing::ValuesIn(AllScenarios()), testing::ValuesIn(kSweeps)),
    [](const auto& info) {
      return std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).name;
    });

// Says what the sweeps came to. A fault that never fired has tested nothing.
class Figures : public testing::Environment {
 public:
  void TearDown() override {
    if (std::getenv("TAVREL_FAULT") != nullptr) {
      EXPECT_TRUE(totals.repeated) << "there is no such sweep";
      return;
    }
    if (totals.scenarios.empty()) return;
    Figure sum;
    for (const auto& [name, figure] : totals.scenarios) {
      std::printf("%6d fault points, %6d faults fired: %s\n", figure.points, figure.fired,
                  name.c_str());
      sum.points += figure.points;
      sum.armed += figure.armed;
      sum.fired += figure.fired;
    }
    std::printf("faults: %zu scenarios, %d fault points, %d faults fired\n",
                totals.scenarios.size(), sum.points, sum.fired);
    EXPECT_EQ(sum.fired, sum.armed) << "faults were armed and never fired";
    const testing::UnitTest& program = *testing::UnitTest::GetInstance();
    const bool everything = program.test_to_run_count() == program.total_test_count() &&
                            std::getenv("TAVREL_FAULTS_BRIEF") == nullptr;
    if (!everything) return;
    for (const Fallible& row : FaultTable()) {
      for (const Failure& failure : row.failures) {
        EXPECT_EQ(totals.failures.count({&row, &failure}), 1u)
            << "no scenario reaches " << row.call << " " << failure.name;
      }
    }
  }
};
[[maybe_unused]] testing::Environment* const figures =
    testing::AddGlobalTestEnvironment(new Figures);

}  // namespace
}  // namespace tavrel::tests
