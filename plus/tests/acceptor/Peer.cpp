// An acceptor behind a pipe: a line in, `TOKEN [CHANNEL | cert:CERTIFICATE]` in hexadecimal digits,
// a JSON object out. `CERTIFICATE` is that of the TLS server that the token came through. Beside
// what the acceptor says it shows the PAC as it came, so that others can decode it too.
#include <krb5.h>

#include <iostream>
#include <sstream>
#include <string>

#include "ApRequest.h"
#include "Hex.h"
#include "Spnego.h"
#include "tavrel/plus/Acceptor.h"

namespace {

using namespace tavrel::plus;
using tavrel::tests::Hex;

std::string FromHex(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return bytes;
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

std::string List(const std::vector<GroupMembership>& groups) {
  std::string list;
  for (const GroupMembership& group : groups) {
    list += (list.empty() ? "[" : ",[") + Quoted(group.sid.ToText()) + "," +
            std::to_string(group.attributes) + "]";
  }
  return "[" + list + "]";
}

std::string List(const std::vector<std::string>& texts) {
  std::string list;
  for (const std::string& text : texts)
    list += (list.empty() ? "" : ",") + Quoted(text);
  return "[" + list + "]";
}

// The PAC of the token's ticket, opened with the keytab by the library alone; empty without one.
std::string Pac(const std::string& keytab_path, const std::string& token) {
  const InitialToken read = ReadInitialToken(token);
  krb5_context context = nullptr;
  krb5_keytab keytab = nullptr;
  krb5_auth_context auth = nullptr;
  krb5_ticket* ticket = nullptr;
  krb5_authdata** found = nullptr;
  std::string pac;
  krb5_init_context(&context);
  krb5_kt_resolve(context, keytab_path.c_str(), &keytab);
  krb5_auth_con_init(context, &auth);
  krb5_auth_con_setflags(context, auth, 0);
  std::string request(read.request);
  const krb5_data data{0, static_cast<unsigned>(request.size()), request.data()};
  if (krb5_rd_req(context, &auth, &data, nullptr, keytab, nullptr, &ticket) == 0 &&
      krb5_find_authdata(context, ticket->enc_part2->authorization_data, nullptr,
                         KRB5_AUTHDATA_WIN2K_PAC, &found) == 0 &&
      found != nullptr) {
    pac.assign(reinterpret_cast<const char*>(found[0]->contents), found[0]->length);
  }
  return pac;
}

void Show(const Acceptance& result, const std::string& pac, const std::vector<Sid>& asked) {
  std::cout << "{\"reply\":\"" << Hex(result.reply) << "\"";
  if (result.refusal) {
    std::cout << ",\"refused\":\"" << Name(result.refusal->reason)
              << "\",\"text\":" << Quoted(result.refusal->text)
              << ",\"seconds\":" << result.refusal->seconds << "}" << std::endl;
    return;
  }
  const Identity& user = *result.identity;
  std::cout << ",\"client\":" << Quoted(user.client.Text())
            << ",\"service\":" << Quoted(user.service.Text())
            << ",\"ticket_enctype\":" << user.ticket_enctype
            << ",\"session_enctype\":" << user.session_enctype
            << ",\"bound\":" << (user.channel_bound ? "true" : "false");
  if (user.authorization) {
    const Authorization& known = *user.authorization;
    std::cout << ",\"logon_name\":" << Quoted(known.logon_name)
              << ",\"full_name\":" << Quoted(known.full_name) << ",\"upn\":" << Quoted(known.upn)
              << ",\"netbios_domain\":" << Quoted(known.netbios_domain)
              << ",\"dns_domain\":" << Quoted(known.dns_domain)
              << ",\"logon_server\":" << Quoted(known.logon_server)
              << ",\"user\":" << Quoted(known.user.ToText())
              << ",\"domain\":" << Quoted(known.domain.ToText())
              << ",\"primary_group\":" << Quoted(known.primary_group.ToText())
              << ",\"account_flags\":" << known.account_flags
              << ",\"groups\":" << List(known.groups)
              << ",\"extra_sids\":" << List(known.extra_sids)
              << ",\"resource_groups\":" << List(known.resource_groups);
    std::vector<std::string> of_domains;
    std::vector<std::string> member_of;
    for (const Sid& sid : asked) {
      if (user.IsOfDomain(sid)) of_domains.push_back(sid.ToText());
      if (user.IsMemberOf(sid)) member_of.push_back(sid.ToText());
    }
    std::cout << ",\"of_domains\":" << List(of_domains) << ",\"member_of\":" << List(member_of)
              << ",\"delegation\":";
    if (known.delegation) {
      std::cout << "[" << Quoted(known.delegation->target) << "," << List(known.delegation->through)
                << "]";
    } else {
      std::cout << "null";
    }
    std::cout << ",\"pac\":\"" << Hex(pac) << "\"";
  }
  std::cout << "}" << std::endl;
}

}  // namespace

// KEYTAB REPLAY_FILE [rc4] [no-pac] [required] [SERVICE|SID...]; of the identifiers it says which
// the user's domain is, and in which the user is a member.
int main(int argc, char** argv) {
  AcceptorOptions options;
  std::vector<Sid> asked;
  options.keytab = argv[1];
  options.replay_file = argv[2];
  for (int i = 3; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "rc4") {
      options.enctypes.push_back(kRc4);
    } else if (word == "no-pac") {
      options.require_pac = false;
    } else if (word == "required") {
      options.channel_binding = ChannelBinding::kRequired;
    } else if (const auto sid = Sid::FromText(word)) {
      asked.push_back(*sid);
    } else {
      options.services.push_back(word);
    }
  }
  std::string error;
  const auto acceptor = Acceptor::Make(options, &error);
  if (!acceptor) {
    std::cerr << error << '\n';
    return 1;
  }
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream words(line);
    std::string token;
    std::string channel;
    words >> token >> channel;
    token = FromHex(token);
    channel = channel.substr(0, 5) == "cert:" ? TlsServerEndPoint(FromHex(channel.substr(5)))
                                              : FromHex(channel);
    Show(acceptor->Accept(token, channel), Pac(options.keytab, token), asked);
  }
}
