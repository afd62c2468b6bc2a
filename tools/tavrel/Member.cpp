// tavrel enrol, rotate, leave, status: this machine's membership in its domain.
#include <functional>
#include <string>
#include <vector>

#include "common/Text.h"
#include "tavrel/Call.h"

namespace tavrel::tools {
namespace {

// An operation ends within a second of its deadline by itself.
plus::Result Wait(const Call& call, const std::function<plus::Result()>& work) {
  const auto limit = call.config->deadline + std::chrono::seconds(5);
  if (auto result = Patiently(call, limit, work)) return *std::move(result);
  std::_Exit(call.Complain("not done in time", kNotNow));
}

int Report(const plus::Result& result, Printer& printer) {
  printer.Say("result", Name(result.cause));
  printer.Say("changed", result.changed);
  printer.Say("controller", result.controller);
  return Conclude(result, printer);
}

using Operation = std::function<plus::Result(plus::Membership&, std::chrono::milliseconds)>;

int Operate(const Call& call, const Operation& operation) {
  plus::Membership membership(call.config->domain, call.config->keytab, call.config->membership);
  const plus::Result result =
      Wait(call, [&] { return operation(membership, call.config->deadline); });
  Printer printer(call.json);
  printer.Say("principal", membership.Principal());
  return Report(result, printer);
}

}  // namespace

int RunEnrol(int argc, char** argv) {
  Call call{};
  const int wrong = call.Read(argc, argv,
                              "[--json] [--config FILE] [--user NAME [--password-file FILE] | "
                              "--ccache NAME | --one-time [--password-file FILE]]",
                              "jcupko");
  if (wrong != 0) return wrong;
  const auto credentials = call.Credentials();
  if (!credentials) return call.NoPassword();
  return Operate(call, [&](plus::Membership& membership, std::chrono::milliseconds limit) {
    return membership.Enrol(*credentials, limit);
  });
}

int RunRotate(int argc, char** argv) {
  Call call{};
  const int wrong = call.Read(argc, argv, "[--json] [--config FILE] [--due]", "jcd");
  if (wrong != 0) return wrong;
  return Operate(call, [&](plus::Membership& membership, std::chrono::milliseconds limit) {
    const auto age = std::chrono::duration_cast<std::chrono::hours>(call.config->rotate_after);
    return call.due ? membership.RotateWhenOlderThan(age, limit) : membership.Rotate(limit);
  });
}

int RunLeave(int argc, char** argv) {
  Call call{};
  const int wrong = call.Read(argc, argv,
                              "[--json] [--config FILE] [--delete] "
                              "[--user NAME [--password-file FILE] | --ccache NAME]",
                              "jcupkr");
  if (wrong != 0) return wrong;
  const auto credentials = call.Credentials();
  if (!credentials) return call.NoPassword();
  return Operate(call, [&](plus::Membership& membership, std::chrono::milliseconds limit) {
    return membership.Leave(
        *credentials, call.remove ? plus::Departure::kDelete : plus::Departure::kDisable, limit);
  });
}

int RunStatus(int argc, char** argv) {
  Call call{};
  const int wrong = call.Read(argc, argv,
                              "[--json] [--config FILE] "
                              "[--user NAME [--password-file FILE] | --ccache NAME]",
                              "jcupk");
  if (wrong != 0) return wrong;
  const auto credentials = call.Credentials();
  if (!credentials) return call.NoPassword();
  plus::Membership membership(call.config->domain, call.config->keytab, call.config->membership);
  plus::MembershipStatus status;
  const plus::Result result =
      Wait(call, [&] { return membership.Status(*credentials, call.config->deadline, status); });
  Printer printer(call.json);
  printer.Say("principal", membership.Principal());
  if (!result) return Report(result, printer);
  printer.Say("controller", result.controller);
  printer.Say("exists", status.exists);
  if (!status.exists) return kFailed;
  printer.Say("account", status.account);
  printer.Say("enabled", status.enabled);
  printer.Say("flags", std::int64_t{status.user_account_control});
  printer.Say("encryption_types", std::int64_t{status.encryption_types});
  printer.Say("dns_name", status.dns_name);
  printer.Say("service_name", status.service_names);
  std::vector<std::string> conflicts;
  for (const plus::ServiceNameConflict& conflict : status.conflicts) {
    conflicts.push_back(conflict.service_name + " is also of " + conflict.account);
  }
  printer.Say("conflict", conflicts);
  printer.Say("key_version", std::int64_t{status.key_version});
  std::vector<std::string> versions;
  for (const std::uint32_t version : status.keytab_key_versions) {
    versions.push_back(std::to_string(version));
  }
  printer.Say("keytab_key_version", versions);
  printer.Say("keys_work", status.keys_work);
  if (status.password_set) {
    printer.Say("password_set",
                FormatTime(std::chrono::system_clock::to_time_t(*status.password_set)));
  }
  return status.enabled && status.keys_work && status.conflicts.empty() ? 0 : kFailed;
}

}  // namespace tavrel::tools
