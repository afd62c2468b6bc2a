// The Kerberos library's objects, owned, and what is in a keytab.
#ifndef TAVREL_TOOLS_TAVREL_KRB_H
#define TAVREL_TOOLS_TAVREL_KRB_H

#include <krb5.h>

#include <memory>
#include <string>
#include <vector>

namespace tavrel::tools {

struct FreeContext {
  void operator()(krb5_context context) const { krb5_free_context(context); }
};
using Context = std::unique_ptr<_krb5_context, FreeContext>;

// Frees an object with the context it came from.
template <auto Free>
struct KrbFree {
  krb5_context context;
  template <typename T>
  void operator()(T* object) const {
    Free(context, object);
  }
};

// Null, and the reason in `*code`, when krb5.conf is malformed.
Context MakeContext(krb5_error_code* code);

// The library's text. `context` may be null.
std::string Explain(krb5_context context, krb5_error_code code);

// The name of an encryption type, or else its number.
std::string Name(krb5_enctype type);

struct KeytabEntry {
  std::string principal;
  krb5_kvno version;
  krb5_enctype type;
  krb5_timestamp written;
  std::string key;
};

// Appends the entries of a keytab; returns 0, or what ended that.
krb5_error_code ReadKeytab(krb5_context context, const std::string& name,
                           std::vector<KeytabEntry>& entries);

}  // namespace tavrel::tools

#endif
