#include "common/Address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "common/Text.h"

namespace tavrel::tools {
namespace {

constexpr unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
constexpr int kMappedBits = 96;
constexpr int kClientBytes = 8;

}  // namespace

std::optional<Address> Address::Parse(std::string_view text) {
  const std::string copy(text);
  if (copy.size() != std::strlen(copy.c_str())) return std::nullopt;
  Address address;
  if (inet_pton(AF_INET6, copy.c_str(), address.bytes_.data()) == 1) return address;
  std::copy(std::begin(kMapped), std::end(kMapped), address.bytes_.begin());
  if (inet_pton(AF_INET, copy.c_str(), address.bytes_.data() + sizeof kMapped) == 1) return address;
  return std::nullopt;
}

std::optional<Address> Address::Of(const sockaddr* address) {
  Address result;
  if (address != nullptr && address->sa_family == AF_INET6) {
    std::memcpy(result.bytes_.data(), &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr,
                result.bytes_.size());
    return result;
  }
  if (address != nullptr && address->sa_family == AF_INET) {
    std::copy(std::begin(kMapped), std::end(kMapped), result.bytes_.begin());
    std::memcpy(result.bytes_.data() + sizeof kMapped,
                &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, sizeof(in_addr));
    return result;
  }
  return std::nullopt;
}

bool Address::is_ipv4() const {
  return std::equal(std::begin(kMapped), std::end(kMapped), bytes_.begin());
}

Address Address::Client() const {
  Address client = *this;
  if (!is_ipv4()) std::fill(client.bytes_.begin() + kClientBytes, client.bytes_.end(), 0);
  return client;
}

std::string Address::Text() const {
  char text[INET6_ADDRSTRLEN] = "";
  if (is_ipv4()) {
    inet_ntop(AF_INET, bytes_.data() + sizeof kMapped, text, sizeof text);
  } else {
    inet_ntop(AF_INET6, bytes_.data(), text, sizeof text);
  }
  return text;
}

std::optional<Network> Network::Parse(std::string_view text) {
  const std::size_t slash = text.find('/');
  const auto address = Address::Parse(text.substr(0, slash));
  if (!address) return std::nullopt;
  Network network;
  network.address_ = *address;
  network.bits_ = 128;
  if (slash == std::string_view::npos) return network;
  // An IPv4 address written within IPv6 has a prefix of IPv6.
  const bool dotted = address->is_ipv4() && text.find(':') == std::string_view::npos;
  const auto bits = ParseNumber(text.substr(slash + 1), 0, dotted ? 32 : 128);
  if (!bits) return std::nullopt;
  network.bits_ = static_cast<int>(*bits) + (dotted ? kMappedBits : 0);
  for (int bit = network.bits_; bit < 128; ++bit) {
    const auto index = static_cast<std::size_t>(bit) / 8;
    if ((address->bytes_[index] >> (7 - bit % 8) & 1) != 0) return std::nullopt;
  }
  return network;
}

bool Network::Contains(const Address& address) const {
  for (int bit = 0; bit < bits_; ++bit) {
    const auto index = static_cast<std::size_t>(bit) / 8;
    if (((address.bytes_[index] ^ address_.bytes_[index]) >> (7 - bit % 8) & 1) != 0) return false;
  }
  return true;
}

}  // namespace tavrel::tools
