#include "Spnego.h"

#include "Der.h"

namespace tavrel::plus {
namespace {

using der::Context;
using der::Reader;
using Kind = InitialToken::Kind;

constexpr std::string_view kSpnego = "\x2b\x06\x01\x05\x05\x02";                // 1.3.6.1.5.5.2
constexpr std::string_view kKerberos = "\x2a\x86\x48\x86\xf7\x12\x01\x02\x02";  // RFC 1964
// 1.2.840.48018.1.2.2, the same mechanism as Windows 2000 wrote it, and later ones still offer it
constexpr std::string_view kMicrosoftKerberos = "\x2a\x86\x48\x82\xf7\x12\x01\x02\x02";
constexpr std::string_view kNtlm = "\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a";
constexpr std::string_view kNtlmMessage("NTLMSSP\0", 8);

constexpr unsigned char kInitialContextToken = der::Application(0);
constexpr std::string_view kApReq("\x01\x00", 2);  // token identifiers (RFC 4121, 4.1)
constexpr std::string_view kApRep("\x02\x00", 2);
constexpr char kReject = 2;  // of a negotiation

bool IsKerberos(std::string_view mechanism) {
  return mechanism == kKerberos || mechanism == kMicrosoftKerberos;
}

// Takes the framing off: the mechanism, and what is behind it.
bool Unframe(std::string_view token, std::string_view& mechanism, std::string_view& content) {
  Reader outer(token);
  if (!outer.Take(kInitialContextToken, content) || !outer.Empty()) return false;
  Reader inner(content);
  std::string_view whole;
  if (!inner.Take(der::kObjectIdentifier, mechanism, &whole)) return false;
  content.remove_prefix(whole.size());
  return true;
}

Kind KindOfOther(std::string_view mechanism) {
  return mechanism == kNtlm ? Kind::kNtlm : Kind::kOther;
}

// The request in a Kerberos token without its frame.
bool TakeRequest(std::string_view content, std::string_view& request) {
  if (content.substr(0, kApReq.size()) != kApReq) return false;
  request = content.substr(kApReq.size());
  return !request.empty();
}

// The token that a list or a later token has for Kerberos.
void ReadOffered(std::string_view token, InitialToken& result) {
  std::string_view mechanism;
  std::string_view kerberos;
  if (token.substr(0, kNtlmMessage.size()) == kNtlmMessage) {
    result.kind = Kind::kNtlm;
  } else if (Unframe(token, mechanism, kerberos) && mechanism == kKerberos &&
             TakeRequest(kerberos, result.request)) {
    result.kind = Kind::kKerberos;
  }
}

// NegTokenInit (RFC 4178, 4.2.1).
void ReadNegotiation(std::string_view content, InitialToken& result) {
  std::string_view init;
  Reader choice(content);
  if (!choice.TakeField(0, der::kSequence, init) || !choice.Empty()) return;
  Reader fields(init);
  std::string_view list;
  if (!fields.TakeField(0, der::kSequence, list, &result.mechanisms)) return;
  Reader mechanisms(list);
  std::string_view first;
  if (!mechanisms.Take(der::kObjectIdentifier, first)) return;
  std::string_view kerberos = IsKerberos(first) ? first : std::string_view();
  while (!mechanisms.Empty()) {
    std::string_view other;
    if (!mechanisms.Take(der::kObjectIdentifier, other)) return;
    if (kerberos.empty() && IsKerberos(other)) kerberos = other;
  }
  std::string_view flags;
  if (fields.NextIs(Context(1)) && !fields.TakeField(1, der::kBitString, flags)) return;
  std::string_view token;
  const bool sent = fields.NextIs(Context(2));
  if (sent && !fields.TakeField(2, der::kOctetString, token)) return;
  if (fields.NextIs(Context(3))) {
    if (!fields.TakeField(3, der::kOctetString, result.mic.emplace())) return;
  }
  if (!fields.Empty()) return;

  result.mechanism = kerberos;
  if (!IsKerberos(first)) {
    result.kind = KindOfOther(first);
  } else if (!sent) {
    result.kind = Kind::kNothingSent;
  } else {
    ReadOffered(token, result);
    if (result.kind != Kind::kKerberos) result.mechanism = {};  // it cannot be asked for once more
  }
}

}  // namespace

InitialToken ReadInitialToken(std::string_view token) {
  InitialToken result;
  if (token.empty()) {
    result.kind = Kind::kEmpty;
    return result;
  }
  if (token.substr(0, kNtlmMessage.size()) == kNtlmMessage) {
    result.kind = Kind::kNtlm;
    return result;
  }
  std::string_view mechanism;
  std::string_view content;
  if (!Unframe(token, mechanism, content)) return result;
  if (mechanism == kSpnego) {
    result.negotiated = true;
    ReadNegotiation(content, result);
  } else if (mechanism != kKerberos) {  // outside a list nobody uses the other identifier
    result.kind = KindOfOther(mechanism);
  } else if (TakeRequest(content, result.request)) {
    result.kind = Kind::kKerberos;
  }
  return result;
}

InitialToken ReadLaterToken(std::string_view token, std::string_view mechanisms) {
  InitialToken result;
  result.negotiated = true;
  result.mechanisms = mechanisms;
  Reader choice(token);
  std::string_view response;
  if (!choice.TakeField(1, der::kSequence, response) || !choice.Empty()) return result;
  Reader fields(response);
  std::string_view content;
  if (fields.NextIs(Context(0)) && (!fields.TakeField(0, der::kEnumerated, content) ||
                                    content.size() != 1 || content[0] == kReject)) {
    return result;
  }
  if (fields.NextIs(Context(1)) && !fields.TakeField(1, der::kObjectIdentifier, content)) {
    return result;
  }
  const bool sent = fields.NextIs(Context(2));
  std::string_view offered;
  if (sent && !fields.TakeField(2, der::kOctetString, offered)) return result;
  std::string_view mic;
  const bool has_mic = fields.NextIs(Context(3));
  if (has_mic && !fields.TakeField(3, der::kOctetString, mic)) return result;
  if (!fields.Empty()) return result;

  if (has_mic) result.mic = mic;
  if (!sent) {
    result.kind = Kind::kNothingSent;
  } else {
    ReadOffered(offered, result);
  }
  return result;
}

std::string ReplyTo(const InitialToken& token, std::string_view response, std::string_view mic,
                    NegotiationState state) {
  std::string kerberos;
  if (!response.empty()) {
    kerberos = der::Value(der::kObjectIdentifier, kKerberos);
    kerberos.append(kApRep).append(response);
    kerberos = der::Value(kInitialContextToken, kerberos);
  }
  if (!token.negotiated) return kerberos;

  const auto field = [](unsigned number, unsigned char tag, std::string_view content) {
    return der::Value(Context(number), der::Value(tag, content));
  };
  const char code = static_cast<char>(state);
  std::string answer = field(0, der::kEnumerated, {&code, 1});
  if (!token.mechanism.empty()) answer += field(1, der::kObjectIdentifier, token.mechanism);
  if (!kerberos.empty()) answer += field(2, der::kOctetString, kerberos);
  if (!mic.empty()) answer += field(3, der::kOctetString, mic);
  return der::Value(Context(1), der::Value(der::kSequence, answer));
}

}  // namespace tavrel::plus
