// What lab/run tells of its domain.
#ifndef TAVREL_TESTS_LAB_H
#define TAVREL_TESTS_LAB_H

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace tavrel::tests {

// The variable LAB_<name>, for example Lab("REALM").
inline std::string Lab(const std::string& name) {
  const char* const value = std::getenv(("LAB_" + name).c_str());
  if (value == nullptr) throw std::runtime_error("LAB_" + name + " is not set: use lab/run");
  return value;
}

}  // namespace tavrel::tests

#endif
