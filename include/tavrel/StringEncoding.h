/// @file
/// The encoding of password values.
#ifndef TAVREL_STRINGENCODING_H
#define TAVREL_STRINGENCODING_H

#include <lber.h>

#include <cstddef>

#include "tavrel/Export.h"

namespace tavrel {

/// Encodes text the way Active Directory wants it in binary attributes.
class TAVREL_EXPORT StringEncoding {
 public:
  StringEncoding() = delete;

  /// Encodes ASCII text as UTF-16 little-endian, for `unicodePwd` ([MS-ADTS] 3.1.1.3.1.5).
  /// @param data   the text, not kept
  /// @param length its number of bytes, at most 127
  /// @return a new value of twice the length; the caller frees its buffer (`bv_val`) and then the
  ///   value itself with `free`. Null, after a level-4 record, when the text is too long or not
  ///   ASCII; null also when memory is short.
  static berval* EncodeUtf8to16Octetstring(const char* data, std::size_t length);
};

}  // namespace tavrel

#endif
