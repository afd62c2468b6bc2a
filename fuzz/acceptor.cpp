// Requests. The first byte of the input chooses: 0 makes the rest the token; anything else makes it
// a script, by which a sealed part, the ticket's or the authenticator's, is spoilt and sealed
// again, and the service's name and the version of its key beside it are chosen.
#include <krb5.h>

#include <cstdint>
#include <string>

#include "Expect.h"
#include "Gss.h"
#include "Script.h"

namespace tavrel::fuzz {
namespace {

using namespace plus;
using plus::tests::ForgedToken;
using tavrel::tests::Der;
using tavrel::tests::ForgedTicket;

std::string Forge(Script& script) {
  static const ForgedTicket right = plus::tests::TicketWithPac();
  ForgedTicket ticket = right;
  const unsigned choice = script.Byte();
  if ((choice & 1) != 0) ticket.authorization_data.clear();
  if ((choice & 2) != 0) ticket.server = {"x", script.Text()};
  if ((choice & 4) != 0) ticket.kvno = script.Byte();
  if ((choice & 8) != 0) ticket.client = {script.Text(), script.Text()};
  if ((choice & 16) != 0) ticket.flags = static_cast<krb5_flags>(script.Word() << 16U);
  ForgedToken token(ticket);
  static const std::string issued = [] {
    ForgedToken right;
    right.Issue();
    return right.issued;
  }();
  if ((choice & 32) != 0) token.issued = issued;  // which is known once a token of it was right
  if ((choice & 64) != 0) token.of_ticket[4] = plus::tests::TypedField(1, script.Text());
  if ((choice & 128) != 0) {
    token.of_authenticator[6] = plus::tests::KeyField(token.session_enctype, 32);
    const unsigned sequence = script.Word();
    token.of_authenticator[7] = tavrel::tests::der::Integer(sequence);
    const auto type = static_cast<std::int32_t>(script.Byte());
    const std::string text = script.Text();
    token.of_authenticator[8] = sequence % 2 != 0 ? Der(0x30, plus::tests::TypedField(type, text))
                                                  : plus::tests::AuthorizationData(type, text);
  }
  std::string ticket_part = token.TicketPart();
  std::string authenticator = token.Authenticator();
  std::string& spoilt = (choice & 32) != 0 ? authenticator : ticket_part;
  while (!script.Done()) {
    const std::size_t at = script.Word();
    if (at < spoilt.size()) spoilt[at] = static_cast<char>(script.Byte());
  }
  return token.Sealed(ticket_part, authenticator);
}

void Try(const std::uint8_t* data, std::size_t size) {
  static const Judges judges;
  if (size == 0) return;
  std::string token(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] != 0) {
    Script script(data + 1, size - 1);
    token = Forge(script);
  }

  const Acceptance result =
      judges.Decide(token, {
                               RefusalReason::kMalformed,     // see spnego.cpp
                               RefusalReason::kWrongService,  // any name that the key opens
                               RefusalReason::kPacWrong,      // a PAC it cannot read it ignores
                               RefusalReason::kEnctype,       // of a subkey, which it does not mind
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
