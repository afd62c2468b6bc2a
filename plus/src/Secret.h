// What owns a password or a key.
#ifndef TAVREL_PLUS_SRC_SECRET_H
#define TAVREL_PLUS_SRC_SECRET_H

#include <openssl/crypto.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

namespace tavrel::plus {

// Bytes that are wiped when they are let go. Their number is fixed when they are taken, so that no
// copy stays behind when a buffer grows.
class Secret {
 public:
  Secret() = default;
  explicit Secret(std::size_t size) : bytes_(size != 0 ? new char[size]() : nullptr), size_(size) {}
  explicit Secret(std::string_view bytes) : Secret(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), bytes_.get());
  }
  Secret(Secret&& other) noexcept
      : bytes_(std::move(other.bytes_)), size_(std::exchange(other.size_, 0)) {}
  Secret& operator=(Secret&& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~Secret() {
    if (bytes_) OPENSSL_cleanse(bytes_.get(), size_);
  }

  Secret Copy() const { return Secret(View()); }

  char* Data() { return bytes_.get(); }
  std::size_t Size() const { return size_; }
  bool Empty() const { return size_ == 0; }
  std::string_view View() const { return {bytes_.get(), size_}; }

 private:
  std::unique_ptr<char[]> bytes_;
  std::size_t size_ = 0;
};

}  // namespace tavrel::plus

#endif
