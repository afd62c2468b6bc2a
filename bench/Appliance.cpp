#include "Appliance.h"

#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>

#include <cstdint>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "ForgedRequest.h"

// What a KDC issues tickets with; the library exports them without a header.
extern "C" {
krb5_error_code krb5_encrypt_tkt_part(krb5_context, const krb5_keyblock*, krb5_ticket*);
krb5_error_code encode_krb5_ticket(const krb5_ticket*, krb5_data**);
}

namespace tavrel::bench {
namespace {

constexpr char kService[] = "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM";
constexpr char kUser[] = "alice@CORP.EXAMPLE.COM";
// Makes a ticket without a PAC as long as those of a plain KDC for longer names.
constexpr krb5_authdatatype kNoKnownType = 1000;
constexpr std::size_t kFiller = 39;
constexpr std::string_view kMachineName("APPLIANCE$");

void Check(std::uint32_t code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": error " + std::to_string(code)));
}
void CheckKrb(krb5_error_code code, const char* step) {
  Check(static_cast<std::uint32_t>(code), step);
}

krb5_data View(std::string& text) {
  krb5_data data{};
  data.length = static_cast<unsigned int>(text.size());
  data.data = text.data();
  return data;
}

// The file format of keytabs is big-endian.
template <typename Integer>
void Append(std::string& text, Integer value) {
  for (int shift = 8 * (static_cast<int>(sizeof value) - 1); shift >= 0; shift -= 8)
    text.push_back(static_cast<char>(value >> shift & 0xff));
}
void AppendCounted(std::string& text, std::string_view value) {
  Append(text, static_cast<std::uint16_t>(value.size()));
  text.append(value);
}

std::string KeytabEntry(std::string_view name, std::uint32_t vno, std::string_view key) {
  std::string entry;
  Append(entry, std::uint16_t{1});  // components
  AppendCounted(entry, kRealm);
  AppendCounted(entry, name);
  Append(entry, std::uint32_t{KRB5_NT_PRINCIPAL});
  Append(entry, std::uint32_t{0});  // timestamp
  Append(entry, static_cast<std::uint8_t>(vno));
  Append(entry, static_cast<std::uint16_t>(ENCTYPE_ARCFOUR_HMAC));
  AppendCounted(entry, key);
  Append(entry, vno);
  std::string sized;
  Append(sized, static_cast<std::uint32_t>(entry.size()));
  return sized + entry;
}

// A signed PAC, what Active Directory puts into its tickets, with `size` bytes of logon
// information.
std::string Pac(krb5_context context, std::size_t size, krb5_const_principal client,
                krb5_timestamp authtime, const krb5_keyblock& key) {
  krb5_pac pac = nullptr;
  CheckKrb(krb5_pac_init(context, &pac), "PAC");
  std::string logon(size, 'x');
  const krb5_data logon_data = View(logon);
  CheckKrb(krb5_pac_add_buffer(context, pac, KRB5_PAC_LOGON_INFO, &logon_data), "logon info");
  krb5_data signed_pac{};
  CheckKrb(krb5_pac_sign(context, pac, authtime, client, &key, &key, &signed_pac), "sign");
  std::string text(signed_pac.data, signed_pac.length);
  krb5_free_data_contents(context, &signed_pac);
  krb5_pac_free(context, pac);
  return text;
}

krb5_authdata** AuthorizationData(krb5_context context, krb5_authdatatype type, std::string text) {
  krb5_authdata element{};
  element.ad_type = type;
  element.length = static_cast<unsigned int>(text.size());
  element.contents = reinterpret_cast<krb5_octet*>(text.data());
  krb5_authdata* elements[] = {&element, nullptr};
  krb5_authdata** container = nullptr;
  CheckKrb(krb5_encode_authdata_container(context, KRB5_AUTHDATA_IF_RELEVANT, elements, &container),
           "authorization data");
  return container;
}

}  // namespace

std::string MachineKey() {
  return "0123456789abcdef";
}

void WriteKeytab(const std::string& path, int keys, int others) {
  std::string text("\x05\x02", 2);
  for (int i = 1; i <= others; ++i)
    text += KeytabEntry("OTHER$", static_cast<std::uint32_t>(i), std::string(16, 'o'));
  for (int i = 1; i <= keys; ++i) {
    std::string key = MachineKey();
    if (i < keys) key.replace(0, 4, reinterpret_cast<const char*>(&i), 4);
    text += KeytabEntry(kMachineName, static_cast<std::uint32_t>(i), key);
  }
  std::ofstream file(path, std::ios::binary);
  file << text;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

Client::Client(const TokenShape& shape) : shape_(shape) {
  CheckKrb(krb5_init_context(&context_), "context");
  krb5_principal user = nullptr;
  krb5_principal service = nullptr;
  CheckKrb(krb5_parse_name(context_, kUser, &user), "user");
  CheckKrb(krb5_parse_name(context_, kService, &service), "service");
  krb5_keyblock session{};
  CheckKrb(krb5_c_make_random_key(context_, ENCTYPE_ARCFOUR_HMAC, &session), "session key");
  std::string key_bytes = MachineKey();
  krb5_keyblock key{};
  key.enctype = ENCTYPE_ARCFOUR_HMAC;
  key.length = static_cast<unsigned int>(key_bytes.size());
  key.contents = reinterpret_cast<krb5_octet*>(key_bytes.data());

  const auto now = static_cast<krb5_timestamp>(std::time(nullptr));
  krb5_enc_tkt_part part{};
  part.flags = TKT_FLG_PRE_AUTH;
  part.session = &session;
  part.client = user;
  part.times.authtime = part.times.starttime = now;
  part.times.endtime = now + 10 * 3600;
  part.authorization_data =
      shape.pac > 0 ? AuthorizationData(context_, KRB5_AUTHDATA_WIN2K_PAC,
                                        Pac(context_, shape.pac, user, now, key))
                    : AuthorizationData(context_, kNoKnownType, std::string(kFiller, 'x'));
  krb5_ticket ticket{};
  ticket.server = service;
  ticket.enc_part.kvno = 1;
  ticket.enc_part2 = &part;
  CheckKrb(krb5_encrypt_tkt_part(context_, &key, &ticket), "ticket");
  krb5_data* encoded = nullptr;
  CheckKrb(encode_krb5_ticket(&ticket, &encoded), "ticket");

  krb5_creds creds{};
  creds.client = user;
  creds.server = service;
  creds.keyblock = session;
  creds.times = part.times;
  creds.ticket = *encoded;
  CheckKrb(krb5_cc_new_unique(context_, "MEMORY", nullptr, &cache_), "cache");
  CheckKrb(krb5_cc_initialize(context_, cache_, user), "cache");
  CheckKrb(krb5_cc_store_cred(context_, cache_, &creds), "cache");

  OM_uint32 minor = 0;
  Check(gss_krb5_import_cred(&minor, cache_, nullptr, nullptr, &credential_), "credential");
  std::string name = kService;
  gss_buffer_desc name_buffer{name.size(), name.data()};
  Check(gss_import_name(&minor, &name_buffer,
                        const_cast<gss_OID>(GSS_KRB5_NT_PRINCIPAL_NAME),  // only read
                        &target_),
        "target");

  krb5_free_data(context_, encoded);
  krb5_free_data_contents(context_, &ticket.enc_part.ciphertext);
  krb5_free_authdata(context_, part.authorization_data);
  krb5_free_keyblock_contents(context_, &session);
  krb5_free_principal(context_, service);
  krb5_free_principal(context_, user);
}

Client::~Client() {
  OM_uint32 minor = 0;
  gss_release_name(&minor, &target_);
  gss_release_cred(&minor, &credential_);
  krb5_cc_destroy(context_, cache_);
  krb5_free_context(context_);
}

Token Client::NextToken() {
  OM_uint32 minor = 0;
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_buffer_desc token{};
  const OM_uint32 major = gss_init_sec_context(
      &minor, credential_, &context, target_, const_cast<gss_OID>(gss_mech_krb5), GSS_C_REPLAY_FLAG,
      0, nullptr, nullptr, nullptr, &token, nullptr, nullptr);
  if (GSS_ERROR(major)) Check(minor, "token");
  std::string text(static_cast<const char*>(token.value), token.length);
  gss_release_buffer(&minor, &token);
  gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  if (shape_.spnego) {
    const std::vector<char> wrapped = tests::SpnegoToken({text.begin(), text.end()});
    text.assign(wrapped.begin(), wrapped.end());
  }
  const std::size_t start = text.rfind(tests::kKerberosOid) + tests::kKerberosOid.size() + 2;
  return {std::move(text), start};
}

std::vector<Token> Client::Tokens(std::size_t count) {
  std::vector<Token> tokens;
  for (std::size_t i = 0; i < count; ++i)
    tokens.push_back(NextToken());
  return tokens;
}

BareVerifier::BareVerifier(const std::string& keytab) {
  CheckKrb(krb5_init_context(&context_), "context");
  CheckKrb(krb5_kt_resolve(context_, keytab.c_str(), &keytab_), "keytab");
}

BareVerifier::~BareVerifier() {
  krb5_kt_close(context_, keytab_);
  krb5_free_context(context_);
}

bool BareVerifier::Verify(std::string_view request) const {
  krb5_auth_context auth = nullptr;
  if (krb5_auth_con_init(context_, &auth) != 0) return false;
  krb5_data data{};
  data.length = static_cast<unsigned int>(request.size());
  data.data = const_cast<char*>(request.data());  // only read
  krb5_ticket* ticket = nullptr;
  const krb5_error_code code =
      krb5_rd_req(context_, &auth, &data, nullptr, keytab_, nullptr, &ticket);
  krb5_free_ticket(context_, ticket);
  krb5_auth_con_free(context_, auth);
  return code == 0;
}

GssVerifier::GssVerifier(const std::string& keytab) {
  gss_key_value_element_desc element{"keytab", keytab.c_str()};
  const gss_key_value_set_desc store{1, &element};
  OM_uint32 minor = 0;
  const OM_uint32 major =
      gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_ACCEPT,
                            &store, &credential_, nullptr, nullptr);
  if (GSS_ERROR(major)) Check(minor, "acceptor");
}

GssVerifier::~GssVerifier() {
  OM_uint32 minor = 0;
  gss_release_cred(&minor, &credential_);
}

bool GssVerifier::Verify(std::string& token) const {
  OM_uint32 minor = 0;
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_buffer_desc input{token.size(), token.data()};
  gss_buffer_desc output{};
  const OM_uint32 major =
      gss_accept_sec_context(&minor, &context, credential_, &input, GSS_C_NO_CHANNEL_BINDINGS,
                             nullptr, nullptr, &output, nullptr, nullptr, nullptr);
  OM_uint32 ignored = 0;
  gss_release_buffer(&ignored, &output);
  gss_delete_sec_context(&ignored, &context, GSS_C_NO_BUFFER);
  return major == GSS_S_COMPLETE;
}

}  // namespace tavrel::bench
