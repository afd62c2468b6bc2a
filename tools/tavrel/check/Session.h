// Sessions with controllers, and what they answer.
#ifndef TAVREL_TOOLS_TAVREL_CHECK_SESSION_H
#define TAVREL_TOOLS_TAVREL_CHECK_SESSION_H

#include <ldap.h>

#include <memory>
#include <string>
#include <vector>

#include "tavrel/check/Checks.h"

namespace tavrel::tools {

// Frees what a C library handed out.
template <auto Free>
struct FreeWith {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Message = std::unique_ptr<LDAPMessage, FreeWith<ldap_msgfree>>;

constexpr int kConnectSeconds = 3;

enum class Protection {
  kNone,        // nothing secret may be sent
  kUnverified,  // encrypted, to whoever answers
  kVerified,    // encrypted, to a controller whose certificate the CA file vouches for
};

// The host and port that findings name a controller by.
std::string Name(const Controller& controller);

// The parts, with commas between.
std::string Listed(const std::vector<std::string>& parts);

// What the library says of the last operation, and behind it what the server said.
std::string Explain(LDAP* session, int code);

// Opens a session, without a bind. Null, and the reason in `why`, when that fails.
Session Open(const Controller& controller, Protection protection, std::string& why);

// Searches, and tells the result code in `code`. May be null.
Message Search(LDAP* session, const std::string& base, int scope, const std::string& filter,
               std::vector<const char*> attributes, int& code);

// The first entry that was found; null when there is none. It belongs to the message.
LDAPMessage* FirstEntry(LDAP* session, const Message& found);

std::vector<std::string> GetValues(LDAP* session, LDAPMessage* entry, const char* attribute);

// The first of them; empty when there is none.
std::string GetValue(LDAP* session, LDAPMessage* entry, const char* attribute);

}  // namespace tavrel::tools

#endif
