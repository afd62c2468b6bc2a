// Makes one call of the library fail, and tells which one it was.
#ifndef TAVREL_TESTS_FAULTS_INJECTOR_H
#define TAVREL_TESTS_FAULTS_INJECTOR_H

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "FaultTable.h"

namespace tavrel::tests {

enum class Mode {
  kNone,
  kOneCall,             // the n-th call that can fail
  kAllLaterCalls,       // and every later one
  kCallThenNoMemory,    // the n-th call, and every later allocation
  kOneAllocation,       // the n-th `operator new`
  kAllLaterAllocations  // and every later one
};

struct Plan {
  Mode mode = Mode::kNone;
  int nth = 0;                     // counted from 1
  std::size_t failure = 0;         // which of the call's failures
  std::function<bool()> counts{};  // whether the call that is made counts; all do when it is empty
};

// The call that failed first.
struct Fault {
  std::string call;    // the function; with what it is about where that tells its calls apart
  int occurrence = 0;  // of that call, counted from 1
  const Fallible* row = nullptr;
  const Failure* failure = nullptr;
};

// While it lives, calls and allocations are counted and the plan is carried out. One at a time.
class Window {
 public:
  explicit Window(const Plan& plan);
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;
  ~Window();
};

// What came of the windows since the last Forget().
struct Injected {
  int fired = 0;               // calls and allocations that failed
  std::optional<Fault> first;  // the first call that failed; none when it was an allocation
};
const Injected& TheInjected();
void Forget();

// The failure that the library's call `function` is due, or null. `detail` is put behind its name.
const Failure* Due(const char* function, const std::string& detail = "");

}  // namespace tavrel::tests

#endif
