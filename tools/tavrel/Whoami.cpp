// tavrel whoami: who presented a token, or why it is refused and what to do.
#include <getopt.h>
#include <tavrel/plus/Acceptor.h>

#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "common/Json.h"
#include "common/Text.h"
#include "tavrel/Command.h"
#include "tavrel/Printer.h"

namespace tavrel::tools {
namespace {

constexpr int kRefused = 1;
constexpr int kNoToken = 65;
constexpr int kNoKeytab = 66;
constexpr std::size_t kLargestInput = std::size_t{1024} * 1024;

std::string_view Remedy(plus::RefusalReason reason) {
  using Reason = plus::RefusalReason;
  switch (reason) {
    case Reason::kNoToken: return "send the token as it stands behind `Negotiate`, in base64";
    case Reason::kNtlm:
      return "the client got no ticket: see that it is a member of the domain and reaches a "
             "controller, that the address bar shows the full name, and that the account has "
             "HTTP/ and that name among its service names, and no other account does";
    case Reason::kNotKerberos: return "the client must offer Kerberos";
    case Reason::kMalformed: return "see that the token was copied whole";
    case Reason::kNoKey:
      return "the keytab lacks the key that the ticket asks for: after a new password users get "
             "new tickets by `klist purge` or `kdestroy`; if that does not help, `tavrel status`";
    case Reason::kEnctype: return "give the account AES keys (`tavrel enrol`), or allow the type";
    case Reason::kWrongService:
      return "the client asked for another service: name it by --service if it is to be accepted";
    case Reason::kNotGenuine: return "somebody has altered the token, or put two together";
    case Reason::kExpired: return "the user's ticket is over: sign in to the computer again";
    case Reason::kNotYetValid:
    case Reason::kClock: return "set the clocks of client, controller and this machine by NTP";
    case Reason::kReplay: return "the token was presented before: each is good once";
    case Reason::kChannelBindingMissing:
    case Reason::kChannelBindingWrong:
      return "the token was made for another TLS connection: somebody may relay it";
    case Reason::kPacMissing: return "the account is marked NO_AUTH_DATA_REQUIRED: unmark it";
    case Reason::kPacWrong: return "the ticket does not come from a controller of this domain";
    case Reason::kUnfinished:
    case Reason::kInternal: break;
  }
  return "see this machine's log, memory and disk";
}

// The token in what was given: base64, alone or behind `Negotiate`, with or without the header's
// name; or the token itself.
std::string TokenIn(std::string_view input) {
  if (!input.empty() && (input.front() == '\x60' || input.front() == '\xA1') && input.size() > 1 &&
      !FromBase64(Trimmed(input.substr(0, input.find_last_not_of("\r\n") + 1)))) {
    return std::string(input);
  }
  input = Trimmed(input.substr(0, input.find_last_not_of("\r\n \t") + 1));
  for (const std::string_view start : {"Authorization:", "WWW-Authenticate:", "Negotiate"}) {
    if (!SameText(input.substr(0, start.size()), start)) continue;
    input = Trimmed(input.substr(start.size()));
  }
  return FromBase64(input).value_or("");
}

std::vector<std::string> Texts(const std::vector<plus::GroupMembership>& groups) {
  std::vector<std::string> texts;
  texts.reserve(groups.size());
  for (const plus::GroupMembership& group : groups) {
    texts.push_back(group.sid.ToText() + (group.Grants() ? "" : " (grants nothing)"));
  }
  return texts;
}

void Describe(const plus::Identity& identity, Printer& printer) {
  printer.Say("client", identity.client.Text());
  printer.Say("service", identity.service.Text());
  if (const auto& pac = identity.authorization) {
    printer.Say("logon_name", pac->logon_name);
    printer.Say("full_name", pac->full_name);
    printer.Say("upn", pac->upn);
    printer.Say("netbios_domain", pac->netbios_domain);
    printer.Say("dns_domain", pac->dns_domain);
    printer.Say("logon_server", pac->logon_server);
    printer.Say("user_sid", pac->user.ToText());
    printer.Say("primary_group", pac->primary_group.ToText());
    printer.Say("group", Texts(pac->groups));
    printer.Say("extra_sid", Texts(pac->extra_sids));
    printer.Say("resource_group", Texts(pac->resource_groups));
    if (pac->delegation) {
      printer.Say("delegated_to", pac->delegation->target);
      printer.Say("delegated_through", pac->delegation->through);
    }
  }
  printer.Say("auth_time", FormatTime(identity.auth_time));
  printer.Say("start_time", FormatTime(identity.start_time));
  printer.Say("end_time", FormatTime(identity.end_time));
  printer.Say("ticket_enctype", std::int64_t{identity.ticket_enctype});
  printer.Say("session_enctype", std::int64_t{identity.session_enctype});
  printer.Say("key_version", std::int64_t{identity.key_version});
}

void Describe(const plus::Refusal& refusal, Printer& printer) {
  printer.Say("refused", plus::Name(refusal.reason));
  printer.Say("reason", refusal.text);
  printer.Say("service", refusal.service);
  if (refusal.key_version) printer.Say("key_version", std::int64_t{*refusal.key_version});
  if (refusal.enctype) printer.Say("enctype", std::int64_t{*refusal.enctype});
  if (refusal.seconds != 0) printer.Say("seconds", refusal.seconds);
  printer.Say("remedy", Remedy(refusal.reason));
}

int Usage() {
  std::cerr << "usage: tavrel whoami [--json] [--service NAME]... [--rc4] KEYTAB [FILE]\n";
  return kUsage;
}

}  // namespace

int RunWhoami(int argc, char** argv) {
  static const option kLong[] = {{"json", no_argument, nullptr, 'j'},
                                 {"service", required_argument, nullptr, 's'},
                                 {"rc4", no_argument, nullptr, 'r'},
                                 {nullptr, 0, nullptr, 0}};
  bool json = false;
  plus::AcceptorOptions options;
  std::vector<std::string> services;
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
    switch (letter) {
      case 'j': json = true; break;
      case 's': services.emplace_back(optarg); break;
      case 'r': options.enctypes.push_back(plus::kRc4); break;
      default: return Usage();
    }
  }
  if (argc - optind < 1 || argc - optind > 2) return Usage();
  options.keytab = argv[optind];
  if (!services.empty()) options.services = services;
  options.require_pac = false;
  options.channel_binding = plus::ChannelBinding::kOff;
  // Looking at a token does not use it up.
  options.replay_protection = false;

  std::string error;
  const auto input =
      ReadFile(argc - optind == 2 ? argv[optind + 1] : "/dev/stdin", kLargestInput, &error);
  const std::string token = input ? TokenIn(*input) : "";
  if (token.empty()) {
    std::cerr << "tavrel whoami: " << (error.empty() ? "there is no token in the input" : error)
              << '\n';
    return kNoToken;
  }
  const auto acceptor = plus::Acceptor::Make(options, &error);
  if (acceptor == nullptr) {
    std::cerr << "tavrel whoami: " << error << '\n';
    return kNoKeytab;
  }
  const plus::Acceptance acceptance = acceptor->Accept(token);
  Printer printer(json);
  if (acceptance.identity) {
    Describe(*acceptance.identity, printer);
    return 0;
  }
  Describe(*acceptance.refusal, printer);
  return kRefused;
}

}  // namespace tavrel::tools
