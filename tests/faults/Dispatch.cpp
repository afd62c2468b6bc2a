// What becomes of a call of the library: it fails when it is due to; otherwise the far side answers
// it, or the real function where that has no answer. The ledger is kept either way.
#include <cerrno>
#include <type_traits>
#include <utility>

#include "FarSide.h"
#include "Injector.h"
#include "Ledger.h"

namespace tavrel::tests {
namespace {

template <typename Void, typename... Args>
struct HasAnswer : std::false_type {};
template <typename... Args>
struct HasAnswer<std::void_t<decltype(Answer(std::declval<Args>()...))>, Args...> : std::true_type {
};

template <typename Void, typename... Args>
struct HasBefore : std::false_type {};
template <typename... Args>
struct HasBefore<std::void_t<decltype(Before(std::declval<Args>()...))>, Args...> : std::true_type {
};

template <typename Void, typename... Args>
struct HasAfter : std::false_type {};
template <typename... Args>
struct HasAfter<std::void_t<decltype(After(std::declval<Args>()...))>, Args...> : std::true_type {};

// What a call is about, where one function does several things.
template <typename Tag, typename... Args>
std::string Detail(Tag, const Args&...) {
  return "";
}
std::string Detail(tags::ldap_set_option, LDAP*, int option, const void*) {
  switch (option) {
    case LDAP_OPT_PROTOCOL_VERSION: return "(PROTOCOL_VERSION)";
    case LDAP_OPT_X_TLS_REQUIRE_CERT: return "(X_TLS_REQUIRE_CERT)";
    case LDAP_OPT_X_TLS_CACERTFILE: return "(X_TLS_CACERTFILE)";
    case LDAP_OPT_X_TLS_NEWCTX: return "(X_TLS_NEWCTX)";
    case LDAP_OPT_REFERRALS: return "(REFERRALS)";
    case LDAP_OPT_NETWORK_TIMEOUT: return "(NETWORK_TIMEOUT)";
    default: return "(?)";
  }
}
std::string Detail(tags::ldap_modify_ext_s, LDAP*, const char*, LDAPMod** modifications,
                   LDAPControl**, LDAPControl**) {
  return std::string("(") + modifications[0]->mod_type + ")";
}
std::string Detail(tags::BIO_ctrl, BIO*, int command, long, void*) {
  return command == BIO_CTRL_FLUSH ? "(FLUSH)" : "(GET_BUF_MEM)";
}

template <typename R>
R AsResult(const Failure& failure) {
  if constexpr (std::is_pointer_v<R>) {
    return nullptr;
  } else {
    return static_cast<R>(failure.value);
  }
}

template <typename Tag, typename R, typename... Args>
R Make(Tag tag, Interposed<R(Args...)>& function, Args... args) {
  if constexpr (HasBefore<void, Tag, Args...>::value) Before(tag, args...);
  const auto make = [&]() -> R {
    if constexpr (HasAnswer<void, Tag, Args...>::value) {
      return Answer(tag, args...);
    } else {
      return function.Real(args...);
    }
  };
  if constexpr (HasAfter<void, Tag, R, Args...>::value) {
    const R result = make();
    After(tag, result, args...);
    return result;
  } else {
    return make();
  }
}

template <typename Tag, typename R, typename... Args>
R Dispatch(Tag tag, Interposed<R(Args...)>& function, Args... args) {
  if (ledger == nullptr || far_side == nullptr) return function.Real(args...);
  if constexpr (!std::is_void_v<R>) {
    if (const Failure* failure = Due(Tag::kName, Detail(tag, args...))) {
      if (failure->after) Make(tag, function, args...);
      errno = failure->number;
      return AsResult<R>(*failure);
    }
  }
  return Make(tag, function, args...);
}

// One stand-in for each function.
struct Dispatcher {
#define TAVREL_CALL(result, name, parameters, arguments) \
  StandIn<Interposed<result parameters>> name{           \
      calls::name, [](auto... args) { return Dispatch(tags::name{}, calls::name, args...); }};
#include "InterposedCalls.inc"
#undef TAVREL_CALL
};
const Dispatcher dispatcher;

}  // namespace
}  // namespace tavrel::tests

// libkrb5 waits for the disk at every change of a keytab. No power fails here.
extern "C" int fsync(int) {
  return 0;
}
