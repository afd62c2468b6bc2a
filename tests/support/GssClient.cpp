#include "GssClient.h"

#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include <memory>
#include <stdexcept>

#include "KrbFree.h"

namespace tavrel::tests {
namespace {

using KrbPrincipal = std::unique_ptr<krb5_principal_data, KrbFree<krb5_free_principal>>;

// Frees a GSS-API object, which its release function wants by address.
template <auto Release>
struct GssRelease {
  template <typename T>
  void operator()(T* object) const {
    OM_uint32 minor = 0;
    Release(&minor, &object);
  }
};
OM_uint32 DeleteContext(OM_uint32* minor, gss_ctx_id_t* context) {
  return gss_delete_sec_context(minor, context, GSS_C_NO_BUFFER);
}
using GssName = std::unique_ptr<gss_name_struct, GssRelease<gss_release_name>>;
using GssCredentials = std::unique_ptr<gss_cred_id_struct, GssRelease<gss_release_cred>>;
using GssContext = std::unique_ptr<gss_ctx_id_struct, GssRelease<DeleteContext>>;

void Check(krb5_context context, krb5_error_code code) {
  if (code == 0) return;
  const char* const text = krb5_get_error_message(context, code);
  const std::string message = text;
  krb5_free_error_message(context, text);
  throw std::runtime_error(message);
}

void Check(const char* step, OM_uint32 major, OM_uint32 minor) {
  if (!GSS_ERROR(major)) return;
  OM_uint32 ignored = 0;
  OM_uint32 more = 0;
  gss_buffer_desc text{};
  gss_display_status(&ignored, minor, GSS_C_MECH_CODE, GSS_C_NO_OID, &more, &text);
  const std::string message(static_cast<const char*>(text.value), text.length);
  gss_release_buffer(&ignored, &text);
  throw std::runtime_error(std::string(step) + ": " + message);
}

gss_OID Oid(GssClient::Mechanism mechanism) {
  static char spnego_content[] = "\x2b\x06\x01\x05\x05\x02";
  static gss_OID_desc spnego = {6, spnego_content};
  return mechanism == GssClient::Mechanism::kSpnego ? &spnego : gss_mech_krb5;
}

}  // namespace

GssClient::GssClient(const std::string& user, const std::string& password, krb5_deltat lifetime) {
  krb5_context context = nullptr;
  Check(nullptr, krb5_init_context(&context));
  context_.reset(context);
  krb5_ccache cache = nullptr;
  Check(context, krb5_cc_new_unique(context, "MEMORY", nullptr, &cache));
  cache_ = {cache, {context}};
  cache_name_ = std::string("MEMORY:") + krb5_cc_get_name(context, cache);

  krb5_principal principal = nullptr;
  Check(context, krb5_parse_name(context, user.c_str(), &principal));
  const KrbPrincipal owned_principal(principal, {context});
  krb5_get_init_creds_opt* options = nullptr;
  Check(context, krb5_get_init_creds_opt_alloc(context, &options));
  const std::unique_ptr<krb5_get_init_creds_opt, KrbFree<krb5_get_init_creds_opt_free>>
      owned_options(options, {context});
  if (lifetime != 0) krb5_get_init_creds_opt_set_tkt_life(options, lifetime);
  Check(context, krb5_get_init_creds_opt_set_out_ccache(context, options, cache));
  krb5_creds creds{};
  Check(context, krb5_get_init_creds_password(context, &creds, principal, password.c_str(), nullptr,
                                              nullptr, 0, nullptr, options));
  krb5_free_cred_contents(context, &creds);
}

std::vector<char> GssClient::Token(const std::string& service, Mechanism mechanism,
                                   const std::string& channel) const {
  OM_uint32 minor = 0;
  gss_OID_set_desc mechanisms = {1, Oid(mechanism)};
  gss_key_value_element_desc element = {"ccache", cache_name_.c_str()};
  const gss_key_value_set_desc store = {1, &element};
  gss_cred_id_t credentials = GSS_C_NO_CREDENTIAL;
  OM_uint32 major = gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms,
                                          GSS_C_INITIATE, &store, &credentials, nullptr, nullptr);
  const GssCredentials owned_credentials(credentials);
  Check("gss_acquire_cred_from", major, minor);

  std::string text = service;
  gss_buffer_desc name_text = {text.size(), text.data()};
  gss_name_t name = GSS_C_NO_NAME;
  major = gss_import_name(&minor, &name_text, GSS_KRB5_NT_PRINCIPAL_NAME, &name);
  const GssName owned_name(name);
  Check("gss_import_name", major, minor);

  std::string channel_text = channel;
  gss_channel_bindings_struct bindings{};
  bindings.application_data = {channel_text.size(), channel_text.data()};

  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_buffer_desc output{};
  major = gss_init_sec_context(&minor, credentials, &context, name, Oid(mechanism),
                               GSS_C_MUTUAL_FLAG, GSS_C_INDEFINITE,
                               channel.empty() ? GSS_C_NO_CHANNEL_BINDINGS : &bindings,
                               GSS_C_NO_BUFFER, nullptr, &output, nullptr, nullptr);
  const GssContext owned_context(context);
  const auto* const bytes = static_cast<const char*>(output.value);
  const std::vector<char> token(bytes, bytes + output.length);
  OM_uint32 ignored = 0;
  gss_release_buffer(&ignored, &output);
  Check("gss_init_sec_context", major, minor);
  return token;
}

std::vector<char> GssClient::Request(const std::string& service) const {
  const krb5_context context = context_.get();
  krb5_creds wanted{};
  Check(context, krb5_cc_get_principal(context, cache_.get(), &wanted.client));
  const KrbPrincipal client(wanted.client, {context});
  Check(context, krb5_parse_name(context, service.c_str(), &wanted.server));
  const KrbPrincipal server(wanted.server, {context});
  krb5_creds* creds = nullptr;
  Check(context, krb5_get_credentials(context, 0, cache_.get(), &wanted, &creds));
  const std::unique_ptr<krb5_creds, KrbFree<krb5_free_creds>> owned_creds(creds, {context});

  krb5_auth_context auth = nullptr;
  krb5_data output{};
  const krb5_error_code code =
      krb5_mk_req_extended(context, &auth, AP_OPTS_MUTUAL_REQUIRED, nullptr, creds, &output);
  krb5_auth_con_free(context, auth);
  Check(context, code);
  const std::vector<char> request(output.data, output.data + output.length);
  krb5_free_data_contents(context, &output);
  return request;
}

}  // namespace tavrel::tests
