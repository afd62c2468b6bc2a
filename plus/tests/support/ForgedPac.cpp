#include "ForgedPac.h"

#include <krb5.h>

#include <stdexcept>

namespace tavrel::plus::tests {

using tavrel::tests::Der;
using tavrel::tests::ForgedTicket;
using tavrel::tests::ServiceKey;

namespace {

void Check(krb5_error_code code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": error " + std::to_string(code)));
}

Sid Parsed(const std::string& text) {
  return Sid::FromText(text).value();
}

void PutGroups(NdrWriter& writer, const Rids& groups) {
  if (groups.empty()) return;
  writer.Put32(groups.size());
  for (const auto& [rid, attributes] : groups) {
    writer.Put32(rid).Put32(attributes);
  }
}

}  // namespace

std::string Utf16(const std::string& ascii) {
  std::string text;
  for (const char c : ascii) {
    (text += c) += '\0';
  }
  return text;
}

NdrWriter& NdrWriter::Put(std::size_t size, std::uint64_t value) {
  while (bytes_.size() % size != 0) {
    bytes_ += '\0';
  }
  for (std::size_t i = 0; i < size; ++i) {
    bytes_ += static_cast<char>(value >> 8 * i & 0xFF);
  }
  return *this;
}

NdrWriter& NdrWriter::PutBytes(const std::string& bytes) {
  bytes_ += bytes;
  return *this;
}

NdrWriter& NdrWriter::PutPointer(bool present) {
  return Put32(present ? 0x00020000 + 4 * ++pointers_ : 0);
}

NdrWriter& NdrWriter::PutText(const std::string& text) {
  return Put16(2 * text.size()).Put16(2 * text.size()).PutPointer(!text.empty());
}

NdrWriter& NdrWriter::PutTextBody(const std::string& text) {
  if (text.empty()) return *this;
  return Put32(text.size()).Put32(0).Put32(text.size()).PutBytes(Utf16(text));
}

NdrWriter& NdrWriter::PutSidBody(const Sid& sid) {
  const std::string bytes = sid.ToBytes();
  return Put32(static_cast<unsigned char>(bytes[1])).PutBytes(bytes);
}

std::string NdrWriter::Type() const {
  NdrWriter whole;
  whole.Put8(1).Put8(0x10).Put16(8).Put32(0xCCCCCCCC);
  whole.Put32(bytes_.size() + 4).Put32(0).Put32(0x00020000);
  return whole.Bytes() + bytes_;
}

std::string ValidationInfo(const ForgedUser& user) {
  NdrWriter writer;
  for (int i = 0; i < 12; ++i) {
    writer.Put32(i % 2 == 0 ? 0xFFFFFFFF : 0x7FFFFFFF);
  }
  writer.PutText(user.logon_name).PutText(user.full_name);
  for (int i = 0; i < 4; ++i) {
    writer.PutText("");
  }
  writer.Put16(1).Put16(0).Put32(user.rid).Put32(user.primary_group);
  writer.Put32(user.groups.size()).PutPointer(!user.groups.empty());
  writer.Put32((user.extra_sids.empty() ? 0 : 0x20) | (user.resource_groups.empty() ? 0 : 0x200));
  writer.PutBytes(std::string(16, '\0')).PutText(user.logon_server).PutText(user.netbios_domain);
  writer.PutPointer(!user.domain.empty()).PutBytes(std::string(8, '\0')).Put32(user.account_flags);
  for (int i = 0; i < 7; ++i) {
    writer.Put32(0);
  }
  writer.Put32(user.extra_sids.size()).PutPointer(!user.extra_sids.empty());
  writer.PutPointer(!user.resource_domain.empty());
  writer.Put32(user.resource_groups.size()).PutPointer(!user.resource_groups.empty());

  writer.PutTextBody(user.logon_name).PutTextBody(user.full_name);
  PutGroups(writer, user.groups);
  writer.PutTextBody(user.logon_server).PutTextBody(user.netbios_domain);
  if (!user.domain.empty()) writer.PutSidBody(Parsed(user.domain));
  if (!user.extra_sids.empty()) writer.Put32(user.extra_sids.size());
  for (const auto& [sid, attributes] : user.extra_sids) {
    writer.PutPointer(!sid.empty()).Put32(attributes);
  }
  for (const auto& [sid, attributes] : user.extra_sids) {
    if (!sid.empty()) writer.PutSidBody(Parsed(sid));
  }
  if (!user.resource_domain.empty()) writer.PutSidBody(Parsed(user.resource_domain));
  PutGroups(writer, user.resource_groups);
  return writer.Type();
}

std::string UpnDnsInfo(const std::string& upn, const std::string& dns_domain, std::uint32_t flags,
                       const std::string& name, const std::string& sid) {
  const std::string parts[] = {Utf16(upn), Utf16(dns_domain), Utf16(name),
                               sid.empty() ? "" : Parsed(sid).ToBytes()};
  std::size_t offset = 24;
  NdrWriter writer;
  std::string content;
  for (std::size_t i = 0; i < std::size(parts); ++i) {
    writer.Put16(parts[i].size()).Put16(offset);
    if (i == 1) writer.Put32(flags);
    content += parts[i];
    offset += parts[i].size();
  }
  writer.Put32(0);
  return writer.Bytes() + content;
}

std::string DelegationInfo(const std::string& target, const std::vector<std::string>& through) {
  NdrWriter writer;
  writer.PutText(target).Put32(through.size()).PutPointer(!through.empty()).PutTextBody(target);
  if (!through.empty()) writer.Put32(through.size());
  for (const std::string& service : through) {
    writer.PutText(service);
  }
  for (const std::string& service : through) {
    writer.PutTextBody(service);
  }
  return writer.Type();
}

PacParts PartsOf(const ForgedUser& user) {
  const std::string sid = user.domain + "-" + std::to_string(user.rid);
  return {{1, ValidationInfo(user)},
          {12, UpnDnsInfo(user.logon_name + "@corp.example.com", "CORP.EXAMPLE.COM", 2,
                          user.logon_name, sid)},
          {17, NdrWriter().Put32(2).Put32(1).Bytes()},
          {18, Parsed(sid).ToBytes()}};
}

std::string SignedPac(const ForgedTicket& ticket, const PacParts& parts) {
  krb5_context context = nullptr;
  Check(krb5_init_context(&context), "context");
  // Parsed, since the library does not add a part of a type that is there.
  NdrWriter head;
  head.Put32(parts.size()).Put32(0);
  std::string contents;
  for (const auto& [type, content] : parts) {
    head.Put32(type).Put32(content.size()).Put(8, 8 + 16 * parts.size() + contents.size());
    contents += content;
    contents.resize((contents.size() + 7) / 8 * 8);
  }
  const std::string parsed = head.Bytes() + contents;
  krb5_pac pac = nullptr;
  Check(krb5_pac_parse(context, parsed.data(), parsed.size(), &pac), "PAC");
  std::string name;
  for (const std::string& component : ticket.client) {
    name += (name.empty() ? "" : "/") + component;
  }
  krb5_principal client = nullptr;
  Check(krb5_parse_name(context, (name + "@" + ticket.client_realm).c_str(), &client), "client");
  krb5_keyblock key = ServiceKey(context, ticket);
  krb5_data made{};
  Check(krb5_pac_sign(context, pac, ticket.authtime, client, &key, &key, &made), "signature");
  std::string bytes(made.data, made.length);
  krb5_free_data_contents(context, &made);
  krb5_free_keyblock_contents(context, &key);
  krb5_free_principal(context, client);
  krb5_pac_free(context, pac);
  krb5_free_context(context);
  return bytes;
}

std::string AuthorizationData(std::int32_t type, const std::string& content) {
  using tavrel::tests::der::Field;
  using tavrel::tests::der::Integer;
  const auto element = [](std::int32_t of_type, const std::string& bytes) {
    return Der(0x30, Der(0x30, Field(0, Integer(of_type)) + Field(1, Der(0x04, bytes))));
  };
  return element(KRB5_AUTHDATA_IF_RELEVANT, element(type, content));
}

ForgedTicket WithPac(ForgedTicket ticket, const PacParts& parts) {
  ticket.authorization_data = AuthorizationData(KRB5_AUTHDATA_WIN2K_PAC, SignedPac(ticket, parts));
  return ticket;
}

}  // namespace tavrel::plus::tests
