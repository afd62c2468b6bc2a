#include "Injector.h"

#include <dlfcn.h>
#include <unwind.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <new>

#include "Interpose.h"

namespace tavrel::tests {
namespace {

struct State {
  bool open = false;
  Plan plan;
  int calls = 0;
  int allocations = 0;
  std::map<std::string, int> occurrences;
  Injected injected;
};

// Constant-initialised where it matters: malloc is called before static objects are constructed.
bool window_open = false;

State& TheState() {
  static State state;
  return state;
}

// Where strings grow: in code that a new compiler puts into this program, or in a library of its
// own.
bool IsInStandardLibrary(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0) return false;
#if __GNUC__ >= 16
  return info.dli_sname != nullptr && std::strncmp(info.dli_sname, "_ZNSt", 5) == 0;
#else
  return info.dli_fname != nullptr && std::strstr(info.dli_fname, "libstdc++.so") != nullptr;
#endif
}

// The allocation is the library's, too, when the library called the standard library for it.
bool IsOnBehalfOfTheLibrary(const void* caller) {
  if (IsInLibrary(caller)) return true;
#if __GNUC__ < 16  // a new compiler's code has functions without a name
  if (!IsInStandardLibrary(caller)) return false;
#endif
  struct Search {
    bool in_standard_library = false;
    bool found = false;
  } search;
  _Unwind_Backtrace(
      [](_Unwind_Context* frame, void* data) {
        auto& search = *static_cast<Search*>(data);
        void* const address = reinterpret_cast<void*>(_Unwind_GetIP(frame));
        search.found = search.in_standard_library && IsInLibrary(address);
        if (IsInLibrary(address)) return _URC_END_OF_STACK;
        search.in_standard_library = IsInStandardLibrary(address);
        return _URC_NO_REASON;
      },
      &search);
  return search.found;
}

// True when an allocation, made from `caller`, is to fail.
bool AllocationDue(const void* caller) {
  static thread_local bool inside = false;  // what is called here allocates as well
  if (!window_open || inside) return false;
  inside = true;
  State& state = TheState();
  bool due = false;
  const Mode mode = state.plan.mode;
  if ((mode == Mode::kOneAllocation || mode == Mode::kAllLaterAllocations ||
       (mode == Mode::kCallThenNoMemory && state.injected.first)) &&
      IsOnBehalfOfTheLibrary(caller) && (!state.plan.counts || state.plan.counts())) {
    ++state.allocations;
    due = mode == Mode::kCallThenNoMemory || state.allocations == state.plan.nth ||
          (mode == Mode::kAllLaterAllocations && state.allocations > state.plan.nth);
    if (due) ++state.injected.fired;
  }
  inside = false;
  return due;
}

}  // namespace

Window::Window(const Plan& plan) {
  TheState().plan = plan;
  window_open = true;
}

Window::~Window() {
  window_open = false;
}

const Injected& TheInjected() {
  return TheState().injected;
}

void Forget() {
  TheState() = {};
}

const Failure* Due(const char* function, const std::string& detail) {
  if (!window_open) return nullptr;
  State& state = TheState();
  const Mode mode = state.plan.mode;
  if (mode != Mode::kOneCall && mode != Mode::kAllLaterCalls && mode != Mode::kCallThenNoMemory) {
    return nullptr;
  }
  const Fallible* const row = FindFallible(function);
  if (row == nullptr) return nullptr;

  if (!state.injected.first && state.plan.counts && !state.plan.counts()) return nullptr;
  ++state.calls;
  const std::string call = function + detail;
  const int occurrence = ++state.occurrences[call];
  if (state.calls == state.plan.nth && state.plan.failure < row->failures.size()) {
    const Failure& failure = row->failures[state.plan.failure];
    state.injected.first = {call, occurrence, row, &failure};
    ++state.injected.fired;
    return &failure;
  }
  if (mode == Mode::kAllLaterCalls && state.injected.first) {
    ++state.injected.fired;
    return &row->failures.front();
  }
  return nullptr;
}

}  // namespace tavrel::tests

namespace {

using Allocate = void*(std::size_t);

Allocate* real_malloc = nullptr;
bool array = false;  // some implementations of new[] call new

Allocate* Real(const char* name) {
  return reinterpret_cast<Allocate*>(tavrel::tests::RealSymbol(name));
}

}  // namespace

// Called while the sanitizers are not ready yet, so that nothing of theirs may be in it.
extern "C" __attribute__((no_sanitize("address", "thread", "undefined"))) void* malloc(
    std::size_t size) {
  using tavrel::tests::window_open;
  if (window_open && tavrel::tests::IsInLibrary(__builtin_return_address(0)) &&
      tavrel::tests::Due("malloc") != nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  if (real_malloc == nullptr) real_malloc = reinterpret_cast<Allocate*>(dlsym(RTLD_NEXT, "malloc"));
  return real_malloc(size);
}

void* operator new(std::size_t size) {
  static Allocate* const real = Real("_Znwm");
  if (!array && tavrel::tests::AllocationDue(__builtin_return_address(0))) throw std::bad_alloc();
  return real(size);
}

void* operator new[](std::size_t size) {
  static Allocate* const real = Real("_Znam");
  if (tavrel::tests::AllocationDue(__builtin_return_address(0))) throw std::bad_alloc();
  array = true;
  void* const memory = real(size);
  array = false;
  return memory;
}
