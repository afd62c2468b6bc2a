/// @file
/// Security identifiers.
#ifndef TAVREL_PLUS_SID_H
#define TAVREL_PLUS_SID_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tavrel/Export.h"

namespace tavrel::plus {

/// A security identifier ([MS-DTYP] 2.4.2): who a user, a group or a domain is, whatever it is
/// called. A value; two are equal when all their parts are.
class TAVREL_EXPORT Sid {
 public:
  static constexpr int kMostSubAuthorities = 15;

  /// `S-1-0`, which is nobody.
  Sid() = default;

  /// Reads the packet form ([MS-DTYP] 2.4.2.2).
  /// @return nothing when `bytes` is not exactly one identifier of revision 1
  static std::optional<Sid> FromBytes(std::string_view bytes);

  /// Reads the SDDL form ([MS-DTYP] 2.4.2.1), `S-1-5-21-...`, with a decimal authority or one of
  /// twelve hexadecimal digits behind `0x`.
  /// @return nothing when `text` is anything else
  static std::optional<Sid> FromText(std::string_view text);

  /// The packet form, 8 to 68 bytes.
  std::string ToBytes() const;

  /// The SDDL form, which FromText() reads.
  std::string ToText() const;

  /// This identifier with `rid` behind its last part, as a domain makes those of its members.
  /// @return nothing when it has all the parts that an identifier can have
  std::optional<Sid> WithRid(std::uint32_t rid) const;

  /// True when this identifier is `domain` with exactly one part more behind it.
  bool IsIn(const Sid& domain) const;

  friend bool operator==(const Sid& a, const Sid& b) {
    return a.authority_ == b.authority_ && a.count_ == b.count_ && a.parts_ == b.parts_;
  }
  friend bool operator!=(const Sid& a, const Sid& b) { return !(a == b); }

 private:
  std::uint64_t authority_ = 0;  // 48 bits
  std::uint32_t count_ = 0;      // of the parts that are there; the others are 0
  std::array<std::uint32_t, kMostSubAuthorities> parts_{};
};

}  // namespace tavrel::plus

#endif
