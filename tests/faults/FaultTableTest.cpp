#include "FaultTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>

namespace tavrel::tests {
namespace {

using testing::ContainerEq;
using testing::IsEmpty;

bool IsLanguageRuntime(const std::string& symbol) {
  static const char* const kStarts[] = {
      "std::",  "vtable for ", "typeinfo for ", "operator ",      "_Unwind_",
      "__cxa_", "__gxx_",      "_ITM_",         "__gmon_start__", "__stack_chk_fail"};
  for (const std::string start : kStarts) {
    if (symbol.compare(0, start.size(), start) == 0) return true;
  }
  return false;
}

// The functions that libtavrel.so takes from other libraries; the language's runtime left out.
std::set<std::string> CalledByTheLibrary() {
  std::set<std::string> calls;
  std::ifstream list(TAVREL_UNDEFINED_SYMBOLS);
  for (std::string line; std::getline(list, line);) {
    const std::string symbol = line.substr(2);  // behind the kind
    if (!IsLanguageRuntime(symbol)) calls.insert(symbol.substr(0, symbol.find_first_of("[(")));
  }
  return calls;
}

TEST(FaultTable, SaysOfEveryCallHowItFailsOrWhyItCannot) {
  std::multiset<std::string> listed;

  for (const Fallible& row : FaultTable())
    listed.insert(row.call);
  for (const Infallible& row : CannotFail())
    listed.insert(row.call);

  const std::set<std::string> calls = CalledByTheLibrary();
  std::multiset<std::string> expected(calls.begin(), calls.end());
  EXPECT_THAT(listed, ContainerEq(expected));
}

TEST(FaultTable, HasAFailureForEveryFallibleCallAndAReasonForTheOthers) {
  for (const Fallible& row : FaultTable())
    EXPECT_FALSE(row.failures.empty()) << row.call;
  for (const Infallible& row : CannotFail())
    EXPECT_STRNE(row.reason, "") << row.call;
}

}  // namespace
}  // namespace tavrel::tests
