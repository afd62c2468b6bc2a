#include "tavrel/Call.h"

#include <getopt.h>
#include <termios.h>

#include <fstream>

#include "common/Text.h"

namespace tavrel::tools {
namespace {

using plus::Cause;

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

// HOST[:PORT][,starttls|ldaps[,CAFILE]] as a server entry. Other protection than these two is not
// offered: the administrator's password would travel in the clear, and no controller takes it so.
std::optional<LdapServer> ParseServer(std::string_view text) {
  const auto next = [&text] {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(part.size() < text.size() ? part.size() + 1 : part.size());
    return std::string(part);
  };
  const std::string host = next();
  const std::string protection = next();
  const std::string ca_file(text);
  if (host.empty() || host.find('/') != std::string::npos) return std::nullopt;
  // An entry without a scheme always gets StartTLS, whatever its encryption is.
  if (protection.empty() || protection == "starttls") {
    return LdapServer("ldap://" + host, vdi::LDAP_ENCRYPTION_STARTTLS, ca_file);
  }
  if (protection == "ldaps") {
    return LdapServer("ldaps://" + host, vdi::LDAP_ENCRYPTION_LDAPS, ca_file);
  }
  return std::nullopt;
}

}  // namespace

int Call::Read(int argc, char** argv, std::string_view usage, std::string_view letters) {
  static const option kLong[] = {{"json", no_argument, nullptr, 'j'},
                                 {"config", required_argument, nullptr, 'c'},
                                 {"user", required_argument, nullptr, 'u'},
                                 {"password-file", required_argument, nullptr, 'p'},
                                 {"ccache", required_argument, nullptr, 'k'},
                                 {"one-time", no_argument, nullptr, 'o'},
                                 {"due", no_argument, nullptr, 'd'},
                                 {"delete", no_argument, nullptr, 'r'},
                                 {"join", no_argument, nullptr, 'n'},
                                 {"server", required_argument, nullptr, 's'},
                                 {"attempts", required_argument, nullptr, 'a'},
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
      case 'r': remove = true; break;
      case 'n': join = true; break;
      case 's': {
        const auto server = ParseServer(optarg);
        if (!server) return wrong();
        servers.push_back(*server);
        break;
      }
      default: {
        const auto count = ParseNumber(optarg, 1, 1000);
        if (!count) return wrong();
        attempts = static_cast<int>(*count);
        break;
      }
    }
  }
  const int ways = (user.empty() ? 0 : 1) + (use_cache ? 1 : 0) + (one_time ? 1 : 0);
  if (optind != argc || ways > 1) return wrong();
  std::string error;
  const auto text = ReadFile(config_file, kLargestFile, &error);
  if (text) config = Config::Parse(*text, config_file, &error);
  return config ? 0 : Complain(error, kWrongConfig);
}

bool Call::ReadPassword(Secret& password) const {
  if (!password_file.empty()) {
    std::ifstream input(password_file);
    return static_cast<bool>(std::getline(input, password.text));
  }
  termios before{};
  const bool terminal = isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &before) == 0;
  if (terminal) {
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    std::cerr << "Password: " << std::flush;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  }
  const bool read = static_cast<bool>(std::getline(std::cin, password.text));
  if (terminal) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
    std::cerr << '\n';
  }
  return read;
}

std::optional<plus::Credentials> Call::Credentials() const {
  if (use_cache) return plus::Credentials::Cache(cache);
  if (user.empty() && !one_time) return plus::Credentials::Machine();
  Secret secret;
  if (!ReadPassword(secret)) return std::nullopt;
  return one_time ? plus::Credentials::OneTimePassword(secret.text)
                  : plus::Credentials::Password(user, secret.text);
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
    case Cause::kReferred:
      return "name `controllers` that take changes, and the domain's `container`";
    case Cause::kNoEncryptionType: return "allow AES for the account, or set `enctypes = aes rc4`";
    case Cause::kKeysDoNotWork: return "enrol again";
    case Cause::kKeytab: return "see the keytab's folder, its owner and the disk";
    case Cause::kBusy: return "another process works on the keytab: try again";
    default: return "";
  }
}

int Conclude(const plus::Result& result, Printer& printer) {
  if (result.step != plus::Step::kNone) printer.Say("step", plus::ToText(result.step));
  if (!result || !result.text.empty()) printer.Say("text", result.text);
  if (!result) printer.Say("remedy", Remedy(result.cause));
  return StatusOf(result.cause);
}

}  // namespace tavrel::tools
