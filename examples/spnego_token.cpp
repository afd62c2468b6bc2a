// Makes the token that a browser would send to sign its user in (SPNEGO, RFC 4178), with the
// tickets in the credential cache.
//
//   spnego_token SERVICE@HOST > TOKEN
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>

#include <cstdio>
#include <cstring>
#include <iostream>

namespace {

void Complain(OM_uint32 status, int type) {
  OM_uint32 minor = 0;
  OM_uint32 more = 0;
  do {
    gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
    gss_display_status(&minor, status, type, GSS_C_NO_OID, &more, &text);
    std::cerr << "spnego_token: " << static_cast<const char*>(text.value) << '\n';
    gss_release_buffer(&minor, &text);
  } while (more != 0);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: spnego_token SERVICE@HOST > TOKEN\n";
    return 64;
  }
  static char spnego_bytes[] = "\x2b\x06\x01\x05\x05\x02";
  gss_OID_desc spnego = {6, spnego_bytes};

  OM_uint32 minor = 0;
  gss_buffer_desc text = {std::strlen(argv[1]), argv[1]};
  gss_name_t service = GSS_C_NO_NAME;
  OM_uint32 major = gss_import_name(&minor, &text, GSS_C_NT_HOSTBASED_SERVICE, &service);

  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_buffer_desc token = GSS_C_EMPTY_BUFFER;
  if (!GSS_ERROR(major)) {
    major = gss_init_sec_context(&minor, GSS_C_NO_CREDENTIAL, &context, service, &spnego, 0, 0,
                                 GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER, nullptr, &token,
                                 nullptr, nullptr);
  }
  const bool made = !GSS_ERROR(major) && token.length > 0;
  if (made) {
    std::fwrite(token.value, 1, token.length, stdout);
  } else {
    Complain(major, GSS_C_GSS_CODE);
    Complain(minor, GSS_C_MECH_CODE);
  }

  gss_release_buffer(&minor, &token);
  gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  gss_release_name(&minor, &service);
  return made && std::fflush(stdout) == 0 ? 0 : 1;
}
