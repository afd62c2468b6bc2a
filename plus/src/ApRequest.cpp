#include "ApRequest.h"

#include <algorithm>
#include <limits>
#include <string>

#include "Der.h"

namespace tavrel::plus {
namespace {

using der::Reader;

constexpr std::int32_t kVersion = 5;
constexpr std::int32_t kApReqType = 14;
constexpr std::size_t kMostComponents = 32;
constexpr std::size_t kMostMicroseconds = 3;       // bytes
constexpr std::int32_t kMostTransitedType = 0xFF;  // what libkrb5 reads

// Types of authorization data (RFC 4120, 7.5.4; [MS-KILE] 2.2).
constexpr std::int32_t kIfRelevant = 1;
constexpr std::int32_t kPac = 128;
constexpr std::int32_t kEnctypesOfClient = 129;  // for a reply with a key of another type
constexpr std::int32_t kTokenRestrictions = 141;
constexpr std::int32_t kLocal = 142;
constexpr std::int32_t kApOptions = 143;

constexpr char kBindsChannel = 0x40;  // of the second byte of KERB_AP_OPTIONS ([MS-KILE] 3.2.5.8)

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

bool TakeName(Reader& fields, unsigned number, std::vector<std::string>& components,
              std::int32_t& type) {
  std::string_view name;
  if (!fields.TakeField(number, der::kSequence, name)) return false;
  Reader parts(name);
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
  if (parts.NextIs(der::Context(1)) && !parts.TakeField(1, data.key_version.emplace()))
    return false;
  return parts.TakeField(2, der::kOctetString, data.ciphertext) && parts.Empty();
}

bool ReadTicket(std::string_view ticket, ApRequest& request) {
  Reader outer(ticket);
  std::string_view content;
  if (!outer.Take(der::kSequence, content) || !outer.Empty()) return false;
  Reader fields(content);
  std::string_view realm;
  EncryptedData sealed;
  std::int32_t type = 0;
  if (!TakeVersion(fields) || !fields.TakeField(1, der::kGeneralString, realm) ||
      !TakeName(fields, 2, request.service.components, type) || !TakeEncrypted(fields, 3, sealed) ||
      !fields.Empty()) {
    return false;
  }
  request.service.realm = realm;
  request.enctype = sealed.enctype;
  request.key_version = sealed.key_version;
  request.ticket = sealed.ciphertext;
  return true;
}

// The fields of a sealed message.
bool TakeMessage(std::string_view plain, unsigned number, std::string_view& fields) {
  Reader outer(plain);
  std::string_view application;
  if (!outer.Take(der::Application(number), application)) return false;
  Reader inner(application);
  return inner.Take(der::kSequence, fields) && inner.Empty();
}

// The content of a sequence of a type and bytes.
bool ReadTyped(std::string_view content, std::int32_t& type, std::string_view& bytes) {
  Reader parts(content);
  return parts.TakeField(0, type) && parts.TakeField(1, der::kOctetString, bytes) && parts.Empty();
}

bool TakeTyped(Reader& fields, unsigned number, std::string_view& bytes,
               std::int32_t* type = nullptr, std::string_view* whole = nullptr) {
  std::string_view content;
  std::int32_t unused = 0;
  return fields.TakeField(number, der::kSequence, content, whole) &&
         ReadTyped(content, type != nullptr ? *type : unused, bytes);
}

bool TakeKey(Reader& fields, unsigned number, SealedKey& key) {
  return TakeTyped(fields, number, key.bytes, &key.enctype, &key.whole);
}

bool TakeClient(Reader& fields, unsigned number, Principal& client, std::int32_t& type) {
  std::string_view realm;
  if (!fields.TakeField(number, der::kGeneralString, realm)) return false;
  client.realm = realm;
  return TakeName(fields, number + 1, client.components, type);
}

// The value of decimal digits.
std::optional<std::int64_t> ReadDigits(std::string_view text) {
  std::int64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = 10 * value + (c - '0');
  }
  return value;
}

// "YYYYMMDDHHMMSSZ" (RFC 4120, 5.2.3), in seconds since 1970. Only times of which libkrb5, with its
// 32 bits, does not make another one, or none.
bool TakeTime(Reader& fields, unsigned number, std::int64_t& seconds,
              std::string_view* whole = nullptr) {
  std::string_view text;
  if (!fields.TakeField(number, der::kGeneralizedTime, text, whole) || text.size() != 15 ||
      text.back() != 'Z' || !ReadDigits(text.substr(0, 14))) {
    return false;
  }
  const auto digits = [&](std::size_t at, std::size_t count) {
    return *ReadDigits(text.substr(at, count));
  };
  const std::int64_t month = digits(4, 2);
  const std::int64_t day = digits(6, 2);
  const std::int64_t hour = digits(8, 2);
  const std::int64_t minute = digits(10, 2);
  const std::int64_t second = digits(12, 2);
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) {
    return false;
  }
  // Years from March on, so that a leap day ends one.
  const std::int64_t year = digits(0, 4) - (month < 3 ? 1 : 0);
  const std::int64_t months = (month + 9) % 12;
  constexpr std::int64_t kDaysTo1970 = 719468;  // since 1 March of the year 0
  const std::int64_t days = 365 * year + year / 4 - year / 100 + year / 400 +
                            (153 * months + 2) / 5 + day - 1 - kDaysTo1970;
  seconds = ((days * 24 + hour) * 60 + minute) * 60 + second;
  return seconds > 0 && seconds <= std::numeric_limits<std::uint32_t>::max();
}

// RFC 4537, 3: a sequence of encryption types.
bool IsEnctypeList(std::string_view bytes) {
  Reader outer(bytes);
  std::string_view content;
  if (!outer.Take(der::kSequence, content) || !outer.Empty()) return false;
  Reader types(content);
  while (types.Take(der::kInteger, bytes)) {
  }
  return types.Empty();
}

// A list of elements of authorization data.
struct DataList {
  std::string_view elements;
  bool if_relevant = false;
};

// An element of `list`. The list that one can have in it goes to `lists`.
bool ReadElement(const DataList& list, std::int32_t type, std::string_view bytes, AuthData& data,
                 std::vector<DataList>& lists) {
  switch (type) {
    case kIfRelevant: {
      Reader inside(bytes);
      DataList& inner = lists.emplace_back();
      inner.if_relevant = true;
      return inside.Take(der::kSequence, inner.elements) && inside.Empty();
    }
    case kPac: data.pacs.push_back(bytes); return true;
    case kApOptions:
      if (bytes.size() != sizeof(std::uint32_t)) return false;
      if ((bytes[1] & kBindsChannel) != 0) data.binds_channel = true;
      return true;
    case kEnctypesOfClient: return IsEnctypeList(bytes);
    case kTokenRestrictions:
    case kLocal: return true;
    default: (list.if_relevant ? data.others : data.critical) = true; return true;
  }
}

// Optional authorization data.
bool TakeAuthData(Reader& fields, unsigned number, AuthData& data) {
  if (fields.Empty()) return true;
  DataList list;
  if (!fields.TakeField(number, der::kSequence, list.elements)) return false;
  std::vector<DataList> lists = {list};
  while (!lists.empty()) {
    list = lists.back();
    lists.pop_back();
    Reader elements(list.elements);
    while (!elements.Empty()) {
      std::string_view element;
      std::int32_t type = 0;
      std::string_view bytes;
      if (!elements.Take(der::kSequence, element) || !ReadTyped(element, type, bytes) ||
          !ReadElement(list, type, bytes, data, lists)) {
        return false;
      }
    }
  }
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
  EncryptedData authenticator;
  if (!TakeVersion(fields) || !fields.TakeField(1, type) || type != kApReqType ||
      !TakeFlags(fields, 2, request.options) ||
      !fields.TakeField(3, der::Application(1), request.whole_ticket) ||
      !ReadTicket(request.whole_ticket, request) || !TakeEncrypted(fields, 4, authenticator) ||
      !fields.Empty()) {
    return std::nullopt;
  }
  request.authenticator_enctype = authenticator.enctype;
  request.authenticator = authenticator.ciphertext;
  return request;
}

std::optional<TicketPart> ReadTicketPart(std::string_view plain) {
  TicketPart ticket;
  std::string_view content;
  if (!TakeMessage(plain, 3, content)) return std::nullopt;
  Reader fields(content);
  std::string_view unused;
  std::int32_t transited_type = 0;
  if (!TakeFlags(fields, 0, ticket.flags) || !TakeKey(fields, 1, ticket.session) ||
      !TakeClient(fields, 2, ticket.client, ticket.client_type) ||
      !TakeTyped(fields, 4, ticket.transited, &transited_type) || transited_type < 0 ||
      transited_type > kMostTransitedType || !TakeTime(fields, 5, ticket.auth_time)) {
    return std::nullopt;
  }
  ticket.start_time = ticket.auth_time;
  if (fields.NextIs(der::Context(6)) && !TakeTime(fields, 6, ticket.start_time)) {
    return std::nullopt;
  }
  std::int64_t renewable_until = 0;
  if (!TakeTime(fields, 7, ticket.end_time) ||
      (fields.NextIs(der::Context(8)) && !TakeTime(fields, 8, renewable_until)) ||
      (fields.NextIs(der::Context(9)) && !fields.Take(der::Context(9), unused)) ||  // addresses
      !TakeAuthData(fields, 10, ticket.data) || !fields.Empty()) {
    return std::nullopt;
  }
  return ticket;
}

std::optional<Authenticator> ReadAuthenticator(std::string_view plain) {
  Authenticator authenticator;
  std::string_view content;
  if (!TakeMessage(plain, 2, content)) return std::nullopt;
  Reader fields(content);
  std::int32_t name_type = 0;
  if (!TakeVersion(fields) || !TakeClient(fields, 1, authenticator.client, name_type)) {
    return std::nullopt;
  }
  if (fields.NextIs(der::Context(3)) &&
      !TakeTyped(fields, 3, authenticator.checksum, &authenticator.checksum_type.emplace())) {
    return std::nullopt;
  }
  std::string_view microseconds;
  if (!fields.TakeField(4, der::kInteger, microseconds, &authenticator.made_microseconds) ||
      microseconds.empty() || microseconds.size() > kMostMicroseconds ||
      !TakeTime(fields, 5, authenticator.made, &authenticator.made_time)) {
    return std::nullopt;
  }
  if (fields.NextIs(der::Context(6)) && !TakeKey(fields, 6, authenticator.subkey.emplace())) {
    return std::nullopt;
  }
  if ((fields.NextIs(der::Context(7)) && !fields.TakeField(7, authenticator.sequence)) ||
      !TakeAuthData(fields, 8, authenticator.data) || !fields.Empty()) {
    return std::nullopt;
  }
  return authenticator;
}

Secret ReplyPart(const Authenticator& authenticator, std::uint32_t sequence) {
  // Positive, and no byte too many.
  std::string number(1, static_cast<char>(sequence >> 24U & 0x7FU));
  for (unsigned shift = 24; shift != 0; shift -= 8) {
    number += static_cast<char>(sequence >> (shift - 8) & 0xFFU);
  }
  const std::string time = der::Value(der::Context(0), authenticator.made_time);
  const std::string microseconds = der::Value(der::Context(1), authenticator.made_microseconds);
  const std::string last = der::Value(der::Context(3), der::Value(der::kInteger, number));
  const std::string_view key = authenticator.subkey ? authenticator.subkey->whole : "";
  // All of it is short enough for lengths of one byte. No copy of the key is left behind.
  const auto length = [](std::size_t size) { return static_cast<char>(size); };
  const std::string key_frame =
      key.empty() ? "" : std::string{static_cast<char>(der::Context(2)), length(key.size())};
  const std::size_t size =
      time.size() + microseconds.size() + key_frame.size() + key.size() + last.size();
  const std::string frame{static_cast<char>(der::Application(27)), length(size + 2),
                          static_cast<char>(der::kSequence), length(size)};
  Secret part(frame.size() + size);
  char* end = part.Data();
  const std::string_view pieces[] = {frame, time, microseconds, key_frame, key, last};
  for (const std::string_view piece : pieces) {
    end = std::copy(piece.begin(), piece.end(), end);
  }
  return part;
}

std::string ApReply(std::int32_t enctype, std::string_view sealed_part) {
  const auto field = [](unsigned number, unsigned char tag, std::string_view content) {
    return der::Value(der::Context(number), der::Value(tag, content));
  };
  const char type = static_cast<char>(enctype);  // all that are known are below 128
  const std::string sealed =
      field(0, der::kInteger, {&type, 1}) + field(2, der::kOctetString, sealed_part);
  return der::Value(
      der::Application(15),
      der::Value(der::kSequence, field(0, der::kInteger, "\x05") + field(1, der::kInteger, "\x0F") +
                                     field(2, der::kSequence, sealed)));
}

}  // namespace tavrel::plus
