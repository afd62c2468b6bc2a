// What other libraries lose is not to be taken for a leak of the library under test.
#ifndef TAVREL_TESTS_HOSTILE_KNOWNLEAK_H
#define TAVREL_TESTS_HOSTILE_KNOWNLEAK_H

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace tavrel::tests {

// Memory that this thread obtains while it lives is not missed when it is never given back.
#ifdef __SANITIZE_ADDRESS__
using KnownLeak = __lsan::ScopedDisabler;
#else
struct KnownLeak {
  ~KnownLeak() {}
};
#endif

}  // namespace tavrel::tests

#endif
