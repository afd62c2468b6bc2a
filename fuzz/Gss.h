// What the targets of the acceptor share: a service, and the system's GSS-API library as the judge
// beside it.
#ifndef TAVREL_FUZZ_GSS_H
#define TAVREL_FUZZ_GSS_H

#include <gssapi/gssapi.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include "Service.h"

namespace tavrel::fuzz {

// A service that takes tickets without a PAC, and any token as often as it comes.
struct Judges {
  Judges();

  // What the acceptor decides, whether it knows the ticket or not. Whom it accepts GSS-API accepts
  // too, as the same user; for which of its reasons it alone may refuse says `only_here`.
  plus::Acceptance Decide(const std::string& token,
                          std::initializer_list<plus::RefusalReason> only_here) const;

  plus::tests::Service service;
  std::unique_ptr<plus::Acceptor> acceptor;
  std::unique_ptr<plus::Acceptor> opener;  // likewise, but opens each ticket anew
  gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
};

}  // namespace tavrel::fuzz

#endif
