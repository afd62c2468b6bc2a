#include "authd/Http.h"

#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "authd/Log.h"

namespace tavrel::tools {
namespace {

// Holds a request's header, and then its answer's. Proxies are to allow their clients less: what
// does not fit is answered with status 431 by libmicrohttpd, which fills all of it with zeros after
// each request.
constexpr std::size_t kConnectionMemory = std::size_t{128} * 1024;

constexpr unsigned int kLeastThreads = 2;

bool HasBody(const HttpRequest& request) {
  const std::string_view length = request.Header("Content-Length");
  return !request.Header("Transfer-Encoding").empty() || (!length.empty() && length != "0");
}

struct DestroyResponse {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, DestroyResponse>;

}  // namespace

// --- requests ------------------------------------------------------------------------------------

std::string_view HttpRequest::Value(MHD_ValueKind kind, const char* name) const {
  const char* const value = MHD_lookup_connection_value(connection_, kind, name);
  return value != nullptr ? value : "";
}

std::string_view HttpRequest::Cookie(const char* name) const {
  struct Search {
    const char* name;
    const char* value;
  } search{name, ""};
  const auto compare = [](void* to, MHD_ValueKind /*kind*/, const char* cookie,
                          const char* value) -> MHD_Result {
    auto* const into = static_cast<Search*>(to);
    if (std::strcmp(cookie, into->name) != 0) return MHD_YES;
    if (value != nullptr) into->value = value;
    return MHD_NO;
  };
  MHD_get_connection_values(connection_, MHD_COOKIE_KIND, compare, &search);
  return search.value;
}

std::string HttpRequest::AllHeaders(const char* name) const {
  struct Search {
    const char* name;
    std::string all;
    std::exception_ptr failure;
  } search{name, "", nullptr};
  const auto collect = [](void* to, MHD_ValueKind /*kind*/, const char* header,
                          const char* value) noexcept -> MHD_Result {
    auto* const into = static_cast<Search*>(to);
    if (strcasecmp(header, into->name) != 0 || value == nullptr) return MHD_YES;
    try {
      if (!into->all.empty()) into->all += ',';
      into->all += value;
    } catch (...) {
      into->failure = std::current_exception();
    }
    return into->failure ? MHD_NO : MHD_YES;
  };
  MHD_get_connection_values(connection_, MHD_HEADER_KIND, collect, &search);
  if (search.failure) std::rethrow_exception(search.failure);
  return search.all;
}

std::optional<Address> HttpRequest::Peer() const {
  if (local_) return std::nullopt;
  const auto* const info = MHD_get_connection_info(connection_, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  auto address = info != nullptr ? Address::Of(info->client_addr) : std::nullopt;
  if (!address) throw std::runtime_error("the client has no address");
  return address;
}

// --- connections ---------------------------------------------------------------------------------

// What libmicrohttpd calls. It is written in C: no exception may pass through it.
struct HttpServer::Callbacks {
  static HttpServer& Server(void* server) { return *static_cast<HttpServer*>(server); }

  // What `act` returns, or `otherwise` when it throws.
  template <typename Act, typename Result>
  static Result Guarded(const Act& act, Result otherwise) noexcept {
    try {
      return act();
    } catch (const std::exception& error) {
      WriteFailure("request", error);
      return otherwise;
    }
  }

  static Connection* Of(MHD_Connection* connection) {
    const auto* const info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info != nullptr ? static_cast<Connection*>(info->socket_context) : nullptr;
  }

  static MHD_Result Accept(void* server, const sockaddr* address, socklen_t /*size*/) noexcept {
    return Guarded([&] { return Server(server).MayConnect(address) ? MHD_YES : MHD_NO; }, MHD_NO);
  }

  // A connection without a context is not served.
  static void Notify(void* server, MHD_Connection* connection, void** context,
                     MHD_ConnectionNotificationCode what) noexcept {
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
      Connection* const none = nullptr;
      // cppcheck-suppress throwInNoexceptFunction  ; Guarded() lets none through
      *context = Guarded([&] { return Server(server).Opened(connection); }, none);
    } else if (*context != nullptr) {
      Server(server).Closed(static_cast<Connection*>(std::exchange(*context, nullptr)));
    }
  }

  // The first line of a request is there.
  static void* Began(void* server, const char* /*uri*/, MHD_Connection* connection) noexcept {
    Server(server).Mark(Of(connection), true);
    return nullptr;
  }

  static void Completed(void* server, MHD_Connection* connection, void** /*state*/,
                        MHD_RequestTerminationCode /*how*/) noexcept {
    Server(server).Mark(Of(connection), false);
  }

  // No answer depends on a body. A request without one is answered on the second call: an answer to
  // the first, when the header is there, ends the connection.
  static MHD_Result Handle(void* server, MHD_Connection* connection, const char* path,
                           const char* /*method*/, const char* /*version*/, const char* /*body*/,
                           std::size_t* size, void** state) noexcept {
    static char seen;
    *size = 0;
    if (Of(connection) == nullptr) return MHD_NO;  // its limits would not hold
    const HttpRequest request(connection, path, Server(server).local_);
    if (std::exchange(*state, &seen) == nullptr && !HasBody(request)) return MHD_YES;
    return Guarded(
        [&] { return Server(server).Respond(connection, Server(server).handler_(request)); },
        MHD_NO);
  }
};

std::unique_ptr<HttpServer> HttpServer::Start(int listener, const HttpLimits& limits,
                                              Handler handler) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) return nullptr;
  const bool local = address.ss_family == AF_UNIX;
  std::unique_ptr<HttpServer> server(new HttpServer(limits, local, std::move(handler)));
  void* const self = server.get();
  const unsigned int threads = std::max(std::thread::hardware_concurrency(), kLeastThreads);
  server->daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_ITC, 0, Callbacks::Accept, self, Callbacks::Handle,
      self, MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_THREAD_POOL_SIZE, threads,
      MHD_OPTION_CONNECTION_LIMIT, std::max(limits.connections, threads),
      MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(limits.idle_time.count()),
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_NOTIFY_CONNECTION,
      Callbacks::Notify, self, MHD_OPTION_NOTIFY_COMPLETED, Callbacks::Completed, self,
      MHD_OPTION_URI_LOG_CALLBACK, Callbacks::Began, self, MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1,
      MHD_OPTION_END);
  if (server->daemon_ == nullptr) return nullptr;
  return server;
}

HttpServer::~HttpServer() {
  if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
  if (quiesced_ != -1) close(quiesced_);
}

bool HttpServer::IsUnlimited(const Address& address) const {
  return std::any_of(limits_.unlimited.begin(), limits_.unlimited.end(),
                     [&](const Network& network) { return network.Contains(address); });
}

bool HttpServer::MayConnect(const sockaddr* address) {
  const auto client = Address::Of(address);
  if (!client || IsUnlimited(*client)) return true;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto open = of_client_.find(client->Client());
  return open == of_client_.end() || open->second < limits_.connections_per_client;
}

HttpServer::Connection* HttpServer::Opened(MHD_Connection* connection) {
  const auto* const fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  const int socket = fd != nullptr ? fd->connect_fd : -1;
  auto client = HttpRequest(connection, "", local_).Peer();
  if (client) client = client->Client();
  const std::lock_guard<std::mutex> lock(mutex_);
  unsigned int* const open = client ? &of_client_[*client] : nullptr;
  connections_.push_back({socket, client, false, Clock::now() + limits_.request_time});
  if (open != nullptr) ++*open;  // now that nothing can throw any more
  connections_.back().place = std::prev(connections_.end());
  return &connections_.back();
}

void HttpServer::Closed(Connection* connection) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (connection->client) {
    const auto open = of_client_.find(*connection->client);
    if (--open->second == 0) of_client_.erase(open);
  }
  connections_.erase(connection->place);
}

void HttpServer::Mark(Connection* connection, bool busy) {
  if (connection == nullptr) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  connection->busy = busy;
  connection->deadline = Clock::now() + (busy ? limits_.request_time : limits_.idle_time);
}

// libmicrohttpd's own limit is that of a silence, which a client can break byte by byte. A
// connection is on the list until Closed(), and its socket is closed after that: it is still this
// one's.
void HttpServer::EndOverdue() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto now = Clock::now();
  for (const Connection& connection : connections_) {
    if (connection.deadline <= now) shutdown(connection.socket, SHUT_RDWR);
  }
}

void HttpServer::Drain(std::chrono::seconds limit) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    draining_ = true;
  }
  quiesced_ = MHD_quiesce_daemon(daemon_);
  const auto idle = [this] {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::none_of(connections_.begin(), connections_.end(),
                        [](const Connection& connection) { return connection.busy; });
  };
  const auto deadline = Clock::now() + limit;
  while (!idle() && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EndOverdue();
  }
}

MHD_Result HttpServer::Respond(MHD_Connection* connection, const HttpAnswer& answer) const {
  std::string body = answer.body;
  const Response response(
      MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY));
  if (!response) return MHD_NO;
  for (const auto& [name, value] : answer.headers) {
    // libmicrohttpd takes no empty values.
    if (value.empty()) continue;
    if (MHD_add_response_header(response.get(), name, value.c_str()) != MHD_YES) return MHD_NO;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (draining_) MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONNECTION, "close");
  }
  return MHD_queue_response(connection, answer.status, response.get());
}

}  // namespace tavrel::tools
