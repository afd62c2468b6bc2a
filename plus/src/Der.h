// Strict DER: what SPNEGO and Kerberos messages are made of. Every value has one encoding.
#ifndef TAVREL_PLUS_SRC_DER_H
#define TAVREL_PLUS_SRC_DER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace tavrel::plus::der {

inline constexpr unsigned char kInteger = 0x02;
inline constexpr unsigned char kBitString = 0x03;
inline constexpr unsigned char kOctetString = 0x04;
inline constexpr unsigned char kObjectIdentifier = 0x06;
inline constexpr unsigned char kEnumerated = 0x0A;
inline constexpr unsigned char kGeneralizedTime = 0x18;
inline constexpr unsigned char kGeneralString = 0x1B;
inline constexpr unsigned char kSequence = 0x30;

constexpr unsigned char Application(unsigned number) {
  return static_cast<unsigned char>(0x60U | number);
}
constexpr unsigned char Context(unsigned number) {
  return static_cast<unsigned char>(0xA0U | number);
}

// Takes values off the front of what it was given, which must outlive it. What fails takes nothing.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  bool Empty() const { return rest_.empty(); }
  bool NextIs(unsigned char tag) const {
    return !rest_.empty() && static_cast<unsigned char>(rest_[0]) == tag;
  }

  // The content of the next value, whose tag must be that one. Its length is definite and has no
  // byte too many. `whole` (optional) is the value with tag and length.
  bool Take(unsigned char tag, std::string_view& content, std::string_view* whole = nullptr);

  // The next value is an explicit tag around exactly one value of the type `tag`.
  bool TakeField(unsigned number, unsigned char tag, std::string_view& content,
                 std::string_view* whole = nullptr);

  // Likewise, an integer that fits.
  bool TakeField(unsigned number, std::int32_t& value);

  // Likewise, one of 32 bits without a sign; what is above 2^31 some write as negative.
  bool TakeField(unsigned number, std::uint32_t& value);

 private:
  std::string_view rest_;
};

// One value: tag, length, content.
std::string Value(unsigned char tag, std::string_view content);

}  // namespace tavrel::plus::der

#endif
