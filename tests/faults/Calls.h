// A type for every function that the library calls and a test can stand in for, so that what is
// known about one of them can be told by overloads.
#ifndef TAVREL_TESTS_FAULTS_CALLS_H
#define TAVREL_TESTS_FAULTS_CALLS_H

#include "Interpose.h"

namespace tavrel::tests::tags {

#define TAVREL_CALL(result, name, parameters, arguments) \
  struct name {                                          \
    static constexpr const char* kName = #name;          \
  };
#include "InterposedCalls.inc"
#undef TAVREL_CALL

}  // namespace tavrel::tests::tags

#endif
