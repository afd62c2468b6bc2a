#include "KrbSupport.h"

namespace tavrel {

std::string KrbMessage(krb5_context context, krb5_error_code code) {
  const std::unique_ptr<const char, KrbFree<krb5_free_error_message>> text(
      krb5_get_error_message(context, code), {context});
  return text ? text.get() : "";
}

bool KrbFailed(krb5_error_code code, const LogPrefix& prefix, const Logger& logger,
               krb5_context context, std::string* error) {
  if (code == 0) return false;
  const std::string message = KrbMessage(context, code);
  logger.Error(prefix, message);
  if (error != nullptr) *error = message;
  // libkrb5 keeps the text of a failure for its code, and a later failure with that code which has
  // no text of its own would get it.
  krb5_clear_error_message(context);
  return true;
}

}  // namespace tavrel
