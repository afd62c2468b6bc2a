#include "FaultTable.h"

#include <algorithm>
#include <cerrno>

namespace tavrel::tests {
namespace {

// -1, and this in errno.
#define ERROR(name) \
  { #name, -1, name }
#define RETURNS_NULL \
  { "null", 0, ENOMEM }

const std::vector<Failure>& NoMemory() {
  static const std::vector<Failure> failures = {CODE(ENOMEM)};
  return failures;
}

// What a KDC, or the way to it, makes of an exchange.
const std::vector<Failure>& Exchange() {
  static const std::vector<Failure> failures = {
      CODE(KRB5_KDC_UNREACH),    CODE(KRB5KDC_ERR_PREAUTH_FAILED), CODE(KRB5KDC_ERR_CLIENT_REVOKED),
      CODE(KRB5KRB_AP_ERR_SKEW), CODE(KRB5KDC_ERR_ETYPE_NOSUPP),   AFTER(KRB5_KDC_UNREACH)};
  return failures;
}

// What a directory, or the way to it, answers to a request.
std::vector<Failure> Directory(std::vector<Failure> special = {}) {
  std::vector<Failure> failures = {CODE(LDAP_SERVER_DOWN), CODE(LDAP_INSUFFICIENT_ACCESS),
                                   CODE(LDAP_BUSY), CODE(LDAP_NO_MEMORY)};
  failures.insert(failures.end(), special.begin(), special.end());
  return failures;
}

}  // namespace

const std::vector<Fallible>& FaultTable() {
  static const std::vector<Fallible> table = {
      {"krb5_init_context", NoMemory()},
      {"krb5_get_profile", NoMemory()},
      {"krb5_init_context_profile", NoMemory()},
      {"krb5_parse_name_flags", NoMemory()},
      {"krb5_set_principal_realm", NoMemory()},
      {"krb5_get_init_creds_opt_alloc", NoMemory()},
      {"krb5_init_creds_init", NoMemory()},
      {"krb5_init_creds_set_keytab", NoMemory()},
      {"krb5_init_creds_set_service", NoMemory()},
      {"krb5_init_creds_get", Exchange()},
      {"krb5_init_creds_get_creds", NoMemory()},
      {"krb5_get_time_offsets", NoMemory()},
      {"krb5_cc_new_unique", NoMemory()},
      {"krb5_cc_initialize", NoMemory()},
      {"krb5_cc_store_cred", NoMemory()},
      {"krb5_cc_get_principal", NoMemory()},
      {"krb5_cc_get_full_name", NoMemory()},
      {"krb5_kt_resolve", NoMemory()},
      {"krb5_kt_add_entry", NoMemory()},
      {"krb5_get_credentials", Exchange()},
      {"krb5_get_etype_info", Exchange()},
      {"krb5_c_string_to_key_with_params", NoMemory()},
      {"krb5_auth_con_init", NoMemory()},
      {"krb5_auth_con_setaddrs", NoMemory()},
      {"krb5_mk_req_extended", NoMemory()},
      {"krb5_mk_priv", NoMemory()},
      {"krb5_rd_rep", {CODE(KRB5KRB_AP_ERR_MODIFIED)}},
      {"krb5_rd_priv", {CODE(KRB5KRB_AP_ERR_MODIFIED)}},
      {"krb5_copy_data", NoMemory()},
      {"krb5_get_error_message", {RETURNS_NULL}},
      {"profile_init_vtable", NoMemory()},
      {"profile_get_values", NoMemory()},
      {"krb5_set_default_tgs_enctypes", NoMemory()},
      {"krb5_kt_start_seq_get", {CODE(KRB5_KT_IOERR)}},
      {"krb5_kt_next_entry", {CODE(KRB5_KT_IOERR), CODE(KRB5_KT_END)}},
      {"krb5_k_create_key", NoMemory()},
      {"krb5_k_decrypt", {CODE(ENOMEM), CODE(KRB5KRB_AP_ERR_BAD_INTEGRITY)}},
      {"krb5_k_encrypt", NoMemory()},
      {"krb5_c_keylengths", {CODE(KRB5_BAD_ENCTYPE)}},
      {"krb5_c_encrypt_length", {CODE(KRB5_BAD_ENCTYPE)}},
      {"krb5_c_make_checksum", NoMemory()},
      {"krb5_auth_con_setflags", NoMemory()},
      {"krb5_auth_con_setuseruserkey", NoMemory()},
      {"krb5_rd_req", {CODE(ENOMEM), CODE(KRB5KRB_AP_ERR_ILL_CR_TKT)}},
      {"krb5_pac_parse", NoMemory()},
      {"krb5_pac_verify", {CODE(ENOMEM), CODE(KRB5KRB_AP_ERR_MODIFIED)}},
      {"krb5_pac_get_types", NoMemory()},
      {"krb5_pac_get_buffer", NoMemory()},

      {"ldap_init_fd", {CODE(LDAP_NO_MEMORY)}},
      {"ldap_get_option", {CODE(LDAP_OPT_ERROR)}},
      {"ldap_set_option", {CODE(LDAP_OPT_ERROR)}},
      {"ldap_start_tls_s", Directory({CODE(LDAP_CONNECT_ERROR)})},
      {"ldap_sasl_bind_s", Directory({CODE(LDAP_INVALID_CREDENTIALS)})},
      {"ldap_search_ext_s", Directory()},
      {"ldap_add_ext_s", Directory({AFTER(LDAP_SERVER_DOWN), CODE(LDAP_CONSTRAINT_VIOLATION)})},
      {"ldap_modify_ext_s", Directory({AFTER(LDAP_SERVER_DOWN), CODE(LDAP_CONSTRAINT_VIOLATION)})},
      {"ldap_delete_ext_s", Directory({AFTER(LDAP_SERVER_DOWN), CODE(LDAP_NO_SUCH_OBJECT)})},
      {"ldap_get_dn", {RETURNS_NULL}},
      {"ldap_first_attribute", {RETURNS_NULL}},
      {"ldap_get_values_len", {RETURNS_NULL}},
      {"ber_sockbuf_add_io", {CODE(-1)}},
      {"ber_sockbuf_ctrl", {CODE(-1)}},

      {"gss_acquire_cred_from", {CODE(GSS_S_FAILURE)}},
      {"gss_import_name", {CODE(GSS_S_FAILURE)}},
      {"gss_init_sec_context", {CODE(GSS_S_FAILURE)}},
      {"gss_unwrap", {CODE(GSS_S_BAD_SIG)}},
      {"gss_wrap", {CODE(GSS_S_FAILURE)}},
      {"gss_wrap_size_limit", {CODE(GSS_S_FAILURE)}},

      {"d2i_X509", {RETURNS_NULL}},
      {"X509_get_signature_info", {CODE(0)}},
      {"EVP_Digest", {CODE(0)}},
      {"RAND_bytes", {CODE(0)}},
      {"RAND_priv_bytes", {CODE(0)}},

      {"res_query", {ERROR(ECONNREFUSED)}},
      {"ns_initparse", {ERROR(EMSGSIZE)}},
      {"ns_parserr", {ERROR(EMSGSIZE)}},
      {"ns_name_uncompress", {ERROR(EMSGSIZE)}},
      {"getaddrinfo", {CODE(EAI_AGAIN), CODE(EAI_MEMORY)}},

      {"socket", {ERROR(EMFILE)}},
      {"connect", {ERROR(ECONNREFUSED), ERROR(ENETUNREACH)}},
      {"getsockopt", {ERROR(ENOMEM)}},
      {"poll", {ERROR(ENOMEM), ERROR(EINTR)}},
      {"send", {ERROR(EPIPE), ERROR(EINTR)}},
      {"recv", {ERROR(ECONNRESET), {"end", 0}, ERROR(EINTR)}},
      {"open", {ERROR(EACCES), ERROR(EMFILE)}},
      {"close", {{"EIO after", -1, EIO, true}}},
      {"fstat", {ERROR(EIO)}},
      {"stat", {ERROR(EACCES)}},
      {"fcntl", {ERROR(ENOLCK)}},
      {"flock", {ERROR(ENOLCK), ERROR(EINTR)}},
      {"fchown", {ERROR(EPERM)}},
      {"fchmod", {ERROR(EPERM)}},
      {"posix_fallocate", {CODE(ENOSPC)}},
      {"pread", {ERROR(EIO), {"end", 0}}},
      {"pwrite", {ERROR(ENOSPC), {"nothing", 0}, ERROR(EINTR)}},
      {"ftruncate", {ERROR(EIO)}},
      {"fsync", {ERROR(EIO)}},
      {"mmap", {{"MAP_FAILED", -1, ENOMEM}}},
      {"getrandom", {ERROR(EINTR), {"nothing", 0}}},
      {"linkat", {ERROR(EACCES), {"EEXIST after", -1, EEXIST, true}}},
      {"rename", {ERROR(EACCES)}},
      {"unlink", {ERROR(EACCES)}},
      {"access", {ERROR(EACCES)}},
      {"realpath", {RETURNS_NULL}},
      {"strdup", {RETURNS_NULL}},
  };
  return table;
}

const Fallible* FindFallible(std::string_view call) {
  for (const Fallible& row : FaultTable()) {
    if (row.call == call) return &row;
  }
  return nullptr;
}

}  // namespace tavrel::tests
