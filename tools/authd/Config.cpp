#include "authd/Config.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "common/Settings.h"
#include "common/Takers.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

constexpr std::string_view kUnix = "unix:";

Take Count(unsigned int* to) {
  return [to](const std::string& value) -> std::string {
    const auto count = ParseNumber(value, 1, 65535);
    if (!count) return "not a number from 1 to 65535";
    *to = static_cast<unsigned int>(*count);
    return "";
  };
}

Take Networks(std::vector<Network>* to) {
  return [to](const std::string& value) -> std::string {
    for (const std::string_view word : Words(value)) {
      const auto network = Network::Parse(word);
      if (!network) return "'" + std::string(word) + "' is no network like 10.0.0.0/8";
      to->push_back(*network);
    }
    return "";
  };
}

Take Enctypes(std::vector<std::int32_t>* to) {
  return [to](const std::string& value) -> std::string {
    if (value == "aes") return "";  // the acceptor's own choice
    if (value != "aes rc4") return "neither `aes` nor `aes rc4`";
    to->push_back(plus::kRc4);
    return "";
  };
}

// True for a socket at which nobody listens.
bool IsNobodys(const sockaddr_un& address) {
  struct stat status {};
  if (lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool refused =
      connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 &&
      errno == ECONNREFUSED;
  close(probe);
  return refused;
}

int ListenAtPath(const std::string& path) {
  sockaddr_un address{};
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (IsNobodys(address)) unlink(path.c_str());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener == -1) return -1;
  const mode_t mask = umask(0117);
  const int bound = bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int code = errno;
  umask(mask);
  errno = code;
  if (bound == 0 && listen(listener, SOMAXCONN) == 0) return listener;
  const int why = errno;
  close(listener);
  errno = why;
  return -1;
}

int ListenAtAddress(const addrinfo& address) {
  const int listener = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener == -1) return -1;
  const int on = 1;
  if (setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      bind(listener, address.ai_addr, address.ai_addrlen) == 0 &&
      listen(listener, SOMAXCONN) == 0) {
    return listener;
  }
  const int code = errno;
  close(listener);
  errno = code;
  return -1;
}

}  // namespace

std::optional<Config> Config::Parse(std::string_view text, const std::string& file,
                                    std::string* error) {
  Config config;
  config.acceptor.channel_binding = plus::ChannelBinding::kOff;  // a proxy stands between
  std::chrono::seconds tolerance{config.acceptor.clock_tolerance};
  const std::vector<Setting> settings = {
      {"keytab", TakeFile(&config.acceptor.keytab)},
      {"services", TakeList(&config.acceptor.services)},
      {"require_pac", TakeYesOrNo(&config.acceptor.require_pac)},
      {"enctypes", Enctypes(&config.acceptor.enctypes)},
      {"clock_tolerance", TakeDuration(&tolerance)},
      {"replay_file", TakeFile(&config.acceptor.replay_file)},
      {"listen", TakeText(&config.listen)},
      {"status_listen", TakeText(&config.status_listen)},
      {"squid_listen", TakeText(&config.squid_listen)},
      {"policy", TakeFile(&config.policy)},
      {"session_keys", TakeFile(&config.session_keys)},
      {"session_lifetime", TakeDuration(&config.session_lifetime)},
      {"session_idle", TakeDuration(&config.session_idle)},
      {"secure_cookie", TakeYesOrNo(&config.front.secure_cookie)},
      {"trusted_proxies", Networks(&config.front.trusted_proxies)},
      {"request_header", TakeText(&config.front.request_header)},
      {"connections", Count(&config.limits.connections)},
      {"connections_per_client", Count(&config.limits.connections_per_client)},
      {"request_time", TakeDuration(&config.limits.request_time)},
      {"idle_time", TakeDuration(&config.limits.idle_time)},
  };
  if (!ReadSettings(text, file, settings, error)) return std::nullopt;
  config.acceptor.clock_tolerance = static_cast<std::int32_t>(tolerance.count());
  for (const auto& [value, name] : {std::pair(&config.acceptor.keytab, "keytab"),
                                    std::pair(&config.acceptor.replay_file, "replay_file"),
                                    std::pair(&config.policy, "policy")}) {
    if (!value->empty()) continue;
    *error = file + ": there is no '" + name + "', which is needed";
    return std::nullopt;
  }
  config.front.session_lifetime = config.session_lifetime;
  config.limits.unlimited = config.front.trusted_proxies;
  return config;
}

int Listen(const std::string& where, std::string* error) {
  int listener = -1;
  if (where.rfind(kUnix, 0) == 0) {
    listener = ListenAtPath(where.substr(kUnix.size()));
  } else {
    const std::size_t colon = where.rfind(':');
    std::string address = where.substr(0, colon);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
      address = address.substr(1, address.size() - 2);
    }
    if (colon == std::string::npos || !Address::Parse(address)) {
      *error = where + ": neither unix:/PATH nor ADDRESS:PORT";
      return -1;
    }
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const std::string port = where.substr(colon + 1);
    if (const int code = getaddrinfo(address.c_str(), port.c_str(), &hints, &found); code != 0) {
      *error = where + ": " + gai_strerror(code);
      return -1;
    }
    listener = ListenAtAddress(*found);
    const int code = errno;
    freeaddrinfo(found);
    errno = code;
  }
  if (listener == -1) *error = where + ": " + std::strerror(errno);
  return listener;
}

}  // namespace tavrel::tools
