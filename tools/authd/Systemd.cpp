#include "authd/Systemd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/Text.h"

namespace tavrel::tools {
namespace {

constexpr int kFirstSocket = 3;
constexpr int kMostSockets = 16;

std::string_view Environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

std::map<std::string, int> PassedSockets(const std::set<std::string>& known, std::string* error) {
  std::map<std::string, int> sockets;
  if (Environment("LISTEN_PID") != std::to_string(getpid())) return sockets;
  const auto count = ParseNumber(Environment("LISTEN_FDS"), 0, kMostSockets);
  if (!count) *error = "the service manager passes too many sockets";
  std::string_view names = Environment("LISTEN_FDNAMES");
  for (int i = 0; i < count.value_or(0); ++i) {
    const std::string name(names.substr(0, names.find(':')));
    names.remove_prefix(name.size() < names.size() ? name.size() + 1 : names.size());
    fcntl(kFirstSocket + i, F_SETFD, FD_CLOEXEC);
    const bool first = sockets.emplace(name, kFirstSocket + i).second;
    // Nobody would answer at a socket that is passed over.
    if (!first || known.count(name) == 0) {
      *error = "the service manager passes " + std::string(first ? "a socket" : "two sockets") +
               " named '" + name + "'";
    }
  }
  return sockets;
}

void Notify(const std::string& state) {
  const std::string_view path = Environment("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (path.size() < 2 || path.size() >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path.front() == '@') address.sun_path[0] = '\0';
  const int client = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (client == -1) return;
  sendto(client, state.data(), state.size(), MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size()));
  close(client);
}

}  // namespace tavrel::tools
