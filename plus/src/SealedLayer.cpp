#include "SealedLayer.h"

#include <arpa/inet.h>
#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace tavrel::plus {
namespace {

constexpr std::size_t kLengthSize = 4;
constexpr std::uint32_t kLargestToken = 1U << 20U;  // as we tell the server, nearly
constexpr unsigned char kSealing = 4;               // of the layers that RFC 4752 knows

// What the GSS-API hands out; wiped, since it can be what was sealed.
struct Buffer : gss_buffer_desc {
  Buffer() : gss_buffer_desc{0, nullptr} {}
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  ~Buffer() {
    OM_uint32 minor = 0;
    if (value != nullptr) OPENSSL_cleanse(value, length);
    gss_release_buffer(&minor, this);
  }
  std::string_view View() const { return {static_cast<const char*>(value), length}; }
};

gss_buffer_desc Given(std::string_view bytes) {
  return {bytes.size(), const_cast<char*>(bytes.data())};  // only read
}

std::string Words(OM_uint32 status, int kind) {
  OM_uint32 minor = 0;
  OM_uint32 more = 0;
  Buffer text;
  gss_display_status(&minor, status, kind, gss_mech_krb5, &more, &text);
  return std::string(text.View());
}

}  // namespace

SealedLayer::~SealedLayer() {
  OM_uint32 minor = 0;
  gss_delete_sec_context(&minor, &context_, GSS_C_NO_BUFFER);
  gss_release_name(&minor, &service_);
  gss_release_cred(&minor, &credentials_);
  OPENSSL_cleanse(open_.data(), open_.size());
}

Failure SealedLayer::Explain(OM_uint32 major, OM_uint32 minor) const {
  const std::string text = Words(major, GSS_C_GSS_CODE) + ": " + Words(minor, GSS_C_MECH_CODE);
  const auto code = static_cast<krb5_error_code>(minor);
  if (code == KRB5KRB_AP_ERR_SKEW) return {Cause::kClockSkew, text};
  return {Cause::kNotTrusted, text};
}

Failure SealedLayer::Open(Kdc& kdc, krb5_ccache cache, const std::string& service) {
  const std::unique_ptr<char, KrbFree<krb5_free_string>> name(
      [&] {
        char* full = nullptr;
        return krb5_cc_get_full_name(kdc.Context(), cache, &full) == 0 ? full : nullptr;
      }(),
      {kdc.Context()});
  if (!name) return {Cause::kLibrary, "The credential cache has no name"};
  OM_uint32 minor = 0;
  gss_key_value_element_desc element{"ccache", name.get()};
  const gss_key_value_set_desc store{1, &element};
  gss_OID_set_desc mechanisms{1, const_cast<gss_OID>(gss_mech_krb5)};
  OM_uint32 major = gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms,
                                          GSS_C_INITIATE, &store, &credentials_, nullptr, nullptr);
  if (GSS_ERROR(major)) return Explain(major, minor);
  gss_buffer_desc text = Given(service);
  major = gss_import_name(&minor, &text, GSS_KRB5_NT_PRINCIPAL_NAME, &service_);
  if (GSS_ERROR(major)) return Explain(major, minor);
  return {};
}

Failure SealedLayer::Continue(std::string_view received, std::string& token, bool& is_complete) {
  constexpr OM_uint32 kWanted =
      GSS_C_MUTUAL_FLAG | GSS_C_INTEG_FLAG | GSS_C_CONF_FLAG | GSS_C_SEQUENCE_FLAG;
  gss_buffer_desc input = Given(received);
  Buffer output;
  OM_uint32 minor = 0;
  OM_uint32 granted = 0;
  const OM_uint32 major = gss_init_sec_context(
      &minor, credentials_, &context_, service_, const_cast<gss_OID>(gss_mech_krb5), kWanted, 0,
      GSS_C_NO_CHANNEL_BINDINGS, &input, nullptr, &output, &granted, nullptr);
  if (GSS_ERROR(major)) return Explain(major, minor);
  token = output.View();
  is_complete = major == GSS_S_COMPLETE;
  if (is_complete && (granted & kWanted) != kWanted) {
    return {Cause::kNotTrusted, "The controller's connection would not be sealed"};
  }
  is_established_ = is_complete;
  return {};
}

Failure SealedLayer::Choose(std::string_view offer, std::string& choice) {
  if (!is_established_) return {Cause::kNotTrusted, "The controller has not proven its name"};
  gss_buffer_desc input = Given(offer);
  Buffer opened;
  OM_uint32 minor = 0;
  OM_uint32 major = gss_unwrap(&minor, context_, &input, &opened, nullptr, nullptr);
  if (GSS_ERROR(major)) return Explain(major, minor);
  // One byte of layers, and three of the longest token that the server takes.
  if (opened.length != kLengthSize) {
    return {Cause::kProtocol, "The controller's offer of layers cannot be read"};
  }
  std::uint32_t word = 0;
  std::memcpy(&word, opened.value, sizeof word);
  word = ntohl(word);
  const std::uint32_t largest = word & 0xFFFFFFU;
  if ((word >> 24U & kSealing) == 0) {
    return {Cause::kNotTrusted, "The controller does not offer to seal the connection"};
  }
  major = gss_wrap_size_limit(&minor, context_, 1, GSS_C_QOP_DEFAULT, largest, &most_);
  if (GSS_ERROR(major) || most_ == 0) {
    return {Cause::kProtocol, "The controller takes no sealed message"};
  }

  word = htonl(std::uint32_t{kSealing} << 24U | (kLargestToken - 1));
  gss_buffer_desc answer = Given({reinterpret_cast<const char*>(&word), sizeof word});
  Buffer sealed;
  major = gss_wrap(&minor, context_, 1, GSS_C_QOP_DEFAULT, &answer, nullptr, &sealed);
  if (GSS_ERROR(major)) return Explain(major, minor);
  choice = sealed.View();
  return {};
}

// What liblber calls. libldap frees what it sends without wiping it, and nothing reads it again, so
// that happens here: it can be a password.
struct SealedIo {
  static SealedLayer& Self(Sockbuf_IO_Desc* io) {
    return *static_cast<SealedLayer*>(io->sbiod_pvt);
  }
  static int Setup(Sockbuf_IO_Desc* io, void* self) {
    io->sbiod_pvt = self;
    return 0;
  }
  static int Remove(Sockbuf_IO_Desc* /*io*/) { return 0; }
  static int Close(Sockbuf_IO_Desc* /*io*/) { return 0; }

  static int Control(Sockbuf_IO_Desc* io, int option, void* value) {
    const SealedLayer& self = Self(io);
    if (option == LBER_SB_OPT_DATA_READY && self.taken_ < self.open_.size()) return 1;
    return LBER_SBIOD_CTRL_NEXT(io, option, value);
  }

  // Receives until there are `size` bytes of the token, its length included.
  static bool Receive(Sockbuf_IO_Desc* io, std::string& token, std::size_t size) {
    while (token.size() < size) {
      char bytes[4096];
      const std::size_t most = std::min(sizeof bytes, size - token.size());
      const ber_slen_t count = LBER_SBIOD_READ_NEXT(io, bytes, most);
      if (count <= 0) return false;
      token.append(bytes, static_cast<std::size_t>(count));
    }
    return true;
  }

  // An exception that passes through libldap leaves its locks taken.
  static ber_slen_t LackOfMemory(Sockbuf_IO_Desc* io) {
    Self(io).lacks_memory_ = true;
    errno = ENOMEM;
    return -1;
  }

  static ber_slen_t Read(Sockbuf_IO_Desc* io, void* bytes, ber_len_t most) try {
    SealedLayer& self = Self(io);
    if (self.taken_ == self.open_.size()) {
      if (!Receive(io, self.received_, kLengthSize)) return -1;
      std::uint32_t size = 0;
      std::memcpy(&size, self.received_.data(), sizeof size);
      size = ntohl(size);
      errno = EMSGSIZE;
      if (size > kLargestToken || !Receive(io, self.received_, kLengthSize + size)) return -1;
      const std::string_view received = self.received_;
      gss_buffer_desc token = Given(received.substr(kLengthSize));
      Buffer opened;
      OM_uint32 minor = 0;
      int is_sealed = 0;
      const OM_uint32 major =
          gss_unwrap(&minor, self.context_, &token, &opened, &is_sealed, nullptr);
      self.received_.clear();
      errno = EIO;
      if (GSS_ERROR(major) || is_sealed == 0) return -1;
      self.open_ = opened.View();
      self.taken_ = 0;
    }
    const std::size_t count = std::min<std::size_t>(most, self.open_.size() - self.taken_);
    std::copy_n(self.open_.data() + self.taken_, count, static_cast<char*>(bytes));
    self.taken_ += count;
    return static_cast<ber_slen_t>(count);
  } catch (const std::bad_alloc&) {
    return LackOfMemory(io);
  }

  static ber_slen_t Write(Sockbuf_IO_Desc* io, void* bytes, ber_len_t size) try {
    const SealedLayer& self = Self(io);
    for (std::size_t sent = 0; sent < size;) {
      char* const part = static_cast<char*>(bytes) + sent;
      const std::size_t count = std::min<std::size_t>(size - sent, self.most_);
      gss_buffer_desc plain{count, part};
      Buffer sealed;
      OM_uint32 minor = 0;
      const OM_uint32 major =
          gss_wrap(&minor, self.context_, 1, GSS_C_QOP_DEFAULT, &plain, nullptr, &sealed);
      OPENSSL_cleanse(part, count);
      errno = EIO;
      if (GSS_ERROR(major)) return -1;
      const std::uint32_t length = htonl(static_cast<std::uint32_t>(sealed.length));
      std::string framed(reinterpret_cast<const char*>(&length), sizeof length);
      framed += sealed.View();
      // What is below sends all of it, or fails.
      if (LBER_SBIOD_WRITE_NEXT(io, framed.data(), framed.size()) < 0) return -1;
      sent += count;
    }
    return static_cast<ber_slen_t>(size);
  } catch (const std::bad_alloc&) {
    return LackOfMemory(io);
  }
};

bool SealedLayer::Insert(Sockbuf* buffer) {
  static Sockbuf_IO calls = {SealedIo::Setup, SealedIo::Remove, SealedIo::Control,
                             SealedIo::Read,  SealedIo::Write,  SealedIo::Close};
  return ber_sockbuf_add_io(buffer, &calls, LBER_SBIOD_LEVEL_APPLICATION, this) == 0;
}

}  // namespace tavrel::plus
