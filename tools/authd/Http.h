// An HTTP server: Boost.Beast, with limits that hold for each client.
#ifndef TAVREL_TOOLS_AUTHD_HTTP_H
#define TAVREL_TOOLS_AUTHD_HTTP_H

#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Address.h"

namespace tavrel::tools {

// A request's header, valid while it is answered.
class HttpRequest {
 public:
  struct Header;  // as Boost.Beast has read it

  // Without `peer` the client is a process of this machine.
  HttpRequest(const Header& header, const std::optional<Address>& peer)
      : header_(header), peer_(peer) {}

  // What is asked for, without the query.
  std::string_view path() const;
  // Who is at the other end of the connection; nothing when that is a process of this machine.
  const std::optional<Address>& peer() const { return peer_; }

  // The first header, cookie or parameter of the query of that name, as it was sent; empty when
  // there is none. The case of letters counts in a cookie's name: browsers guard `__Host-`, and
  // nothing like it.
  std::string_view Value(std::string_view name) const;
  std::string_view Cookie(std::string_view name) const;
  std::string_view Parameter(std::string_view name) const;
  // All headers of that name, as if they were one (RFC 9110, 5.2).
  std::string AllValues(std::string_view name) const;

 private:
  const Header& header_;
  const std::optional<Address>& peer_;
};

enum class HttpStatus { kOk = 200, kUnauthorized = 401, kForbidden = 403, kNotFound = 404 };

struct HttpAnswer {
  HttpStatus status = HttpStatus::kOk;
  std::vector<std::pair<const char*, std::string>> headers{};  // those without a value are left out
  std::string body{};
};

struct HttpLimits {
  unsigned int connections = 1024;
  // Not of processes of this machine, or `unlimited`. In IPv6 a client has a network of /64.
  unsigned int connections_per_client = 64;
  std::chrono::seconds request_time{10};  // to send a request's header
  std::chrono::seconds idle_time{120};    // between two requests
  std::vector<Network> unlimited;
};

// Serves until it is destroyed. The handler is called by several threads. What is no HTTP, or has a
// header of more than 128 KB, is answered with 401: proxies make a failure of their own of any
// other status.
class HttpServer {
 public:
  using Handler = std::function<HttpAnswer(const HttpRequest&)>;

  // Takes over `listener`, which may be bound to a Unix socket or to an address. Throws
  // std::exception when that is no socket, or when there is no thread to be had.
  HttpServer(int listener, const HttpLimits& limits, Handler handler);
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer();

  // Ends connections whose time is over; to be called about once a second.
  void EndOverdue();

  // Takes no new connections, and returns when the requests that have begun are answered, or after
  // `limit`.
  void Drain(std::chrono::seconds limit);

 private:
  using Clock = std::chrono::steady_clock;
  class Connection;
  class Worker;

  bool IsFull() const;
  bool IsDraining() const;
  bool IsWelcome(const Address& client) const;
  void Add(Connection* connection);
  void Remove(Connection* connection);

  const HttpLimits limits_;
  const Handler handler_;
  bool local_ = false;  // it listens at a Unix socket

  mutable std::mutex mutex_;
  std::set<Connection*> connections_;
  std::map<Address, unsigned int> of_client_;
  bool draining_ = false;

  std::vector<std::unique_ptr<Worker>> workers_;  // whose connections are removed when they end
};

}  // namespace tavrel::tools

#endif
