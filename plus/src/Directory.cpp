#include "Directory.h"

#include <openldap.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Ascii.h"
#include "SealedLayer.h"

namespace tavrel::plus {
namespace {

constexpr int kMostEntries = 16;
constexpr ber_len_t kLargestMessage = 1U << 22U;
constexpr char kMechanism[] = "GSSAPI";
constexpr char kTreeDelete[] = "1.2.840.113556.1.4.805";  // [MS-ADTS] 3.1.1.3.4.1.15

struct FreeMessage {
  void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
struct FreeLdapMemory {
  void operator()(char* text) const { ldap_memfree(text); }
};
struct FreeValues {
  void operator()(berval** values) const { ldap_value_free_len(values); }
};
struct FreeValue {
  void operator()(berval* value) const { ber_bvfree(value); }
};
struct FreeElement {
  void operator()(BerElement* element) const { ber_free(element, 0); }
};

berval Value(std::string_view bytes) {
  return {bytes.size(), const_cast<char*>(bytes.data())};  // only read
}

// Changes in the null-terminated form that libldap takes, and only reads.
class Modifications {
 public:
  explicit Modifications(const std::vector<Change>& changes)
      : values_(changes.size()), pointers_(changes.size()), mods_(changes.size()) {
    for (std::size_t i = 0; i < changes.size(); ++i) {
      const Change& change = changes[i];
      for (const std::string& value : change.values)
        values_[i].push_back(Value(value));
      if (change.secret != nullptr) values_[i].push_back(Value(change.secret->View()));
      for (berval& value : values_[i])
        pointers_[i].push_back(&value);
      pointers_[i].push_back(nullptr);
      mods_[i].mod_op =
          (change.kind == Change::Kind::kAdd ? LDAP_MOD_ADD : LDAP_MOD_REPLACE) | LDAP_MOD_BVALUES;
      mods_[i].mod_type = const_cast<char*>(change.name.c_str());
      mods_[i].mod_bvalues = pointers_[i].data();
      list_.push_back(&mods_[i]);
    }
    list_.push_back(nullptr);
  }
  Modifications(const Modifications&) = delete;
  Modifications& operator=(const Modifications&) = delete;

  LDAPMod** Get() { return list_.data(); }

 private:
  std::vector<std::vector<berval>> values_;
  std::vector<std::vector<berval*>> pointers_;
  std::vector<LDAPMod> mods_;
  std::vector<LDAPMod*> list_;
};

struct Meaning {
  int code;
  Cause cause;
};
constexpr Meaning kMeanings[] = {
    {LDAP_TIMEOUT, Cause::kTimedOut},
    {LDAP_TIMELIMIT_EXCEEDED, Cause::kTimedOut},
    {LDAP_SERVER_DOWN, Cause::kUnreachable},
    {LDAP_UNAVAILABLE, Cause::kUnreachable},
    {LDAP_BUSY, Cause::kUnreachable},
    {LDAP_CONNECT_ERROR, Cause::kUnreachable},
    {LDAP_INVALID_CREDENTIALS, Cause::kBadCredentials},
    {LDAP_INSUFFICIENT_ACCESS, Cause::kAccessDenied},
    {LDAP_NO_SUCH_OBJECT, Cause::kNoAccount},
    {LDAP_ALREADY_EXISTS, Cause::kNameTaken},
    {LDAP_REFERRAL, Cause::kReferred},
    {LDAP_STRONG_AUTH_REQUIRED, Cause::kNotTrusted},
    {LDAP_CONFIDENTIALITY_REQUIRED, Cause::kNotTrusted},
    {LDAP_PROTOCOL_ERROR, Cause::kProtocol},
    {LDAP_DECODING_ERROR, Cause::kProtocol},
    {LDAP_NO_MEMORY, Cause::kLibrary},
    {LDAP_LOCAL_ERROR, Cause::kLibrary},
    {LDAP_PARAM_ERROR, Cause::kLibrary},
};

// `c` as a backslash and two hexadecimal digits.
void AppendEscaped(std::string& text, char c) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  text += '\\';
  text += kDigits[byte >> 4U];
  text += kDigits[byte & 0xFU];
}

std::string Escape(std::string_view value, std::string_view special) {
  std::string text;
  for (const char c : value) {
    if (special.find(c) != std::string_view::npos || static_cast<unsigned char>(c) < 0x20) {
      AppendEscaped(text, c);
    } else {
      text += c;
    }
  }
  return text;
}

}  // namespace

const std::vector<std::string>& Entry::All(const std::string& name) const {
  static const std::vector<std::string> none;
  const auto found = attributes.find(name);
  return found != attributes.end() ? found->second : none;
}

std::string Entry::First(const std::string& name) const {
  const std::vector<std::string>& values = All(name);
  return values.empty() ? "" : values.front();
}

// What liblber calls for the connection itself.
struct DirectoryIo {
  static Directory& Self(Sockbuf_IO_Desc* io) { return *static_cast<Directory*>(io->sbiod_pvt); }
  static int Setup(Sockbuf_IO_Desc* io, void* self) {
    io->sbiod_pvt = self;
    return 0;
  }
  static int Remove(Sockbuf_IO_Desc* /*io*/) { return 0; }
  static int Close(Sockbuf_IO_Desc* /*io*/) { return 0; }
  static int Control(Sockbuf_IO_Desc* /*io*/, int /*option*/, void* /*value*/) { return 0; }
  static ber_slen_t Read(Sockbuf_IO_Desc* io, void* bytes, ber_len_t most) {
    Directory& self = Self(io);
    const ssize_t count = self.socket_.Read(bytes, most, self.deadline_);
    if (count <= 0) self.is_lost_ = true;
    return count;
  }
  static ber_slen_t Write(Sockbuf_IO_Desc* io, void* bytes, ber_len_t size) {
    Directory& self = Self(io);
    if (!self.socket_.WriteAll(bytes, size, self.deadline_)) {
      self.is_lost_ = true;
      return -1;
    }
    return static_cast<ber_slen_t>(size);
  }
};

// What libldap sends above TLS. It frees that without wiping it, and it can be a password.
struct WipingIo {
  static int Setup(Sockbuf_IO_Desc* /*io*/, void* /*argument*/) { return 0; }
  static int Remove(Sockbuf_IO_Desc* /*io*/) { return 0; }
  static int Close(Sockbuf_IO_Desc* /*io*/) { return 0; }
  static int Control(Sockbuf_IO_Desc* io, int option, void* value) {
    return LBER_SBIOD_CTRL_NEXT(io, option, value);
  }
  static ber_slen_t Read(Sockbuf_IO_Desc* io, void* bytes, ber_len_t most) {
    return LBER_SBIOD_READ_NEXT(io, bytes, most);
  }
  static ber_slen_t Write(Sockbuf_IO_Desc* io, void* bytes, ber_len_t size) {
    const ber_slen_t sent = LBER_SBIOD_WRITE_NEXT(io, bytes, size);
    if (sent > 0) OPENSSL_cleanse(bytes, static_cast<std::size_t>(sent));
    return sent;
  }
};

Directory::Directory(const Controller& controller, const Deadline& deadline)
    : controller_(controller), deadline_(deadline) {}

Directory::~Directory() {
  if (handle_ == nullptr) return;
  ldap_unbind_ext(handle_, nullptr, nullptr);  // which closes the socket
  socket_.Release();
}

Failure Directory::Explain(int code) const {
  if (code == LDAP_SUCCESS) return {};
  if (sealed_ && sealed_->LacksMemory()) code = LDAP_NO_MEMORY;
  Cause cause = LDAP_API_ERROR(code) ? Cause::kLibrary : Cause::kRefused;
  for (const Meaning& meaning : kMeanings) {
    if (meaning.code == code) cause = meaning.cause;
  }
  if (deadline_.HasPassed()) cause = Cause::kTimedOut;
  std::string text = ldap_err2string(code);
  char* diagnostic = nullptr;
  if (handle_ != nullptr &&
      ldap_get_option(handle_, LDAP_OPT_DIAGNOSTIC_MESSAGE, &diagnostic) == LDAP_OPT_SUCCESS &&
      diagnostic != nullptr) {
    const std::unique_ptr<char, FreeLdapMemory> owned(diagnostic);
    if (*diagnostic != '\0') text += std::string(": ") + diagnostic;
  }
  return {cause, text};
}

void Directory::SetTimeout() {
  const timeval left = deadline_.LeftForLdap();
  ldap_set_option(handle_, LDAP_OPT_TIMEOUT, &left);
}

Failure Directory::Connect(const Address& address) {
  Address with_port = address;
  with_port.SetPort(controller_.port);
  if (!socket_.Connect(with_port, deadline_)) return ConnectionFailure(errno);

  const std::string url = "ldap://" + controller_.name + ':' + std::to_string(controller_.port);
  int code = ldap_init_fd(socket_.Descriptor(), LDAP_PROTO_TCP, url.c_str(), &handle_);
  if (code != LDAP_SUCCESS) return Explain(code);
  Sockbuf* buffer = nullptr;
  code = ldap_get_option(handle_, LDAP_OPT_SOCKBUF, &buffer);
  if (code != LDAP_OPT_SUCCESS) return Explain(LDAP_LOCAL_ERROR);
  static Sockbuf_IO calls = {DirectoryIo::Setup, DirectoryIo::Remove, DirectoryIo::Control,
                             DirectoryIo::Read,  DirectoryIo::Write,  DirectoryIo::Close};
  ber_len_t largest = kLargestMessage;
  const int version = LDAP_VERSION3;
  const int most = kMostEntries;
  // Above the layer that libldap brings, and instead of it: without one of its own it would crash,
  // should this fail.
  if (ber_sockbuf_add_io(buffer, &calls, LBER_SBIOD_LEVEL_PROVIDER + 1, this) != 0 ||
      ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &largest) != 1 ||
      ldap_set_option(handle_, LDAP_OPT_PROTOCOL_VERSION, &version) != LDAP_OPT_SUCCESS ||
      ldap_set_option(handle_, LDAP_OPT_REFERRALS, LDAP_OPT_OFF) != LDAP_OPT_SUCCESS ||
      ldap_set_option(handle_, LDAP_OPT_SIZELIMIT, &most) != LDAP_OPT_SUCCESS) {
    return {Cause::kLibrary, "The LDAP connection cannot be set up"};
  }
  return {};
}

// Sends one token of the mechanism and receives the next.
Failure Directory::Step(std::string_view token, std::string& answer, bool& is_done) {
  SetTimeout();
  berval sent = Value(token);
  berval* received = nullptr;
  const int code = ldap_sasl_bind_s(handle_, "", kMechanism, &sent, nullptr, nullptr, &received);
  const std::unique_ptr<berval, FreeValue> owned(received);
  if (code != LDAP_SUCCESS && code != LDAP_SASL_BIND_IN_PROGRESS) {
    Failure failure = Explain(code);
    // What the controller was shown is a ticket for its own name, so what it says against that, or
    // of another server, is no word of a controller's.
    if (failure.cause == Cause::kBadCredentials || failure.cause == Cause::kRefused ||
        failure.cause == Cause::kReferred) {
      failure.cause = Cause::kNotTrusted;
    }
    return failure;
  }
  is_done = code == LDAP_SUCCESS;
  answer = received != nullptr ? std::string(received->bv_val, received->bv_len) : "";
  return {};
}

Failure Directory::BindKerberos(Kdc& kdc, krb5_ccache cache, const std::string& realm) {
  if (Failure failure = kdc.GetTicket("ldap", cache)) return failure;
  auto layer = std::make_unique<SealedLayer>();
  if (Failure failure = layer->Open(kdc, cache, "ldap/" + controller_.name + '@' + realm)) {
    return failure;
  }
  std::string received;
  std::string token;
  bool is_done = false;
  for (bool is_complete = false; !is_complete;) {
    if (Failure failure = layer->Continue(received, token, is_complete)) return failure;
    if (Failure failure = Step(token, received, is_done)) return failure;
    if (is_done) return {Cause::kNotTrusted, "The controller ended the bind too early"};
  }
  if (Failure failure = layer->Choose(received, token)) return failure;
  if (Failure failure = Step(token, received, is_done)) return failure;
  if (!is_done) return {Cause::kProtocol, "The controller does not end the bind"};

  Sockbuf* buffer = nullptr;
  if (ldap_get_option(handle_, LDAP_OPT_SOCKBUF, &buffer) != LDAP_OPT_SUCCESS ||
      !layer->Insert(buffer)) {
    return {Cause::kLibrary, "The LDAP connection cannot be sealed"};
  }
  sealed_ = std::move(layer);
  return {};
}

Failure Directory::BindSimple(const std::string& name, const Secret& password,
                              const std::string& ca_file) {
  // With none a server lets everybody in, as nobody (RFC 4513, 5.1.2).
  if (password.Empty()) return {Cause::kBadCredentials, "There is no password"};
  const int demand = LDAP_OPT_X_TLS_DEMAND;
  const int client = 0;
  int code = ldap_set_option(handle_, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
  if (code == LDAP_OPT_SUCCESS && !ca_file.empty()) {
    code = ldap_set_option(handle_, LDAP_OPT_X_TLS_CACERTFILE, ca_file.c_str());
  }
  if (code == LDAP_OPT_SUCCESS) code = ldap_set_option(handle_, LDAP_OPT_X_TLS_NEWCTX, &client);
  if (code != LDAP_OPT_SUCCESS) {
    return {Cause::kNotTrusted, "The certificate authorities cannot be read: " + ca_file};
  }
  SetTimeout();
  code = ldap_start_tls_s(handle_, nullptr, nullptr);
  if (code != LDAP_SUCCESS) {
    Failure failure = Explain(code);
    if (code == LDAP_CONNECT_ERROR && !is_lost_) failure.cause = Cause::kNotTrusted;
    return failure;
  }
  Sockbuf* buffer = nullptr;
  static Sockbuf_IO calls = {WipingIo::Setup, WipingIo::Remove, WipingIo::Control,
                             WipingIo::Read,  WipingIo::Write,  WipingIo::Close};
  if (ldap_get_option(handle_, LDAP_OPT_SOCKBUF, &buffer) != LDAP_OPT_SUCCESS ||
      ber_sockbuf_add_io(buffer, &calls, LBER_SBIOD_LEVEL_APPLICATION, nullptr) != 0) {
    return {Cause::kLibrary, "The LDAP connection cannot be set up"};
  }
  SetTimeout();
  berval secret = Value(password.View());
  return Explain(ldap_sasl_bind_s(handle_, name.c_str(), LDAP_SASL_SIMPLE, &secret, nullptr,
                                  nullptr, nullptr));
}

Failure Directory::Search(const std::string& base, int scope, const std::string& filter,
                          const std::vector<std::string>& attributes, std::vector<Entry>& entries) {
  std::vector<char*> names;
  names.reserve(attributes.size() + 1);
  for (const std::string& attribute : attributes)
    names.push_back(const_cast<char*>(attribute.c_str()));  // only read
  names.push_back(nullptr);
  timeval left = deadline_.LeftForLdap();
  LDAPMessage* found = nullptr;
  const int code = ldap_search_ext_s(handle_, base.c_str(), scope, filter.c_str(), names.data(), 0,
                                     nullptr, nullptr, &left, kMostEntries, &found);
  const std::unique_ptr<LDAPMessage, FreeMessage> owned(found);  // a failed one may have some too
  if (code != LDAP_SUCCESS && code != LDAP_SIZELIMIT_EXCEEDED) return Explain(code);

  // A notice of disconnection that speaks of success has no result.
  LDAPMessage* message = owned ? ldap_first_entry(handle_, owned.get()) : nullptr;
  for (; message != nullptr; message = ldap_next_entry(handle_, message)) {
    Entry entry;
    const std::unique_ptr<char, FreeLdapMemory> dn(ldap_get_dn(handle_, message));
    entry.dn = dn ? dn.get() : "";
    BerElement* position = nullptr;
    std::unique_ptr<char, FreeLdapMemory> name(ldap_first_attribute(handle_, message, &position));
    const std::unique_ptr<BerElement, FreeElement> owned_position(position);
    for (; name; name.reset(ldap_next_attribute(handle_, message, position))) {
      const std::unique_ptr<berval*, FreeValues> values(
          ldap_get_values_len(handle_, message, name.get()));
      std::vector<std::string>& list = entry.attributes[Lower(name.get())];
      for (berval** value = values.get(); value != nullptr && *value != nullptr; ++value)
        list.emplace_back((*value)->bv_val, (*value)->bv_len);
    }
    entries.push_back(std::move(entry));
  }
  return {};
}

Failure Directory::Add(const std::string& dn, const std::vector<Change>& attributes) {
  SetTimeout();
  Modifications list(attributes);
  return Explain(ldap_add_ext_s(handle_, dn.c_str(), list.Get(), nullptr, nullptr));
}

Failure Directory::Modify(const std::string& dn, const std::vector<Change>& changes) {
  SetTimeout();
  Modifications list(changes);
  return Explain(ldap_modify_ext_s(handle_, dn.c_str(), list.Get(), nullptr, nullptr));
}

Failure Directory::Delete(const std::string& dn) {
  SetTimeout();
  int code = ldap_delete_ext_s(handle_, dn.c_str(), nullptr, nullptr);
  if (code == LDAP_NOT_ALLOWED_ON_NONLEAF) {  // for what lies beneath it, a right of its own
    LDAPControl tree{const_cast<char*>(kTreeDelete), {0, nullptr}, 1};
    LDAPControl* controls[] = {&tree, nullptr};
    SetTimeout();
    code = ldap_delete_ext_s(handle_, dn.c_str(), controls, nullptr);
  }
  return Explain(code);
}

std::string EscapeForFilter(std::string_view value) {
  return Escape(value, "*()\\");
}

std::string EscapeForName(std::string_view value) {
  return Escape(value, " \"#+,;<=>\\");
}

}  // namespace tavrel::plus
