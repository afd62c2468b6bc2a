// Stand-ins for the functions that the library calls.
//
// The linker prefers a function of the test program to that of a shared library. Every function
// that libtavrel.so takes from libkrb5, libldap, libcrypto, the resolver and libc (as far as it
// matters) is defined in Interpose.cpp and passed on to the real one, until a test puts something
// in its place:
//
//   const StandIn broken(calls::krb5_kt_add_entry,
//                        [](auto...) -> krb5_error_code { return KRB5_KT_IOERR; });
//
// A stand-in serves the calls that libtavrel.so makes, and nobody else's. It reaches the real
// function as calls::krb5_kt_add_entry.Real(...).
#ifndef TAVREL_TESTS_INTERPOSE_H
#define TAVREL_TESTS_INTERPOSE_H

#include <arpa/nameser.h>
#include <krb5.h>
#include <ldap.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/sha.h>
#include <resolv.h>
#include <sys/types.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

// Another library's tests say which one it is, and what it calls.
#ifndef TAVREL_INTERPOSED_LIBRARY
#define TAVREL_INTERPOSED_LIBRARY "libtavrel.so"
#define TAVREL_INTERPOSED_CALLS "InterposedCalls.inc"
#endif

namespace tavrel::tests {

// True when `address` lies in the code of the library.
bool IsInLibrary(const void* address);

// The real function `name`: the next one behind the test program's.
void* RealSymbol(const char* name);

// Where the names of the calls that libtavrel.so makes are collected; null when nowhere.
extern std::vector<std::string>* call_trace;

template <typename Signature>
class Interposed;

template <typename R, typename... Args>
class Interposed<R(Args...)> {
 public:
  constexpr explicit Interposed(const char* name) : name_(name) {}

  R Real(Args... args) {
    if (real_ == nullptr) real_ = reinterpret_cast<R (*)(Args...)>(RealSymbol(name_));
    return real_(args...);
  }

  // What the interposing function does; `caller` is its return address.
  R Call(const void* caller, Args... args) {
    if ((stand_in_ != nullptr || call_trace != nullptr) && IsInLibrary(caller)) {
      if (call_trace != nullptr) call_trace->push_back(name_);
      if (stand_in_ != nullptr) return (*stand_in_)(args...);
    }
    return Real(args...);
  }

 private:
  template <typename Function>
  friend class StandIn;

  const char* name_;
  R (*real_)(Args...) = nullptr;
  const std::function<R(Args...)>* stand_in_ = nullptr;
};

// Serves the library's calls of one function while it lives.
template <typename Function>
class StandIn;
template <typename R, typename... Args>
class StandIn<Interposed<R(Args...)>> {
 public:
  template <typename F>
  StandIn(Interposed<R(Args...)>& function, F stand_in)
      : function_(function), stand_in_(std::move(stand_in)), previous_(function.stand_in_) {
    function_.stand_in_ = &stand_in_;
  }
  StandIn(const StandIn&) = delete;
  StandIn& operator=(const StandIn&) = delete;
  ~StandIn() { function_.stand_in_ = previous_; }

 private:
  Interposed<R(Args...)>& function_;
  std::function<R(Args...)> stand_in_;
  const std::function<R(Args...)>* previous_;
};
template <typename R, typename... Args, typename F>
StandIn(Interposed<R(Args...)>&, F) -> StandIn<Interposed<R(Args...)>>;

// Collects the names of the functions above that libtavrel.so calls, in order, while it lives.
class CallTrace {
 public:
  CallTrace() { call_trace = &names_; }
  CallTrace(const CallTrace&) = delete;
  CallTrace& operator=(const CallTrace&) = delete;
  ~CallTrace() { call_trace = nullptr; }

  const std::vector<std::string>& Names() const { return names_; }

 private:
  std::vector<std::string> names_;
};

namespace calls {

#define TAVREL_CALL(result, name, parameters, arguments) extern Interposed<result parameters> name;
#include TAVREL_INTERPOSED_CALLS
#undef TAVREL_CALL

}  // namespace calls
}  // namespace tavrel::tests

#endif
