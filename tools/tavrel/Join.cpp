// tavrel join: the core's join, within a time limit, and again while the change replicates.
#include <tavrel/KrbError.h>
#include <tavrel/KrbRealm.h>

#include <algorithm>
#include <array>

#include "tavrel/Call.h"

namespace tavrel::tools {
namespace {

using plus::Cause;
using plus::Step;

constexpr int kLongestPause = 30;  // seconds

struct Outcome {
  int status = kFailure;
  std::string text;
};

bool Begins(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}
bool Has(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

constexpr std::string_view kUnableToConnect = "Unable to connect to ";

// True when the controller that was asked may just not have seen what this join has written on
// another: the account, its flags or its password.
//
// Everything else stays as it is, however often it is tried. Above all nothing that went wrong
// while binding is tried again, whatever its text: the text is that of the last controller, and a
// wrong password that the first one refused would be counted with every attempt until the account
// is locked.
bool MayBeReplicating(const Outcome& outcome) {
  if (outcome.status != kFailure || Begins(outcome.text, kUnableToConnect)) return false;
  constexpr std::array<std::string_view, 4> kNotThereYet = {
      "not found in Kerberos database",  // the account
      "No such object",                  // the account, in the directory
      "Preauthentication failed",        // the password
      "credentials have been revoked",   // the flags: a disabled account was enabled
  };
  return std::any_of(kNotThereYet.begin(), kNotThereYet.end(),
                     [&](std::string_view text) { return Has(outcome.text, text); });
}

// All attempts are made by one process. It sets the same machine password each time, so an attempt
// does not undo what the one before has sent on its way.
Outcome JoinPatiently(const Call& call, const std::string& password) {
  KrbRealm realm(call.config->domain, call.servers, call.user, password, call.config->keytab);
  int pause = 1;
  for (int attempt = 1;; ++attempt) {
    Outcome outcome;
    outcome.status = realm.Join(&outcome.text);
    if (attempt == call.attempts || !MayBeReplicating(outcome)) return outcome;
    std::cerr << "tavrel join: attempt " << attempt << " of " << call.attempts << ": "
              << outcome.text << "; again in " << pause << " s" << std::endl;
    std::this_thread::sleep_for(std::chrono::seconds(pause));
    pause = std::min(2 * pause, kLongestPause);
  }
}

// A join as the other commands report theirs.
plus::Result Translate(const Outcome& outcome) {
  plus::Result result;
  result.text = outcome.text;
  const auto ended = [&](Cause cause, Step step) {
    result.cause = cause;
    result.step = step;
    return result;
  };
  if (outcome.status == kClockSkew) return ended(Cause::kClockSkew, Step::kProof);
  if (outcome.status == kSuccess) {
    // A success that cannot authenticate anybody on this machine.
    const bool no_key = Begins(outcome.text, "Unable to write Kerberos keytab for ");
    return no_key ? ended(Cause::kKeytab, Step::kWrite) : result;
  }
  if (!Begins(outcome.text, kUnableToConnect)) return ended(Cause::kRefused, Step::kNone);
  if (Has(outcome.text, "Unable to find ldap host"))
    return ended(Cause::kNoController, Step::kDiscovery);
  if (Has(outcome.text, "Invalid credentials")) return ended(Cause::kBadCredentials, Step::kBind);
  return ended(Cause::kUnreachable, Step::kConnect);
}

}  // namespace

int RunJoin(int argc, char** argv) {
  Call call{};
  const int wrong = call.Read(argc, argv,
                              "[--json] [--config FILE] [--server HOST[:PORT][,starttls|ldaps"
                              "[,CAFILE]]]... [--attempts N] --user NAME [--password-file FILE]",
                              "jcsaup");
  if (wrong != 0) return wrong;
  Secret password;
  // A bind with a name but no password is an anonymous one (RFC 4513, 5.1.2).
  if (call.user.empty() || !call.ReadPassword(password) || password.text.empty())
    return call.NoPassword();
  const auto outcome =
      Patiently(call, call.config->deadline, [&] { return JoinPatiently(call, password.text); });
  const plus::Result result =
      outcome ? Translate(*outcome) : plus::Result{Cause::kTimedOut, Step::kNone, false, "", ""};
  int status = 0;
  {
    Printer printer(call.json);
    printer.Say("result", Name(result.cause));
    status = Conclude(result, printer);
  }
  if (!outcome) {  // the join's thread may stand in any call, see Patiently()
    std::cout << std::flush;
    std::_Exit(status);
  }
  return status;
}

}  // namespace tavrel::tools
