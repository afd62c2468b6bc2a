// The checks, and what they share.
#ifndef EXAMPLES_PREFLIGHT_CHECKS_H
#define EXAMPLES_PREFLIGHT_CHECKS_H

#include <ldap.h>
#include <tavrel/Join.h>

#include <list>
#include <memory>
#include <string>

#include "Report.h"

struct Unbind {
  void operator()(LDAP* session) const { ldap_unbind_ext(session, nullptr, nullptr); }
};
using Session = std::unique_ptr<LDAP, Unbind>;

// A controller that a join would use.
struct Controller {
  std::string url;   // as the library builds it
  std::string host;  // without scheme and port
  int port = 0;
  bool ldaps = false;   // StartTLS otherwise
  std::string ca_file;  // empty when its certificate will not be verified
  bool reached = false;
  Session session = nullptr;  // protected as the join's will be
  bool bound = false;
};

// What is to be joined, and what the checks before found out for those that follow.
struct Subject {
  const tavrel::JoinParameters& join;  // names are derived by the library, so they are the join's
  const std::string& keytab;
  std::list<Controller> controllers = {};
  bool keytab_readable = false;  // a file, and not empty
  bool keytab_has_key = false;   // one of the machine
};

// A check writes what it found, and a remedy where something is to be done. It changes nothing. One
// that cannot be made because of what another one has found writes nothing.
using Check = void (*)(Subject&, Report&);

// Machine.cpp
void CheckHostName(Subject&, Report&);
void CheckKeytabFile(Subject&, Report&);

// Controllers.cpp
void CheckLdapCertificates(Subject&, Report&);
void CheckLdapTimeLimit(Subject&, Report&);
void CheckDiscovery(Subject&, Report&);
void CheckReach(Subject&, Report&);
void CheckClock(Subject&, Report&);

// Certificates.cpp
void CheckCertificate(Subject&, Report&);

// Administrator.cpp
void CheckBind(Subject&, Report&);
void CheckAccount(Subject&, Report&);

// Kerberos.cpp
void CheckKerberosSettings(Subject&, Report&);
void CheckPermittedEnctypes(Subject&, Report&);
void CheckRequestedEnctypes(Subject&, Report&);
void CheckKeytabEntries(Subject&, Report&);
void CheckKdc(Subject&, Report&);
void CheckReplayCache(Subject&, Report&);

#endif
