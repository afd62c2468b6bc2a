#include "tavrel/KrbRealm.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string_view>

#include "BrokenPipe.h"
#include "Cancellation.h"
#include "Log.h"
#include "Reason.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel {
namespace {

const Logger logger("krb-realm");

// The Kerberos mechanism identifier (RFC 1964), 1.2.840.113554.1.2.2: the content of its DER form
constexpr std::string_view kKrbOid("\x2A\x86\x48\x86\xF7\x12\x01\x02\x02");

// What stands between the identifier and an AP-REQ.
constexpr std::string_view kApReqId("\x01\x00", 2);

// Where in `token` the Kerberos identifier starts that precedes the request; 0 when there is none.
// It is the second one if there are two: a SPNEGO token first offers the mechanism, then has a
// Kerberos token. A bare token has only one. An identifier at the very end does not count.
std::size_t FindKrbOid(std::string_view token, Site site = Site::Here()) {
  token.remove_suffix(std::min<std::size_t>(token.size(), 1));
  std::size_t position = 0;
  std::size_t from = 0;
  for (int matches = 0; matches < 2; ++matches) {
    const std::size_t match = token.find(kKrbOid, from);
    if (match == std::string_view::npos) break;
    logger.Detail({"Found KRB OID at index ", site}, match);
    position = match;
    from = match + 1;
  }
  return position;
}

std::string MachinePrincipal(const JoinParameters& params) {
  return params.GetAccountName() + "$@" + params.domain;
}

// Puts what failed, and for which domain, in front of the reason that the failed operation left.
void Explain(std::string& reason, const char* what, const JoinParameters& params,
             const char* separator = ": ") {
  reason = what + params.domain + separator + reason;
}

// Looks the account up. If its flags are not a number, the lookup failed.
AccountObject LookUp(const Joiner& joiner, std::string& reason) {
  try {
    return joiner.GetAccountObject(&reason);
  } catch (const std::logic_error& not_a_number) {
    reason = not_a_number.what();
    AccountObject account;
    account.failed = true;
    return account;
  }
}

}  // namespace

KrbRealm::KrbRealm(const std::string& domain, const std::list<LdapServer>& servers,
                   const std::string& user, const std::string& password,
                   const std::string& keytab_path)
    : join_parameters(domain, servers, user, password) {
  if (!krb_context.SetKeytab(keytab_path)) {
    logger.Error("Error initializing kerberos keytab to ", keytab_path);
  }
}

KrbRealm::KrbRealm(const std::string& domain, const std::string& user, const std::string& password,
                   const std::string& keytab_path)
    : KrbRealm(domain, {}, user, password, keytab_path) {}

KrbRealm::~KrbRealm() = default;

std::string KrbRealm::Authenticate(char* token, int length) {
  const CancellationBlock cancellation;
  logger.Detail("Auth request received of length ", length);
  const std::string_view bytes(token, static_cast<std::size_t>(std::max(length, 0)));
  const std::size_t id = FindKrbOid(bytes) + kKrbOid.size();
  const std::size_t start = id + kApReqId.size();

  // Only a warning: reading it will refuse what is not an AP-REQ.
  if (bytes.substr(std::min(id, bytes.size()), kApReqId.size()) != kApReqId) {
    logger.Warning("Not a KRB_AP_REQ");
  }
  const std::string_view request = bytes.substr(std::min(start, bytes.size()));
  logger.Detail("Sending in at index ", start, ", first data byte ", request.substr(0, 1));
  if (request.empty()) return "";

  return Keytab(&krb_context).APAuthenticate(token + start, static_cast<int>(request.size()));
}

int KrbRealm::Join(std::string* error) {
  return Join(join_parameters, error);
}

int KrbRealm::Join(const JoinParameters& params, std::string* error) {
  const CancellationBlock cancellation;
  const BrokenPipeBlock broken_pipe;
  const Reason reason(error);
  const DNSDiscoveryService discovery;
  Joiner joiner(&params, &discovery);
  if (!joiner.Connect(&reason.text)) {
    Explain(reason.text, "Unable to connect to ", params);
    logger.Warning(reason.text);
    return kFailure;
  }
  if (!krb_context.SetClientPrincipal(MachinePrincipal(params))) {
    logger.Warning("Error initializing kerberos principal to ", params.domain);
    return kFailure;
  }
  Keytab keytab(&krb_context);
  if (!Join(joiner, params, &reason.text)) return kFailure;

  // Keys that work stay, and a new password would not help against a clock that is off.
  int status = keytab.ASAuthenticate(&reason.text);
  if (status != kFailure) return status;

  const AccountObject account = LookUp(joiner, reason.text);
  if (!joiner.SetPassword(account, &reason.text)) {
    Explain(reason.text, "Unable to set machine password for ", params);
    return kFailure;
  }
  status = keytab.ASAuthenticate(params.GetMachinePassword(), &reason.text);
  if (status != kSuccess) {
    Explain(reason.text, "Unable to authenticate to ", params, " KDC after setting password: ");
    return status;
  }
  if (!keytab.WriteKey(params.GetMachinePassword(), &reason.text)) {
    Explain(reason.text, "Unable to write Kerberos keytab for ", params);
    return status;  // success: the account is in place, and the text tells what is missing
  }
  keytab.Print();
  status = keytab.ASAuthenticate(&reason.text);
  if (status != kSuccess) Explain(reason.text, "Unable to authenticate to ", params);
  return status;
}

bool KrbRealm::Join(const Joiner& joiner, const JoinParameters& params, std::string* error) {
  const CancellationBlock cancellation;
  const Reason reason(error);
  const auto failed = [&](const char* what, Site site = Site::Here()) {
    Explain(reason.text, what, params);
    logger.Error({reason.text, site});
    return false;
  };

  AccountObject account = LookUp(joiner, reason.text);
  if (account.failed) return failed("Failed to get account object from host ");
  if (!account.exists) {
    logger.Detail("Adding to ", params.domain);
    account = joiner.AddAccountObject(account, &reason.text);
    if (!account.exists) return failed("Could not add host to ");
  } else {
    logger.Detail("Machine already in ", params.domain);
  }
  if (!joiner.SetProperties(account, &reason.text)) return failed("Could not set properties in ");
  logger.Notice("Joined to ", params.domain);
  return true;
}

int KrbRealm::TestJoin(const JoinParameters& params, std::string* error) {
  const CancellationBlock cancellation;
  const BrokenPipeBlock broken_pipe;
  const Reason reason(error);
  const DNSDiscoveryService discovery;
  Joiner joiner(&params, &discovery);
  if (!joiner.Connect(&reason.text)) {
    Explain(reason.text, "Unable to connect to ", params);
    logger.Error(reason.text);
    return kFailure;
  }
  if (!krb_context.SetClientPrincipal(MachinePrincipal(params))) {
    logger.Error("Error initializing kerberos parameters to ", params.domain);
    return kFailure;
  }
  Keytab keytab(&krb_context);
  if (!Join(joiner, params, &reason.text)) return kFailure;

  int status = keytab.ASAuthenticate(params.GetMachinePassword(), &reason.text);
  if (status != kFailure) return status;

  const AccountObject account = LookUp(joiner, reason.text);
  if (!joiner.SetPassword(account, &reason.text)) {
    Explain(reason.text, "Unable to set password on ", params);
    return kFailure;
  }
  status = keytab.ASAuthenticate(params.GetMachinePassword(), &reason.text);
  if (status != kSuccess) Explain(reason.text, "Unable to authenticate to ", params);
  return status;
}

int KrbRealm::TestJoin(const std::string& domain, const std::string& user,
                       const std::string& password, std::string* error) {
  const CancellationBlock cancellation;
  const JoinParameters params(domain, {}, user, password);
  if (!krb_context.SetClientPrincipal(MachinePrincipal(params))) {
    logger.Error("Error initializing kerberos parameters to ", domain);
    return kFailure;
  }
  if (Keytab(&krb_context).HasKey()) {
    logger.Detail("Found key for principal, testing with keytab");
    return Join(params, error);
  }
  logger.Detail("Found key for principal, testing with password");  // texts never change
  return TestJoin(params, error);
}

}  // namespace tavrel
