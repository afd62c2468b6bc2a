// An HTTP server: libmicrohttpd, with limits that hold for each client.
#ifndef TAVREL_TOOLS_AUTHD_HTTP_H
#define TAVREL_TOOLS_AUTHD_HTTP_H

#include <microhttpd.h>

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Address.h"

namespace tavrel::tools {

// A request's header, valid while it is answered.
class HttpRequest {
 public:
  // With `local` every client is a process of this machine.
  HttpRequest(MHD_Connection* connection, std::string_view path, bool local)
      : connection_(connection), path_(path), local_(local) {}

  std::string_view path() const { return path_; }
  // The first header, cookie or parameter of the query of that name; empty when there is none. The
  // case of letters counts in a cookie's name: browsers guard `__Host-`, and nothing like it.
  std::string_view Header(const char* name) const { return Value(MHD_HEADER_KIND, name); }
  std::string_view Cookie(const char* name) const;
  std::string_view Parameter(const char* name) const { return Value(MHD_GET_ARGUMENT_KIND, name); }
  // All headers of that name, as if they were one (RFC 9110, 5.2).
  std::string AllHeaders(const char* name) const;
  // Who is at the other end of the connection; nothing when that is a process of this machine.
  // Throws std::runtime_error when nobody knows.
  std::optional<Address> Peer() const;

 private:
  std::string_view Value(MHD_ValueKind kind, const char* name) const;

  MHD_Connection* connection_;
  std::string_view path_;
  bool local_;
};

struct HttpAnswer {
  unsigned int status = MHD_HTTP_OK;
  std::vector<std::pair<const char*, std::string>> headers{};
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

// Serves until it is destroyed. The handler is called by several threads.
class HttpServer {
 public:
  using Handler = std::function<HttpAnswer(const HttpRequest&)>;

  // Takes over `listener`. Null when libmicrohttpd does not start.
  static std::unique_ptr<HttpServer> Start(int listener, const HttpLimits& limits, Handler handler);

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
  struct Connection {
    int socket;
    std::optional<Address> client;  // whom it counts for
    bool busy;                      // a request has begun
    Clock::time_point deadline;
    std::list<Connection>::iterator place{};  // of itself
  };
  struct Callbacks;  // of libmicrohttpd

  HttpServer(const HttpLimits& limits, bool local, Handler handler)
      : limits_(limits), local_(local), handler_(std::move(handler)) {}

  bool MayConnect(const sockaddr* address);
  Connection* Opened(MHD_Connection* connection);
  void Closed(Connection* connection);
  void Mark(Connection* connection, bool busy);
  bool IsUnlimited(const Address& address) const;
  MHD_Result Respond(MHD_Connection* connection, const HttpAnswer& answer) const;

  const HttpLimits limits_;
  const bool local_;  // it listens at a Unix socket
  const Handler handler_;
  MHD_Daemon* daemon_ = nullptr;
  int quiesced_ = -1;  // the listening socket, once it is ours again

  mutable std::mutex mutex_;
  std::list<Connection> connections_;
  std::map<Address, unsigned int> of_client_;
  bool draining_ = false;
};

}  // namespace tavrel::tools

#endif
