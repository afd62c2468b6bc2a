#include "Gss.h"

#include <algorithm>
#include <cstdlib>

#include "Expect.h"
#include "Records.h"

namespace tavrel::fuzz {

using plus::Acceptance;
using plus::RefusalReason;

namespace {

// The user as GSS-API has it; nothing when it refuses.
std::optional<std::string> UserByGss(gss_cred_id_t credential, const std::string& token) {
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_buffer_desc input{token.size(), const_cast<char*>(token.data())};
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
  gss_name_t name = GSS_C_NO_NAME;
  OM_uint32 minor = 0;
  const OM_uint32 major =
      gss_accept_sec_context(&minor, &context, credential, &input, GSS_C_NO_CHANNEL_BINDINGS, &name,
                             nullptr, &output, nullptr, nullptr, nullptr);
  std::optional<std::string> user;
  if (major == GSS_S_COMPLETE && gss_display_name(&minor, name, &text, nullptr) == GSS_S_COMPLETE) {
    user.emplace(static_cast<const char*>(text.value), text.length);
  }
  gss_release_buffer(&minor, &text);
  gss_release_buffer(&minor, &output);
  gss_release_name(&minor, &name);
  gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  return user;
}

std::string Said(const Acceptance& result) {
  if (result.refusal) return result.refusal->text;
  const plus::Identity& user = *result.identity;
  std::string said = user.client.Text() + " " + user.service.Text();
  for (const std::int64_t number :
       {user.auth_time, user.start_time, user.end_time, std::int64_t{user.ticket_enctype},
        std::int64_t{user.session_enctype}, std::int64_t{user.key_version},
        std::int64_t{user.ticket_flags}, std::int64_t{user.gss_flags}})
    said += " " + std::to_string(number);
  if (!user.authorization) return said;
  for (const auto* groups : {&user.authorization->groups, &user.authorization->extra_sids,
                             &user.authorization->resource_groups}) {
    for (const plus::GroupMembership& group : *groups)
      said += " " + group.sid.ToText();
  }
  return said + " " + user.authorization->user.ToText() + user.authorization->upn;
}

}  // namespace

Judges::Judges() {
  service.options.require_pac = false;
  service.options.replay_protection = false;
  service.options.services = {"HTTP", "x"};
  setenv("KRB5_KTNAME", service.options.keytab.c_str(), 1);
  acceptor = service.Make();
  service.options.ticket_memory = 0;
  opener = service.Make();
  OM_uint32 minor = 0;
  gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_ACCEPT,
                   &credential, nullptr, nullptr);
}

Acceptance Judges::Decide(const std::string& token,
                          std::initializer_list<RefusalReason> only_here) const {
  TheLog().Clear();
  Acceptance result = acceptor->Accept(token);
  const std::string& records = TheLog().Text();
  Expect(std::count(records.begin(), records.end(), '\0') == 1 && records.size() < 400,
         "a decision leaves one line, and no long one");
  Expect(result.identity.has_value() != result.refusal.has_value(), "accepted or refused");
  ExpectEqual(Said(result), Said(opener->Accept(token)), "a ticket that is known says the same");
  const std::optional<std::string> by_gss = UserByGss(credential, token);
  if (result) {
    ExpectEqual(result.identity->client.Text(), by_gss.value_or("nobody"),
                "who is accepted here is that user to GSS-API");
    return result;
  }
  Expect(!result.refusal->text.empty() && result.refusal->service.size() <= 83,
         "a refusal has a text, and no long name");
  if (by_gss) {
    Expect(std::find(only_here.begin(), only_here.end(), result.refusal->reason) != only_here.end(),
           std::string("what GSS-API alone accepts is listed: ") + Name(result.refusal->reason) +
               ": " + result.refusal->text);
  }
  return result;
}

}  // namespace tavrel::fuzz
