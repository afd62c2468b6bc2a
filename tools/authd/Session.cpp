#include "authd/Session.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/random.h>

#include <algorithm>
#include <map>
#include <memory>

#include "common/Settings.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

// A cookie is, in base64: version, id of the key, nonce, what is sealed, and the tag.
constexpr char kVersion = 1;
constexpr std::size_t kIdSize = 4;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kHeaderSize = 1 + kIdSize + kNonceSize;
constexpr std::size_t kRidSize = 4;
constexpr std::int64_t kClockDifference = 300;  // between two nodes that share the keys

struct CipherFree {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, CipherFree>;

// Looked up once, since that takes longer than opening a cookie; each time, if it failed then.
const EVP_CIPHER* Aes256Gcm() {
  static const EVP_CIPHER* const kCipher = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
  return kCipher != nullptr ? kCipher : EVP_aes_256_gcm();
}

const unsigned char* Bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

std::string Hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += "0123456789abcdef"[byte >> 4U];
    text += "0123456789abcdef"[byte & 0xFU];
  }
  return text;
}

std::optional<std::string> FromHex(std::string_view text) {
  const auto digit = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string bytes;
  bytes.reserve(text.size() / 2);  // growing would leave parts of a key behind
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    const int high = digit(text[i]);
    const int low = digit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes += static_cast<char>(high * 16 + low);
  }
  return text.size() % 2 == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

// Everything that a cookie must agree with, and that is not in it.
std::string Bound(std::string_view header, std::string_view host) {
  return "tavrel session" + std::string(header) + Lower(host);
}

// --- what is sealed ------------------------------------------------------------------------------

void PutNumber(std::string& to, std::uint64_t number, std::size_t size) {
  for (std::size_t i = size; i-- > 0;)
    to += static_cast<char>(number >> (8 * i) & 0xFFU);
}
void PutText(std::string& to, std::string_view text, std::size_t size_of_length) {
  PutNumber(to, text.size(), size_of_length);
  to += text;
}

// Takes numbers and texts off the front of what is left; false when there is too little.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : left_(bytes) {}

  bool Number(std::uint64_t& number, std::size_t size) {
    if (left_.size() < size) return false;
    number = 0;
    for (std::size_t i = 0; i < size; ++i) {
      number = number << 8U | static_cast<unsigned char>(left_[i]);
    }
    left_.remove_prefix(size);
    return true;
  }
  bool Text(std::string& text, std::size_t size_of_length) {
    std::uint64_t length = 0;
    return Number(length, size_of_length) && Bytes(text, static_cast<std::size_t>(length));
  }
  bool Bytes(std::string& bytes, std::size_t size) {
    if (left_.size() < size) return false;
    bytes = left_.substr(0, size);
    left_.remove_prefix(size);
    return true;
  }
  bool done() const { return left_.empty(); }

 private:
  std::string_view left_;
};

// Most groups of a user differ in their last part alone: what comes before it is written once.
std::string Pack(const User& user, std::int64_t sealed) {
  std::string plain;
  PutNumber(plain, static_cast<std::uint64_t>(user.signed_in), 8);
  PutNumber(plain, static_cast<std::uint64_t>(sealed), 8);
  PutText(plain, user.name, 2);
  PutText(plain, user.service, 2);
  PutText(plain, user.sid ? user.sid->ToBytes() : "", 1);
  std::map<std::string, std::string> rids;
  for (const plus::Sid& group : user.groups) {
    const std::string bytes = group.ToBytes();
    rids[bytes.substr(0, bytes.size() - kRidSize)] += bytes.substr(bytes.size() - kRidSize);
  }
  for (const auto& [domain, rids_of_it] : rids) {
    PutText(plain, domain, 1);
    PutNumber(plain, rids_of_it.size() / kRidSize, 2);
    plain += rids_of_it;
  }
  return plain;
}

bool Unpack(std::string_view plain, User& user, std::int64_t& sealed) {
  Reader reader(plain);
  std::uint64_t signed_in = 0;
  std::uint64_t sealed_at = 0;
  std::string sid;
  if (!reader.Number(signed_in, 8) || !reader.Number(sealed_at, 8) || !reader.Text(user.name, 2) ||
      !reader.Text(user.service, 2) || !reader.Text(sid, 1)) {
    return false;
  }
  user.signed_in = static_cast<std::int64_t>(signed_in);
  sealed = static_cast<std::int64_t>(sealed_at);
  if (!sid.empty() && !(user.sid = plus::Sid::FromBytes(sid))) return false;
  while (!reader.done()) {
    std::string domain;
    std::string rid;
    std::uint64_t count = 0;
    if (!reader.Text(domain, 1) || !reader.Number(count, 2)) return false;
    for (; count > 0; --count) {
      if (!reader.Bytes(rid, kRidSize)) return false;
      const auto group = plus::Sid::FromBytes(domain + rid);
      if (!group) return false;
      user.groups.push_back(*group);
    }
  }
  return true;
}

}  // namespace

// --- keys ----------------------------------------------------------------------------------------

SessionKeys::~SessionKeys() {
  for (Key& key : keys_)
    OPENSSL_cleanse(key.bytes.data(), key.bytes.size());
}

std::optional<SessionKeys> SessionKeys::Parse(std::string_view text, const std::string& file,
                                              std::string* error) {
  SessionKeys keys;
  const auto take = [&](std::string_view content, int /*number*/) -> std::string {
    const std::vector<std::string_view> words = Words(content);
    Key key;
    auto bytes = FromHex(words[0]);
    if (!bytes || bytes->size() != kKeySize) return "a key has 64 hexadecimal digits";
    key.bytes = std::move(*bytes);
    if (words.size() != 1) {
      const auto from = words.size() == 3 ? ParseTime(words[2]) : std::nullopt;
      if (words[1] != "from" || !from) {
        return "behind a key there may be `from` and a time like 2026-11-22T01:00:00Z";
      }
      key.from = *from;
    }
    std::string digest(EVP_MAX_MD_SIZE, '\0');
    if (EVP_Digest(key.bytes.data(), key.bytes.size(), Bytes(digest), nullptr, EVP_sha256(),
                   nullptr) != 1) {
      return "libcrypto cannot make a digest";
    }
    key.id = digest.substr(0, kIdSize);
    if (keys.Find(key.id) != nullptr) return "this key is there twice";
    keys.keys_.push_back(std::move(key));
    return "";
  };
  if (!ReadLines(text, file, take, error)) return std::nullopt;
  if (keys.keys_.empty()) {
    *error = file + ": there is no key in it";
    return std::nullopt;
  }
  return keys;
}

std::optional<std::string> SessionKeys::WithNewKey(std::string_view text, const std::string& file,
                                                   std::int64_t from, std::size_t keep,
                                                   std::string* error) {
  SessionKeys old;
  if (!Trimmed(text).empty()) {
    auto parsed = Parse(text, file, error);
    if (!parsed) return std::nullopt;
    old = std::move(*parsed);
  }
  std::string key(kKeySize, '\0');
  if (RAND_bytes(Bytes(key), static_cast<int>(key.size())) != 1) {
    *error = "there is no randomness for a key";
    return std::nullopt;
  }
  std::string result =
      "# Keys of session cookies, newest first. Whoever can read this file can sign "
      "in as anybody.\n";
  result += Hex(key) + (old.keys_.empty() ? "" : " from " + FormatTime(from)) + "\n";
  OPENSSL_cleanse(key.data(), key.size());
  for (std::size_t i = 0; i < std::min(keep, old.keys_.size()); ++i) {
    const Key& kept = old.keys_[i];
    result += Hex(kept.bytes) + (kept.from == 0 ? "" : " from " + FormatTime(kept.from)) + "\n";
  }
  return result;
}

const SessionKeys::Key& SessionKeys::ForSealing(std::int64_t now) const {
  const auto ready =
      std::find_if(keys_.begin(), keys_.end(), [&](const Key& key) { return key.from <= now; });
  return ready != keys_.end() ? *ready : keys_.back();
}

const SessionKeys::Key* SessionKeys::Find(std::string_view id) const {
  const auto found =
      std::find_if(keys_.begin(), keys_.end(), [&](const Key& key) { return key.id == id; });
  return found != keys_.end() ? &*found : nullptr;
}

// --- cookies -------------------------------------------------------------------------------------

std::string Sessions::Seal(const User& user, std::string_view host, std::int64_t now) const {
  const SessionKeys::Key& key = keys_.ForSealing(now);
  const std::string plain = Pack(user, now);
  std::string nonce(kNonceSize, '\0');
  if (getrandom(nonce.data(), nonce.size(), 0) != ssize_t{kNonceSize}) return "";
  const std::string header = kVersion + key.id + nonce;
  const std::string bound = Bound(header.substr(0, 1 + kIdSize), host);
  std::string sealed(plain.size(), '\0');
  std::string tag(kTagSize, '\0');
  const Cipher cipher(EVP_CIPHER_CTX_new());
  int size = 0;
  if (!cipher ||
      EVP_EncryptInit_ex(cipher.get(), Aes256Gcm(), nullptr, Bytes(key.bytes), Bytes(nonce)) != 1 ||
      EVP_EncryptUpdate(cipher.get(), nullptr, &size, Bytes(bound),
                        static_cast<int>(bound.size())) != 1 ||
      EVP_EncryptUpdate(cipher.get(), Bytes(sealed), &size, Bytes(plain),
                        static_cast<int>(plain.size())) != 1 ||
      EVP_EncryptFinal_ex(cipher.get(), Bytes(sealed) + size, &size) != 1 ||
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_GET_TAG, kTagSize, tag.data()) != 1) {
    return "";
  }
  std::string cookie = ToBase64Url(header + sealed + tag);
  return cookie.size() <= kLongestCookie ? cookie : "";
}

std::optional<Sessions::Opened> Sessions::Open(std::string_view cookie, std::string_view host,
                                               std::int64_t now) const {
  if (cookie.size() > kLongestCookie) return std::nullopt;
  const auto bytes = FromBase64Url(cookie);
  if (!bytes || bytes->size() < kHeaderSize + kTagSize || bytes->front() != kVersion) {
    return std::nullopt;
  }
  const std::string_view view = *bytes;
  const SessionKeys::Key* const key = keys_.Find(view.substr(1, kIdSize));
  if (key == nullptr) return std::nullopt;
  const std::string bound = Bound(view.substr(0, 1 + kIdSize), host);
  const std::string_view nonce = view.substr(1 + kIdSize, kNonceSize);
  const std::string_view sealed = view.substr(kHeaderSize, view.size() - kHeaderSize - kTagSize);
  std::string tag = bytes->substr(bytes->size() - kTagSize);
  std::string plain(sealed.size(), '\0');
  const Cipher cipher(EVP_CIPHER_CTX_new());
  int size = 0;
  if (!cipher ||
      EVP_DecryptInit_ex(cipher.get(), Aes256Gcm(), nullptr, Bytes(key->bytes), Bytes(nonce)) !=
          1 ||
      EVP_DecryptUpdate(cipher.get(), nullptr, &size, Bytes(bound),
                        static_cast<int>(bound.size())) != 1 ||
      EVP_DecryptUpdate(cipher.get(), Bytes(plain), &size, Bytes(sealed),
                        static_cast<int>(sealed.size())) != 1 ||
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_SET_TAG, kTagSize, tag.data()) != 1 ||
      EVP_DecryptFinal_ex(cipher.get(), Bytes(plain) + size, &size) != 1) {
    return std::nullopt;
  }

  Opened opened{};
  std::int64_t sealed_at = 0;
  if (!Unpack(plain, opened.user, sealed_at)) return std::nullopt;
  if (opened.user.signed_in > now + kClockDifference || sealed_at > now + kClockDifference) {
    return std::nullopt;
  }
  if (now - opened.user.signed_in >= lifetime_ || now - sealed_at >= idle_) return std::nullopt;
  opened.renew = now - sealed_at >= idle_ / 8;
  return opened;
}

}  // namespace tavrel::tools
