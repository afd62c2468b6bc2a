#include "tavrel/KrbContext.h"

#include <ctime>

#include "KrbSupport.h"

namespace tavrel {
namespace {

const Logger logger("krb-param");

// Widened before any arithmetic, so that nothing wraps in 32 bits.
std::int64_t Start(const krb5_ticket_times& times) {
  return times.starttime != 0 ? times.starttime : times.authtime;
}

}  // namespace

KrbContext::KrbContext() : context(nullptr), client_principal(nullptr), keytab(nullptr) {
  Init();
}

KrbContext::~KrbContext() {
  ReleaseKeytab();
  ReleaseClientPrincipal();
  ReleaseContext();
}

bool KrbContext::Init() {
  ReleaseContext();
  const krb5_error_code code = krb5_init_context(&context);
  return !KrbFailed(code, "Error initializing context: ", logger, context);
}

bool KrbContext::SetKeytab(const std::string& path) {
  ReleaseKeytab();
  if (path.empty()) {
    logger.Error("Keytab path is empty");
    return false;
  }
  const krb5_error_code code =
      context != nullptr ? krb5_kt_resolve(context, path.c_str(), &keytab) : kNoContext;
  return !KrbFailed(code, "Error resolving keytab: ", logger, context);
}

bool KrbContext::SetClientPrincipal(const std::string& name) {
  ReleaseClientPrincipal();
  const krb5_error_code code =
      context != nullptr ? krb5_parse_name(context, name.c_str(), &client_principal) : kNoContext;
  return !KrbFailed(code, "Error parsing principal name: ", logger, context);
}

void KrbContext::ReleaseKeytab() {
  if (keytab == nullptr) return;
  krb5_kt_close(context, keytab);
  keytab = nullptr;
}

void KrbContext::ReleaseClientPrincipal() {
  if (client_principal == nullptr) return;
  krb5_free_principal(context, client_principal);
  client_principal = nullptr;
}

void KrbContext::ReleaseContext() {
  if (keytab != nullptr || client_principal != nullptr) {
    logger.Error("Attempt to release context before keytab and client principal");
  }
  if (context == nullptr) return;
  krb5_free_context(context);
  context = nullptr;
}

const std::int64_t KrbTicketValidator::kMaxOffsetSeconds = 300;

bool KrbTicketValidator::IsStartTimeValid(const krb5_ticket_times& times) {
  const std::int64_t now = std::time(nullptr);
  const std::int64_t start = Start(times);
  return start - kMaxOffsetSeconds <= now && start + kMaxOffsetSeconds >= now;
}

bool KrbTicketValidator::IsTicketTimeValid(const krb5_ticket_times& times) {
  const std::int64_t now = std::time(nullptr);
  const std::int64_t start = Start(times);
  const std::int64_t end = times.endtime;
  if (start - kMaxOffsetSeconds > now) return false;
  return end + kMaxOffsetSeconds >= now && end >= start;
}

}  // namespace tavrel
