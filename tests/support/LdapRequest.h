// What the library asks a directory to add or to change, as text.
#ifndef TAVREL_TESTS_LDAPREQUEST_H
#define TAVREL_TESTS_LDAPREQUEST_H

#include <ldap.h>

#include <string>
#include <vector>

#include "Hex.h"

namespace tavrel::tests {

// The modifications in their order, each as "operation attribute: value, value", for example
// "add objectClass: user, computer". The values of a "replace binary" are hexadecimal.
std::vector<std::string> Describe(const LDAPMod* const* modifications);

}  // namespace tavrel::tests

#endif
