// What a course is compared with.
#include <krb5.h>
#include <ldap.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Course.h"

namespace tavrel::tests {
namespace {

// The library's text of a failure.
std::string Why(const Fault& fault) {
  const Failure& failure = *fault.failure;
  if (fault.call.compare(0, 5, "krb5_") == 0) {
    const auto code = static_cast<krb5_error_code>(failure.value);
    const char* const text = krb5_get_error_message(nullptr, code);
    const std::string message = text;
    krb5_free_error_message(nullptr, text);
    return message;
  }
  if (fault.call.compare(0, 5, "ldap_") == 0) {
    return ldap_err2string(static_cast<int>(failure.value));
  }
  return fault.call == "gethostname" ? std::to_string(failure.number)
                                     : std::strerror(failure.number);
}

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

// Without those of mere detail.
std::vector<std::string> Notable(const std::vector<std::string>& lines) {
  std::vector<std::string> notable;
  for (const std::string& line : lines) {
    if (line[0] >= '2') notable.push_back(line);
  }
  return notable;
}

// Notes in `course` where it is not as `expected`.
void Compare(const Expected& expected, const std::string& why, const std::string& code,
             bool with_error, bool only_first_record, Course& course) {
  const auto filled = [&](const std::string& text) {
    return Replaced(Replaced(text, "<why>", why), "<code>", code);
  };
  if (course.result != expected.result) {
    course.wrong.push_back("the result is \"" + course.result + "\", not \"" + expected.result +
                           "\"");
  }
  if (expected.result == kBadAlloc) return;  // which may pass wherever it is thrown
  if (with_error && course.error != filled(expected.error)) {
    course.wrong.push_back("the error text is \"" + course.error + "\", not \"" +
                           filled(expected.error) + "\"");
  }
  std::vector<std::string> records;
  for (const std::string& record : expected.records)
    records.push_back(filled(record));
  const std::vector<std::string> notable = Notable(course.lines);
  if (only_first_record) {
    if (!records.empty() &&
        std::find(notable.begin(), notable.end(), records.front()) == notable.end()) {
      course.wrong.push_back("no record " + records.front());
    }
  } else if (notable != records) {
    course.wrong.push_back("the records are" + Listed(notable) + "\n  not" + Listed(records));
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
  Compare(scenario.undisturbed, "", "", true, false, course);
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
  const bool all_later = mode == Mode::kAllLaterCalls;
  const std::optional<Expected>& expected = all_later && row->then ? row->then : row->once;
  if (!expected) {
    CheckUnnoticed(undisturbed, with_error, course);
    return;
  }
  // All later calls: also the one that asks for the message.
  const bool without_message = all_later && fault.call.compare(0, 5, "krb5_") == 0;
  Compare(*expected, without_message ? "" : Why(fault), std::to_string(fault.failure->value),
          with_error, all_later, course);
}

void CheckAllocation(Course& course) {
  if (course.result != kBadAlloc) {
    course.wrong.push_back("without memory the result is \"" + course.result + "\"");
  }
}

}  // namespace tavrel::tests
