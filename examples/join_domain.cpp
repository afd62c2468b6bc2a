// Joins this machine to a domain, within a time limit, and again while the change replicates.
//
//   join_domain [--server SERVER]... [--deadline SECONDS] [--attempts N] DOMAIN USER KEYTAB
//
//   --server HOST[:PORT][,starttls|ldaps[,CAFILE]]
//                        a controller to use instead of those that DNS knows; may be repeated, in
//                        order
//   --deadline SECONDS   give up after so long, all attempts together (120)
//   --attempts N         join up to N times, with a growing pause between (5)
//
// The administrator's password is the first line of standard input, so that no list of processes
// shows it. The result is one line on standard output; attempts and the library's log go to
// standard error. Exit status: that of the join (0 joined, 2 clocks differ too much, 3 failed), or
//   64 the command line is wrong, or the password is empty
//   73 the account and its password work, but the keytab could not be written
//   75 not done when the time was over
#include <getopt.h>
#include <tavrel/KrbError.h>
#include <tavrel/KrbRealm.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <list>
#include <string>
#include <string_view>
#include <thread>

#include "Arguments.h"
#include "Deadline.h"

namespace {

constexpr int kUsage = 64;
constexpr int kNoKeytab = 73;
constexpr int kOverdue = 75;
constexpr int kLongestPause = 30;  // seconds

struct Options {
  std::list<tavrel::LdapServer> servers;
  int deadline = 120;
  int attempts = 5;
  std::string domain, user, keytab;
};

struct Outcome {
  int status = tavrel::kFailure;
  std::string error;
};

bool StartsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

// True when the controller that was asked may just not have seen what this join has written on
// another: the account, its flags or its password.
//
// Everything else stays as it is, however often it is tried. Above all nothing that went wrong
// while binding is tried again, whatever its text: the text is that of the last controller, and a
// wrong password that the first one refused would be counted with every attempt until the account
// is locked.
bool MayBeReplicating(const Outcome& outcome) {
  if (outcome.status != tavrel::kFailure) return false;
  if (StartsWith(outcome.error, "Unable to connect to ")) return false;
  constexpr std::string_view kNotThereYet[] = {
      "not found in Kerberos database",  // the account
      "No such object",                  // the account, in the directory
      "Preauthentication failed",        // the password
      "credentials have been revoked",   // the flags: a disabled account was enabled
  };
  return std::any_of(std::begin(kNotThereYet), std::end(kNotThereYet), [&](std::string_view text) {
    return outcome.error.find(text) != std::string::npos;
  });
}

std::string Describe(const Outcome& outcome) {
  std::string text = "status " + std::to_string(outcome.status);
  if (!outcome.error.empty()) text += ", \"" + outcome.error + "\"";
  return text;
}

// All attempts are made by one process. It sets the same machine password each time, so an attempt
// does not undo what the one before has sent on its way.
Outcome JoinPatiently(const Options& options, const std::string& password) {
  tavrel::KrbRealm realm(options.domain, options.servers, options.user, password, options.keytab);
  int pause = 1;
  for (int attempt = 1;; ++attempt) {
    Outcome outcome;
    outcome.status = realm.Join(&outcome.error);
    if (attempt == options.attempts || !MayBeReplicating(outcome)) return outcome;
    std::cerr << "attempt " << attempt << " of " << options.attempts << ": " << Describe(outcome)
              << "; again in " << pause << " s" << std::endl;
    std::this_thread::sleep_for(std::chrono::seconds(pause));
    pause = std::min(2 * pause, kLongestPause);
  }
}

bool Parse(int argc, char** argv, Options& options) {
  static const option kLong[] = {{"server", required_argument, nullptr, 's'},
                                 {"deadline", required_argument, nullptr, 'd'},
                                 {"attempts", required_argument, nullptr, 'a'},
                                 {nullptr, 0, nullptr, 0}};
  for (int letter; (letter = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
    if (letter == 's') {
      const auto server = ParseServer(optarg);
      if (!server) return false;
      options.servers.push_back(*server);
    } else if (letter == 'd' || letter == 'a') {
      const auto count = ParseCount(optarg);
      if (!count) return false;
      (letter == 'd' ? options.deadline : options.attempts) = *count;
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

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!Parse(argc, argv, options)) {
    std::cerr << "usage: join_domain [--server HOST[:PORT][,starttls|ldaps[,CAFILE]]]... "
                 "[--deadline SECONDS] [--attempts N] DOMAIN USER KEYTAB < PASSWORD\n";
    return kUsage;
  }
  std::string password;
  std::getline(std::cin, password);
  // A bind with a name but no password is an anonymous one (RFC 4513, 5.1.2).
  if (password.empty()) {
    std::cerr << "join_domain: the password is empty\n";
    return kUsage;
  }

  const auto outcome = FinishWithin(std::chrono::seconds(options.deadline),
                                    [&] { return JoinPatiently(options, password); });
  if (!outcome) {
    std::cout << "join: not done after " << options.deadline << " s" << std::endl;
    // The library has no way to stop a join. Its thread may stand in any call; leave without taking
    // down what it uses. Nothing is lost: the next join takes up whatever this one left.
    std::_Exit(kOverdue);
  }
  std::cout << "join: " << Describe(*outcome) << '\n';
  if (outcome->status == tavrel::kSuccess &&
      StartsWith(outcome->error, "Unable to write Kerberos keytab for ")) {
    return kNoKeytab;  // a success that cannot authenticate anybody on this machine
  }
  return outcome->status;
}
