#include "TicketHolder.h"

#include <gssapi/gssapi_krb5.h>

#include <stdexcept>
#include <utility>

namespace tavrel::plus::tests {

namespace {

void Check(krb5_error_code code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": error " + std::to_string(code)));
}

gss_buffer_desc Buffer(const std::string& bytes) {
  return {bytes.size(), const_cast<char*>(bytes.data())};
}

std::string Taken(gss_buffer_desc buffer) {
  std::string bytes(static_cast<const char*>(buffer.value), buffer.length);
  OM_uint32 minor = 0;
  gss_release_buffer(&minor, &buffer);
  return bytes;
}

OM_uint32 Checked(OM_uint32 major, OM_uint32 minor) {
  if (!GSS_ERROR(major)) return major;
  OM_uint32 ignored = 0;
  OM_uint32 more = 0;
  gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
  gss_display_status(&ignored, minor, GSS_C_MECH_CODE, GSS_C_NO_OID, &more, &text);
  throw std::runtime_error("GSS-API: " + std::to_string(major) + " " + Taken(text));
}

}  // namespace

TicketHolder::TicketHolder(const tavrel::tests::ForgedTicket& ticket, OM_uint32 flags,
                           std::string channel)
    : flags_(flags), channel_(std::move(channel)) {
  Check(krb5_init_context(&krb_), "context");
  Check(krb5_cc_new_unique(krb_, "MEMORY", nullptr, &cache_), "cache");
  krb5_creds creds{};
  Check(krb5_parse_name(krb_, (ticket.client.at(0) + "@" + ticket.client_realm).c_str(),
                        &creds.client),
        "client");
  const std::string service =
      ticket.server.at(0) + "/" + ticket.server.at(1) + "@" + ticket.server_realm;
  Check(krb5_parse_name(krb_, service.c_str(), &creds.server), "service");
  Check(krb5_c_make_random_key(krb_, ticket.etype, &creds.keyblock), "session key");
  std::string sealed = tavrel::tests::SealedTicket(krb_, ticket, creds.keyblock);
  creds.ticket = {0, static_cast<unsigned>(sealed.size()), sealed.data()};
  creds.times = {ticket.authtime, ticket.starttime, ticket.endtime, 0};
  creds.ticket_flags = ticket.flags;
  Check(krb5_cc_initialize(krb_, cache_, creds.client), "cache");
  Check(krb5_cc_store_cred(krb_, cache_, &creds), "cache");
  creds.ticket = {};
  krb5_free_cred_contents(krb_, &creds);

  OM_uint32 minor = 0;
  Checked(gss_krb5_import_cred(&minor, cache_, nullptr, nullptr, &credential_), minor);
  gss_buffer_desc name = Buffer(service);
  Checked(
      gss_import_name(&minor, &name, const_cast<gss_OID>(GSS_KRB5_NT_PRINCIPAL_NAME), &service_),
      minor);
}

TicketHolder::~TicketHolder() {
  OM_uint32 minor = 0;
  gss_delete_sec_context(&minor, &context_, GSS_C_NO_BUFFER);
  gss_release_name(&minor, &service_);
  gss_release_cred(&minor, &credential_);
  if (cache_ != nullptr) krb5_cc_destroy(krb_, cache_);
  krb5_free_context(krb_);
}

std::string TicketHolder::Step(const std::string& reply) {
  OM_uint32 minor = 0;
  gss_OID_desc mechanism = *gss_mech_krb5;
  gss_channel_bindings_struct bindings{};
  bindings.application_data = Buffer(channel_);
  gss_buffer_desc input = Buffer(reply);
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  const OM_uint32 major =
      gss_init_sec_context(&minor, credential_, &context_, service_, &mechanism, flags_, 0,
                           channel_.empty() ? GSS_C_NO_CHANNEL_BINDINGS : &bindings, &input,
                           nullptr, &output, nullptr, nullptr);
  complete_ = Checked(major, minor) == GSS_S_COMPLETE;
  return Taken(output);
}

std::string TicketHolder::Mic(const std::string& message) {
  OM_uint32 minor = 0;
  gss_buffer_desc input = Buffer(message);
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  Checked(gss_get_mic(&minor, context_, GSS_C_QOP_DEFAULT, &input, &output), minor);
  return Taken(output);
}

bool TicketHolder::Verifies(const std::string& message, const std::string& mic) {
  OM_uint32 minor = 0;
  gss_buffer_desc input = Buffer(message);
  gss_buffer_desc signature = Buffer(mic);
  return gss_verify_mic(&minor, context_, &input, &signature, nullptr) == GSS_S_COMPLETE;
}

}  // namespace tavrel::plus::tests
