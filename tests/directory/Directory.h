// The directory that with-slapd serves, as its administrator sees it.
#ifndef TAVREL_TESTS_DIRECTORY_H
#define TAVREL_TESTS_DIRECTORY_H

#include <ldap.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavrel::tests {

inline constexpr char kAdmin[] = "cn=Administrator,dc=CORP,dc=EXAMPLE,dc=COM";
inline constexpr char kAdminPassword[] = "Admin.Pass.1";
inline constexpr char kReader[] = "cn=Reader,dc=CORP,dc=EXAMPLE,dc=COM";  // may not write
inline constexpr char kReaderPassword[] = "Reader.Pass.1";
inline constexpr char kBlind[] = "cn=Blind,dc=CORP,dc=EXAMPLE,dc=COM";  // may not search
inline constexpr char kBlindPassword[] = "Blind.Pass.1";

// The path of `name` among the servers' files.
std::string ServerFile(const std::string& name);

// An object's attributes, each with its values in the order that the server returns.
using Object = std::map<std::string, std::vector<std::string>>;

// A connection of its own to a server, past the library. Throws when the server refuses.
class Administrator {
 public:
  explicit Administrator(const std::string& host = "dc1.corp.example.com");
  Administrator(const Administrator&) = delete;
  Administrator& operator=(const Administrator&) = delete;
  ~Administrator();

  // Nothing when there is no such object.
  std::optional<Object> Read(const std::string& dn) const;

  void Add(const std::string& dn, const Object& object) const;

  // Does nothing when there is no such object.
  void Delete(const std::string& dn) const;

 private:
  LDAP* ldap_ = nullptr;
};

}  // namespace tavrel::tests

#endif
