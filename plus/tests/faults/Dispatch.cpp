// Each call of the library fails when it is due to, and is made otherwise.
#include <cerrno>
#include <type_traits>

#include "Injector.h"
#include "Interpose.h"

namespace tavrel::tests {
namespace {

template <typename R, typename... Args>
R Dispatch(const char* name, Interposed<R(Args...)>& function, Args... args) {
  const Failure* const failure = Due(name);
  if (failure == nullptr) return function.Real(args...);
  if (failure->after) function.Real(args...);
  errno = failure->number;
  if constexpr (std::is_pointer_v<R>) {
    return reinterpret_cast<R>(failure->value);
  } else {
    return static_cast<R>(failure->value);
  }
}

// One stand-in for each function.
struct Dispatcher {
#define TAVREL_CALL(result, name, parameters, arguments) \
  StandIn<Interposed<result parameters>> name{           \
      calls::name, [](auto... args) { return Dispatch(#name, calls::name, args...); }};
#include TAVREL_INTERPOSED_CALLS
#undef TAVREL_CALL
};
const Dispatcher dispatcher;

}  // namespace
}  // namespace tavrel::tests
