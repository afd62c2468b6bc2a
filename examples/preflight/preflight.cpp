// Looks at everything that a join of this machine will need, and changes none of it.
//
//   preflight [--json] [--server SERVER]... [--deadline SECONDS] DOMAIN USER KEYTAB < PASSWORD
//
//   --server HOST[:PORT][,starttls|ldaps[,CAFILE]]
//                        a controller to use instead of those that DNS knows; may be repeated
//   --deadline SECONDS   give up after so long (60)
//   --json               one array of objects with "check", "verdict", "found" and, where something
//                        is to be done, "remedy"
//
// One line for each finding: "ok", "warn" or "FAIL", what was looked at and what was found; below
// it the remedy. The administrator's password is the first line of standard input. Without one
// nothing that needs a bind is looked at. The password is sent over a protected connection, and no
// more than once when it is refused: refusals count towards a lockout.
//
// Exit status: 0 when all is well, 1 when there are warnings only, 2 when a join will fail or
// nobody can be authenticated after it, 64 when the command line is wrong.
#include <getopt.h>
#include <tavrel/Join.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <list>
#include <string>

#include "../Arguments.h"
#include "../Deadline.h"
#include "Checks.h"
#include "Report.h"

namespace {

constexpr int kUsage = 64;

// In the order in which they use what the others found.
constexpr Check kChecks[] = {
    CheckHostName,
    CheckLdapCertificates,
    CheckLdapTimeLimit,
    CheckDiscovery,
    CheckReach,
    CheckClock,
    CheckCertificate,
    CheckBind,
    CheckKeytabFile,
    CheckKerberosSettings,
    CheckPermittedEnctypes,
    CheckRequestedEnctypes,
    CheckKeytabEntries,
    CheckAccount,
    CheckKdc,
    CheckReplayCache,
};

struct Options {
  bool json = false;
  int deadline = 60;
  std::list<tavrel::LdapServer> servers;
  std::string domain, user, keytab;
};

bool Parse(int argc, char** argv, Options& options) {
  static const option kLong[] = {{"json", no_argument, nullptr, 'j'},
                                 {"server", required_argument, nullptr, 's'},
                                 {"deadline", required_argument, nullptr, 'd'},
                                 {nullptr, 0, nullptr, 0}};
  for (int letter; (letter = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
    if (letter == 'j') {
      options.json = true;
    } else if (letter == 's') {
      const auto server = ParseServer(optarg);
      if (!server) return false;
      options.servers.push_back(*server);
    } else if (letter == 'd') {
      const auto seconds = ParseCount(optarg);
      if (!seconds) return false;
      options.deadline = *seconds;
    } else {
      return false;
    }
  }
  if (argc - optind != 3) return false;
  options.domain = argv[optind];
  options.user = argv[optind + 1];
  options.keytab = argv[optind + 2];
  return true;
}

int ExitStatus(Verdict worst) {
  return static_cast<int>(worst);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, options)) {
    std::cerr << "usage: preflight [--json] [--server HOST[:PORT][,starttls|ldaps[,CAFILE]]]... "
                 "[--deadline SECONDS] DOMAIN USER KEYTAB < PASSWORD\n";
    return kUsage;
  }
  std::string password;
  std::getline(std::cin, password);
  std::signal(SIGPIPE, SIG_IGN);  // the LDAP library writes to connections that may be closed

  Report report(options.json);
  const tavrel::JoinParameters join(options.domain, options.servers, options.user, password);
  const auto done = FinishWithin(std::chrono::seconds(options.deadline), [&] {
    Subject subject{join, options.keytab};
    for (const Check check : kChecks)
      check(subject, report);
    return true;
  });
  if (!done) {
    report.Fail("deadline", "not done after " + std::to_string(options.deadline) + " s",
                "look at what comes after the last finding: somebody accepts and stays silent");
    const int status = ExitStatus(report.End());
    std::_Exit(status);  // a check still runs, see FinishWithin()
  }
  return ExitStatus(report.End());
}
