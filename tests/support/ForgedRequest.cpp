#include "ForgedRequest.h"

#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "KrbFree.h"

namespace tavrel::tests {

const std::string kSpnegoOid = "\x2b\x06\x01\x05\x05\x02";
const std::string kKerberosOid = "\x2a\x86\x48\x86\xf7\x12\x01\x02\x02";
const std::string kMicrosoftKerberosOid = "\x2a\x86\x48\x82\xf7\x12\x01\x02\x02";
const std::string kNtlmOid = "\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a";

namespace {

constexpr krb5_cksumtype kGssChecksum = 0x8003;

constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kBitString = 0x03;
constexpr unsigned char kOctetString = 0x04;
constexpr unsigned char kObjectIdentifier = 0x06;
constexpr unsigned char kGeneralizedTime = 0x18;
constexpr unsigned char kGeneralString = 0x1b;
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kApplication = 0x60;  // constructed, as all of them are here
constexpr unsigned char kContext = 0xa0;      // likewise

using der::BitString;
using der::Field;
using der::Integer;
using der::PrincipalName;
using der::Time;

using Context = std::unique_ptr<std::remove_pointer_t<krb5_context>, decltype(&krb5_free_context)>;
using Principal =
    std::unique_ptr<std::remove_pointer_t<krb5_principal>, KrbFree<krb5_free_principal>>;
using Key = std::unique_ptr<krb5_keyblock, KrbFree<krb5_free_keyblock_contents>>;
using Data = std::unique_ptr<krb5_data, KrbFree<krb5_free_data_contents>>;
using AuthContext =
    std::unique_ptr<std::remove_pointer_t<krb5_auth_context>, KrbFree<krb5_auth_con_free>>;

void Check(krb5_error_code code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": error " + std::to_string(code)));
}

krb5_data View(std::string& text) {
  krb5_data data{};
  data.length = static_cast<unsigned int>(text.size());
  data.data = text.data();
  return data;
}

}  // namespace

std::string Der(unsigned char tag, std::string_view content) {
  std::string value(1, static_cast<char>(tag));
  if (content.size() < 0x80) {
    value.push_back(static_cast<char>(content.size()));
  } else {
    std::string length;
    for (std::size_t rest = content.size(); rest != 0; rest >>= 8)
      length.insert(length.begin(), static_cast<char>(rest & 0xff));
    value.push_back(static_cast<char>(0x80 | length.size()));
    value += length;
  }
  return value.append(content);
}

namespace der {

// A field [number] of a sequence.
std::string Field(unsigned char number, std::string_view value) {
  return Der(static_cast<unsigned char>(kContext | number), value);
}

std::string Integer(std::int64_t value) {
  std::string content;
  do {
    content.insert(content.begin(), static_cast<char>(value & 0xff));
    value >>= 8;
  } while (!(value == 0 && (content[0] & 0x80) == 0) && !(value == -1 && (content[0] & 0x80) != 0));
  return Der(kInteger, content);
}

std::string BitString(std::uint32_t bits) {
  std::string content(1, '\0');  // no unused bits
  for (int shift = 24; shift >= 0; shift -= 8)
    content.push_back(static_cast<char>(bits >> shift & 0xff));
  return Der(kBitString, content);
}

// libkrb5 keeps the years 2038 to 2106 in what is negative as a signed number.
std::string Time(krb5_timestamp timestamp) {
  const std::time_t seconds = static_cast<std::uint32_t>(timestamp);
  std::tm parts{};
  char text[16];
  gmtime_r(&seconds, &parts);
  return Der(kGeneralizedTime, {text, std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &parts)});
}

std::string PrincipalName(const std::vector<std::string>& components) {
  std::string names;
  for (const std::string& component : components)
    names += Der(kGeneralString, component);
  return Der(kSequence, Field(0, Integer(KRB5_NT_PRINCIPAL)) + Field(1, Der(kSequence, names)));
}

}  // namespace der

std::string EncTicketPart(const ForgedTicket& ticket, const krb5_keyblock& session) {
  const std::string_view key(reinterpret_cast<const char*>(session.contents), session.length);
  const std::string encryption_key =
      Der(kSequence, Field(0, Integer(session.enctype)) + Field(1, Der(kOctetString, key)));
  const std::string transited =
      Der(kSequence, Field(0, Integer(0)) + Field(1, Der(kOctetString, "")));

  std::string part = Field(0, BitString(static_cast<std::uint32_t>(ticket.flags)));
  part += Field(1, encryption_key);
  part += Field(2, Der(kGeneralString, ticket.client_realm));
  part += Field(3, PrincipalName(ticket.client));
  part += Field(4, transited);
  part += Field(5, Time(ticket.authtime));
  if (ticket.starttime != 0) part += Field(6, Time(ticket.starttime));
  part += Field(7, Time(ticket.endtime));
  if (ticket.renew_till != 0) part += Field(8, Time(ticket.renew_till));
  if (!ticket.authorization_data.empty()) part += Field(10, ticket.authorization_data);
  return Der(kApplication | 3, Der(kSequence, part));
}

std::string Encrypt(krb5_context context, const krb5_keyblock& key, krb5_keyusage usage,
                    std::string plain) {
  std::size_t length = 0;
  Check(krb5_c_encrypt_length(context, key.enctype, plain.size(), &length), "encrypt");
  std::string cipher(length, '\0');
  krb5_enc_data sealed{};
  sealed.ciphertext = View(cipher);
  const krb5_data input = View(plain);
  Check(krb5_c_encrypt(context, &key, usage, nullptr, &input, &sealed), "encrypt");
  cipher.resize(sealed.ciphertext.length);
  return cipher;
}

krb5_keyblock ServiceKey(krb5_context context, const ForgedTicket& ticket) {
  std::string password = ticket.password;
  std::string salt = ticket.salt;
  const krb5_data password_data = View(password);
  const krb5_data salt_data = View(salt);
  krb5_keyblock service{};
  Check(krb5_c_string_to_key(context, ticket.etype, &password_data, &salt_data, &service), "key");
  return service;
}

std::string SealedTicket(krb5_context context, const ForgedTicket& ticket,
                         const krb5_keyblock& session) {
  krb5_keyblock service = ServiceKey(context, ticket);
  const Key owned_service(&service, {context});

  const std::string encrypted =
      Der(kSequence, Field(0, Integer(ticket.etype)) + Field(1, Integer(ticket.kvno)) +
                         Field(2, Der(kOctetString, Encrypt(context, service, kTicketKeyUsage,
                                                            EncTicketPart(ticket, session)))));
  return Der(
      kApplication | 1,
      Der(kSequence, Field(0, Integer(5)) + Field(1, Der(kGeneralString, ticket.server_realm)) +
                         Field(2, PrincipalName(ticket.server)) + Field(3, encrypted)));
}

namespace {

// A principal that points into the strings it is made of.
struct BorrowedPrincipal {
  BorrowedPrincipal(std::string& realm, std::vector<std::string>& names) {
    for (std::string& name : names)
      components.push_back(View(name));
    principal.realm = View(realm);
    principal.data = components.data();
    principal.length = static_cast<krb5_int32>(components.size());
    principal.type = KRB5_NT_PRINCIPAL;
  }
  BorrowedPrincipal(const BorrowedPrincipal&) = delete;
  BorrowedPrincipal& operator=(const BorrowedPrincipal&) = delete;

  std::vector<krb5_data> components;
  krb5_principal_data principal{};
};

std::vector<char> Bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

}  // namespace

ForgedTicket Issued(ForgedTicket ticket) {
  krb5_context made = nullptr;
  Check(krb5_init_context(&made), "context");
  const Context context(made, krb5_free_context);
  krb5_keyblock session{};
  Check(krb5_c_make_random_key(made, ticket.etype, &session), "session key");
  const Key owned_session(&session, {made});
  ticket.issued = SealedTicket(made, ticket, session);
  ticket.session.assign(reinterpret_cast<const char*>(session.contents), session.length);
  return ticket;
}

std::vector<char> ApReq(const ForgedTicket& ticket) {
  krb5_context made = nullptr;
  Check(krb5_init_context(&made), "context");
  const Context context(made, krb5_free_context);
  if (ticket.sent_at) Check(krb5_set_real_time(made, *ticket.sent_at, 0), "clock");

  ForgedTicket names = ticket.issued.empty() ? Issued(ticket) : ticket;
  BorrowedPrincipal client(names.client_realm, names.client);
  BorrowedPrincipal server(names.server_realm, names.server);
  krb5_creds creds{};
  creds.client = &client.principal;
  creds.server = &server.principal;
  creds.keyblock.enctype = ticket.etype;
  creds.keyblock.length = static_cast<unsigned>(names.session.size());
  creds.keyblock.contents = reinterpret_cast<krb5_octet*>(names.session.data());
  creds.times.endtime =
      std::numeric_limits<krb5_timestamp>::max();  // the client sends expired ones
  creds.ticket = View(names.issued);
  krb5_auth_context auth = nullptr;
  Check(krb5_auth_con_init(made, &auth), "exchange");
  const AuthContext owned_auth(auth, {made});
  krb5_data checksum{};
  if (ticket.gss_checksum) {
    checksum = View(*names.gss_checksum);
    Check(krb5_auth_con_set_req_cksumtype(made, auth, kGssChecksum), "checksum");
  }
  krb5_data request{};
  const krb5_error_code code = krb5_mk_req_extended(
      made, &auth, ticket.options, ticket.gss_checksum ? &checksum : nullptr, &creds, &request);
  const Data owned_request(&request, {made});
  Check(code, "request");
  return Bytes({request.data, request.length});
}

std::vector<char> GssToken(const std::vector<char>& ap_req, const std::string& mechanism) {
  std::string content = Der(kObjectIdentifier, mechanism);
  content.append("\x01\x00", 2).append(ap_req.data(), ap_req.size());
  return Bytes(Der(kApplication, content));
}

std::vector<char> SpnegoToken(const std::vector<char>& token,
                              const std::vector<std::string>& mechanisms) {
  std::string offered;
  for (const std::string& mechanism : mechanisms)
    offered += Der(kObjectIdentifier, mechanism);
  const std::string init =
      Der(kSequence, Field(0, Der(kSequence, offered)) +
                         Field(2, Der(kOctetString, {token.data(), token.size()})));
  return Bytes(Der(kApplication, Der(kObjectIdentifier, kSpnegoOid) + Field(0, init)));
}

}  // namespace tavrel::tests
