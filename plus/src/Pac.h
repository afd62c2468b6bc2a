// The PAC of a ticket ([MS-PAC]): what the domain controller knows of the user.
#ifndef TAVREL_PLUS_SRC_PAC_H
#define TAVREL_PLUS_SRC_PAC_H

#include <krb5.h>

#include <string_view>

#include "tavrel/plus/Identity.h"

namespace tavrel::plus {

// What of a PAC is read; one that is not there has no address.
struct PacBuffers {
  std::string_view validation_info;
  std::string_view upn_dns_info;
  std::string_view delegation_info;
  std::string_view attributes;
  std::string_view requestor;
};

// Decodes the buffers. Returns null, or what is wrong; `result` is then of no use.
const char* DecodePac(const PacBuffers& buffers, Authorization& result);

// Verifies the signature that `key`, the one the ticket is sealed with, made of the PAC `bytes`,
// and that the PAC is of this client and of this time of its first ticket; then decodes it. Returns
// null, or what is wrong.
const char* ReadPac(krb5_context context, const krb5_data& bytes, krb5_const_principal client,
                    krb5_timestamp auth_time, const krb5_keyblock& key, Authorization& result);

}  // namespace tavrel::plus

#endif
