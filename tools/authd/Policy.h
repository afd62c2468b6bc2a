// Who may pass: a file of rules.
#ifndef TAVREL_TOOLS_AUTHD_POLICY_H
#define TAVREL_TOOLS_AUTHD_POLICY_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authd/User.h"
#include "common/Address.h"

namespace tavrel::tools {

// Rules are lines, the first that fits decides, and where none fits nobody passes:
//
//   allow|deny everyone
//   allow|deny CONDITION...            all of them must hold
//   revoke everyone|user NAME-OR-SID before TIME
//
// where a condition is `user NAME-OR-SID` (alice@CORP.EXAMPLE.COM or S-1-5-...), `realm NAME` (the
// user's), `group SID`, `service NAME` (HTTP/box.corp.example.com) or `network ADDRESS[/BITS]`. The
// case of ASCII letters in names does not count. `revoke` ends sessions that began before a time
// (UTC, 2026-11-22T01:00:00Z), wherever the line stands.
class Policy {
 public:
  // Nothing, with `FILE:LINE: WHAT` in `*error`, when a line is anything else.
  static std::optional<Policy> Parse(std::string_view text, const std::string& file,
                                     std::string* error);

  struct Verdict {
    bool allowed;
    int line;  // that decided; 0 when none did
  };
  // `client` is nothing when the client's address is not known: a rule that allows a network then
  // does not fit, and one that denies a network does. In the same way a rule that denies a group or
  // a SID fits a user whose ticket named no SIDs at all.
  Verdict Decide(const User& user, const std::optional<Address>& client) const;

  // True when the session that `user` comes from was ended.
  bool Revoked(const User& user) const;

 private:
  struct Condition {
    enum class Kind { kUserName, kUserSid, kRealm, kGroup, kService, kNetwork } kind;
    std::string text;
    std::optional<plus::Sid> sid;
    std::optional<Network> network;
  };
  struct Rule {
    int line;
    bool allow;
    std::vector<Condition> conditions;  // none: everyone
  };
  struct Revocation {
    std::int64_t before;
    std::optional<Condition> user;  // nothing: everyone
  };

  std::string TakeLine(const std::vector<std::string_view>& words, int line);
  static std::string TakeCondition(std::string_view kind, std::string_view value,
                                   Condition& condition);
  // `unknown` is what a condition is worth that cannot be judged.
  static bool Holds(const Condition& condition, const User& user,
                    const std::optional<Address>& client, bool unknown);

  std::vector<Rule> rules_;
  std::vector<Revocation> revocations_;
};

}  // namespace tavrel::tools

#endif
