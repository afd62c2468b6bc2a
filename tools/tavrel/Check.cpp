// tavrel check: looks at everything that a join or an enrolment of this machine needs, and changes
// none of it.
#include "tavrel/check/Checks.h"

namespace tavrel::tools {
namespace {

enum class For { kBoth, kJoin, kEnrol };
struct Row {
  Check check;
  For what;
};

// In the order in which they use what the others found.
constexpr Row kChecks[] = {
    {CheckHostName, For::kBoth},
    {CheckLdapCertificates, For::kJoin},
    {CheckLdapTimeLimit, For::kJoin},
    {CheckDiscovery, For::kBoth},
    {CheckReach, For::kBoth},
    {CheckClock, For::kBoth},
    {CheckCertificate, For::kJoin},
    {CheckBind, For::kJoin},
    {CheckKeytabFile, For::kBoth},
    {CheckKerberosSettings, For::kBoth},
    {CheckPermittedEnctypes, For::kBoth},
    {CheckRequestedEnctypes, For::kJoin},
    {CheckKeytabEntries, For::kBoth},
    {CheckJoinedAccount, For::kJoin},
    {CheckEnrolledAccount, For::kEnrol},
    {CheckKdc, For::kBoth},
    {CheckReplayCache, For::kBoth},
};

int ExitStatus(Verdict worst) {
  return static_cast<int>(worst);
}

}  // namespace

int RunCheck(int argc, char** argv) {
  Call call{};
  const int wrong = call.Read(
      argc, argv,
      "[--json] [--config FILE] [--join [--server HOST[:PORT][,starttls|ldaps[,CAFILE]]]...] "
      "[--user NAME [--password-file FILE] | --ccache NAME | --one-time [--password-file FILE]]",
      "jcnsupko");
  if (wrong != 0) return wrong;
  Secret password;
  if (call.join && !call.user.empty()) call.ReadPassword(password);  // without one: a warning
  const auto credentials =
      call.join ? std::optional(plus::Credentials::Machine()) : call.Credentials();
  if (!credentials) return call.NoPassword();

  Findings findings(call.json);
  const JoinParameters join(call.config->domain, call.servers, call.user, password.text);
  plus::Membership membership(call.config->domain, call.config->keytab, call.config->membership);
  const auto limit = call.config->deadline;
  const auto done = Patiently(call, limit, [&] {
    Subject subject{call, join, membership, *credentials};
    for (const Row& row : kChecks) {
      if (row.what != (call.join ? For::kEnrol : For::kJoin)) row.check(subject, findings);
    }
    return true;
  });
  if (!done) {
    findings.Fail("deadline", "not done after " + std::to_string(limit.count()) + " s",
                  "look at what comes after the last finding: somebody accepts and stays silent");
    const int status = ExitStatus(findings.End());
    std::_Exit(status);  // a check still runs, see Patiently()
  }
  return ExitStatus(findings.End());
}

}  // namespace tavrel::tools
