#include "Socket.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace tavrel::plus {

void Address::SetPort(std::uint16_t port) {
  if (storage.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6&>(storage).sin6_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in&>(storage).sin_port = htons(port);
  }
}

Socket::~Socket() {
  if (descriptor_ != -1) close(descriptor_);
}

bool Socket::Await(std::int16_t event, const Deadline& deadline) {
  for (;;) {
    pollfd poll_descriptor{descriptor_, event, 0};
    const int ready = poll(&poll_descriptor, 1, static_cast<int>(deadline.Left().count()));
    if (ready > 0) return true;
    if (ready == 0) errno = ETIMEDOUT;
    if (errno != EINTR) return false;
  }
}

bool Socket::Connect(const Address& address, const Deadline& deadline) {
  if (descriptor_ != -1) close(descriptor_);
  descriptor_ = socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor_ == -1) return false;
  const int on = 1;
  setsockopt(descriptor_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // only saves time
  if (connect(descriptor_, reinterpret_cast<const sockaddr*>(&address.storage), address.size) ==
      0) {
    return true;
  }
  if (errno != EINPROGRESS || !Await(POLLOUT, deadline)) return false;
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size) == -1) return false;
  errno = error;
  return error == 0;
}

ssize_t Socket::Read(void* bytes, std::size_t most, const Deadline& deadline) {
  for (;;) {
    if (!Await(POLLIN, deadline)) return -1;
    const ssize_t count = recv(descriptor_, bytes, most, 0);
    if (count != -1 || (errno != EAGAIN && errno != EINTR)) return count;
  }
}

bool Socket::ReadAll(void* bytes, std::size_t size, const Deadline& deadline) {
  auto* next = static_cast<char*>(bytes);
  while (size > 0) {
    const ssize_t count = Read(next, size, deadline);
    if (count == 0) errno = ECONNRESET;
    if (count <= 0) return false;
    next += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool Socket::WriteAll(const void* bytes, std::size_t size, const Deadline& deadline) {
  const auto* next = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t count = send(descriptor_, next, size, MSG_NOSIGNAL);
    if (count == -1) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN || !Await(POLLOUT, deadline)) return false;
      continue;
    }
    next += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

}  // namespace tavrel::plus
