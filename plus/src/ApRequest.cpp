#include "ApRequest.h"

#include <string>

#include "Der.h"

namespace tavrel::plus {
namespace {

using der::Reader;

constexpr std::int32_t kVersion = 5;
constexpr std::int32_t kApReqType = 14;
constexpr std::size_t kMostComponents = 32;

bool TakeVersion(Reader& fields) {
  std::int32_t version = 0;
  return fields.TakeField(0, version) && version == kVersion;
}

// A bit string of 32 flags, as Kerberos has them (RFC 4120, 5.2.8).
bool TakeFlags(Reader& fields, unsigned number, std::uint32_t& flags) {
  std::string_view bits;
  if (!fields.TakeField(number, der::kBitString, bits)) return false;
  if (bits.size() != 5 || bits[0] != 0) return false;
  flags = 0;
  for (const char c : bits.substr(1)) {
    flags = flags << 8U | static_cast<unsigned char>(c);
  }
  return true;
}

bool TakeName(Reader& fields, unsigned number, std::vector<std::string>& components) {
  std::string_view name;
  if (!fields.TakeField(number, der::kSequence, name)) return false;
  Reader parts(name);
  std::int32_t type = 0;
  std::string_view texts;
  if (!parts.TakeField(0, type) || !parts.TakeField(1, der::kSequence, texts) || !parts.Empty()) {
    return false;
  }
  Reader each(texts);
  while (!each.Empty()) {
    std::string_view text;
    if (!each.Take(der::kGeneralString, text) || components.size() == kMostComponents) return false;
    components.emplace_back(text);
  }
  return true;
}

struct EncryptedData {
  std::int32_t enctype = 0;
  std::optional<std::uint32_t> key_version;
  std::string_view ciphertext;
};

bool TakeEncrypted(Reader& fields, unsigned number, EncryptedData& data) {
  std::string_view content;
  if (!fields.TakeField(number, der::kSequence, content)) return false;
  Reader parts(content);
  if (!parts.TakeField(0, data.enctype)) return false;
  if (parts.NextIs(der::Context(1))) {
    std::string_view unsigned32;
    Reader ahead = parts;
    std::int32_t version = 0;
    if (ahead.TakeField(1, version)) {  // one above 2^31 is written as negative by some
      data.key_version = static_cast<std::uint32_t>(version);
      parts = ahead;
    } else if (parts.TakeField(1, der::kInteger, unsigned32) && unsigned32.size() == 5 &&
               unsigned32[0] == 0 && (static_cast<unsigned char>(unsigned32[1]) & 0x80U) != 0) {
      std::uint32_t bits = 0;
      for (const char c : unsigned32.substr(1)) {
        bits = bits << 8U | static_cast<unsigned char>(c);
      }
      data.key_version = bits;
    } else {
      return false;
    }
  }
  return parts.TakeField(2, der::kOctetString, data.ciphertext) && parts.Empty();
}

bool ReadTicket(std::string_view ticket, ApRequest& request) {
  Reader outer(ticket);
  std::string_view content;
  if (!outer.Take(der::kSequence, content) || !outer.Empty()) return false;
  Reader fields(content);
  std::string_view realm;
  EncryptedData sealed;
  if (!TakeVersion(fields) || !fields.TakeField(1, der::kGeneralString, realm) ||
      !TakeName(fields, 2, request.service.components) || !TakeEncrypted(fields, 3, sealed) ||
      !fields.Empty()) {
    return false;
  }
  request.service.realm = realm;
  request.enctype = sealed.enctype;
  request.key_version = sealed.key_version;
  request.ticket = sealed.ciphertext;
  return true;
}

}  // namespace

std::optional<ApRequest> ReadApRequest(std::string_view bytes) {
  Reader outer(bytes);
  std::string_view application;
  if (!outer.Take(der::Application(14), application) || !outer.Empty()) return std::nullopt;
  Reader inner(application);
  std::string_view content;
  if (!inner.Take(der::kSequence, content) || !inner.Empty()) return std::nullopt;

  Reader fields(content);
  ApRequest request;
  request.whole = bytes;
  std::int32_t type = 0;
  std::string_view ticket;
  EncryptedData authenticator;
  if (!TakeVersion(fields) || !fields.TakeField(1, type) || type != kApReqType ||
      !TakeFlags(fields, 2, request.options) || !fields.TakeField(3, der::Application(1), ticket) ||
      !ReadTicket(ticket, request) || !TakeEncrypted(fields, 4, authenticator) || !fields.Empty()) {
    return std::nullopt;
  }
  request.authenticator = authenticator.ciphertext;
  return request;
}

}  // namespace tavrel::plus
