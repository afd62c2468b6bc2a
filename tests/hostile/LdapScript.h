// The server's side of LDAP (RFC 4511), message by message.
#ifndef TAVREL_TESTS_HOSTILE_LDAPSCRIPT_H
#define TAVREL_TESTS_HOSTILE_LDAPSCRIPT_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Peer.h"

namespace tavrel::tests {

enum LdapOperation : unsigned char {
  kBind = 0x60,
  kUnbind = 0x42,
  kSearch = 0x63,
  kModify = 0x66,
  kAdd = 0x68,
  kExtended = 0x77,
};

struct LdapRequest {
  int id = 0;
  unsigned char operation = 0;  // 0 when the client has closed
  std::string content;
};
LdapRequest Receive(Connection& connection);

// Messages that a server sends.
std::string LdapMessage(int id, unsigned char operation, const std::string& content);
std::string LdapResult(const LdapRequest& request, int code, const std::string& referral = "");
std::string LdapEntry(const LdapRequest& request, const std::vector<std::string>& flags);
std::string LdapReference(const LdapRequest& request, const std::string& url);

// Answers every request of a connection; success, and an ordinary account for a search, unless
// `special` says otherwise.
using LdapAnswer = std::function<void(Connection&, const LdapRequest&)>;
using LdapScript = std::map<unsigned char, LdapAnswer>;
void ServeLdap(Connection& connection, const LdapScript& special = {});

}  // namespace tavrel::tests

#endif
