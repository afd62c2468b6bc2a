// Frees a libkrb5 object with the context it came from.
#ifndef TAVREL_TESTS_KRBFREE_H
#define TAVREL_TESTS_KRBFREE_H

#include <krb5.h>

namespace tavrel::tests {

template <auto Free>
struct KrbFree {
  krb5_context context;
  template <typename T>
  void operator()(T* object) const {
    Free(context, object);
  }
};

}  // namespace tavrel::tests

#endif
