#include "tavrel/Ldap.h"

#include <string_view>
#include <utility>

#include "Log.h"
#include "Reason.h"

namespace tavrel {
namespace {

const Logger logger("ldap");

bool StartsWith(const std::string& text, std::string_view start) {
  return text.compare(0, start.size(), start) == 0;
}

}  // namespace

Ldap::Ldap(const std::string& host, vdi::Ldap_encryption encryption, const std::string& cert_path)
    : host(host), encryption(encryption), cert_path(cert_path), handle(nullptr) {}

Ldap::Ldap(const Ldap& other)
    : host(other.host),
      encryption(other.encryption),
      cert_path(other.cert_path),
      handle(std::exchange(other.handle, nullptr)) {}

Ldap& Ldap::operator=(Ldap& other) {
  if (this == &other) return *this;
  host = other.host;
  encryption = other.encryption;
  cert_path = other.cert_path;
  handle = std::exchange(other.handle, nullptr);
  return *this;
}

Ldap::~Ldap() {
  Disconnect();
}

bool Ldap::Connect(const std::string& user, const std::string& password, std::string* error) {
  const Reason reason(error);
  std::string url = host;
  vdi::Ldap_encryption security = encryption;
  // A host without a scheme always gets StartTLS, whatever security is configured.
  if (!StartsWith(url, "ldaps://") && !StartsWith(url, "ldap://")) {
    url.insert(0, "ldap://");
    security = vdi::LDAP_ENCRYPTION_STARTTLS;
  }

  const auto failed = [&](int code, const LogPrefix& step) {
    if (code == LDAP_SUCCESS) return false;
    reason.text = ldap_err2string(code);
    logger.Warning(step, url, ": ", reason.text);
    return true;
  };
  const auto set = [&](int option, const void* value) {
    return ldap_set_option(handle, option, value);
  };

  logger.Detail("Connecting to host: ", url);
  if (failed(ldap_initialize(&handle, url.c_str()), "LDAP init failed against ")) return false;

  const int version = LDAP_VERSION3;
  if (failed(set(LDAP_OPT_PROTOCOL_VERSION, &version), "LDAP set version failed against ")) {
    return false;
  }

  if (security != vdi::LDAP_ENCRYPTION_NONE) {
    if (cert_path.empty()) {
      const int never = LDAP_OPT_X_TLS_NEVER;
      if (failed(set(LDAP_OPT_X_TLS_REQUIRE_CERT, &never),
                 "LDAP set require cert failed against ")) {
        return false;
      }
    } else if (failed(set(LDAP_OPT_X_TLS_CACERTFILE, cert_path.c_str()),
                      "LDAP set cert '" + cert_path + "'failed against ")) {
      return false;
    }
    const int client = 0;
    if (failed(set(LDAP_OPT_X_TLS_NEWCTX, &client), "LDAP new tls context failed against ")) {
      return false;
    }
  }

  if (failed(set(LDAP_OPT_REFERRALS, LDAP_OPT_OFF), "LDAP set referral failed against ")) {
    return false;
  }
  const timeval timeout = {10, 0};
  if (failed(set(LDAP_OPT_NETWORK_TIMEOUT, &timeout), "LDAP set timeout failed against ")) {
    return false;
  }

  if (security == vdi::LDAP_ENCRYPTION_STARTTLS &&
      failed(ldap_start_tls_s(handle, nullptr, nullptr), "LDAP starttls failed against ")) {
    return false;
  }

  berval credentials;
  credentials.bv_len = password.size();
  credentials.bv_val = const_cast<char*>(password.data());  // only read
  if (failed(ldap_sasl_bind_s(handle, user.c_str(), LDAP_SASL_SIMPLE, &credentials, nullptr,
                              nullptr, nullptr),
             "LDAP bind failed against ")) {
    return false;
  }
  logger.Detail("LDAP bind is successful");
  return true;
}

void Ldap::Disconnect() {
  if (handle == nullptr) return;
  ldap_unbind_ext(handle, nullptr, nullptr);
  handle = nullptr;
}

}  // namespace tavrel
