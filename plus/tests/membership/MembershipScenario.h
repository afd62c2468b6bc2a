// What the tests of memberships share: a machine of their own in the lab, whose settings of
// Kerberos are the default ones.
#ifndef TAVREL_PLUS_TESTS_MEMBERSHIPSCENARIO_H
#define TAVREL_PLUS_TESTS_MEMBERSHIPSCENARIO_H

#include <chrono>
#include <ostream>
#include <string>

#include "JoinScenario.h"
#include "tavrel/plus/Membership.h"

namespace tavrel::plus {

inline void PrintTo(const Result& result, std::ostream* out) {
  *out << ToText(result.cause) << " at " << ToText(result.step) << " of " << result.controller
       << (result.changed ? ", changed: " : ", unchanged: ") << result.text;
}

}  // namespace tavrel::plus

namespace tavrel::plus::tests {

// What succeeded, and changed something or nothing.
MATCHER(Changes, "") {
  return arg.cause == Cause::kNone && arg.step == Step::kNone && arg.changed && arg.text.empty();
}
MATCHER(ChangesNothing, "") {
  return arg.cause == Cause::kNone && arg.step == Step::kNone && !arg.changed && arg.text.empty();
}
// What failed for that cause at that step, with a text.
MATCHER_P2(Fails, cause, step, "") {
  return arg.cause == cause && arg.step == step && !arg.text.empty();
}

constexpr std::chrono::minutes kLimit(10);  // none is waited for, even on a busy machine

class MembershipScenario : public tavrel::tests::JoinScenario {
 public:
  MembershipScenario();

  Membership Member() const { return Membership(domain, keytab, options); }
  Credentials Administrator() const { return Credentials::Password(user, password); }
  Result Enrol() const { return Member().Enrol(Administrator(), kLimit); }

  // One value of the account's; empty when it has none.
  std::string Value(const std::string& attribute) const;
  std::string Dn() const { return directory.Value(account, "dn"); }

  // "APPLIANCE$@CORP.EXAMPLE.COM version N enctype 18" and 17.
  std::vector<std::string> AesEntries(const std::vector<int>& versions) const;

  // While it lives, the controller counts failed logons, as where it would lock an account one day.
  struct CountFailedLogons {
    CountFailedLogons() { LockAfter("9"); }
    CountFailedLogons(const CountFailedLogons&) = delete;
    CountFailedLogons& operator=(const CountFailedLogons&) = delete;
    ~CountFailedLogons() { LockAfter("0"); }
    static void LockAfter(const std::string& count);
  };

  // What the core says of a user who comes with a ticket for this machine; the user, or "".
  std::string SignIn() const;

  MembershipOptions options;
};

}  // namespace tavrel::plus::tests

#endif
