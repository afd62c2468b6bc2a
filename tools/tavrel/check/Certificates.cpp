// Checks of the controllers' certificates.
#include <arpa/inet.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "tavrel/check/Checks.h"
#include "tavrel/check/Session.h"

namespace tavrel::tools {
namespace {

using Certificate = std::unique_ptr<X509, FreeWith<X509_free>>;

Certificate PeerCertificate(LDAP* session) {
  berval der = {0, nullptr};
  if (ldap_get_option(session, LDAP_OPT_X_TLS_PEERCERT, &der) != LDAP_OPT_SUCCESS ||
      der.bv_val == nullptr) {
    return nullptr;
  }
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.bv_val);
  Certificate certificate(d2i_X509(nullptr, &bytes, static_cast<std::ptrdiff_t>(der.bv_len)));
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
      const int length = ASN1_STRING_length(bytes);
      if (length != 4 && length != 16) continue;
      char text[INET6_ADDRSTRLEN] = "";
      inet_ntop(length == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(bytes), text, sizeof text);
      names.emplace_back(text);
    }
  }
  GENERAL_NAMES_free(list);
  return names.empty() ? "nobody" : Listed(names);
}

std::string Date(const ASN1_TIME* time) {
  std::tm parts = {};
  char text[16];
  const bool known = ASN1_TIME_to_tm(time, &parts) == 1 &&
                     std::strftime(text, sizeof text, "%Y-%m-%d", &parts) != 0;
  return known ? text : "?";
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

}  // namespace

void CheckCertificate(Subject& subject, Findings& findings) {
  for (Controller& controller : subject.controllers) {
    if (!controller.reached) continue;
    const std::string check = "certificate of " + Name(controller);
    std::string why;
    Session unverified = Open(controller, Protection::kUnverified, why);
    if (!unverified) {
      findings.Fail(check, why, "give the controller a certificate");
      continue;
    }
    const Certificate certificate = PeerCertificate(unverified.get());
    if (!certificate) {
      findings.Fail(check, "none", "give the controller a certificate");
      continue;
    }
    const std::string flaw = Flaw(certificate.get(), controller.host);
    const std::string found = Describe(certificate.get());
    if (controller.ca_file.empty()) {
      controller.session = std::move(unverified);
      findings.Warn(
          check, "not verified; " + found + (flaw.empty() ? "" : "; " + flaw),
          "configure the controllers with a CA file: anybody could answer in their place");
      continue;
    }
    controller.session = Open(controller, Protection::kVerified, why);
    if (controller.session) {
      findings.Ok(check, "verified; " + found);
    } else if (access(controller.ca_file.c_str(), R_OK) != 0) {
      findings.Fail(check, controller.ca_file + ": " + std::strerror(errno), "name the CA file");
    } else if (!flaw.empty()) {
      findings.Fail(check, std::string(flaw).append("; ").append(found),
                    "use a name that the certificate has, or renew it; see the clock as well");
    } else {
      findings.Fail(check, "not signed by " + controller.ca_file + "; " + found,
                    "name the file of the authority that signed it");
    }
  }
}

}  // namespace tavrel::tools
