#include "FaultTable.h"

#include <krb5.h>
#include <ldap.h>

#include <algorithm>
#include <cerrno>

namespace tavrel::tests {
namespace {

// What a controller, or the way to it, answers to any request.
std::vector<Failure> Directory(std::vector<Failure> special) {
  std::vector<Failure> failures = {CODE(LDAP_SERVER_DOWN),      CODE(LDAP_TIMEOUT),
                                   CODE(LDAP_NO_MEMORY),        CODE(LDAP_BUSY),
                                   CODE(LDAP_UNAVAILABLE),      CODE(LDAP_REFERRAL),
                                   CODE(LDAP_OPERATIONS_ERROR), CODE(LDAP_INSUFFICIENT_ACCESS)};
  failures.insert(failures.end(), special.begin(), special.end());
  return failures;
}

// What an AS exchange can end with.
std::vector<Failure> Exchange(std::vector<Failure> special) {
  std::vector<Failure> failures = {CODE(KRB5_KDC_UNREACH),
                                   CODE(KRB5_REALM_UNKNOWN),
                                   CODE(KRB5KRB_AP_ERR_SKEW),
                                   CODE(KRB5_KDCREP_SKEW),
                                   CODE(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN),
                                   CODE(KRB5KDC_ERR_CLIENT_REVOKED),
                                   CODE(KRB5KDC_ERR_PREAUTH_FAILED),
                                   CODE(KRB5KDC_ERR_ETYPE_NOSUPP),
                                   CODE(KRB5_PREAUTH_FAILED),
                                   CODE(KRB5_KDCREP_MODIFIED),
                                   CODE(ENOMEM)};
  failures.insert(failures.end(), special.begin(), special.end());
  return failures;
}

}  // namespace

const std::vector<Fallible>& FaultTable() {
  static const std::vector<Fallible> table = {
      // Kerberos
      {"krb5_init_context",
       {CODE(ENOMEM), CODE(KRB5_CONFIG_CANTOPEN), CODE(KRB5_CONFIG_BADFORMAT), CODE(EINVAL)}},
      {"krb5_kt_resolve",
       {CODE(KRB5_KT_UNKNOWN_TYPE), CODE(KRB5_KT_BADNAME), CODE(KRB5_KT_NAME_TOOLONG),
        CODE(ENOMEM)}},
      // KRB5_KT_NAME_TOOLONG is no failure: a file that can be opened has no such name.
      {"krb5_kt_get_name", {CODE(KRB5_KT_BADNAME)}},
      {"krb5_kt_close", {AFTER(EIO)}},
      {"krb5_kt_have_content",
       {CODE(KRB5_KT_NOTFOUND), CODE(KRB5_KT_IOERR), CODE(EACCES), CODE(ENOMEM)}},
      {"krb5_kt_start_seq_get",
       {CODE(KRB5_KT_IOERR), CODE(EACCES), CODE(EMFILE), CODE(KRB5_KEYTAB_BADVNO), CODE(ENOMEM)}},
      {"krb5_kt_next_entry",
       {CODE(KRB5_KT_IOERR), CODE(KRB5_KT_END), CODE(KRB5_KT_FORMAT), CODE(ENOMEM)}},
      {"krb5_kt_end_seq_get", {AFTER(KRB5_KT_IOERR), AFTER(EIO)}},
      {"krb5_kt_add_entry",
       {CODE(KRB5_KT_IOERR), CODE(KRB5_KT_NOWRITE), CODE(EACCES), CODE(ENOSPC), CODE(ENOMEM),
        CODE(EAGAIN), AFTER(KRB5_KT_IOERR)}},
      {"krb5_kt_remove_entry",
       {CODE(KRB5_KT_IOERR), CODE(KRB5_KT_NOTFOUND), CODE(KRB5_KT_NOWRITE), CODE(EACCES),
        CODE(ENOMEM), AFTER(KRB5_KT_IOERR)}},
      {"krb5_free_keytab_entry_contents", {AFTER(EINVAL)}},
      {"krb5_parse_name", {CODE(KRB5_PARSE_MALFORMED), CODE(KRB5_CONFIG_NODEFREALM), CODE(ENOMEM)}},
      {"krb5_principal2salt", {CODE(ENOMEM)}},
      {"krb5_c_string_to_key", {CODE(KRB5_BAD_ENCTYPE), CODE(KRB5_CRYPTO_INTERNAL), CODE(ENOMEM)}},
      {"krb5_get_init_creds_keytab",
       Exchange({CODE(KRB5_KT_NOTFOUND), CODE(KRB5_KT_IOERR), CODE(EACCES)})},
      {"krb5_get_init_creds_password",
       Exchange({CODE(KRB5KDC_ERR_KEY_EXP), CODE(KRB5_LIBOS_CANTREADPWD)})},
      {"krb5_auth_con_init", {CODE(ENOMEM)}},
      {"krb5_auth_con_free", {AFTER(EINVAL)}},
      {"krb5_rd_req",
       {CODE(KRB5KRB_AP_ERR_BADVERSION), CODE(KRB5KRB_AP_ERR_SKEW), CODE(KRB5KRB_AP_ERR_REPEAT),
        CODE(KRB5KRB_AP_ERR_TKT_EXPIRED), CODE(KRB5KRB_AP_ERR_BAD_INTEGRITY),
        CODE(KRB5KRB_AP_ERR_NOKEY), CODE(KRB5_KT_NOTFOUND), CODE(KRB5_KT_IOERR), CODE(EACCES),
        CODE(KRB5_RC_IO), CODE(ENOMEM)}},
      {"krb5_get_error_message", {{"no message", 0}}},

      // the directory
      {"ldap_initialize", {CODE(LDAP_NO_MEMORY), CODE(LDAP_PARAM_ERROR), CODE(LDAP_LOCAL_ERROR)}},
      {"ldap_set_option", {{"LDAP_OPT_ERROR", LDAP_OPT_ERROR}, CODE(LDAP_NO_MEMORY)}},
      {"ldap_start_tls_s",
       Directory({CODE(LDAP_CONNECT_ERROR), CODE(LDAP_PROTOCOL_ERROR), CODE(LDAP_LOCAL_ERROR)})},
      {"ldap_sasl_bind_s",
       Directory({CODE(LDAP_INVALID_CREDENTIALS), CODE(LDAP_STRONG_AUTH_REQUIRED),
                  CODE(LDAP_INAPPROPRIATE_AUTH)})},
      {"ldap_unbind_ext", {AFTER(LDAP_SERVER_DOWN)}},
      {"ldap_search_ext_s", Directory({CODE(LDAP_NO_SUCH_OBJECT), CODE(LDAP_INVALID_DN_SYNTAX),
                                       AFTER(LDAP_NO_SUCH_OBJECT), AFTER(LDAP_SIZELIMIT_EXCEEDED),
                                       AFTER(LDAP_TIMELIMIT_EXCEEDED)})},
      {"ldap_first_entry", {{"none", 0}}},
      {"ldap_next_entry", {{"none", 0}}},
      {"ldap_get_values_len", {{"none", 0}}},
      {"ldap_add_ext_s", Directory({CODE(LDAP_ALREADY_EXISTS), CODE(LDAP_CONSTRAINT_VIOLATION),
                                    CODE(LDAP_UNWILLING_TO_PERFORM), AFTER(LDAP_SERVER_DOWN)})},
      {"ldap_modify_ext_s", Directory({CODE(LDAP_NO_SUCH_OBJECT), CODE(LDAP_CONSTRAINT_VIOLATION),
                                       CODE(LDAP_UNWILLING_TO_PERFORM), AFTER(LDAP_SERVER_DOWN)})},

      // libcrypto
      {"SHA1", {{"null", 0}}},
      {"BIO_new", {{"null", 0}}},
      {"BIO_write", {{"-1", -1}, {"0", 0}, {"10 bytes", 10}}},
      {"BIO_ctrl", {{"0", 0}, {"-1", -1}}},

      // the resolver
      {"res_search", {{"-1", -1, ETIMEDOUT}}},
      {"ns_initparse", {{"-1", -1, EMSGSIZE}}},
      {"ns_parserr", {{"-1", -1, EMSGSIZE}}},
      {"ns_name_uncompress", {{"-1", -1, EMSGSIZE}}},

      // libc
      {"gethostname", {{"ENAMETOOLONG", -1, ENAMETOOLONG}}},
      // ENOENT is no failure where a file is made that is not there.
      {"open", {{"EMFILE", -1, EMFILE}, {"EACCES", -1, EACCES}, {"EINTR", -1, EINTR}}},
      {"getrandom", {{"ENOSYS", -1, ENOSYS}, {"EINTR", -1, EINTR}, {"10 bytes", 10}}},
      {"read", {{"EIO", -1, EIO}, {"EINTR", -1, EINTR}, {"0 bytes", 0}, {"10 bytes", 10}}},
      {"fcntl",
       {{"EINTR", -1, EINTR},
        {"ENOLCK", -1, ENOLCK},
        {"EDEADLK", -1, EDEADLK},
        {"EINVAL", -1, EINVAL}}},
      {"lseek", {{"ESPIPE", -1, ESPIPE}}},
      {"pread", {{"EIO", -1, EIO}, {"EINTR", -1, EINTR}, {"0 bytes", 0, EIO}, {"1 byte", 1, EIO}}},
      {"pwrite", {{"EIO", -1, EIO}, {"ENOSPC", -1, ENOSPC}, {"1 byte", 1, EIO}}},
      {"ftruncate", {{"EIO", -1, EIO}, {"EFBIG", -1, EFBIG}}},
      {"close", {{"EIO after", -1, EIO, true}, {"EINTR after", -1, EINTR, true}}},
      {"malloc", {{"ENOMEM", 0, ENOMEM}}},
  };
  return table;
}

const std::vector<Infallible>& CannotFail() {
  constexpr auto kRelease = "returns nothing: a release";
  constexpr auto kText = "works on memory of the caller, and has no failure to report";
  static const std::vector<Infallible> table = {
      {"krb5_free_context", kRelease},
      {"krb5_free_principal", kRelease},
      {"krb5_free_data_contents", kRelease},
      {"krb5_free_keyblock_contents", kRelease},
      {"krb5_free_cred_contents", kRelease},
      {"krb5_free_ticket", kRelease},
      {"krb5_free_error_message", kRelease},
      {"krb5_principal_compare", "answers yes or no, from what both principals hold"},
      {"ldap_msgfree", "a release; returns the message's type"},
      {"ldap_value_free_len", kRelease},
      {"ldap_err2string", "a text from a constant table, for every code"},
      {"BIO_f_base64", "the address of a constant table"},
      {"BIO_s_mem", "the address of a constant table"},
      {"BIO_set_flags", "returns nothing"},
      {"BIO_push", "links two objects that are there, and returns its argument"},
      {"BIO_free_all", kRelease},
      {"SHA1_Init", kText},
      {"SHA1_Update", kText},
      {"SHA1_Final", kText},
      {"krb5_clear_error_message", kRelease},
      {"ns_get16", "reads two bytes"},
      {"ns_msg_getflag", "reads two bytes of a header that is there"},
      {"time", "without a place to store it, the time is always returned"},
      {"pthread_mutex_lock",
       "of a plain mutex: only recursive, robust, error-checking and priority-protected ones fail"},
      {"pthread_mutex_unlock", "of a plain mutex, as for pthread_mutex_lock"},
      {"pthread_setcancelstate", "fails only for a state that there is not"},
      {"pthread_sigmask", "fails only for a way of changing the mask that there is not"},
      {"sigpending", "fails only for an address that is none"},
      {"sigemptyset", kText},
      {"sigaddset", "fails only for a signal that there is not"},
      {"sigismember", "fails only for a signal that there is not"},
      {"sigtimedwait", "mostly fails: there is no signal to fetch"},
      {"free", kRelease},
      {"memchr", kText},
      {"memcmp", kText},
      {"memcpy", kText},
      {"memmove", kText},
      {"memset", kText},
      {"strcspn", kText},
      {"strlen", kText},
      {"strnlen", kText},
      {"strtol", "what is no number, or too large, comes from the directory and is no fault"},
      {"strerror", "has a text for every number"},
      {"tolower", kText},
      {"toupper", kText},
      {"__errno_location", "the address of a variable"},
      {"__memset_to_buf", "returns nothing, as the platform declares it"},
      {"getLogger",
       "called once a module, while the library loads: nothing could handle a failure"},
      {"platformlogger_log", "returns nothing, as the platform declares it"},
  };
  return table;
}

const Fallible* FindFallible(std::string_view call) {
  const std::vector<Fallible>& table = FaultTable();
  const auto found = std::find_if(table.begin(), table.end(),
                                  [&](const Fallible& row) { return row.call == call; });
  return found != table.end() ? &*found : nullptr;
}

}  // namespace tavrel::tests
