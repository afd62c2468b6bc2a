// libldap without a server.
#ifndef TAVREL_TESTS_FAKELDAP_H
#define TAVREL_TESTS_FAKELDAP_H

#include <ldap.h>

#include <deque>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Interpose.h"

namespace tavrel::tests {

// Answers the library's LDAP calls while it lives. Each call becomes a line: its function, the
// number of its session (the first is 1) and its arguments, for example
// "ldap_set_option 1 LDAP_OPT_PROTOCOL_VERSION 3". The modifications of an add or a modify follow
// it as lines of their own (see LdapRequest.h).
class FakeLdap {
 public:
  // An object found: the values of the attribute that the library reads, none without it.
  using Entry = std::optional<std::vector<std::string>>;

  // What a search answers.
  struct Answer {
    int code = LDAP_NO_SUCH_OBJECT;
    std::vector<Entry> entries;
    bool has_result = true;  // libldap hands out a result to be released
  };

  FakeLdap();
  FakeLdap(const FakeLdap&) = delete;
  FakeLdap& operator=(const FakeLdap&) = delete;
  // Fails the test when a search result or a list of values was not released.
  ~FakeLdap();

  const std::vector<std::string>& Lines() const { return lines_; }
  void Clear() { lines_.clear(); }

  // Calls whose line, or one of whose modifications, starts with `call` answer `code` from now on,
  // the earliest such rule first.
  void Refuse(const std::string& call, int code) { refusals_.emplace_back(call, code); }

  // Puts a line of another service among the directory's. Returns what Refuse() says of it, or 0.
  int Record(const std::string& line);

  // Sessions that were opened and not closed, and search results that were not released.
  int Held() const { return open_ + static_cast<int>(results_.size()); }

  // The handle of a session, opened if need be.
  LDAP* Handle(int session);

  // Of the searches to come, one after the other; then by session.
  std::deque<Answer> next_answers;
  std::map<int, Answer> answers;

 private:
  struct Result;
  struct Found {
    Result* result;
    std::size_t index;
  };
  struct Result {
    Answer answer;
    std::deque<Found> entries;
  };

  int Change(const std::string& line, LDAPMod** modifications);
  std::string Session(const LDAP* handle) const;
  LDAPMessage* EntryAt(Result* result, std::size_t index);
  berval** Values(LDAP* handle, LDAPMessage* entry, const char* attribute);
  void FreeValues(berval** values);

  std::vector<std::string> lines_;
  std::vector<std::pair<std::string, int>> refusals_;
  std::deque<char> sessions_;  // their addresses are the handles
  std::list<Result> results_;
  std::list<berval**> values_;
  int open_ = 0;

  const StandIn<Interposed<int(LDAP**, const char*)>> initialize_;
  const StandIn<Interposed<int(LDAP*, int, const void*)>> set_option_;
  const StandIn<Interposed<int(LDAP*, LDAPControl**, LDAPControl**)>> start_tls_;
  const StandIn<Interposed<int(LDAP*, const char*, const char*, berval*, LDAPControl**,
                               LDAPControl**, berval**)>>
      bind_;
  const StandIn<Interposed<int(LDAP*, LDAPControl**, LDAPControl**)>> unbind_;
  const StandIn<Interposed<int(LDAP*, const char*, int, const char*, char**, int, LDAPControl**,
                               LDAPControl**, timeval*, int, LDAPMessage**)>>
      search_;
  const StandIn<Interposed<LDAPMessage*(LDAP*, LDAPMessage*)>> first_entry_;
  const StandIn<Interposed<LDAPMessage*(LDAP*, LDAPMessage*)>> next_entry_;
  const StandIn<Interposed<berval**(LDAP*, LDAPMessage*, const char*)>> get_values_;
  const StandIn<Interposed<void(berval**)>> value_free_;
  const StandIn<Interposed<int(LDAPMessage*)>> msgfree_;
  const StandIn<Interposed<int(LDAP*, const char*, LDAPMod**, LDAPControl**, LDAPControl**)>> add_;
  const StandIn<Interposed<int(LDAP*, const char*, LDAPMod**, LDAPControl**, LDAPControl**)>>
      modify_;
};

}  // namespace tavrel::tests

#endif
