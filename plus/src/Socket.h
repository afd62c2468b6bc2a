// A TCP connection on which nothing takes longer than it may.
#ifndef TAVREL_PLUS_SRC_SOCKET_H
#define TAVREL_PLUS_SRC_SOCKET_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <utility>

#include "Deadline.h"

namespace tavrel::plus {

// Where a host is.
struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;

  void SetPort(std::uint16_t port);
};

// Owns its descriptor. What fails returns false or -1 and leaves `errno`; ETIMEDOUT when the
// deadline has passed. A peer that has gone raises no signal.
class Socket {
 public:
  Socket() = default;
  Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~Socket();

  // Ends the connection that there was, if any.
  bool Connect(const Address& address, const Deadline& deadline);
  // At least one byte, 0 when the peer has closed.
  ssize_t Read(void* bytes, std::size_t most, const Deadline& deadline);
  bool ReadAll(void* bytes, std::size_t size, const Deadline& deadline);
  bool WriteAll(const void* bytes, std::size_t size, const Deadline& deadline);

  int Descriptor() const { return descriptor_; }
  // Leaves the descriptor to somebody else.
  void Release() { descriptor_ = -1; }

 private:
  bool Await(std::int16_t event, const Deadline& deadline);

  int descriptor_ = -1;
};

}  // namespace tavrel::plus

#endif
