#include "Relay.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

namespace tavrel::plus::tests {
namespace {

sockaddr_in At(const char* address, int port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, address, &name.sin_addr);
  return name;
}

}  // namespace

Relay::Relay(std::vector<int> ports, int messages) : ports_(std::move(ports)), left_(messages) {
  for (const int port : ports_) {
    const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in name = At("127.0.0.1", port);
    if (bind(listening, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
        listen(listening, 16) != 0) {
      throw std::runtime_error("no port " + std::to_string(port));
    }
    listening_.push_back(listening);
  }
  if (pipe(wake_) != 0) throw std::runtime_error("no pipe");
  thread_ = std::thread([this] { Run(); });
}

Relay::~Relay() {
  close(wake_[1]);
  thread_.join();
  close(wake_[0]);
  for (const int listening : listening_)
    close(listening);
  for (const Pair& pair : pairs_) {
    if (pair.client != -1) close(pair.client);
    if (pair.server != -1) close(pair.server);
  }
}

bool Relay::Pass(int from, int to, bool is_message) {
  char bytes[65536];
  const ssize_t count = recv(from, bytes, sizeof bytes, 0);
  if (count <= 0) return false;
  if (is_message && left_ == 0) fell_silent_ = true;
  if (fell_silent_) return true;
  if (is_message) --left_;
  return send(to, bytes, static_cast<std::size_t>(count), MSG_NOSIGNAL) == count;
}

void Relay::Run() {
  for (;;) {
    std::vector<pollfd> polled = {{wake_[0], POLLIN, 0}};
    for (const int listening : listening_)
      polled.push_back({listening, POLLIN, 0});
    const std::size_t pairs = pairs_.size();
    for (const Pair& pair : pairs_) {
      polled.push_back({pair.client, POLLIN, 0});
      polled.push_back({pair.server, POLLIN, 0});
    }
    poll(polled.data(), polled.size(), -1);
    if (polled[0].revents != 0) return;
    for (std::size_t i = 0; i < listening_.size(); ++i) {
      if (polled[1 + i].revents == 0) continue;
      Pair pair{accept(listening_[i], nullptr, nullptr), socket(AF_INET, SOCK_STREAM, 0)};
      const sockaddr_in name = At(std::getenv("LAB_DC_IP"), ports_[i]);
      connect(pair.server, reinterpret_cast<const sockaddr*>(&name), sizeof name);
      pairs_.push_back(pair);
    }
    for (std::size_t i = 0; i < pairs; ++i) {
      Pair& pair = pairs_[i];
      const std::size_t at = 1 + listening_.size() + 2 * i;
      const bool is_open = (polled[at].revents == 0 || Pass(pair.client, pair.server, true)) &&
                           (polled[at + 1].revents == 0 || Pass(pair.server, pair.client, false));
      if (is_open) continue;
      close(pair.client);
      close(pair.server);
      pair = {-1, -1};  // poll() passes over these
    }
  }
}

}  // namespace tavrel::plus::tests
