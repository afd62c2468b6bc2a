// Checks of the domain's controllers: DNS, connections, certificates, the administrator, the
// account.
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <vector>

#include "Checks.h"

namespace {

constexpr int kConnectSeconds = 3;
constexpr int kAnswerSeconds = 10;
constexpr long kMostOffset = 300;  // seconds; KrbTicketValidator::kMaxOffsetSeconds

template <auto Free>
struct FreeWith {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Message = std::unique_ptr<LDAPMessage, FreeWith<ldap_msgfree>>;
using Values = std::unique_ptr<berval*, FreeWith<ldap_value_free_len>>;
using Certificate = std::unique_ptr<X509, FreeWith<X509_free>>;

std::string Join(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts)
    text += (text.empty() ? "" : ", ") + part;
  return text;
}

// --- connections
// -----------------------------------------------------------------------------------

std::string Name(const Controller& controller) {
  return controller.host + ":" + std::to_string(controller.port);
}

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
  return controller;
}

// Empty when a TCP connection to `port` of `host` is accepted, what is wrong otherwise.
std::string WhyUnreachable(std::string host, int port) {
  if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
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

enum class Protection {
  kNone,        // nothing secret may be sent
  kUnverified,  // encrypted, to whoever answers
  kVerified,    // encrypted, to a controller whose certificate the CA file vouches for
};

// What the server says of the last operation, in front of it what the library says.
std::string Explain(LDAP* session, int code) {
  std::string text = ldap_err2string(code);
  char* diagnostic = nullptr;
  if (session != nullptr &&
      ldap_get_option(session, LDAP_OPT_DIAGNOSTIC_MESSAGE, &diagnostic) == LDAP_OPT_SUCCESS &&
      diagnostic != nullptr) {
    if (*diagnostic != '\0') text += std::string(" (") + diagnostic + ")";
    ldap_memfree(diagnostic);
  }
  return text;
}

// Opens a session, without a bind. Null, and the reason in `why`, when that fails.
Session Open(const Controller& controller, Protection protection, std::string& why) {
  LDAP* handle = nullptr;
  int code = ldap_initialize(&handle, controller.url.c_str());
  if (code != LDAP_SUCCESS) {
    why = ldap_err2string(code);
    return nullptr;
  }
  Session session(handle);
  const int version = LDAP_VERSION3;
  const timeval connect_limit = {kConnectSeconds, 0};
  const timeval answer_limit = {kAnswerSeconds, 0};
  const int require =
      protection == Protection::kVerified ? LDAP_OPT_X_TLS_DEMAND : LDAP_OPT_X_TLS_NEVER;
  const int client = 0;
  ldap_set_option(handle, LDAP_OPT_PROTOCOL_VERSION, &version);
  ldap_set_option(handle, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
  ldap_set_option(handle, LDAP_OPT_NETWORK_TIMEOUT, &connect_limit);
  ldap_set_option(handle, LDAP_OPT_TIMEOUT, &answer_limit);
  ldap_set_option(handle, LDAP_OPT_X_TLS_REQUIRE_CERT, &require);
  if (protection == Protection::kVerified) {
    ldap_set_option(handle, LDAP_OPT_X_TLS_CACERTFILE, controller.ca_file.c_str());
  }
  code = ldap_set_option(handle, LDAP_OPT_X_TLS_NEWCTX, &client);
  if (code == LDAP_SUCCESS) {
    const bool start_tls = !controller.ldaps && protection != Protection::kNone;
    code = start_tls ? ldap_start_tls_s(handle, nullptr, nullptr) : ldap_connect(handle);
  }
  if (code == LDAP_SUCCESS) return session;
  why = Explain(handle, code);
  return nullptr;
}

// --- searches
// --------------------------------------------------------------------------------------

Message Search(LDAP* session, const std::string& base, int scope, const std::string& filter,
               std::vector<const char*> attributes, int& code) {
  attributes.push_back(nullptr);
  LDAPMessage* found = nullptr;
  code = ldap_search_ext_s(session, base.c_str(), scope, filter.c_str(),
                           const_cast<char**>(attributes.data()), 0, nullptr, nullptr, nullptr,
                           LDAP_NO_LIMIT, &found);
  return Message(found);
}

std::vector<std::string> GetValues(LDAP* session, LDAPMessage* entry, const char* attribute) {
  std::vector<std::string> result;
  const Values values(ldap_get_values_len(session, entry, attribute));
  for (berval* const* value = values.get(); value != nullptr && *value != nullptr; ++value)
    result.emplace_back((*value)->bv_val, (*value)->bv_len);
  return result;
}

std::string GetValue(LDAP* session, LDAPMessage* entry, const char* attribute) {
  const std::vector<std::string> values = GetValues(session, entry, attribute);
  return values.empty() ? "" : values.front();
}

// `text` as a value in a filter (RFC 4515, 3).
std::string FilterValue(const std::string& text) {
  std::string result;
  for (const char c : text) {
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "\\%02x", static_cast<unsigned char>(c));
    result += std::strchr("*()\\", c) != nullptr ? escaped : std::string(1, c);  // NUL included
  }
  return result;
}

// --- certificates
// ----------------------------------------------------------------------------------

Certificate PeerCertificate(LDAP* session) {
  berval der = {0, nullptr};
  if (ldap_get_option(session, LDAP_OPT_X_TLS_PEERCERT, &der) != LDAP_OPT_SUCCESS ||
      der.bv_val == nullptr) {
    return nullptr;
  }
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.bv_val);
  Certificate certificate(d2i_X509(nullptr, &bytes, static_cast<long>(der.bv_len)));
  ldap_memfree(der.bv_val);
  return certificate;
}

std::string Names(X509* certificate) {
  std::vector<std::string> names;
  auto* const list = static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr));
  for (int i = 0; i < sk_GENERAL_NAME_num(list); ++i) {  // -1 for no list
    const GENERAL_NAME* const name = sk_GENERAL_NAME_value(list, i);
    if (name->type == GEN_DNS) {
      const ASN1_STRING* const text = name->d.dNSName;
      names.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                         static_cast<std::size_t>(ASN1_STRING_length(text)));
    } else if (name->type == GEN_IPADD) {
      const ASN1_STRING* const bytes = name->d.iPAddress;
      char text[INET6_ADDRSTRLEN] = "";
      inet_ntop(ASN1_STRING_length(bytes) == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(bytes),
                text, sizeof text);
      names.emplace_back(text);
    }
  }
  GENERAL_NAMES_free(list);
  return names.empty() ? "nobody" : Join(names);
}

std::string Date(const ASN1_TIME* time) {
  std::tm parts = {};
  char text[16] = "?";
  if (ASN1_TIME_to_tm(time, &parts) == 1) std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
  return text;
}

std::string Describe(X509* certificate) {
  return "names " + Names(certificate) + "; from " + Date(X509_get0_notBefore(certificate)) +
         " to " + Date(X509_get0_notAfter(certificate));
}

// What speaks against the certificate whoever signed it; empty when nothing does.
std::string Flaw(X509* certificate, const std::string& host) {
  if (X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0) return "it has expired";
  if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0) return "it is not valid yet";
  if (X509_check_host(certificate, host.data(), host.size(), 0, nullptr) != 1 &&
      X509_check_ip_asc(certificate, host.c_str(), 0) != 1) {
    return "it does not name " + host;
  }
  return "";
}

// --- binds
// -----------------------------------------------------------------------------------------

// Why a controller refuses a bind that it calls "Invalid credentials" only: the code stands in its
// diagnostic text as "data CODE". The codes are Windows system error codes, in hexadecimal.
struct Refusal {
  std::string_view data;
  const char* meaning;
  const char* remedy;
};
constexpr Refusal kRefusals[] = {
    {"525", "no such user", "give the user as NAME@REALM"},
    {"52e", "wrong password, or no such user",
     "check the password, and give the user as NAME@REALM; every try counts towards a lockout"},
    {"530", "not allowed to sign in at this time", "use another administrator, or wait"},
    {"531", "not allowed to sign in from this machine", "use another administrator"},
    {"532", "the password has expired", "change the password"},
    {"533", "the user is disabled", "enable the user, or use another administrator"},
    {"701", "the user's account has expired", "use another administrator"},
    {"773", "the password must be changed before it can be used", "change the password"},
    {"775", "the user is locked out", "unlock the user, or wait for the lockout to end"},
};

const Refusal* FindRefusal(const std::string& explanation) {
  for (const Refusal& refusal : kRefusals) {
    if (explanation.find("data " + std::string(refusal.data) + ",") != std::string::npos) {
      return &refusal;
    }
  }
  return nullptr;
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
      LDAPMessage* const entry = found ? ldap_first_entry(session.get(), found.get()) : nullptr;
      if (entry != nullptr) text = GetValue(session.get(), entry, "currentTime");
      if (code != LDAP_SUCCESS) why = Explain(session.get(), code);
    }
    const std::time_t now = std::time(nullptr);
    if (strptime(text.c_str(), "%Y%m%d%H%M%S", &parts) == nullptr) {
      report.Warn(check, "cannot be had: " + (why.empty() ? "no currentTime" : why),
                  "compare the clocks by hand");
      continue;
    }
    const long ahead = static_cast<long>(now - timegm(&parts));
    const std::string found = std::to_string(ahead < 0 ? -ahead : ahead) + " s " +
                              (ahead < 0 ? "ahead of" : "behind") + " this machine's";
    if (ahead > kMostOffset || ahead < -kMostOffset) {
      report.Fail(check, found + ", 300 s is the most", "set the clock from the domain (NTP)");
    } else if (ahead > kMostOffset / 2 || ahead < -kMostOffset / 2) {
      report.Warn(check, found + ", 300 s is the most", "set the clock from the domain (NTP)");
    } else {
      report.Ok(check, ahead == 0 ? "the same as this machine's" : found);
    }
  }
}

void CheckCertificate(Subject& subject, Report& report) {
  for (Controller& controller : subject.controllers) {
    if (!controller.reached) continue;
    const std::string check = "certificate of " + Name(controller);
    std::string why;
    Session unverified = Open(controller, Protection::kUnverified, why);
    if (!unverified) {
      report.Fail(check, why, "give the controller a certificate");
      continue;
    }
    const Certificate certificate = PeerCertificate(unverified.get());
    if (!certificate) {
      report.Fail(check, "none", "give the controller a certificate");
      continue;
    }
    const std::string flaw = Flaw(certificate.get(), controller.host);
    const std::string found = Describe(certificate.get());
    if (controller.ca_file.empty()) {
      controller.session = std::move(unverified);
      report.Warn(check, "not verified; " + found + (flaw.empty() ? "" : "; " + flaw),
                  "configure the controllers with a CA file: anybody could answer in their place");
      continue;
    }
    controller.session = Open(controller, Protection::kVerified, why);
    if (controller.session) {
      report.Ok(check, "verified; " + found);
    } else if (access(controller.ca_file.c_str(), R_OK) != 0) {
      report.Fail(check, controller.ca_file + ": " + std::strerror(errno), "name the CA file");
    } else if (!flaw.empty()) {
      report.Fail(check, flaw + "; " + found,
                  "use a name that the certificate has, or renew it; see the clock as well");
    } else {
      report.Fail(check, "not signed by " + controller.ca_file + "; " + found,
                  "name the file of the authority that signed it");
    }
  }
}

void CheckBind(Subject& subject, Report& report) {
  const std::string& user = subject.join.user;
  bool refused = false;
  for (Controller& controller : subject.controllers) {
    if (!controller.session) continue;
    const std::string check = "bind to " + Name(controller);
    if (subject.join.password.empty()) {
      report.Warn(check, "not tried, there is no password", "give it on standard input");
      continue;
    }
    if (refused) {
      report.Warn(check, "not tried, another controller has refused",
                  "every try counts towards a lockout");
      continue;
    }
    berval credentials;
    credentials.bv_len = subject.join.password.size();
    credentials.bv_val = const_cast<char*>(subject.join.password.data());  // only read
    const int code = ldap_sasl_bind_s(controller.session.get(), user.c_str(), LDAP_SASL_SIMPLE,
                                      &credentials, nullptr, nullptr, nullptr);
    controller.bound = code == LDAP_SUCCESS;
    if (controller.bound) {
      report.Ok(check, user + " is accepted");
      continue;
    }
    refused = true;
    const std::string explanation = Explain(controller.session.get(), code);
    const Refusal* const refusal = FindRefusal(explanation);
    if (refusal != nullptr) {
      report.Fail(check, user + ": " + refusal->meaning + ": " + explanation, refusal->remedy);
    } else {
      report.Fail(check, user + ": " + explanation, "see what the controller says");
    }
  }
}

void CheckAccount(Subject& subject, Report& report) {
  LDAP* session = nullptr;
  for (const Controller& controller : subject.controllers) {
    if (controller.bound && session == nullptr) session = controller.session.get();
  }
  if (session == nullptr) return;
  const std::string name = subject.join.GetAccountName() + "$";
  const std::string check = "account " + name;
  const std::string any = "(objectClass=*)";

  int code = LDAP_SUCCESS;
  const Message own = Search(session, subject.join.GetMachineDN(), LDAP_SCOPE_BASE, any,
                             {"userAccountControl", "dNSHostName"}, code);
  LDAPMessage* entry = own ? ldap_first_entry(session, own.get()) : nullptr;
  if (entry != nullptr) {
    const std::string host = GetValue(session, entry, "dNSHostName");
    const long flags = std::atol(GetValue(session, entry, "userAccountControl").c_str());
    std::string found = "exists";
    if (!host.empty()) found += ", for " + host;
    if ((flags & 2) != 0) found += ", disabled: a join enables it";
    if (subject.keytab_has_key) {
      report.Ok(check, found + "; the keytab has a key of it");
    } else {
      report.Warn(check,
                  found + "; no key of it was found in the keytab, so a join gives it a new one",
                  "see that no other machine uses it: that one would be out of the domain");
    }
    return;
  }
  if (code != LDAP_NO_SUCH_OBJECT) {
    report.Fail(check, "cannot be looked up: " + Explain(session, code),
                "let the administrator read the Computers container");
    return;
  }

  const std::string machine = subject.join.GetMachineName();
  const std::string taken = "(|(sAMAccountName=" + FilterValue(name) +
                            ")(servicePrincipalName=HOST/" + FilterValue(machine) +
                            ")(servicePrincipalName=HOST/" +
                            FilterValue(machine + "." + subject.join.domain) + "))";
  const Message other =
      Search(session, subject.join.GetDomainDN(), LDAP_SCOPE_SUBTREE, taken, {"1.1"}, code);
  entry = other ? ldap_first_entry(session, other.get()) : nullptr;
  if (entry != nullptr) {
    char* const dn = ldap_get_dn(session, entry);
    report.Fail(check,
                "cannot be made: its name or service names belong to " + std::string(dn ? dn : "?"),
                "remove that account, move it to the Computers container, or name the machine "
                "differently");
    ldap_memfree(dn);
    return;
  }
  if (code != LDAP_SUCCESS) {
    report.Fail(check, "cannot be looked up: " + Explain(session, code),
                "let the administrator read the domain");
    return;
  }

  const std::string container =
      subject.join.GetMachineDN().substr(subject.join.GetMachineDN().find(',') + 1);
  const Message folder =
      Search(session, container, LDAP_SCOPE_BASE, any, {"allowedChildClassesEffective"}, code);
  entry = folder ? ldap_first_entry(session, folder.get()) : nullptr;
  const std::vector<std::string> classes =
      entry != nullptr ? GetValues(session, entry, "allowedChildClassesEffective")
                       : std::vector<std::string>();
  if (std::find(classes.begin(), classes.end(), "computer") == classes.end()) {
    report.Warn(
        check,
        "does not exist, and " + subject.join.user + " has no right to make computers in " +
            container,
        "use an administrator; others are at best allowed a few by ms-DS-MachineAccountQuota");
  } else {
    report.Ok(check, "does not exist; a join makes it");
  }
}
