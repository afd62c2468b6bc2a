// The lab's directory as its administrator sees it: what a join left there, and what others did to
// it.
#ifndef TAVREL_TESTS_DOMAIN_DIRECTORY_H
#define TAVREL_TESTS_DOMAIN_DIRECTORY_H

#include <ldap.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Lab.h"

namespace tavrel::tests {

// The values of each attribute, both in the directory's spelling and order.
using Attributes = std::map<std::string, std::vector<std::string>>;

class Directory {
 public:
  Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory();

  // All attributes of the computer account `name` (without "$"), key version number and
  // distinguished name ("dn") included; empty when there is no such account.
  Attributes Read(const std::string& name) const;

  // The one value of one attribute; throws when there is not exactly one.
  std::string Value(const std::string& name, const std::string& attribute) const;

  // Creates an account of that name beforehand; without a password it has none.
  void Add(const std::string& name, const std::string& password = "",
           const std::string& object_class = "computer", std::uint32_t flags = 0x1000) const;

  // Removes the account, if there is one.
  void Delete(const std::string& name) const;

 private:
  LDAP* ldap_ = nullptr;
};

}  // namespace tavrel::tests

#endif
