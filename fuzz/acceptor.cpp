// Requests. The first byte of the input chooses: 0 makes the rest the token; anything else makes it
// a script, by which the sealed part of a ticket that is right is spoilt and sealed again, and the
// service's name and the version of its key beside it are chosen. What is accepted the Kerberos
// library accepts too, of the same client.
#include <krb5.h>

#include <cstdint>
#include <string>

#include "Expect.h"
#include "Script.h"
#include "Service.h"

namespace tavrel::fuzz {
namespace {

using namespace plus;
using plus::tests::Service;
using tavrel::tests::Der;
using tavrel::tests::ForgedTicket;
namespace der = tavrel::tests::der;

struct Scene {
  Scene() {
    AcceptorOptions options;
    options.require_pac = false;
    options.replay_protection = false;
    options.services = {"HTTP", "x"};
    service.options = options;
    service.options.keytab = service.settings / "keytab";
    acceptor = service.Make();
    krb5_init_context(&context);
    krb5_kt_resolve(context, service.options.keytab.c_str(), &keytab);
    key = tavrel::tests::ServiceKey(context, plus::tests::Ticket());
    krb5_c_make_random_key(context, key.enctype, &session);
  }

  Service service;
  std::unique_ptr<Acceptor> acceptor;
  krb5_context context = nullptr;
  krb5_keytab keytab = nullptr;
  krb5_keyblock key{};
  krb5_keyblock session{};
};

std::string Forge(const Scene& scene, Script& script) {
  static const ForgedTicket right = plus::tests::TicketWithPac();
  ForgedTicket ticket = right;
  const unsigned choice = script.Byte();
  if ((choice & 1) != 0) ticket.authorization_data.clear();
  if ((choice & 2) != 0) ticket.server = {"x", script.Text()};
  if ((choice & 4) != 0) ticket.kvno = script.Byte();
  if ((choice & 8) != 0) ticket.client = {script.Text(), script.Text()};
  if ((choice & 16) != 0) ticket.flags = static_cast<krb5_flags>(script.Word() << 16U);
  std::string plain = tavrel::tests::EncTicketPart(ticket, scene.session);
  while (!script.Done()) {
    const std::size_t at = script.Word();
    if (at < plain.size()) plain[at] = static_cast<char>(script.Byte());
  }
  const std::string sealed_ticket = Der(
      0x30,
      der::Field(0, der::Integer(scene.key.enctype)) + der::Field(1, der::Integer(ticket.kvno)) +
          der::Field(2, Der(0x04, tavrel::tests::Encrypt(scene.context, scene.key,
                                                         tavrel::tests::kTicketKeyUsage, plain))));
  const std::string names =
      Der(0x61,
          Der(0x30, der::Field(0, der::Integer(5)) + der::Field(1, Der(0x1b, ticket.server_realm)) +
                        der::Field(2, der::PrincipalName(ticket.server)) +
                        der::Field(3, sealed_ticket)));
  std::string checksum = *right.gss_checksum;
  const std::string authenticator =
      Der(0x62,
          Der(0x30, der::Field(0, der::Integer(5)) + der::Field(1, Der(0x1b, ticket.client_realm)) +
                        der::Field(2, der::PrincipalName(ticket.client)) +
                        der::Field(3, Der(0x30, der::Field(0, der::Integer(0x8003)) +
                                                    der::Field(1, Der(0x04, checksum)))) +
                        der::Field(4, der::Integer(1)) +
                        der::Field(5, der::Time(static_cast<krb5_timestamp>(std::time(nullptr))))));
  const std::string sealed_authenticator =
      Der(0x30,
          der::Field(0, der::Integer(scene.session.enctype)) +
              der::Field(2, Der(0x04, tavrel::tests::Encrypt(scene.context, scene.session,
                                                             tavrel::tests::kAuthenticatorKeyUsage,
                                                             authenticator))));
  const std::string request =
      Der(0x6e, Der(0x30, der::Field(0, der::Integer(5)) + der::Field(1, der::Integer(14)) +
                              der::Field(2, der::BitString(0)) + der::Field(3, names) +
                              der::Field(4, sealed_authenticator)));
  return Der(0x60, Der(0x06, tavrel::tests::kKerberosOid) + std::string("\x01\x00", 2) + request);
}

// The client as the Kerberos library alone has it; nothing when it refuses.
std::string ClientByLibrary(const Scene& scene, const std::string& token) {
  const std::string marker = tavrel::tests::kKerberosOid + std::string("\x01\x00", 2);
  const std::size_t at = token.rfind(marker) + marker.size();
  const krb5_data data{0, static_cast<unsigned>(token.size() - at),
                       const_cast<char*>(token.data() + at)};
  krb5_auth_context auth = nullptr;
  krb5_ticket* ticket = nullptr;
  std::string name;
  if (krb5_rd_req(scene.context, &auth, &data, nullptr, scene.keytab, nullptr, &ticket) == 0) {
    char* text = nullptr;
    if (krb5_unparse_name(scene.context, ticket->enc_part2->client, &text) == 0) name = text;
    krb5_free_unparsed_name(scene.context, text);
    krb5_free_ticket(scene.context, ticket);
  }
  krb5_auth_con_free(scene.context, auth);
  return name;
}

void Try(const std::uint8_t* data, std::size_t size) {
  static const Scene scene;
  if (size == 0) return;
  std::string token(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] != 0) {
    Script script(data + 1, size - 1);
    token = Forge(scene, script);
  }

  const Acceptance result = scene.acceptor->Accept(token);

  Expect(result.identity.has_value() != result.refusal.has_value(), "accepted or refused");
  if (data[0] == 1 && size == 1) {
    Expect(result.identity.has_value(), "what is right is accepted");
  }
  if (!result) {
    Expect(!result.refusal->text.empty() && result.refusal->service.size() <= 83,
           "a refusal has a text, and no long name");
    return;
  }
  ExpectEqual(result.identity->client.Text(), ClientByLibrary(scene, token),
              "the client is the one that the library sees");
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavrel::fuzz::Try(data, size);
  return 0;
}
