// Checks of the way to the domain's controllers: ldap.conf, DNS, connections, clocks.
#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>
#include <tavrel/KrbContext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Checks.h"
#include "Session.h"

namespace {

Controller FromServer(const tavrel::LdapServer& server) {
  const auto& [url, encryption, ca_file] = server;
  Controller controller;
  controller.url = url;
  controller.ldaps = encryption == vdi::LDAP_ENCRYPTION_LDAPS;
  controller.ca_file = ca_file;
  controller.host = url.substr(url.find("://") + 3);
  controller.port = controller.ldaps ? LDAPS_PORT : LDAP_PORT;
  const std::size_t colon = controller.host.rfind(':');
  if (colon != std::string::npos && controller.host.find(']', colon) == std::string::npos) {
    controller.port = std::atoi(controller.host.c_str() + colon + 1);
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

void CheckLdapCertificates(Subject& subject, Report& report) {
  const std::string check = "ldap.conf TLS_REQCERT";
  int require = 0;
  if (ldap_get_option(nullptr, LDAP_OPT_X_TLS_REQUIRE_CERT, &require) != LDAP_OPT_SUCCESS) {
    report.Fail(check, "cannot be had", "see that ldap.conf is well-formed");
    return;
  }
  if (require != LDAP_OPT_X_TLS_NEVER && require != LDAP_OPT_X_TLS_ALLOW) {
    report.Ok(check, "certificates are verified where there is a CA file");
    return;
  }
  const std::string found = std::string(require == LDAP_OPT_X_TLS_NEVER ? "never" : "allow") +
                            ": no certificate is verified, whatever CA file is configured";
  bool verified = false;
  for (const auto& [url, encryption, ca_file] : *subject.join.servers)
    verified = verified || !ca_file.empty();
  if (verified) {
    report.Fail(check, found, "set TLS_REQCERT demand, or leave it out");
  } else {
    report.Warn(check, found, "set TLS_REQCERT demand, or leave it out");
  }
}

void CheckLdapTimeLimit(Subject&, Report& report) {
  const std::string check = "ldap.conf TIMEOUT";
  timeval* limit = nullptr;
  ldap_get_option(nullptr, LDAP_OPT_TIMEOUT, &limit);
  const std::unique_ptr<timeval, FreeWith<ldap_memfree>> owned(limit);
  // NETWORK_TIMEOUT is the library's own business: it bounds each connection with 10 s.
  if (limit == nullptr || limit->tv_sec < 0) {
    report.Warn(check, "none: a controller that accepts and stays silent holds a join up for ever",
                "set TIMEOUT 10");
  } else {
    report.Ok(check, std::to_string(limit->tv_sec) + " s");
  }
}

void CheckDiscovery(Subject& subject, Report& report) {
  if (!subject.join.servers->empty()) {
    for (const tavrel::LdapServer& server : *subject.join.servers)
      subject.controllers.push_back(FromServer(server));
    report.Ok("discovery", "not needed, servers are configured");
    return;
  }
  const std::string name = "_ldap._tcp.dc._msdcs." + subject.join.domain;
  const std::string check = "discovery " + name;
  const char* const remedy = "give this machine the domain's own name servers (resolv.conf)";
  struct __res_state resolver = {};
  if (res_ninit(&resolver) != 0) {
    report.Fail(check, "no resolver", remedy);
    return;
  }
  std::vector<unsigned char> answer(NS_MAXMSG);
  const int length = res_nsearch(&resolver, name.c_str(), ns_c_in, ns_t_srv, answer.data(),
                                 static_cast<int>(answer.size()));
  const std::string why = length < 0 ? hstrerror(resolver.res_h_errno) : "";
  res_nclose(&resolver);
  ns_msg message;
  if (length < 0 || ns_initparse(answer.data(), length, &message) != 0) {
    report.Fail(check, why.empty() ? "the answer is broken" : why, remedy);
    return;
  }
  std::vector<std::string> names;
  for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
    ns_rr record;
    char target[NS_MAXDNAME];
    constexpr int kFixed = 6;  // priority, weight, port
    if (ns_parserr(&message, ns_s_an, i, &record) != 0 || ns_rr_type(record) != ns_t_srv ||
        ns_rr_rdlen(record) <= kFixed ||
        dn_expand(ns_msg_base(message), ns_msg_end(message), ns_rr_rdata(record) + kFixed, target,
                  sizeof target) < 0) {
      continue;
    }
    const std::string host = target;
    const unsigned port = ns_get16(ns_rr_rdata(record) + 4);
    subject.controllers.push_back(FromServer(
        {"ldap://" + host + ":" + std::to_string(port), vdi::LDAP_ENCRYPTION_STARTTLS, ""}));
    names.push_back(Name(subject.controllers.back()));
  }
  if (names.empty()) {
    report.Fail(check, "no controller in the answer", remedy);
  } else {
    report.Ok(check, Join(names));
  }
}

void CheckReach(Subject& subject, Report& report) {
  std::vector<std::string> findings;
  bool any = false;
  for (Controller& controller : subject.controllers) {
    std::vector<int> ports = {controller.port};
    if (controller.port == LDAP_PORT || controller.port == LDAPS_PORT) {
      ports = {LDAP_PORT, LDAPS_PORT};
    }
    std::vector<std::string> states;
    for (const int port : ports) {
      const std::string why = WhyUnreachable(controller.host, port);
      states.push_back(std::to_string(port) + " " + (why.empty() ? "open" : why));
      if (port == controller.port) controller.reached = why.empty();
    }
    any = any || controller.reached;
    findings.push_back(Join(states));
  }
  std::size_t i = 0;
  for (const Controller& controller : subject.controllers) {
    const std::string check = "reach " + Name(controller);
    const std::string& found = findings[i++];
    if (controller.reached) {
      report.Ok(check, found);
    } else if (any) {
      report.Warn(check, found, "a join uses the other controllers, after it has tried this one");
    } else {
      report.Fail(check, found, "see to the name, the route and the firewall between");
    }
  }
}

void CheckClock(Subject& subject, Report& report) {
  for (const Controller& controller : subject.controllers) {
    if (!controller.reached) continue;
    // Before anything is protected: with a clock that is off, no certificate may be valid.
    const Protection protection = controller.ldaps ? Protection::kUnverified : Protection::kNone;
    const std::string check = "clock of " + controller.host;
    std::string why;
    const Session session = Open(controller, protection, why);
    std::tm parts = {};
    std::string text;
    if (session) {
      int code = LDAP_SUCCESS;
      const Message found =
          Search(session.get(), "", LDAP_SCOPE_BASE, "(objectClass=*)", {"currentTime"}, code);
      LDAPMessage* const entry = FirstEntry(session.get(), found);
      if (entry != nullptr) text = GetValue(session.get(), entry, "currentTime");
      if (code != LDAP_SUCCESS) why = Explain(session.get(), code);
    }
    const std::time_t now = std::time(nullptr);
    if (strptime(text.c_str(), "%Y%m%d%H%M%S", &parts) == nullptr) {
      report.Warn(check, "cannot be had: " + (why.empty() ? "no currentTime" : why),
                  "compare the clocks by hand");
      continue;
    }
    const std::int64_t behind = now - timegm(&parts);
    const std::int64_t offset = std::abs(behind);
    std::string found =
        std::to_string(offset) + " s " + (behind < 0 ? "ahead of" : "behind") + " this machine's";
    constexpr char kRemedy[] = "set the clock from the domain (NTP)";
    const std::int64_t most = tavrel::KrbTicketValidator::kMaxOffsetSeconds;
    if (offset == 0) found = "the same as this machine's";
    if (offset > most / 2) found += ", " + std::to_string(most) + " s is the most";
    if (offset > most) {
      report.Fail(check, found, kRemedy);
    } else if (offset > most / 2) {
      report.Warn(check, found, kRemedy);
    } else {
      report.Ok(check, found);
    }
  }
}
