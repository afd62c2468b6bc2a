// One run of a scenario, and what came of it.
#ifndef TAVREL_TESTS_FAULTS_COURSE_H
#define TAVREL_TESTS_FAULTS_COURSE_H

#include <optional>
#include <string>
#include <vector>

#include "Injector.h"
#include "Scenario.h"

namespace tavrel::tests {

// Texts are without what differs from run to run, see Row.
struct Course {
  std::string result;
  std::string error;               // the caller's text
  std::string keytab;              // what became of it
  std::vector<std::string> lines;  // the log of what was done under faults
  std::optional<Fault> first;      // the first call that failed
  int fired = 0;                   // calls and allocations that failed
  const Row* row = nullptr;        // that told what to expect
  std::vector<std::string> wrong;  // in words
};

// Runs `scenario` as planned, and then once more without faults. Notes what is wrong whatever the
// plan: handles, secrets, names, the keytab, and an object that does not work any more. The
// caller's error text is null unless `with_error`.
Course RunOnce(const Scenario& scenario, const Plan& plan, bool with_error);

// Notes where `course` is not as expected: undisturbed, with a fault in a call, or with a failed
// allocation. Faults that nobody takes notice of leave it as it is `undisturbed`.
void CheckUndisturbed(const Scenario& scenario, Course& course);
void CheckUnnoticed(const Course& undisturbed, bool with_error, Course& course);
void CheckCall(const Scenario& scenario, Mode mode, bool with_error, const Course& undisturbed,
               Course& course);
void CheckAllocation(Course& course);

// `text` with `by` in all places of `what`.
std::string Replaced(std::string text, const std::string& what, const std::string& by);

// `lines`, one below the other.
std::string Listed(const std::vector<std::string>& lines);

}  // namespace tavrel::tests

#endif
