// The bytes of an input, read as the decisions of a script.
#ifndef TAVREL_FUZZ_SCRIPT_H
#define TAVREL_FUZZ_SCRIPT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavrel::fuzz {

// Behind the end every number is 0 and every text empty, so that any bytes are a script.
class Script {
 public:
  Script(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool Done() const { return rest_.empty(); }

  unsigned Byte() {
    const std::string byte = Bytes(1);
    return byte.empty() ? 0 : static_cast<unsigned char>(byte[0]);
  }
  unsigned Below(unsigned limit) { return Byte() % limit; }
  unsigned Word() {
    const unsigned high = Byte();
    return high << 8 | Byte();
  }

  // The next `count` bytes, or as many as there are.
  std::string Bytes(std::size_t count) {
    const std::string_view bytes = rest_.substr(0, count);
    rest_.remove_prefix(bytes.size());
    return std::string(bytes);
  }
  // A length byte and the text of that length.
  std::string Text() { return Bytes(Byte()); }
  std::string Rest() { return Bytes(rest_.size()); }

 private:
  std::string_view rest_;
};

}  // namespace tavrel::fuzz

#endif
