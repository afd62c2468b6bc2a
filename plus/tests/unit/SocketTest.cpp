#include "Socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <iterator>

namespace tavrel::plus::tests {
namespace {

std::ptrdiff_t Descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return std::distance(begin(all), end(all));
}

TEST(Socket, ThatTriesOneAddressAfterTheOtherHasOneDescriptor) {
  Address closed;
  auto& name = reinterpret_cast<sockaddr_in&>(closed.storage);
  name.sin_family = AF_INET;
  inet_pton(AF_INET, "127.0.0.1", &name.sin_addr);
  closed.size = sizeof name;
  closed.SetPort(1);
  const std::ptrdiff_t before = Descriptors();
  {
    Socket socket;
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(socket.Connect(closed, Deadline(std::chrono::seconds(10))));
      EXPECT_EQ(errno, ECONNREFUSED);
      EXPECT_LE(Descriptors(), before + 1);
    }
  }
  EXPECT_EQ(Descriptors(), before);
}

}  // namespace
}  // namespace tavrel::plus::tests
