// PACs. The first byte of the input chooses the part that the rest of it is; the other parts are
// right. All are signed with the service's key, so that every input reaches the decoder.
#include <krb5.h>

#include <cstdint>
#include <string>

#include "Expect.h"
#include "ForgedPac.h"
#include "Pac.h"
#include "Script.h"
#include "Service.h"

namespace tavrel::fuzz {
namespace {

using namespace plus;
using plus::tests::ForgedUser;

struct Signer {
  Signer() {
    krb5_init_context(&context);
    krb5_parse_name(context, "alice@CORP.EXAMPLE.COM", &client);
    key = tavrel::tests::ServiceKey(context, plus::tests::Ticket());
  }

  std::string Sign(const plus::tests::PacParts& parts) const {
    krb5_pac pac = nullptr;
    krb5_pac_init(context, &pac);
    for (const auto& [type, content] : parts) {
      const krb5_data data{0, static_cast<unsigned>(content.size()),
                           const_cast<char*>(content.data())};
      krb5_pac_add_buffer(context, pac, type, &data);
    }
    krb5_data made{};
    krb5_pac_sign(context, pac, kTime, client, &key, &key, &made);
    const std::string bytes(made.data, made.length);
    krb5_free_data_contents(context, &made);
    krb5_pac_free(context, pac);
    return bytes;
  }

  static constexpr krb5_timestamp kTime = 1800000000;
  krb5_context context = nullptr;
  krb5_principal client = nullptr;
  krb5_keyblock key{};
};

void ExpectBounded(const Authorization& user, std::size_t size) {
  const std::size_t of_groups =
      8 * (user.groups.size() + user.extra_sids.size() + user.resource_groups.size());
  Expect(of_groups <= size + 100, "no more groups than the PAC has room for");
  Expect(user.full_name.size() + user.logon_name.size() <= 2 * size + 100,
         "no text longer than the PAC");
}

void Try(const std::uint8_t* data, std::size_t size) {
  static const Signer signer;
  static const std::string info = plus::tests::ValidationInfo({});
  static const std::string upn = plus::tests::UpnDnsInfo(
      "alice@corp.example.com", "CORP.EXAMPLE.COM", 2, "alice", "S-1-5-21-1-2-3-1105");
  static const std::string delegation = plus::tests::DelegationInfo("a/b", {"c", "d"});
  static const std::string attributes = plus::tests::NdrWriter().Put32(2).Put32(1).Bytes();
  static const std::string requestor = Sid::FromText("S-1-5-21-1-2-3-1105")->ToBytes();
  if (size == 0) return;
  plus::tests::PacParts parts = {
      {1, info}, {12, upn}, {11, delegation}, {17, attributes}, {18, requestor}};
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] < parts.size()) {
    parts[data[0]].second = bytes;
  } else {
    for (Script script(data + 1, size - 1); !script.Done();) {
      std::string& part = parts[script.Below(5)].second;
      const std::size_t at = script.Word() % part.size();
      part[at] = static_cast<char>(script.Byte());
    }
  }

  Authorization direct;
  const char* const wrong = DecodePac(
      {parts[0].second, parts[1].second, parts[2].second, parts[3].second, parts[4].second},
      direct);
  std::string signed_pac = signer.Sign(parts);
  const krb5_data pac{0, static_cast<unsigned>(signed_pac.size()), signed_pac.data()};
  Authorization read;
  const char* const refused =
      ReadPac(signer.context, pac, signer.client, Signer::kTime, signer.key, read);
  ExpectEqual(std::string(refused != nullptr ? refused : ""),
              std::string(wrong != nullptr ? wrong : ""), "a signed PAC is judged by its parts");
  if (wrong != nullptr) return;
  ExpectBounded(read, bytes.size() + info.size());
  Expect(read.user == direct.user && read.groups.size() == direct.groups.size(),
         "one PAC has one meaning");
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavrel::fuzz::Try(data, size);
  return 0;
}
