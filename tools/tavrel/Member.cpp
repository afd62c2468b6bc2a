// tavrel enrol, rotate, leave, status: this machine's membership in its domain.
#include <getopt.h>
#include <openssl/crypto.h>
#include <tavrel/plus/Membership.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Text.h"
#include "tavrel/Command.h"
#include "tavrel/Config.h"
#include "tavrel/Printer.h"

namespace tavrel::tools {
namespace {

using plus::Cause;

constexpr int kFailed = 1;
constexpr int kNotNow = 75;      // trying again later may help
constexpr int kNotAllowed = 77;  // the credentials are wrong, or not allowed to do it
constexpr int kWrongConfig = 78;
constexpr char kDefaultConfig[] = "/etc/tavrel/tavrel.conf";
constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;

int StatusOf(Cause cause) {
  switch (cause) {
    case Cause::kNone: return 0;
    case Cause::kNoController:
    case Cause::kUnreachable:
    case Cause::kTimedOut:
    case Cause::kBusy: return kNotNow;
    case Cause::kBadCredentials:
    case Cause::kCredentialsBarred:
    case Cause::kAccessDenied: return kNotAllowed;
    default: return kFailed;
  }
}

std::string_view Remedy(Cause cause) {
  switch (cause) {
    case Cause::kNoController: return "name `controllers`, or see that DNS knows the domain";
    case Cause::kUnreachable: return "see that ports 88, 389 and 464 of the controller are open";
    case Cause::kBadCredentials:
      return "see the name and the password; refusals count to a lockout";
    case Cause::kCredentialsBarred: return "have the user enabled or unlocked, or the password set";
    case Cause::kClockSkew: return "set this machine's clock from the domain (NTP)";
    case Cause::kAccessDenied: return "have the rights given that tools/README.md lists";
    case Cause::kNoAccount: return "enrol first";
    case Cause::kAccountBarred: return "have the account enabled, or name another: `account`";
    case Cause::kNameTaken: return "remove the name from the other account, or name another one";
    case Cause::kNoEncryptionType: return "allow AES for the account, or set `enctypes = aes rc4`";
    case Cause::kKeysDoNotWork: return "enrol again";
    case Cause::kKeytab: return "see the keytab's folder, its owner and the disk";
    case Cause::kBusy: return "another process works on the keytab: try again";
    default: return "";
  }
}

// A secret, wiped when it is let go.
struct Secret {
  std::string text;
  Secret() = default;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { OPENSSL_cleanse(text.data(), text.size()); }
};

// The first line of a file, or of standard input; asked for without echo on a terminal.
bool ReadSecret(const std::string& file, Secret& secret) {
  if (!file.empty()) {
    std::ifstream input(file);
    return static_cast<bool>(std::getline(input, secret.text));
  }
  termios before{};
  const bool terminal = isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &before) == 0;
  if (terminal) {
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    std::cerr << "Password: " << std::flush;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  const bool read = static_cast<bool>(std::getline(std::cin, secret.text));
  if (terminal) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
    std::cerr << '\n';
  }
  return read;
}

// The command line that all four have, and what is read for it.
struct Call {
  const char* name;
  bool json = false;
  bool due = false;     // rotate
  bool remove = false;  // leave
  std::string config_file = kDefaultConfig;
  std::string user, password_file, cache;
  bool use_cache = false, one_time = false;
  std::optional<Config> config;

  // 0, or the exit status; the complaint is on standard error.
  int Read(int argc, char** argv, std::string_view usage, std::string_view letters);
  // Nothing when the password cannot be read.
  std::optional<plus::Credentials> Credentials() const;

  int Complain(std::string_view what, int status) const {
    std::cerr << "tavrel " << name << ": " << what << '\n';
    return status;
  }
};

int Call::Read(int argc, char** argv, std::string_view usage, std::string_view letters) {
  static const option kLong[] = {{"json", no_argument, nullptr, 'j'},
                                 {"config", required_argument, nullptr, 'c'},
                                 {"user", required_argument, nullptr, 'u'},
                                 {"password-file", required_argument, nullptr, 'p'},
                                 {"ccache", required_argument, nullptr, 'k'},
                                 {"one-time", no_argument, nullptr, 'o'},
                                 {"due", no_argument, nullptr, 'd'},
                                 {"delete", no_argument, nullptr, 'r'},
                                 {nullptr, 0, nullptr, 0}};
  name = argv[0];
  const auto wrong = [&] {
    std::cerr << "usage: tavrel " << name << ' ' << usage << '\n';
    return kUsage;
  };
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
    if (letter == '?' || letters.find(static_cast<char>(letter)) == std::string_view::npos) {
      return wrong();
    }
    switch (letter) {
      case 'j': json = true; break;
      case 'c': config_file = optarg; break;
      case 'u': user = optarg; break;
      case 'p': password_file = optarg; break;
      case 'k':
        cache = optarg;
        use_cache = true;
        break;
      case 'o': one_time = true; break;
      case 'd': due = true; break;
      default: remove = true; break;
    }
  }
  const int ways = (user.empty() ? 0 : 1) + (use_cache ? 1 : 0) + (one_time ? 1 : 0);
  if (optind != argc || ways > 1) return wrong();
  std::string error;
  const auto text = ReadFile(config_file, kLargestFile, &error);
  if (text) config = Config::Parse(*text, config_file, &error);
  return config ? 0 : Complain(error, kWrongConfig);
}

std::optional<plus::Credentials> Call::Credentials() const {
  if (use_cache) return plus::Credentials::Cache(cache);
  if (user.empty() && !one_time) return plus::Credentials::Machine();
  Secret secret;
  if (!ReadSecret(password_file, secret)) return std::nullopt;
  return one_time ? plus::Credentials::OneTimePassword(secret.text)
                  : plus::Credentials::Password(user, secret.text);
}

// Runs what may take long, and says so after a second to whoever looks at a terminal.
template <typename Work>
plus::Result Patiently(const Call& call, Work work) {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  auto running = std::async(std::launch::async, work);
  if (isatty(STDERR_FILENO) == 1 &&
      running.wait_for(std::chrono::seconds(1)) != std::future_status::ready) {
    std::cerr << "tavrel " << call.name << ": at work, " << call.config->deadline.count()
              << " s at most\n";
  }
  return running.get();
}

int Report(const plus::Result& result, Printer& printer) {
  printer.Say("result", result ? std::string_view("done") : plus::ToText(result.cause));
  printer.Say("changed", result.changed);
  printer.Say("controller", result.controller);
  if (!result) {
    printer.Say("step", plus::ToText(result.step));
    printer.Say("text", result.text);
    printer.Say("remedy", Remedy(result.cause));
  }
  return StatusOf(result.cause);
}

using Operation = std::function<plus::Result(plus::Membership&, std::chrono::milliseconds)>;

int Operate(const Call& call, const Operation& operation) {
  plus::Membership membership(call.config->domain, call.config->keytab, call.config->membership);
  const plus::Result result =
      Patiently(call, [&] { return operation(membership, call.config->deadline); });
  Printer printer(call.json);
  printer.Say("principal", membership.Principal());
  return Report(result, printer);
}

int NoPassword(const Call& call) {
  return call.Complain("there is no password to read", kUsage);
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
  if (!credentials) return NoPassword(call);
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
  if (!credentials) return NoPassword(call);
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
  if (!credentials) return NoPassword(call);
  plus::Membership membership(call.config->domain, call.config->keytab, call.config->membership);
  plus::MembershipStatus status;
  const plus::Result result = Patiently(
      call, [&] { return membership.Status(*credentials, call.config->deadline, status); });
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
