#include "Pac.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <type_traits>

#include "KrbSupport.h"
#include "Ndr.h"

namespace tavrel::plus {
namespace {

constexpr krb5_ui_4 kValidationInfo = KRB5_PAC_LOGON_INFO;
constexpr krb5_ui_4 kUpnDnsInfo = KRB5_PAC_UPN_DNS_INFO;
constexpr krb5_ui_4 kDelegationInfo = KRB5_PAC_DELEGATION_INFO;
constexpr krb5_ui_4 kAttributes = 17;
constexpr krb5_ui_4 kRequestor = 18;

constexpr std::uint32_t kHasExtraSids = 0x20;        // UserFlags
constexpr std::uint32_t kHasResourceGroups = 0x200;  // likewise
constexpr std::uint32_t kUpnIsMadeUp = 0x1;          // of UPN_DNS_INFO
constexpr std::uint32_t kUpnHasNameAndSid = 0x2;     // likewise
constexpr std::size_t kFileTimes = 6;

// The groups of `domain` that an array of GROUP_MEMBERSHIP names.
void TakeGroups(NdrReader& reader, bool present, std::uint32_t count, const Sid& domain,
                std::vector<GroupMembership>& groups) {
  count = reader.TakeArray(present, count, 8);
  groups.reserve(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t rid = reader.Take32();
    const std::uint32_t attributes = reader.Take32();
    const auto sid = domain.WithRid(rid);
    if (!sid) return reader.Fail();
    groups.push_back({*sid, attributes});
  }
}

// KERB_VALIDATION_INFO ([MS-PAC] 2.5): the structure first, then what its pointers point to, in
// their order.
const char* DecodeValidationInfo(std::string_view bytes, Authorization& result) {
  NdrReader reader = NdrReader::OfType(bytes);
  for (std::size_t i = 0; i < 2 * kFileTimes; ++i) {
    reader.Take32();
  }
  const NdrReader::Text name = reader.TakeText();
  const NdrReader::Text full_name = reader.TakeText();
  const NdrReader::Text unused[] = {
      // script, profile, home directory, its drive
      reader.TakeText(), reader.TakeText(), reader.TakeText(), reader.TakeText()};
  reader.Take16();  // logon count
  reader.Take16();  // bad password count
  const std::uint32_t user = reader.Take32();
  const std::uint32_t primary_group = reader.Take32();
  const std::uint32_t group_count = reader.Take32();
  const bool has_groups = reader.TakePointer();
  const std::uint32_t flags = reader.Take32();
  reader.TakeBytes(16);  // session key
  const NdrReader::Text server = reader.TakeText();
  const NdrReader::Text domain_name = reader.TakeText();
  const bool has_domain = reader.TakePointer();
  reader.TakeBytes(8);  // reserved
  result.account_flags = reader.Take32();
  for (int i = 0; i < 7; ++i) {
    reader.Take32();  // sub-authentication status, two times, failed logons, reserved
  }
  const std::uint32_t extra_count = reader.Take32();
  const bool has_extra = reader.TakePointer();
  const bool has_resource_domain = reader.TakePointer();
  const std::uint32_t resource_count = reader.Take32();
  const bool has_resource_groups = reader.TakePointer();
  if (!reader.Ok()) return "its validation information is cut off";
  if (!has_domain || user == 0) return "it names no user";

  result.logon_name = reader.TakeTextBody(name);
  result.full_name = reader.TakeTextBody(full_name);
  for (const NdrReader::Text& text : unused) {
    reader.TakeTextBody(text);
  }
  // The domain, which the groups are of, stands behind them.
  NdrReader groups = reader;
  reader.TakeBytes(8 * std::size_t{reader.TakeArray(has_groups, group_count, 8)});
  result.logon_server = reader.TakeTextBody(server);
  result.netbios_domain = reader.TakeTextBody(domain_name);
  result.domain = reader.TakeSidBody();
  TakeGroups(groups, has_groups, group_count, result.domain, result.groups);

  const std::uint32_t extras = reader.TakeArray(has_extra, extra_count, 8);
  result.extra_sids.reserve(extras);
  for (std::uint32_t i = 0; i < extras; ++i) {
    if (!reader.TakePointer()) reader.Fail();
    result.extra_sids.push_back({Sid(), reader.Take32()});
  }
  for (GroupMembership& extra : result.extra_sids) {
    extra.sid = reader.TakeSidBody();
  }
  const Sid resource_domain = has_resource_domain ? reader.TakeSidBody() : Sid();
  if (resource_count != 0 && !has_resource_domain) reader.Fail();
  TakeGroups(reader, has_resource_groups, resource_count, resource_domain, result.resource_groups);
  if (!reader.Ok() || !groups.Ok()) return "its validation information does not add up";

  const auto user_sid = result.domain.WithRid(user);
  if (!user_sid) return "its domain has too long an identifier";
  result.user = *user_sid;
  result.primary_group = *result.domain.WithRid(primary_group);
  if ((flags & kHasExtraSids) == 0) result.extra_sids.clear();
  if ((flags & kHasResourceGroups) == 0) result.resource_groups.clear();
  return nullptr;
}

// The part of a buffer that a length and an offset in it name. Nothing when it is not in there.
std::optional<std::string_view> TakePart(NdrReader& reader, std::string_view bytes) {
  const std::size_t length = reader.Take16();
  const std::size_t offset = reader.Take16();
  if (!reader.Ok() || offset > bytes.size() || length > bytes.size() - offset) return std::nullopt;
  return bytes.substr(offset, length);
}

// UPN_DNS_INFO ([MS-PAC] 2.10).
const char* DecodeUpnDnsInfo(std::string_view bytes, Authorization& result) {
  NdrReader reader(bytes);
  const auto upn = TakePart(reader, bytes);
  const auto dns_domain = TakePart(reader, bytes);
  const std::uint32_t flags = reader.Take32();
  const auto upn_text = FromUtf16(upn.value_or(std::string_view()));
  const auto dns_text = FromUtf16(dns_domain.value_or(std::string_view()));
  if (!reader.Ok() || !upn || !dns_domain || !upn_text || !dns_text) {
    return "its UPN and DNS information does not add up";
  }
  result.upn = *upn_text;
  result.dns_domain = *dns_text;
  result.upn_is_made_up = (flags & kUpnIsMadeUp) != 0;
  if ((flags & kUpnHasNameAndSid) == 0) return nullptr;

  const auto name = TakePart(reader, bytes);
  const auto sid_bytes = TakePart(reader, bytes);
  const auto name_text = FromUtf16(name.value_or(std::string_view()));
  if (!name || !name_text || !sid_bytes) return "its UPN and DNS information does not add up";
  const auto sid = Sid::FromBytes(*sid_bytes);
  if (!sid || *sid != result.user) return "its parts name two users";
  return nullptr;
}

// S4U_DELEGATION_INFO ([MS-PAC] 2.9).
const char* DecodeDelegationInfo(std::string_view bytes, Authorization& result) {
  NdrReader reader = NdrReader::OfType(bytes);
  const NdrReader::Text target = reader.TakeText();
  const std::uint32_t count = reader.Take32();
  const bool present = reader.TakePointer();
  Delegation& delegation = result.delegation.emplace();
  delegation.target = reader.TakeTextBody(target);
  std::vector<NdrReader::Text> services(reader.TakeArray(present, count, 8));
  for (NdrReader::Text& service : services) {
    service = reader.TakeText();
  }
  for (const NdrReader::Text& service : services) {
    delegation.through.push_back(reader.TakeTextBody(service));
  }
  return reader.Ok() ? nullptr : "its delegation information does not add up";
}

// PAC_ATTRIBUTES_INFO ([MS-PAC] 2.14): the number of bits, then these.
const char* DecodeAttributes(std::string_view bytes, Authorization& result) {
  NdrReader reader(bytes);
  const std::uint32_t bits = reader.Take32();
  const std::uint32_t flags = reader.Take32();
  if (!reader.Ok() || bits == 0) return "its attributes do not add up";
  result.pac_attributes = flags;
  return nullptr;
}

// PAC_REQUESTOR ([MS-PAC] 2.15).
const char* DecodeRequestor(std::string_view bytes, Authorization& result) {
  result.requestor = Sid::FromBytes(bytes);
  if (!result.requestor || *result.requestor != result.user) return "another one asked for it";
  return nullptr;
}

// A buffer of a PAC.
class Buffer {
 public:
  Buffer(krb5_context context, krb5_pac pac, krb5_ui_4 type)
      : context_(context), code_(krb5_pac_get_buffer(context, pac, type, &data_)) {}
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  ~Buffer() { krb5_free_data_contents(context_, &data_); }

  // It is there, but there is no memory for it.
  bool IsLost() const { return code_ != 0 && code_ != ENOENT; }
  // Without an address when the PAC has none of that type.
  std::string_view View() const {
    if (code_ != 0) return {};
    return data_.length != 0 ? tavrel::View(data_) : "";
  }

 private:
  krb5_context context_;
  krb5_data data_{};
  krb5_error_code code_;
};

// True when no type of buffer is there twice, whichever of the two the library would return.
bool EachOnce(krb5_context context, krb5_pac pac) {
  std::size_t count = 0;
  krb5_ui_4* types = nullptr;
  if (krb5_pac_get_types(context, pac, &count, &types) != 0) return false;
  const std::unique_ptr<krb5_ui_4, decltype(&std::free)> owned(types, std::free);
  std::sort(types, types + count);
  return std::adjacent_find(types, types + count) == types + count;
}

}  // namespace

const char* DecodePac(const PacBuffers& buffers, Authorization& result) {
  using Decode = const char* (*)(std::string_view, Authorization&);
  const struct {
    std::string_view bytes;
    Decode decode;
  } others[] = {{buffers.upn_dns_info, DecodeUpnDnsInfo},
                {buffers.delegation_info, DecodeDelegationInfo},
                {buffers.attributes, DecodeAttributes},
                {buffers.requestor, DecodeRequestor}};
  const char* wrong = DecodeValidationInfo(buffers.validation_info, result);
  for (const auto& other : others) {
    const bool there = other.bytes.data() != nullptr;
    if (wrong == nullptr && there) wrong = other.decode(other.bytes, result);
  }
  return wrong;
}

const char* ReadPac(krb5_context context, const krb5_data& bytes, krb5_const_principal client,
                    krb5_timestamp auth_time, const krb5_keyblock& key, Authorization& result) {
  krb5_pac pac = nullptr;
  if (krb5_pac_parse(context, bytes.data, bytes.length, &pac) != 0) return "it cannot be parsed";
  const std::unique_ptr<std::remove_pointer_t<krb5_pac>, KrbFree<krb5_pac_free>> owned(pac,
                                                                                       {context});
  if (krb5_pac_verify(context, pac, auth_time, client, &key, nullptr) != 0) {
    return "it is not this client's, or not signed with the service's key";
  }
  if (!EachOnce(context, pac)) return "it has two parts of one kind";
  const Buffer validation_info(context, pac, kValidationInfo);
  const Buffer upn_dns_info(context, pac, kUpnDnsInfo);
  const Buffer delegation_info(context, pac, kDelegationInfo);
  const Buffer attributes(context, pac, kAttributes);
  const Buffer requestor(context, pac, kRequestor);
  for (const Buffer* buffer :
       {&validation_info, &upn_dns_info, &delegation_info, &attributes, &requestor}) {
    if (buffer->IsLost()) return "a part of it cannot be read";
  }
  return DecodePac({validation_info.View(), upn_dns_info.View(), delegation_info.View(),
                    attributes.View(), requestor.View()},
                   result);
}

}  // namespace tavrel::plus
