// Tokens that claim to authenticate a user. The first byte of the input chooses: 0 makes the rest
// of it the token; anything else makes it a script, by which a service request that is right is
// spoilt, layer by layer, each sealed again with the right keys before the next goes around it.
#include <array>
#include <ctime>

#include "Expect.h"
#include "ForgedRequest.h"
#include "Interpose.h"
#include "KrbSettings.h"
#include "Records.h"
#include "Script.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::fuzz {
namespace {

using tests::Der;
using tests::ForgedTicket;
using tests::StandIn;
namespace calls = tests::calls;
namespace der = tests::der;
using Names = std::vector<std::string>;

constexpr char kRealm[] = "CORP.EXAMPLE.COM";
constexpr char kJoined[] = "APPLIANCE$@CORP.EXAMPLE.COM";
constexpr char kOther[] = "OTHER$@CORP.EXAMPLE.COM";

struct ServiceKey {
  const char* principal;  // null: not in the keytab
  krb5_enctype etype;
  const char* password;
};
constexpr ServiceKey kServiceKeys[] = {
    {kJoined, ENCTYPE_ARCFOUR_HMAC, "older"},          {kJoined, ENCTYPE_ARCFOUR_HMAC, "current"},
    {kJoined, ENCTYPE_AES256_CTS_HMAC_SHA1_96, "aes"}, {kOther, ENCTYPE_ARCFOUR_HMAC, "other"},
    {nullptr, ENCTYPE_ARCFOUR_HMAC, "nobody's"},
};

krb5_data View(std::string&&) = delete;
krb5_data View(const std::string& text) {
  return {0, static_cast<unsigned>(text.size()), const_cast<char*>(text.data())};  // only read
}

class Realm : public KrbRealm {
 public:
  Realm() : KrbRealm("corp.example.com", "", "", "MEMORY:fuzz") {
    krb_context.SetClientPrincipal(kJoined);
    krb5_kvno kvno = 0;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const ServiceKey& key = kServiceKeys[i];
      const std::string secret = key.password;
      const krb5_data password = View(secret);
      krb5_c_string_to_key(krb_context.context, key.etype, &password, &password, &keys[i]);
      if (key.principal == nullptr) continue;
      krb5_keytab_entry entry{};
      krb5_parse_name(krb_context.context, key.principal, &entry.principal);
      entry.vno = ++kvno;
      entry.key = keys[i];
      krb5_kt_add_entry(krb_context.context, krb_context.keytab, &entry);
      krb5_free_principal(krb_context.context, entry.principal);
    }
    krb5_c_make_random_key(krb_context.context, ENCTYPE_ARCFOUR_HMAC, &session);
  }
  ~Realm() override {
    for (krb5_keyblock& key : keys)
      krb5_free_keyblock_contents(Context(), &key);
    krb5_free_keyblock_contents(Context(), &session);
  }

  krb5_context Context() const { return krb_context.context; }
  krb5_const_principal Joined() const { return krb_context.client_principal; }

  std::array<krb5_keyblock, std::size(kServiceKeys)> keys{};
  krb5_keyblock session{};
};

// Everything that lives as long as the process.
struct World {
  tests::KrbSettings settings{tests::kTolerateSkew};
  Realm realm;
  krb5_timestamp now = static_cast<krb5_timestamp>(std::time(nullptr));
};
World& TheWorld() {
  static World world;
  return world;
}

// ---- Making requests

enum Layer { kTicketPart, kTicket, kAuthenticator, kRequest, kToken, kLayers };

// One change of the bytes of a layer.
struct Change {
  unsigned layer;
  unsigned kind;
  unsigned at;
  std::string argument;

  void Apply(std::string& bytes) const {
    const std::size_t place = at % (bytes.size() + 1);
    const std::size_t count = argument.size();
    switch (kind) {
      case 0: bytes.replace(place, count, argument); break;
      case 1: bytes.insert(place, argument); break;
      case 2: bytes.erase(place, count); break;
      case 3: bytes.erase(place); break;
      case 4: bytes.insert(place, bytes.substr(0, count)); break;
      default: bytes.append(argument); break;
    }
  }
};

class Forge {
 public:
  explicit Forge(Script& script) : script_(script) {}

  std::string Token() {
    ForgedTicket ticket = Ticket();
    framing_ = script_.Below(7);
    while (!script_.Done()) {
      const unsigned layer = script_.Below(kLayers);
      const unsigned kind = script_.Below(6);
      const unsigned at = script_.Word();
      changes_.push_back({layer, kind, at, script_.Text()});
    }
    return Framed(Request(ticket));
  }

  // That of a request which must be accepted; none when it has been spoilt, or may have been, and
  // when it does not stand behind the identifier that counts.
  std::optional<std::string> User() const {
    const bool found = framing_ != 4 && framing_ != 5;
    if (!changes_.empty() || !right_ || !found) return std::nullopt;
    return user_;
  }

 private:
  ForgedTicket Ticket() {
    static constexpr int kOffsets[] = {0,   -36000, 36000, -299, -300, -301,
                                       299, 300,    301,   -1,   1,    86400};
    const krb5_timestamp now = TheWorld().now;
    const auto time = [&](int otherwise) {
      const unsigned choice = script_.Byte();
      return now + (choice == 0 ? otherwise : kOffsets[choice % std::size(kOffsets)]);
    };
    ForgedTicket ticket;
    key_ = script_.Below(std::size(kServiceKeys));
    ticket.etype = kServiceKeys[key_].etype;
    ticket.kvno = script_.Below(8);
    ticket.server = {"HTTP", "appliance.corp.example.com"};
    ticket.authtime = time(0);
    ticket.starttime = time(0);
    if (script_.Below(2) == 1) ticket.starttime = 0;
    ticket.endtime = time(36000);
    const bool invalid = script_.Below(4) == 3;
    if (invalid) ticket.flags |= TKT_FLG_INVALID;
    if (const std::string realm = script_.Text(); !realm.empty()) ticket.client_realm = realm;
    ticket.client.clear();
    for (unsigned left = script_.Below(4); left > 0; --left)
      ticket.client.push_back(script_.Text());

    const krb5_timestamp start = ticket.starttime != 0 ? ticket.starttime : ticket.authtime;
    const ServiceKey& key = kServiceKeys[key_];
    right_ = key.principal == kJoined && !invalid && start - 300 <= now &&
             ticket.endtime + 300 >= now && ticket.endtime >= start && !ticket.client.empty();
    if (right_) user_ = ticket.client_realm + "\\" + ticket.client.back();
    return ticket;
  }

  std::string Changed(Layer layer, std::string bytes) const {
    for (const Change& change : changes_) {
      if (change.layer == layer) change.Apply(bytes);
    }
    return bytes;
  }

  std::string Request(const ForgedTicket& ticket) const {
    const Realm& realm = TheWorld().realm;
    const auto encrypted = [&](const krb5_keyblock& key, krb5_keyusage usage, std::string plain) {
      const std::string cipher = tests::Encrypt(realm.Context(), key, usage, std::move(plain));
      return Der(0x30, der::Field(0, der::Integer(key.enctype)) +
                           der::Field(1, der::Integer(ticket.kvno)) +
                           der::Field(2, Der(0x04, cipher)));
    };
    const std::string part = Changed(kTicketPart, tests::EncTicketPart(ticket, realm.session));
    const std::string sealed = encrypted(realm.keys[key_], tests::kTicketKeyUsage, part);
    const std::string issued =
        Changed(kTicket, Der(0x61, Der(0x30, der::Field(0, der::Integer(5)) +
                                                 der::Field(1, Der(0x1b, ticket.server_realm)) +
                                                 der::Field(2, der::PrincipalName(ticket.server)) +
                                                 der::Field(3, sealed))));
    const std::string authenticator = Changed(
        kAuthenticator, Der(0x62, Der(0x30, der::Field(0, der::Integer(5)) +
                                                der::Field(1, Der(0x1b, ticket.client_realm)) +
                                                der::Field(2, der::PrincipalName(ticket.client)) +
                                                der::Field(4, der::Integer(0)) +
                                                der::Field(5, der::Time(TheWorld().now)))));
    return Changed(
        kRequest,
        Der(0x6e,
            Der(0x30, der::Field(0, der::Integer(5)) + der::Field(1, der::Integer(14)) +
                          der::Field(2, der::BitString(0)) + der::Field(3, issued) +
                          der::Field(4, encrypted(realm.session, tests::kAuthenticatorKeyUsage,
                                                  authenticator)))));
  }

  std::string Framed(const std::string& request) const {
    using tests::GssToken;
    using tests::SpnegoToken;
    const std::vector<char> ap_req(request.begin(), request.end());
    std::vector<char> token;
    switch (framing_) {
      case 0: token = GssToken(ap_req); break;
      case 1: token = SpnegoToken(GssToken(ap_req)); break;
      case 2:
        token = SpnegoToken(GssToken(ap_req),
                            {tests::kMicrosoftKerberosOid, tests::kKerberosOid, tests::kNtlmOid});
        break;
      case 3: token = SpnegoToken(GssToken(ap_req), {tests::kMicrosoftKerberosOid}); break;
      case 4: token = SpnegoToken(GssToken(ap_req, tests::kMicrosoftKerberosOid)); break;
      case 5: token = SpnegoToken(GssToken(GssToken(ap_req))); break;
      default: token.assign(11, '\0'); token.insert(token.end(), ap_req.begin(), ap_req.end());
    }
    return Changed(kToken, {token.begin(), token.end()});
  }

  Script& script_;
  std::size_t key_ = 0;
  unsigned framing_ = 0;
  bool right_ = false;
  std::string user_;
  std::vector<Change> changes_;
};

// ---- What must come of a token

// What the library is seen to do with libkrb5.
struct Verified {
  int calls = 0;
  std::string request;
  std::string message;  // of libkrb5 when it refused
  bool ticket = false;
  bool decrypted = false;
  std::string client_realm;
  Names client;
  std::string server_realm;
  Names server;
  bool same_server = false;
  krb5_ticket_times times{};
};

Names Components(krb5_const_principal principal) {
  Names names;
  for (krb5_int32 i = 0; i < principal->length; ++i)
    names.emplace_back(principal->data[i].data, principal->data[i].length);
  return names;
}
std::string RealmOf(krb5_const_principal principal) {
  return {principal->realm.data, principal->realm.length};
}

// The scan for the request: the records it leaves, and where the request starts.
struct Scan {
  std::size_t start = 0;
  Records records;
};
Scan ReferenceScan(const std::string& token) {
  static constexpr unsigned char kId[9] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02};
  const auto at = [&](std::size_t i) {  // nothing is behind the end
    return i < token.size() ? int{static_cast<unsigned char>(token[i])} : -1;
  };
  Scan scan;
  const auto record = [&](int level, const std::string& text) {
    scan.records.Add(level, "krb-realm", "Authenticate", text);
  };
  record(1, "Auth request received of length " + std::to_string(token.size()));
  std::size_t position = 0;
  int matches = 0;
  for (std::size_t i = 0; i + 10 <= token.size() && matches < 2; ++i) {
    bool same = true;
    for (std::size_t k = 0; k < 9; ++k)
      same = same && at(i + k) == kId[k];
    if (!same) continue;
    record(1, "Found KRB OID at index " + std::to_string(i));
    position = i;
    ++matches;
  }
  if (at(position + 9) != 1 || at(position + 10) != 0) record(3, "Not a KRB_AP_REQ");
  scan.start = position + 11;
  record(1, "Sending in at index " + std::to_string(scan.start) + ", first data byte " +
                token.substr(std::min(scan.start, token.size()), 1));
  return scan;
}

bool TimesAreValid(std::int64_t start, std::int64_t end) {
  const std::int64_t now = TheWorld().now;
  if (start - 300 > now) return false;
  return end + 300 >= now && end >= start;
}

// Who libkrb5's verdict makes of a request; adds its records.
std::string ReferenceAnswer(const Verified& seen, Records& records) {
  const auto record = [&](int level, const char* function, const std::string& text) {
    records.Add(level, "krb-keytab", function, text);
  };
  if (!seen.message.empty()) {
    record(4, "APAuthenticate", "Error reading AP request: " + seen.message);
  }
  if (!seen.ticket) return "";
  std::string user;
  bool times_valid = true;
  if (seen.decrypted) {
    for (std::size_t i = 0; i < seen.client.size(); ++i) {
      user = seen.client_realm + "\\" + seen.client[i];
      record(1, "APAuthenticate", "AP request (" + std::to_string(i) + "): " + user);
    }
    const krb5_timestamp start =
        seen.times.starttime != 0 ? seen.times.starttime : seen.times.authtime;
    times_valid = TimesAreValid(start, seen.times.endtime);
    if (!times_valid) {
      record(2, "APAuthenticate", "Invalid timestamp for AP request for user: " + user);
    }
  }
  if (!seen.same_server) {
    record(2, "APAuthenticate", "Invalid server principal for AP request for user " + user);
    for (const std::string& name : seen.server)
      record(1, "PrintPrincipal", "AP request server principal: " + name + "@" + seen.server_realm);
    record(1, "PrintPrincipal", std::string("Joined server principal: ") + kJoined);
    return "";
  }
  return times_valid ? user : "";
}

// ---- What an accepted request must carry, read without libkrb5's decoder

// One BER value. A length may be indefinite, as libkrb5 allows for what is constructed.
struct Value {
  unsigned tag = 0;
  std::string_view content;
};
std::optional<Value> TakeValue(std::string_view& bytes) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  if (bytes.size() < 2 || (byte(0) & 0x1f) == 0x1f) return std::nullopt;
  const unsigned tag = byte(0);
  std::size_t header = 2;
  std::size_t length = byte(1);
  if (length == 0x80) {
    std::string_view inside = bytes.substr(2);
    for (;;) {
      if (inside.substr(0, 2) == std::string_view("\0\0", 2)) break;
      if (!TakeValue(inside)) return std::nullopt;
    }
    const std::size_t size = static_cast<std::size_t>(inside.data() - bytes.data()) - 2;
    const Value value = {tag, bytes.substr(2, size)};
    bytes.remove_prefix(size + 4);
    return value;
  }
  if (length > 0x80) {
    const std::size_t count = length & 0x7f;
    if (count > 8 || bytes.size() < 2 + count) return std::nullopt;
    length = 0;
    for (; header < 2 + count; ++header)
      length = length << 8 | byte(header);
  }
  if (length > bytes.size() - header) return std::nullopt;
  const Value value = {tag, bytes.substr(header, length)};
  bytes.remove_prefix(header + length);
  return value;
}

// The content of the first value in `bytes` with that tag; accepted requests have it.
std::string_view Inside(std::string_view bytes, unsigned tag) {
  while (const auto value = TakeValue(bytes)) {
    if (value->tag == tag) return value->content;
  }
  Broken("an accepted request has every part", " (tag " + std::to_string(tag) + ")");
}
bool Has(std::string_view bytes, unsigned tag) {
  while (const auto value = TakeValue(bytes)) {
    if (value->tag == tag) return true;
  }
  return false;
}
std::string_view FieldOf(std::string_view sequence, unsigned number) {
  return Inside(sequence, 0xa0 | number);
}
std::int64_t IntegerIn(std::string_view field) {
  const std::string_view content = Inside(field, 0x02);
  std::int64_t value = !content.empty() && content[0] < 0 ? -1 : 0;
  for (const char c : content)
    value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) << 8 |
                                      static_cast<unsigned char>(c));
  return value;
}
std::int64_t TimeIn(std::string_view field) {
  const std::string text(Inside(field, 0x18));
  std::tm parts{};
  Expect(strptime(text.c_str(), "%Y%m%d%H%M%SZ", &parts) != nullptr, "an accepted time is one");
  return static_cast<krb5_timestamp>(timegm(&parts));
}
Names NamesIn(std::string_view field) {
  Names names;
  std::string_view list = Inside(FieldOf(Inside(field, 0x30), 1), 0x30);
  while (const auto value = TakeValue(list))
    names.emplace_back(value->content);
  return names;
}

std::optional<std::string> Decrypted(const krb5_keyblock& key, krb5_keyusage usage,
                                     std::string_view encrypted_data) {
  const std::string_view sequence = Inside(encrypted_data, 0x30);
  const auto etype = static_cast<krb5_enctype>(IntegerIn(FieldOf(sequence, 0)));
  if (etype != key.enctype) return std::nullopt;
  const std::string cipher(Inside(FieldOf(sequence, 2), 0x04));
  std::string plain(cipher.size(), '\0');
  krb5_enc_data input{};
  input.enctype = etype;
  input.ciphertext = View(cipher);
  krb5_data output = View(plain);
  if (krb5_c_decrypt(TheWorld().realm.Context(), &key, usage, nullptr, &input, &output) != 0) {
    return std::nullopt;
  }
  plain.resize(output.length);
  return plain;
}

void CheckAccepted(const std::string& request, const std::string& user) {
  const Realm& realm = TheWorld().realm;
  const std::string_view parts = Inside(Inside(request, 0x6e), 0x30);
  ExpectEqual(IntegerIn(FieldOf(parts, 0)), 5, "an accepted request is of version 5");
  ExpectEqual(IntegerIn(FieldOf(parts, 1)), 14, "an accepted request is an AP-REQ");
  const std::string_view ticket = Inside(Inside(FieldOf(parts, 3), 0x61), 0x30);

  std::optional<std::string> plain;
  for (std::size_t i = 0; i < realm.keys.size() && !plain; ++i) {
    if (kServiceKeys[i].principal != kJoined) continue;
    plain = Decrypted(realm.keys[i], tests::kTicketKeyUsage, FieldOf(ticket, 3));
  }
  if (!plain) Broken("an accepted ticket is sealed with a key of the joined principal");
  const std::string_view part = Inside(Inside(*plain, 0x63), 0x30);

  const std::string client_realm(Inside(FieldOf(part, 2), 0x1b));
  const Names client = NamesIn(FieldOf(part, 3));
  Expect(!client.empty(), "an accepted ticket has a client");
  ExpectEqual(user, client_realm + "\\" + client.back(), "the user is the ticket's client");
  const std::int64_t authtime = TimeIn(FieldOf(part, 5));
  const std::int64_t start = Has(part, 0xa6) ? TimeIn(FieldOf(part, 6)) : 0;
  Expect(TimesAreValid(start != 0 ? start : authtime, TimeIn(FieldOf(part, 7))),
         "an accepted ticket is valid now");

  const std::string_view session_key = Inside(FieldOf(part, 1), 0x30);
  std::string session(Inside(FieldOf(session_key, 1), 0x04));
  krb5_keyblock key{};
  key.enctype = static_cast<krb5_enctype>(IntegerIn(FieldOf(session_key, 0)));
  key.length = static_cast<unsigned>(session.size());
  key.contents = reinterpret_cast<krb5_octet*>(session.data());
  const auto proof = Decrypted(key, tests::kAuthenticatorKeyUsage, FieldOf(parts, 4));
  if (!proof) Broken("the client of an accepted ticket knows its session key");
  const std::string_view authenticator = Inside(Inside(*proof, 0x62), 0x30);
  ExpectEqual(std::string(Inside(FieldOf(authenticator, 1), 0x1b)), client_realm,
              "the client names itself as the ticket does");
  ExpectEqual(NamesIn(FieldOf(authenticator, 2)), client,
              "the client names itself as the ticket does");
  const std::int64_t away = TimeIn(FieldOf(authenticator, 5)) - TheWorld().now;
  Expect(away > -110000 && away < 110000, "an accepted request is of today");
}

// ----

std::string Authenticate(const std::string& token, Verified& seen) {
  World& world = TheWorld();
  const StandIn time(calls::time, [&](time_t*) { return std::time_t{world.now}; });
  const StandIn rd_req(
      calls::krb5_rd_req,
      [&](krb5_context context, krb5_auth_context* auth, const krb5_data* request,
          krb5_const_principal server, krb5_keytab keytab, krb5_flags* flags, krb5_ticket** made) {
        ++seen.calls;
        seen.request.assign(request->data, request->length);
        const krb5_error_code code =
            calls::krb5_rd_req.Real(context, auth, request, server, keytab, flags, made);
        if (code != 0) {
          const char* message = krb5_get_error_message(context, code);
          seen.message = message;
          krb5_free_error_message(context, message);
        }
        seen.ticket = *made != nullptr;
        if (!seen.ticket) return code;
        seen.server = Components((*made)->server);
        seen.server_realm = RealmOf((*made)->server);
        seen.same_server = seen.server_realm == kRealm && seen.server == Names{"APPLIANCE$"};
        seen.decrypted = (*made)->enc_part2 != nullptr;
        if (!seen.decrypted) return code;
        seen.client = Components((*made)->enc_part2->client);
        seen.client_realm = RealmOf((*made)->enc_part2->client);
        seen.times = (*made)->enc_part2->times;
        return code;
      });
  // Of its very size, so that a byte read behind it is found.
  const std::unique_ptr<char[]> bytes(new char[token.size()]);
  token.copy(bytes.get(), token.size());
  TheLog().Clear();

  return world.realm.Authenticate(bytes.get(), static_cast<int>(token.size()));
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrel::fuzz;
  Script script(data, size);
  const bool raw = script.Byte() == 0;
  Forge forge(script);
  const std::string token = raw ? script.Rest() : forge.Token();
  Verified seen;

  const std::string user = Authenticate(token, seen);

  Scan scan = ReferenceScan(token);
  const std::string expected = ReferenceAnswer(seen, scan.records);
  ExpectEqual(TheLog().Text(), scan.records.Text(), "records of an authentication");
  ExpectEqual(seen.calls, scan.start < token.size() ? 1 : 0, "a request is read once");
  if (seen.calls == 1) {
    ExpectEqual(seen.request, token.substr(scan.start), "the request starts behind the identifier");
  }
  ExpectEqual(user, expected, "the user is the one verified");
  if (!user.empty()) CheckAccepted(seen.request, user);
  if (!raw && forge.User()) {
    ExpectEqual(user, *forge.User(), "a request that is right is accepted");
  }
  return 0;
}
