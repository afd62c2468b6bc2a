// What a course is compared with.
#include <algorithm>
#include <cstdio>

#include "Course.h"

namespace tavrel::tests {
namespace {

bool Matches(const Row& row, const Fault& fault) {
  std::string call = row.call;
  if (const std::size_t blank = call.find(' '); blank != std::string::npos) {
    if (call.substr(blank + 1) != fault.failure->name) return false;
    call.resize(blank);
  }
  if (const std::size_t hash = call.find('#'); hash != std::string::npos) {
    int first = 0;
    int last = 0;
    const int numbers = std::sscanf(call.c_str() + hash, "#%d-%d", &first, &last);
    if (fault.occurrence < first || fault.occurrence > (numbers == 2 ? last : first)) return false;
    call.resize(hash);
  }
  return call == fault.call;
}

// Notes in `course` where it is not the one of a failure that somebody noticed: what changed the
// result is told, in a record or to the caller.
void CheckNoticed(const std::string& result, const Course& undisturbed, Course& course) {
  if (course.result != result) {
    course.wrong.push_back("the result is \"" + course.result + "\", not \"" + result + "\"");
  }
  if (course.result != undisturbed.result && course.lines == undisturbed.lines &&
      course.error == undisturbed.error) {
    course.wrong.emplace_back("the failure was not told");
  }
}

}  // namespace

std::string Listed(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += "\n    " + line;
  return lines.empty() ? " (none)" : text;
}

void CheckUndisturbed(const Scenario& scenario, Course& course) {
  if (course.result != scenario.result) {
    course.wrong.push_back("the result is \"" + course.result + "\", not \"" + scenario.result +
                           "\"");
  }
  if (course.keytab != scenario.keytab) course.wrong.push_back("the keytab is " + course.keytab);
}

void CheckUnnoticed(const Course& undisturbed, bool with_error, Course& course) {
  if (course.result != undisturbed.result || (with_error && course.error != undisturbed.error)) {
    course.wrong.push_back("the fault changed the result to \"" + course.result + "\", \"" +
                           course.error + "\"");
  }
  if (course.lines != undisturbed.lines) {
    course.wrong.push_back("the fault changed the log to" + Listed(course.lines) + "\n  from" +
                           Listed(undisturbed.lines));
  }
}

void CheckCall(const Scenario& scenario, Mode mode, bool with_error, const Course& undisturbed,
               Course& course) {
  const Fault& fault = *course.first;
  const auto row = std::find_if(scenario.rows.begin(), scenario.rows.end(),
                                [&](const Row& candidate) { return Matches(candidate, fault); });
  if (row == scenario.rows.end()) {
    course.wrong.push_back("no row tells what is expected");
    return;
  }
  course.row = &*row;
  for (const std::string& line : course.lines) {
    if (line.find("krb-keytab WriteKey: Error ") != std::string::npos && !fault.failure->after &&
        course.keytab != kUnchanged && course.keytab != kMended) {
      course.wrong.push_back("the key was not written, and the keytab is " + course.keytab);
    }
  }
  if (mode == Mode::kCallThenNoMemory && course.result == kBadAlloc) return;
  const Result& expected = mode == Mode::kAllLaterCalls && row->then ? row->then : row->once;
  if (expected) {
    CheckNoticed(*expected, undisturbed, course);
  } else {
    CheckUnnoticed(undisturbed, with_error, course);
  }
}

void CheckAllocation(Course& course) {
  if (course.result != kBadAlloc) {
    course.wrong.push_back("without memory the result is \"" + course.result + "\"");
  }
}

}  // namespace tavrel::tests
