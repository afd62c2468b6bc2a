// What all users of libkrb5 share: owners of its objects, and one way to report its failures.
#ifndef TAVREL_SRC_KRBSUPPORT_H
#define TAVREL_SRC_KRBSUPPORT_H

#include <krb5.h>

#include <memory>
#include <string>
#include <string_view>

#include "Log.h"

namespace tavrel {

// The code of an operation that lacks a library object it needs. Calling libkrb5 without it would
// crash.
inline constexpr krb5_error_code kNoContext{KV5M_CONTEXT};
inline constexpr krb5_error_code kNoKeytab{KRB5_KT_BADNAME};
inline constexpr krb5_error_code kNoPrincipal{KV5M_PRINCIPAL};

// Frees a libkrb5 object with the context it came from.
template <auto Free>
struct KrbFree {
  krb5_context context;
  template <typename T>
  void operator()(T* object) const {
    Free(context, object);
  }
};

// libkrb5's text for `code`, empty when it has none. `context` may be null.
std::string KrbMessage(krb5_context context, krb5_error_code code);

// True when `code` is a failure. Then it logs prefix and message at level 4, and puts the message
// alone into `*error`, unless that is null.
bool KrbFailed(krb5_error_code code, const LogPrefix& prefix, const Logger& logger,
               krb5_context context, std::string* error = nullptr);

// The bytes of a counted string.
inline std::string_view View(const krb5_data& data) {
  return {data.data, data.length};
}

}  // namespace tavrel

#endif
