// The system's GSS-API library as a client that has a ticket for the service.
#ifndef TAVREL_PLUS_TESTS_TICKETHOLDER_H
#define TAVREL_PLUS_TESTS_TICKETHOLDER_H

#include <gssapi/gssapi.h>
#include <krb5.h>

#include <string>

#include "ForgedRequest.h"

namespace tavrel::plus::tests {

// Its tokens are bare Kerberos. What goes wrong throws std::runtime_error with GSS-API's text.
class TicketHolder {
 public:
  TicketHolder(const tavrel::tests::ForgedTicket& ticket, OM_uint32 flags = 0,
               std::string channel = "");
  TicketHolder(const TicketHolder&) = delete;
  TicketHolder& operator=(const TicketHolder&) = delete;
  ~TicketHolder();

  // The next token, after the service's `reply`.
  std::string Step(const std::string& reply = "");
  bool IsComplete() const { return complete_; }
  // Its next signature of `message`, and whether `mic` is the service's.
  std::string Mic(const std::string& message);
  bool Verifies(const std::string& message, const std::string& mic);

 private:
  OM_uint32 flags_;
  std::string channel_;  // empty: none
  krb5_context krb_ = nullptr;
  krb5_ccache cache_ = nullptr;
  gss_cred_id_t credential_ = GSS_C_NO_CREDENTIAL;
  gss_name_t service_ = GSS_C_NO_NAME;
  gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
  bool complete_ = false;
};

}  // namespace tavrel::plus::tests

#endif
