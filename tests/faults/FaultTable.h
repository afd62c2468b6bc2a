// How every function that the library calls can fail.
#ifndef TAVREL_TESTS_FAULTS_FAULTTABLE_H
#define TAVREL_TESTS_FAULTS_FAULTTABLE_H

#include <string>
#include <string_view>
#include <vector>

namespace tavrel::tests {

struct Failure {
  const char* name;    // of the code, or of what happens
  long value;          // returned; functions that return a pointer return null
  int number = 0;      // put into errno
  bool after = false;  // the call does its work first, and reports a failure all the same
};

// In a table: a code, under its own name; and the same for a call that has had its effect, since
// the answer was lost, or the release reports trouble.
#define CODE(name) \
  { #name, name }
#define AFTER(name) \
  { #name " after", name, 0, true }

struct Fallible {
  std::string call;
  std::vector<Failure> failures;  // those that matter; the first one is what all later calls get
};

struct Infallible {
  std::string call;
  const char* reason;
};

const std::vector<Fallible>& FaultTable();
const std::vector<Infallible>& CannotFail();

// Null when the call cannot fail.
const Fallible* FindFallible(std::string_view call);

}  // namespace tavrel::tests

#endif
