// tavrel token: the token that a browser would send.
#include <gssapi/gssapi.h>
#include <gssapi/gssapi_krb5.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include "common/Json.h"
#include "common/Text.h"
#include "tavrel/Command.h"

namespace tavrel::tools {
namespace {

struct ReleaseName {
  void operator()(gss_name_t name) const {
    OM_uint32 minor = 0;
    gss_release_name(&minor, &name);
  }
};
struct ReleaseContext {
  void operator()(gss_ctx_id_t context) const {
    OM_uint32 minor = 0;
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  }
};

std::string Take(gss_buffer_desc& buffer) {
  std::string text(static_cast<const char*>(buffer.value), buffer.length);
  OM_uint32 minor = 0;
  gss_release_buffer(&minor, &buffer);
  return text;
}

std::string Explain(OM_uint32 status, int type) {
  OM_uint32 minor = 0;
  OM_uint32 more = 0;
  std::string all;
  do {
    gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
    if (GSS_ERROR(gss_display_status(&minor, status, type, GSS_C_NO_OID, &more, &text))) break;
    all += (all.empty() ? "" : "; ") + Take(text);
  } while (more != 0);
  return all;
}

}  // namespace

int RunToken(int argc, char** argv) {
  const bool json = argc == 3 && std::strcmp(argv[1], "--json") == 0;
  if ((argc != 2 && !json) || *argv[argc - 1] == '-') {
    std::cerr << "usage: tavrel token [--json] SERVICE@HOST\n";
    return kUsage;
  }
  char* const service_name = argv[argc - 1];
  static char spnego_bytes[] = "\x2b\x06\x01\x05\x05\x02";
  gss_OID_desc spnego = {6, spnego_bytes};

  OM_uint32 minor = 0;
  gss_buffer_desc text = {std::strlen(service_name), service_name};
  gss_name_t imported = GSS_C_NO_NAME;
  OM_uint32 major = gss_import_name(&minor, &text, GSS_C_NT_HOSTBASED_SERVICE, &imported);
  const std::unique_ptr<gss_name_struct, ReleaseName> service(imported);
  gss_ctx_id_t made = GSS_C_NO_CONTEXT;
  gss_buffer_desc token = GSS_C_EMPTY_BUFFER;
  if (!GSS_ERROR(major)) {
    major = gss_init_sec_context(&minor, GSS_C_NO_CREDENTIAL, &made, service.get(), &spnego,
                                 GSS_C_MUTUAL_FLAG, 0, GSS_C_NO_CHANNEL_BINDINGS, GSS_C_NO_BUFFER,
                                 nullptr, &token, nullptr, nullptr);
  }
  const std::unique_ptr<gss_ctx_id_struct, ReleaseContext> context(made);
  if (GSS_ERROR(major) || token.length == 0) {
    const std::string why = Explain(major, GSS_C_GSS_CODE) + ": " + Explain(minor, GSS_C_MECH_CODE);
    if (json) std::cout << JsonObject().Add("error", why).Text() << '\n';
    std::cerr << "tavrel token: " << why << '\n';
    return 1;
  }
  const std::string base64 = ToBase64(Take(token));
  std::cout << (json ? JsonObject().Add("token", base64).Text() : base64) << std::endl;
  return std::cout ? 0 : 1;
}

}  // namespace tavrel::tools
