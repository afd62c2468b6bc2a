// Checks of the account that an enrolment uses, or would make: what Membership::Status() sees.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "common/Text.h"
#include "tavrel/check/Checks.h"

namespace tavrel::tools {
namespace {

constexpr std::uint32_t kAes = 0x18;  // of msDS-SupportedEncryptionTypes

void CheckMissing(const plus::MembershipStatus& status, const std::string& check,
                  Findings& findings) {
  if (status.container.empty()) {
    findings.Fail(check, "does not exist, nor does the container that it is to be made in",
                  "name one that is there: `container`");
  } else if (!status.may_be_made) {
    findings.Warn(
        check,
        "does not exist, and this user has no right to make computers in " + status.container,
        "have the right given, or the account made beforehand; ms-DS-MachineAccountQuota allows "
        "others a few at best");
  } else {
    findings.Ok(check, "does not exist; `tavrel enrol` makes it in " + status.container);
  }
}

void CheckExisting(const Subject& subject, const plus::MembershipStatus& status,
                   const std::string& check, Findings& findings) {
  const std::string found = status.account + (status.enabled ? "" : ", disabled");
  if (!subject.keytab_has_key) {
    findings.Warn(
        check, found + "; no key of it was found in the keytab: `tavrel enrol` gives it a new one",
        "see that no other machine uses it: that one would be out of the domain");
  } else if (!status.enabled || !status.keys_work) {
    findings.Warn(check, found + "; its keys in the keytab do not work", "tavrel enrol");
  } else {
    findings.Ok(check, found + "; its keys work");
  }
  const plus::MembershipOptions& options = subject.call.config->membership;
  for (const std::string& service : options.services) {
    std::string name = service;
    name += '/' + (options.dns_name.empty() ? status.dns_name : options.dns_name);
    if (std::none_of(status.service_names.begin(), status.service_names.end(),
                     [&](const std::string& own) { return SameText(own, name); })) {
      findings.Warn("service name " + name, "the account lacks it", "tavrel enrol");
    }
  }
  const std::string types = std::to_string(status.encryption_types);
  if ((status.encryption_types & kAes) != 0) {
    findings.Ok("account enctypes", types);
  } else {
    findings.Warn("account enctypes", types + ": no AES", "tavrel enrol");
  }
}

}  // namespace

void CheckEnrolledAccount(Subject& subject, Findings& findings) {
  const Call& call = subject.call;
  if (call.user.empty() && !call.use_cache && !call.one_time && !subject.keytab_has_key) {
    findings.Warn("sign-in", "not tried, there are neither credentials nor a key of the machine",
                  "give --user NAME and a password");
    return;
  }
  const bool reached = std::any_of(subject.controllers.begin(), subject.controllers.end(),
                                   [](const Controller& controller) { return controller.reached; });
  if (!reached) return;
  plus::MembershipStatus status;
  const plus::Result result =
      subject.membership.Status(subject.credentials, call.config->deadline, status);
  if (!result) {
    findings.Fail("sign-in",
                  std::string(plus::ToText(result.cause)) + " (" + plus::ToText(result.step) +
                      "): " + result.text,
                  Remedy(result.cause).empty() ? "see what the controller says"
                                               : std::string(Remedy(result.cause)));
    return;
  }
  findings.Ok("sign-in", "accepted by " + result.controller);
  const std::string check = "account " + subject.Account();
  if (status.exists) {
    CheckExisting(subject, status, check, findings);
  } else {
    CheckMissing(status, check, findings);
  }
  for (const plus::ServiceNameConflict& conflict : status.conflicts) {
    findings.Fail("service name " + conflict.service_name, "is also of " + conflict.account,
                  "remove it there, or give this machine another name: `dns_name`, `services`");
  }
}

}  // namespace tavrel::tools
