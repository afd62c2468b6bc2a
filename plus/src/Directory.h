// The directory of one controller, over a connection on which both sides have been proven.
#ifndef TAVREL_PLUS_SRC_DIRECTORY_H
#define TAVREL_PLUS_SRC_DIRECTORY_H

#include <ldap.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Controller.h"
#include "Deadline.h"
#include "Failure.h"
#include "Kdc.h"
#include "Socket.h"

namespace tavrel::plus {

// An object of the directory. The attributes' names are in small letters.
struct Entry {
  std::string dn;
  std::map<std::string, std::vector<std::string>> attributes;

  // The values of an attribute; none when it has none.
  const std::vector<std::string>& All(const std::string& name) const;
  // Its first; empty when it has none.
  std::string First(const std::string& name) const;
};

// One attribute of a request.
struct Change {
  enum class Kind { kAdd, kReplace };

  Kind kind;
  std::string name;
  std::vector<std::string> values;
  const Secret* secret = nullptr;  // the value instead, when it is one
};

class SealedLayer;

// One LDAP connection. Every byte is read and written here, so whatever libldap waits for ends at
// the deadline. Nothing is followed to other servers.
class Directory {
 public:
  // What is given must outlive the object.
  Directory(const Controller& controller, const Deadline& deadline);
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory();

  Failure Connect(const Address& address);

  // Proves both sides with the ticket in the cache, and seals what follows (RFC 4752).
  Failure BindKerberos(Kdc& kdc, krb5_ccache cache, const std::string& realm);

  // Sends name and password, once TLS has proven the controller's name.
  Failure BindSimple(const std::string& name, const Secret& password, const std::string& ca_file);

  Failure Search(const std::string& base, int scope, const std::string& filter,
                 const std::vector<std::string>& attributes, std::vector<Entry>& entries);
  Failure Add(const std::string& dn, const std::vector<Change>& attributes);
  Failure Modify(const std::string& dn, const std::vector<Change>& changes);
  // With all that lies beneath it.
  Failure Delete(const std::string& dn);

 private:
  friend struct DirectoryIo;

  Failure Explain(int code) const;
  Failure Step(std::string_view token, std::string& answer, bool& is_done);
  void SetTimeout();

  const Controller& controller_;
  const Deadline& deadline_;
  Socket socket_;
  std::unique_ptr<SealedLayer> sealed_;
  LDAP* handle_ = nullptr;
  bool is_lost_ = false;  // nothing more is received or sent
};

// `value` as part of a filter (RFC 4515).
std::string EscapeForFilter(std::string_view value);

// `value` as part of a distinguished name (RFC 4514).
std::string EscapeForName(std::string_view value);

}  // namespace tavrel::plus

#endif
