// Addresses of clients, and networks of them.
#ifndef TAVREL_TOOLS_COMMON_ADDRESS_H
#define TAVREL_TOOLS_COMMON_ADDRESS_H

#include <sys/socket.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace tavrel::tools {

// An IPv4 or IPv6 address without a port; an IPv4 address within IPv6 (RFC 4291, 2.5.5.2) is the
// IPv4 address. All are kept as 128 bits.
class Address {
 public:
  // Nothing when `text` is anything else.
  static std::optional<Address> Parse(std::string_view text);
  // Nothing when it is of another family.
  static std::optional<Address> Of(const sockaddr* address);

  std::string Text() const;
  std::string_view bytes() const {
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
  }
  bool is_ipv4() const;
  // The address by which connections of one client are counted: of IPv6 the network of /64, all of
  // which a client may have.
  Address Client() const;

  friend bool operator==(const Address& a, const Address& b) { return a.bytes_ == b.bytes_; }
  friend bool operator<(const Address& a, const Address& b) { return a.bytes_ < b.bytes_; }

 private:
  friend class Network;
  std::array<unsigned char, 16> bytes_{};
};

// All addresses that begin alike.
class Network {
 public:
  // `10.0.0.0/8`, `2001:db8::/32`, or a single address. Nothing when `text` is anything else, or
  // when the address has bits behind the prefix, which is a slip.
  static std::optional<Network> Parse(std::string_view text);

  bool Contains(const Address& address) const;

 private:
  Address address_;
  int bits_ = 0;  // of 128
};

}  // namespace tavrel::tools

#endif
