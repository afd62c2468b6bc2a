// Framings of a token. The first byte of the input chooses: 0 makes the rest the token; anything
// else makes it a template, in which every byte 0xC0 stands for a request that is right, with the
// lengths before it as the template has them, or mended when the first byte is odd. The system's
// GSS-API library gets the same bytes: what is accepted here is accepted there, and what only that
// accepts is listed.
#include <gssapi/gssapi.h>
#include <krb5.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>

#include "Expect.h"
#include "Script.h"
#include "Service.h"
#include "Spnego.h"

namespace tavrel::fuzz {
namespace {

using namespace plus;
using plus::tests::Service;

// What GSS-API accepts and the acceptor does not.
constexpr RefusalReason kOnlyByGss[] = {
    // lengths longer than need be, fields that nobody knows, bytes behind the end, a request in no
    // frame
    RefusalReason::kMalformed,
    // a mechListMIC in the first token is not looked at
    RefusalReason::kNotGenuine,
    // the service's name is whatever the key opens
    RefusalReason::kWrongService,
};

struct Scene {
  Scene() {
    AcceptorOptions options;
    options.require_pac = false;
    options.replay_protection = false;
    service.options = options;
    service.options.keytab = service.settings / "keytab";
    setenv("KRB5_KTNAME", service.options.keytab.c_str(), 1);
    acceptor = service.Make();
    const std::vector<char> bytes = tavrel::tests::ApReq(plus::tests::Ticket());
    request.assign(bytes.begin(), bytes.end());
  }

  Service service;
  std::unique_ptr<Acceptor> acceptor;
  std::string request;
};

bool AcceptedByGss(const std::string& token) {
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_buffer_desc input{token.size(), const_cast<char*>(token.data())};
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  gss_name_t name = GSS_C_NO_NAME;
  OM_uint32 minor = 0;
  const OM_uint32 major = gss_accept_sec_context(&minor, &context, GSS_C_NO_CREDENTIAL, &input,
                                                 GSS_C_NO_CHANNEL_BINDINGS, &name, nullptr, &output,
                                                 nullptr, nullptr, nullptr);
  OM_uint32 ignored = 0;
  gss_release_buffer(&ignored, &output);
  gss_release_name(&ignored, &name);
  gss_delete_sec_context(&ignored, &context, GSS_C_NO_BUFFER);
  return major == GSS_S_COMPLETE;
}

// The framings that scripts choose from; each takes what is inside it.
std::string Framed(Script& script, const std::string& request) {
  using tavrel::tests::Der;
  std::string token = std::string("\x01\x00", 2) + request;
  const std::string oids[] = {tavrel::tests::kKerberosOid, tavrel::tests::kMicrosoftKerberosOid,
                              tavrel::tests::kNtlmOid, tavrel::tests::kSpnegoOid};
  const auto oid = [&] { return Der(0x06, oids[script.Byte() % std::size(oids)]); };
  if (script.Byte() % 8 != 0) token = Der(0x60, oid() + token);
  if (script.Byte() % 2 != 0) return token;
  std::string list;
  for (unsigned count = script.Byte() % 4; count > 0; --count)
    list += oid();
  std::string fields = Der(0xa0, Der(0x30, list));
  const unsigned extra = script.Byte();
  if ((extra & 6) != 0) fields += Der(0xa2, Der(0x04, token));
  if ((extra & 0x70) == 0x70) fields += Der(0xa3, Der(0x04, "mic"));
  return Der(0x60, Der(0x06, tavrel::tests::kSpnegoOid) + Der(0xa0, Der(0x30, fields)));
}

void Try(const std::uint8_t* data, std::size_t size) {
  static const Scene scene;
  if (size == 0) return;
  std::string token(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] != 0) {
    Script script(data + 1, size - 1);
    token = Framed(script, scene.request);
    // A byte of the framing is another one.
    if (const std::size_t at = script.Byte(); data[0] % 2 == 0 && at < token.size())
      token[at] = static_cast<char>(script.Byte());
  }

  const InitialToken read = ReadInitialToken(token);
  if (read.kind == InitialToken::Kind::kKerberos) {
    Expect(!read.request.empty() && read.request.data() > token.data() &&
               read.request.data() + read.request.size() <= token.data() + token.size(),
           "the request is a part of the token");
  }
  const Acceptance result = scene.acceptor->Accept(token);
  Expect(result.identity.has_value() != result.refusal.has_value(), "accepted or refused");
  const bool by_gss = AcceptedByGss(token);
  if (result) {
    Expect(by_gss, "who is accepted here is accepted by GSS-API");
  } else if (by_gss) {
    const RefusalReason reason = result.refusal->reason;
    Expect(std::find(std::begin(kOnlyByGss), std::end(kOnlyByGss), reason) != std::end(kOnlyByGss),
           "what GSS-API alone accepts is listed");
  }
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavrel::fuzz::Try(data, size);
  return 0;
}
