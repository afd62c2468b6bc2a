// A bounded reader of NDR ([C706] 14, [MS-RPCE] 2.2.6), as far as a PAC needs it: little-endian,
// each value aligned to its size from the start of the data.
#ifndef TAVREL_PLUS_SRC_NDR_H
#define TAVREL_PLUS_SRC_NDR_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tavrel/plus/Sid.h"

namespace tavrel::plus {

// UTF-8 for little-endian UTF-16. Nothing when that has a half of a surrogate pair, an odd number
// of bytes, or the character 0.
std::optional<std::string> FromUtf16(std::string_view bytes);

// Takes values off the front. The first that does not fit, or is not what it must be, makes the
// reader fail for good: values are 0 from then on, and Ok() is false. So a structure is read
// straight through, and judged once. The bytes must outlive the reader.
class NdrReader {
 public:
  // What an RPC_UNICODE_STRING has in its structure; the text follows behind.
  struct Text {
    std::uint16_t bytes = 0;
    bool present = false;
  };

  explicit NdrReader(std::string_view bytes) : bytes_(bytes) {}

  // Reads the two headers of a serialized type ([MS-RPCE] 2.2.6.1, 2.2.6.2) and the pointer to it.
  static NdrReader OfType(std::string_view bytes);

  bool Ok() const { return ok_; }
  void Fail() { ok_ = false; }

  std::uint8_t Take8() { return static_cast<std::uint8_t>(Take(1)); }
  std::uint16_t Take16() { return static_cast<std::uint16_t>(Take(2)); }
  std::uint32_t Take32() { return static_cast<std::uint32_t>(Take(4)); }
  std::string_view TakeBytes(std::size_t count);

  // A pointer: true when something follows for it. What it points to stands behind the structure.
  bool TakePointer() { return Take32() != 0; }
  Text TakeText();

  // What pointers point to; `text`, `count` and `present` are what the structure said.
  std::string TakeTextBody(Text text);
  Sid TakeSidBody();
  // The number of elements of an array that follows: fails when it is not `count`, when there is an
  // array of that many elements of `least_size` bytes no longer in the data, or when an array that
  // is not present should have elements. Returns `count`, 0 on failure.
  std::uint32_t TakeArray(bool present, std::uint32_t count, std::size_t least_size);

 private:
  std::uint64_t Take(std::size_t size);

  std::string_view bytes_;
  std::size_t position_ = 0;
  bool ok_ = true;
};

}  // namespace tavrel::plus

#endif
