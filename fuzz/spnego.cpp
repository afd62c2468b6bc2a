// Framings of a token. The first byte of the input chooses: 0 makes the rest the token; anything
// else makes it a template, in which every byte 0xC0 stands for a request that is right, with the
// lengths before it as the template has them, or mended when the first byte is odd.
#include <cstdint>
#include <ctime>
#include <iterator>
#include <string>

#include "Expect.h"
#include "Gss.h"
#include "Script.h"
#include "Spnego.h"

namespace tavrel::fuzz {
namespace {

using namespace plus;

struct Scene {
  // One that is right for some minutes yet.
  const std::string& Request() {
    constexpr std::time_t kGoodFor = 120;
    const std::time_t now = std::time(nullptr);
    if (now - made > kGoodFor) {
      const std::vector<char> bytes = tavrel::tests::ApReq(plus::tests::Ticket());
      request.assign(bytes.begin(), bytes.end());
      made = now;
    }
    return request;
  }

  Judges judges;
  std::string request;
  std::time_t made = 0;
};

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
  static Scene scene;
  if (size == 0) return;
  std::string token(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] != 0) {
    Script script(data + 1, size - 1);
    token = Framed(script, scene.Request());
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
  scene.judges.Decide(token,
                      {
                          // lengths longer than need be, fields that nobody knows, bytes behind the
                          // end, a request in no frame, the other identifier inside
                          RefusalReason::kMalformed,
                          // a mechListMIC in the first token is not looked at
                          RefusalReason::kNotGenuine,
                          // the service's name is whatever the key opens
                          RefusalReason::kWrongService,
                      });
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavrel::fuzz::Try(data, size);
  return 0;
}
