// Checks of the way to the domain's controllers: ldap.conf, DNS, connections, clocks.
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <tavrel/DiscoveryService.h>
#include <tavrel/KrbContext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/Text.h"
#include "tavrel/check/Checks.h"
#include "tavrel/check/Session.h"

namespace tavrel::tools {
namespace {

constexpr int kKerberosPort = 88;
constexpr int kPasswordPort = 464;

Controller FromServer(const LdapServer& server) {
  const auto& [url, encryption, ca_file] = server;
  Controller controller;
  controller.url = url;
  controller.ldaps = encryption == vdi::LDAP_ENCRYPTION_LDAPS;
  controller.ca_file = ca_file;
  controller.host = url.substr(url.find("://") + 3);
  controller.port = controller.ldaps ? LDAPS_PORT : LDAP_PORT;
  const std::size_t colon = controller.host.rfind(':');
  if (colon != std::string::npos && controller.host.find(']', colon) == std::string::npos) {
    constexpr int kMostPort = 65535;
    const auto port = ParseNumber(controller.host.substr(colon + 1), 1, kMostPort);
    controller.port = static_cast<int>(port.value_or(0));  // no controller is at 0
    controller.host.resize(colon);
  }
  if (controller.host.size() > 2 && controller.host.front() == '[') {  // an IPv6 address
    controller.host = controller.host.substr(1, controller.host.size() - 2);
  }
  return controller;
}

// Empty when a TCP connection to `port` of `host` is accepted, what is wrong otherwise.
std::string WhyUnreachable(const std::string& host, int port) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int code = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (code != 0) return gai_strerror(code);
  const std::unique_ptr<addrinfo, FreeWith<freeaddrinfo>> addresses(found);
  std::string why;
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    const int fd = socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      why = std::strerror(errno);
      continue;
    }
    int error = connect(fd, address->ai_addr, address->ai_addrlen) == 0 ? 0 : errno;
    pollfd writable = {fd, POLLOUT, 0};
    if (error == EINPROGRESS) {
      socklen_t size = sizeof error;
      if (poll(&writable, 1, kConnectSeconds * 1000) != 1) {
        error = ETIMEDOUT;
      } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
        error = errno;
      }
    }
    close(fd);
    if (error == 0) return "";
    why = std::strerror(error);
  }
  return why;
}

}  // namespace

void CheckLdapCertificates(Subject& subject, Findings& findings) {
  const std::string check = "ldap.conf TLS_REQCERT";
  int require = 0;
  if (ldap_get_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &require) != LDAP_OPT_SUCCESS) {
    findings.Fail(check, "cannot be had", "see that ldap.conf is well-formed");
    return;
  }
  if (require != LDAP_OPT_X_TLS_NEVER && require != LDAP_OPT_X_TLS_ALLOW) {
    findings.Ok(check, "certificates are verified where there is a CA file");
    return;
  }
  const std::string found = std::string(require == LDAP_OPT_X_TLS_NEVER ? "never" : "allow") +
                            ": no certificate is verified, whatever CA file is configured";
  bool verified = false;
  for (const auto& [url, encryption, ca_file] : *subject.join.servers)
    verified = verified || !ca_file.empty();
  if (verified) {
    findings.Fail(check, found, "set TLS_REQCERT demand, or leave it out");
  } else {
    findings.Warn(check, found, "set TLS_REQCERT demand, or leave it out");
  }
}

void CheckLdapTimeLimit(Subject& /*subject*/, Findings& findings) {
  const std::string check = "ldap.conf TIMEOUT";
  timeval* limit = nullptr;
  ldap_get_option(nullptr, LDAP_OPT_TIMEOUT, &limit);
  const std::unique_ptr<timeval, FreeWith<ldap_memfree>> owned(limit);
  // NETWORK_TIMEOUT is the library's own business: it bounds each connection with 10 s.
  if (limit == nullptr || limit->tv_sec < 0) {
    findings.Warn(check,
                  "none: a controller that accepts and stays silent holds a join up for ever",
                  "set TIMEOUT 10");
  } else {
    findings.Ok(check, std::to_string(limit->tv_sec) + " s");
  }
}

void CheckDiscovery(Subject& subject, Findings& findings) {
  std::list<LdapServer> servers = *subject.join.servers;
  if (!subject.call.join) {
    for (const std::string& host : subject.call.config->membership.controllers)
      servers.emplace_back("ldap://" + host, vdi::LDAP_ENCRYPTION_STARTTLS, "");
  }
  if (!servers.empty()) {
    for (const LdapServer& server : servers)
      subject.controllers.push_back(FromServer(server));
    findings.Ok("discovery", "not needed, controllers are configured");
    return;
  }
  const std::string check = "discovery _ldap._tcp.dc._msdcs." + subject.join.domain;
  h_errno = 0;
  const auto hosts = DNSDiscoveryService().GetLDAPHosts(subject.join.domain);
  std::vector<std::string> names;
  for (const std::string& host : hosts) {
    subject.controllers.push_back(
        FromServer({"ldap://" + host, vdi::LDAP_ENCRYPTION_STARTTLS, ""}));
    names.push_back(Name(subject.controllers.back()));
  }
  if (names.empty()) {
    findings.Fail(check, h_errno != 0 ? hstrerror(h_errno) : "no controller in the answer",
                  "give this machine the domain's own name servers (resolv.conf)");
  } else {
    findings.Ok(check, Listed(names));
  }
}

void CheckReach(Subject& subject, Findings& findings) {
  std::vector<std::string> states_of;
  bool any = false;
  for (Controller& controller : subject.controllers) {
    std::vector<int> ports = {controller.port};
    if (!subject.call.join) {
      ports = {kKerberosPort, LDAP_PORT, kPasswordPort};
    } else if (controller.port == LDAP_PORT || controller.port == LDAPS_PORT) {
      ports = {LDAP_PORT, LDAPS_PORT};
    }
    std::vector<std::string> states;
    for (const int port : ports) {
      const std::string why = WhyUnreachable(controller.host, port);
      states.push_back(std::to_string(port) + " " + (why.empty() ? "open" : why));
      if (port == controller.port) controller.reached = why.empty();
    }
    any = any || controller.reached;
    states_of.push_back(Listed(states));
  }
  std::size_t i = 0;
  for (const Controller& controller : subject.controllers) {
    const std::string check = "reach " + Name(controller);
    const std::string& found = states_of[i++];
    if (controller.reached) {
      findings.Ok(check, found);
    } else if (any) {
      findings.Warn(check, found, "the other controllers are used, after this one was tried");
    } else {
      findings.Fail(check, found, "see to the name, the route and the firewall between");
    }
  }
}

namespace {

// A controller's time as it writes it; empty, with the reason in `why` if there is one, when it
// does not tell. Asked before anything is protected: with a clock that is off, no certificate may
// be valid.
std::string TimeOf(const Controller& controller, std::string& why) {
  const Session session =
      Open(controller, controller.ldaps ? Protection::kUnverified : Protection::kNone, why);
  if (!session) return "";
  int code = LDAP_SUCCESS;
  const Message found =
      Search(session.get(), "", LDAP_SCOPE_BASE, "(objectClass=*)", {"currentTime"}, code);
  if (code != LDAP_SUCCESS) why = Explain(session.get(), code);
  LDAPMessage* const entry = FirstEntry(session.get(), found);
  return entry != nullptr ? GetValue(session.get(), entry, "currentTime") : "";
}

}  // namespace

void CheckClock(Subject& subject, Findings& findings) {
  for (const Controller& controller : subject.controllers) {
    if (!controller.reached) continue;
    const std::string check = "clock of " + controller.host;
    std::string why;
    const std::string text = TimeOf(controller, why);
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    if (strptime(text.c_str(), "%Y%m%d%H%M%S", &parts) == nullptr) {
      findings.Warn(check, "cannot be had: " + (why.empty() ? "no currentTime" : why),
                    "compare the clocks by hand");
      continue;
    }
    const std::int64_t behind = now - timegm(&parts);
    const std::int64_t offset = std::abs(behind);
    std::string found =
        std::to_string(offset) + " s " + (behind < 0 ? "ahead of" : "behind") + " this machine's";
    constexpr char kRemedy[] = "set the clock from the domain (NTP)";
    const std::int64_t most = KrbTicketValidator::kMaxOffsetSeconds;
    if (offset == 0) found = "the same as this machine's";
    if (offset > most / 2) found += ", " + std::to_string(most) + " s is the most";
    if (offset > most) {
      findings.Fail(check, found, kRemedy);
    } else if (offset > most / 2) {
      findings.Warn(check, found, kRemedy);
    } else {
      findings.Ok(check, found);
    }
  }
}

}  // namespace tavrel::tools
