// The checks, and what they share.
#ifndef TAVREL_TOOLS_TAVREL_CHECK_CHECKS_H
#define TAVREL_TOOLS_TAVREL_CHECK_CHECKS_H

#include <ldap.h>
#include <tavrel/Join.h>

#include <list>
#include <memory>
#include <string>

#include "tavrel/Call.h"
#include "tavrel/check/Findings.h"

namespace tavrel::tools {

struct Unbind {
  void operator()(LDAP* session) const { ldap_unbind_ext(session, nullptr, nullptr); }
};
using Session = std::unique_ptr<LDAP, Unbind>;

// A controller that would be used.
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

// What is to be looked at, and what the checks before found out for those that follow.
struct Subject {
  const Call& call;            // `call.join`: for `tavrel join`, otherwise for `tavrel enrol`
  const JoinParameters& join;  // with the user and password of a join; names are derived by it
  plus::Membership& membership;
  const plus::Credentials& credentials;
  std::list<Controller> controllers = {};
  bool keytab_readable = false;  // a file, and not empty
  bool keytab_has_key = false;   // one of the machine

  // "APPLIANCE$@CORP.EXAMPLE.COM"
  std::string Principal() const {
    return call.join ? join.GetAccountName() + "$@" + join.domain : membership.Principal();
  }
  std::string Account() const { return Principal().substr(0, Principal().find('@')); }
  const std::string& keytab() const { return call.config->keytab; }
};

// A check writes what it found, and a remedy where something is to be done. It changes nothing. One
// that cannot be made because of what another one has found writes nothing.
using Check = void (*)(Subject& subject, Findings& findings);

// Machine.cpp
void CheckHostName(Subject& subject, Findings& findings);
void CheckKeytabFile(Subject& subject, Findings& findings);
void CheckReplayCache(Subject& subject, Findings& findings);

// Controllers.cpp
void CheckLdapCertificates(Subject& subject, Findings& findings);
void CheckLdapTimeLimit(Subject& subject, Findings& findings);
void CheckDiscovery(Subject& subject, Findings& findings);
void CheckReach(Subject& subject, Findings& findings);
void CheckClock(Subject& subject, Findings& findings);

// Certificates.cpp
void CheckCertificate(Subject& subject, Findings& findings);

// JoinedAccount.cpp
void CheckBind(Subject& subject, Findings& findings);
void CheckJoinedAccount(Subject& subject, Findings& findings);

// EnrolledAccount.cpp
void CheckEnrolledAccount(Subject& subject, Findings& findings);

// Kerberos.cpp
void CheckKerberosSettings(Subject& subject, Findings& findings);
void CheckPermittedEnctypes(Subject& subject, Findings& findings);
void CheckRequestedEnctypes(Subject& subject, Findings& findings);
void CheckKeytabEntries(Subject& subject, Findings& findings);
void CheckKdc(Subject& subject, Findings& findings);

}  // namespace tavrel::tools

#endif
