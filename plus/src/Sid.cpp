#include "tavrel/plus/Sid.h"

#include <charconv>
#include <cstddef>

namespace tavrel::plus {
namespace {

constexpr std::size_t kHeaderSize = 8;  // revision, count, authority
constexpr std::size_t kPartSize = 4;
constexpr char kRevision = 1;
constexpr std::size_t kHexDigits = 12;  // of an authority
constexpr std::uint64_t kLargestDecimalAuthority = 0xFFFFFFFF;

// Takes a whole number off the front of `text`; false when it has none, or one above `largest`.
bool TakeNumber(std::string_view& text, std::uint64_t largest, std::uint64_t& number,
                int base = 10) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || number > largest) return false;
  text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
  return true;
}

bool TakePrefix(std::string_view& text, std::string_view prefix) {
  if (text.substr(0, prefix.size()) != prefix) return false;
  text.remove_prefix(prefix.size());
  return true;
}

}  // namespace

std::optional<Sid> Sid::FromBytes(std::string_view bytes) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  if (bytes.size() < kHeaderSize || bytes[0] != kRevision) return std::nullopt;
  Sid sid;
  sid.count_ = byte(1);
  if (sid.count_ > kMostSubAuthorities) return std::nullopt;
  if (bytes.size() != kHeaderSize + kPartSize * sid.count_) return std::nullopt;

  for (std::size_t i = 2; i < kHeaderSize; ++i) {
    sid.authority_ = sid.authority_ << 8U | byte(i);
  }
  for (std::size_t i = 0; i < sid.count_; ++i) {
    const std::size_t at = kHeaderSize + kPartSize * i;
    for (std::size_t j = kPartSize; j-- > 0;) {
      sid.parts_[i] = sid.parts_[i] << 8U | byte(at + j);
    }
  }
  return sid;
}

std::optional<Sid> Sid::FromText(std::string_view text) {
  if (!TakePrefix(text, "S-1-")) return std::nullopt;
  Sid sid;
  if (TakePrefix(text, "0x")) {
    const std::size_t behind = text.size();
    if (!TakeNumber(text, UINT64_MAX, sid.authority_, 16) || behind - text.size() != kHexDigits) {
      return std::nullopt;
    }
  } else if (!TakeNumber(text, kLargestDecimalAuthority, sid.authority_)) {
    return std::nullopt;
  }
  while (!text.empty()) {
    std::uint64_t part = 0;
    if (sid.count_ == kMostSubAuthorities || !TakePrefix(text, "-") ||
        !TakeNumber(text, UINT32_MAX, part)) {
      return std::nullopt;
    }
    sid.parts_[sid.count_++] = static_cast<std::uint32_t>(part);
  }
  return sid;
}

std::string Sid::ToBytes() const {
  std::string bytes(1, kRevision);
  bytes += static_cast<char>(count_);
  for (int shift = 40; shift >= 0; shift -= 8) {
    bytes += static_cast<char>(authority_ >> static_cast<unsigned>(shift) & 0xFFU);
  }
  for (std::size_t i = 0; i < count_; ++i) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
      bytes += static_cast<char>(parts_[i] >> shift & 0xFFU);
    }
  }
  return bytes;
}

std::string Sid::ToText() const {
  std::string text = "S-1-";
  if (authority_ <= kLargestDecimalAuthority) {
    text += std::to_string(authority_);
  } else {
    text += "0x";
    for (int shift = 44; shift >= 0; shift -= 4) {
      text += "0123456789abcdef"[authority_ >> static_cast<unsigned>(shift) & 0xFU];
    }
  }
  for (std::size_t i = 0; i < count_; ++i) {
    text += "-" + std::to_string(parts_[i]);
  }
  return text;
}

std::optional<Sid> Sid::WithRid(std::uint32_t rid) const {
  if (count_ == kMostSubAuthorities) return std::nullopt;
  Sid sid = *this;
  sid.parts_[sid.count_++] = rid;
  return sid;
}

bool Sid::IsIn(const Sid& domain) const {
  return count_ == domain.count_ + 1 && domain.WithRid(parts_[count_ - 1]) == *this;
}

}  // namespace tavrel::plus
