// A GSS-API security context, and what libldap sends and receives in it.
#ifndef TAVREL_PLUS_SRC_SEALEDLAYER_H
#define TAVREL_PLUS_SRC_SEALEDLAYER_H

#include <gssapi/gssapi.h>
#include <lber.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "Failure.h"
#include "Kdc.h"

namespace tavrel::plus {

// The client's side of SASL's "GSSAPI" mechanism (RFC 4752). The service is named in full, with its
// realm, so that no name of it is looked up in DNS.
class SealedLayer {
 public:
  SealedLayer() = default;
  SealedLayer(const SealedLayer&) = delete;
  SealedLayer& operator=(const SealedLayer&) = delete;
  ~SealedLayer();

  // Prepares to prove the cache's client to `service`,
  // "ldap/dc1.corp.example.com@CORP.EXAMPLE.COM".
  Failure Open(Kdc& kdc, krb5_ccache cache, const std::string& service);

  // The next token for the server, after `received`; nothing more is to be done when `is_complete`.
  Failure Continue(std::string_view received, std::string& token, bool& is_complete);

  // Chooses to seal, from what the server offers; refuses a server that does not.
  Failure Choose(std::string_view offer, std::string& choice);

  // Puts itself between libldap and the connection.
  bool Insert(Sockbuf* buffer);

  // Whether that is why libldap could not send or receive.
  bool LacksMemory() const { return lacks_memory_; }

 private:
  friend struct SealedIo;

  Failure Explain(OM_uint32 major, OM_uint32 minor) const;

  gss_cred_id_t credentials_ = GSS_C_NO_CREDENTIAL;
  gss_name_t service_ = GSS_C_NO_NAME;
  gss_ctx_id_t context_ = GSS_C_NO_CONTEXT;
  bool is_established_ = false;
  std::uint32_t most_ = 0;  // bytes of a message that the server takes in one token
  std::string received_;    // a token that has not arrived as a whole
  std::string open_;        // what was in the last one, and has not been read
  std::size_t taken_ = 0;   // how much of it has
  bool lacks_memory_ = false;
};

}  // namespace tavrel::plus

#endif
