// Requests. The first byte of the input chooses: 0 makes the rest the token; anything else makes it
// a script, by which the sealed part of a ticket that is right is spoilt and sealed again, and the
// service's name and the version of its key beside it are chosen.
#include <krb5.h>

#include <cstdint>
#include <string>

#include "Expect.h"
#include "Gss.h"
#include "Script.h"

namespace tavrel::fuzz {
namespace {

using namespace plus;
using tavrel::tests::Der;
using tavrel::tests::ForgedTicket;
namespace der = tavrel::tests::der;

struct Scene {
  Scene() {
    krb5_init_context(&context);
    key = tavrel::tests::ServiceKey(context, plus::tests::Ticket());
    krb5_c_make_random_key(context, key.enctype, &session);
  }

  Judges judges;
  krb5_context context = nullptr;
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

void Try(const std::uint8_t* data, std::size_t size) {
  static const Scene scene;
  if (size == 0) return;
  std::string token(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] != 0) {
    Script script(data + 1, size - 1);
    token = Forge(scene, script);
  }

  const Acceptance result =
      scene.judges.Decide(token, {
                                     RefusalReason::kMalformed,     // see spnego.cpp
                                     RefusalReason::kWrongService,  // any name that the key opens
                                     RefusalReason::kPacWrong,  // a PAC it cannot read it ignores
                                 });

  if (data[0] == 1 && size == 1) {
    Expect(result.identity.has_value(), "what is right is accepted");
  }
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavrel::fuzz::Try(data, size);
  return 0;
}
