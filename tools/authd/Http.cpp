#include "authd/Http.h"

#include <unistd.h>

#include <algorithm>
#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/basic_stream_socket.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "authd/Log.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

namespace net = boost::asio;
namespace http = boost::beast::http;
using boost::system::error_code;
using Protocol = net::generic::stream_protocol;
using Executor = net::io_context::executor_type;
using Socket = net::basic_stream_socket<Protocol, Executor>;
using Acceptor = net::basic_socket_acceptor<Protocol, Executor>;
using Timer = net::basic_waitable_timer<std::chrono::steady_clock,
                                        net::wait_traits<std::chrono::steady_clock>, Executor>;

// One field may have 64 KB, which is the most that Boost.Beast keeps: a token of 48,000 bytes fits
// in.
constexpr std::uint32_t kLargestHeader = 128 * 1024;
constexpr std::ptrdiff_t kMostFields = 256;  // each takes more memory than it has bytes
constexpr std::size_t kChunk = 8192;

constexpr unsigned int kLeastThreads = 2;
constexpr std::chrono::milliseconds kUntilThereIsRoom{100};

// For either kind of text: what Boost.Beast has is not the standard library's in all its versions.
template <typename Text>
std::string_view View(const Text& text) {
  return {text.data(), text.size()};
}
boost::beast::string_view Name(std::string_view name) {
  return {name.data(), name.size()};
}

// The value of the first `NAME=VALUE` of that name.
std::string_view ValueIn(std::string_view list, char separator, std::string_view name) {
  for (std::size_t end = 0; !list.empty(); list.remove_prefix(std::min(end + 1, list.size()))) {
    end = std::min(list.find(separator), list.size());
    const std::string_view pair = Trimmed(list.substr(0, end));
    if (pair.size() > name.size() && pair[name.size()] == '=' &&
        pair.substr(0, name.size()) == name) {
      return pair.substr(name.size() + 1);
    }
  }
  return "";
}

bool HasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < ' '; });
}

// What Boost.Beast cannot read.
HttpAnswer Refuse(const error_code& error, const std::optional<Address>& client) {
  JsonObject record = Record("warning", "malformed");
  record.Add("reason", error.message());
  if (client) record.Add("client", client->Text());
  Write(record);
  return {HttpStatus::kUnauthorized,
          {{"Cache-Control", "no-store"},
           {"WWW-Authenticate", "Negotiate"},
           {"X-Tavrel-Reason", error.message()}}};
}

int Duplicate(int socket) {
  const int duplicate = dup(socket);
  if (duplicate == -1) throw std::system_error(errno, std::generic_category(), "dup");
  return duplicate;
}

}  // namespace

// --- requests ------------------------------------------------------------------------------------

struct HttpRequest::Header {
  const http::request_header<>& fields;

  std::string_view target() const { return View(fields.target()); }
};

std::string_view HttpRequest::path() const {
  return header_.target().substr(0, header_.target().find('?'));
}

std::string_view HttpRequest::Value(std::string_view name) const {
  return View(header_.fields[Name(name)]);
}

std::string_view HttpRequest::Cookie(std::string_view name) const {
  return ValueIn(Value("Cookie"), ';', name);
}

std::string_view HttpRequest::Parameter(std::string_view name) const {
  const std::size_t query = header_.target().find('?');
  if (query == std::string_view::npos) return "";
  return ValueIn(header_.target().substr(query + 1), '&', name);
}

std::string HttpRequest::AllValues(std::string_view name) const {
  std::string all;
  const auto range = header_.fields.equal_range(Name(name));
  for (auto field = range.first; field != range.second; ++field) {
    if (!all.empty()) all += ',';
    all += View(field->value());
  }
  return all;
}

// --- connections ---------------------------------------------------------------------------------

// Lives as long as something is waited for. Its thread alone uses it, but for what `mutex_` of the
// server guards.
class HttpServer::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(HttpServer* server, Socket socket, const std::optional<Address>& peer)
      : server_(server),
        peer_(peer),
        socket_(std::move(socket)),
        deadline_(Clock::now() + server->limits_.request_time) {
    server_->Add(this);  // from here on EndOverdue() sees it
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { server_->Remove(this); }

  void Start() { Await(server_->limits_.request_time); }

  const std::optional<Address>& peer() const { return peer_; }
  // Guarded by the mutex.
  bool busy() const { return busy_; }
  void EndIfOverdue(Clock::time_point now) {
    if (deadline_ <= now) shutdown(socket_.native_handle(), SHUT_RDWR);
  }

 private:
  void Mark(bool busy, std::chrono::seconds limit) {
    const std::lock_guard<std::mutex> lock(server_->mutex_);
    busy_ = busy;
    deadline_ = Clock::now() + limit;
  }

  // NOLINTBEGIN(misc-no-recursion): what seems to call itself is called later.

  // Waits for a request, and keeps little memory meanwhile.
  void Await(std::chrono::seconds limit) {
    parser_.reset();
    answer_ = {};
    if (buffer_.size() != 0) {
      Begin();
      Parse();
      return;
    }
    if (buffer_.capacity() > kChunk) buffer_.shrink_to_fit();
    Mark(false, limit);
    socket_.async_wait(Socket::wait_read, [self = shared_from_this()](const error_code& error) {
      if (error) return;
      self->Begin();
      self->Read();
    });
  }

  void Begin() {
    Mark(true, server_->limits_.request_time);
    parser_.emplace();
    parser_->header_limit(kLargestHeader);
    // No answer depends on a body. Without a limit Boost 1.74 takes any length for too long.
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
    header_size_ = 0;
  }

  void Read() {
    socket_.async_read_some(buffer_.prepare(kChunk),
                            [self = shared_from_this()](const error_code& error, std::size_t size) {
                              if (error) return;
                              self->buffer_.commit(size);
                              self->Parse();
                            });
  }

  void Parse() {
    error_code error;
    try {
      const std::size_t size = parser_->put(buffer_.data(), error);
      buffer_.consume(size);
      header_size_ += size;
    } catch (const std::length_error&) {  // of a field
      error = http::error::header_limit;
    }
    const auto& request = parser_->get();
    // The parser's own limit is that of what it has not yet taken.
    if ((error == http::error::need_more && header_size_ + buffer_.size() > kLargestHeader) ||
        std::distance(request.begin(), request.end()) > kMostFields) {
      error = http::error::header_limit;
    }
    if (error == http::error::need_more) {
      Read();
    } else if (error) {
      Send(Refuse(error, peer_), false);
    } else {
      const HttpRequest::Header header{request};
      // What it does not know of Transfer-Encoding the parser takes for no body.
      const bool whole = parser_->is_done() && request.count(http::field::transfer_encoding) == 0;
      Send(server_->handler_(HttpRequest(header, peer_)), whole);
    }
  }

  // Without `whole` there may be more of the request to come.
  void Send(const HttpAnswer& answer, bool whole) {
    const auto& request = parser_->get();
    const auto status = static_cast<http::status>(answer.status);
    static thread_local TimeNow now(FormatHttpTime);
    keeps_ = whole && request.keep_alive() && !server_->IsDraining();
    answer_ = "HTTP/1.1 " + std::to_string(static_cast<unsigned int>(status)) + " ";
    answer_ += View(http::obsolete_reason(status));
    answer_ += "\r\n";
    Put("Date", now.Text());
    for (const auto& [name, value] : answer.headers) {
      if (!value.empty()) Put(name, value);
    }
    Put("Content-Length", std::to_string(answer.body.size()));
    Put("Connection", keeps_ ? "keep-alive" : "close");
    answer_ += "\r\n";
    if (request.method() != http::verb::head) answer_ += answer.body;
    net::async_write(socket_, net::buffer(answer_),
                     [self = shared_from_this(), whole](const error_code& error, std::size_t) {
                       if (!error) self->Continue(whole);
                     });
  }

  void Put(std::string_view name, std::string_view value) {
    if (HasControl(value)) throw std::runtime_error("a control character in " + std::string(name));
    answer_ += name;
    answer_ += ": ";
    answer_ += value;
    answer_ += "\r\n";
  }

  void Continue(bool whole) {
    if (keeps_) {
      Await(server_->limits_.idle_time);
    } else if (!whole) {
      Mark(false, server_->limits_.request_time);
      parser_.reset();
      error_code gone;
      socket_.shutdown(Socket::shutdown_send, gone);
      Discard();
    }
  }

  // NOLINTEND(misc-no-recursion)

  // The end of a connection on which something is still unread would take the answer with it.
  void Discard() {
    buffer_.clear();
    socket_.async_read_some(buffer_.prepare(kChunk),
                            [self = shared_from_this()](const error_code& error, std::size_t) {
                              if (!error) self->Discard();
                            });
  }

  HttpServer* const server_;
  const std::optional<Address> peer_;
  Socket socket_;
  boost::beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::empty_body>> parser_;
  std::size_t header_size_ = 0;  // what the parser has taken
  std::string answer_;
  bool keeps_ = false;  // the connection, after the answer

  bool busy_ = false;  // a request has begun
  Clock::time_point deadline_;
};

// A thread, with connections of its own.
class HttpServer::Worker {
 public:
  Worker(HttpServer* server, const Protocol& protocol, int listener)
      : server_(server), acceptor_(context_, protocol, Duplicate(listener)), until_room_(context_) {
    acceptor_.non_blocking(true);
    // Otherwise the next connection is waited for, and nothing else is done.
    acceptor_.set_option(net::socket_base::enable_connection_aborted(true));
    thread_ = std::thread([this] { Run(); });
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker() {
    context_.stop();
    thread_.join();
  }

  void Quiesce() {
    net::post(context_, [this] {
      acceptor_.close();
      until_room_.cancel();
    });
  }

 private:
  void Run() {
    const auto work = net::make_work_guard(context_);  // until it is stopped
    for (;;) {
      try {
        context_.poll();  // what waits may free the memory that Accept() had none of
        if (!accepting_ && acceptor_.is_open()) Accept();
        context_.run();
        return;
      } catch (const std::exception& error) {  // the end of the connection that it happened to
        WriteFailure("request", error);
      }
    }
  }

  void Accept() {
    if (server_->IsFull()) {
      AcceptLater();
      return;
    }
    acceptor_.async_wait(Acceptor::wait_read, [this](const error_code& /*error*/) {
      accepting_ = false;
      if (acceptor_.is_open()) Take();
    });
    accepting_ = true;
  }

  // Another thread may have been faster.
  void Take() {
    error_code error;
    Protocol::endpoint client;
    Socket socket = acceptor_.accept(context_, client, error);
    if (!error) Serve(std::move(socket), client);
    if (!error || error == net::error::would_block || error == net::error::connection_aborted) {
      Accept();
    } else {
      AcceptLater();
    }
  }

  void AcceptLater() {
    until_room_.expires_after(kUntilThereIsRoom);
    until_room_.async_wait([this](const error_code& /*error*/) {
      accepting_ = false;
      if (acceptor_.is_open()) Accept();
    });
    accepting_ = true;
  }

  void Serve(Socket socket, const Protocol::endpoint& client) {
    const auto peer = Address::Of(reinterpret_cast<const sockaddr*>(client.data()));
    if (!peer && !server_->local_) return;
    if (peer && !server_->IsWelcome(*peer)) return;
    error_code ignored;
    if (peer) socket.set_option(net::ip::tcp::no_delay(true), ignored);
    std::make_shared<Connection>(server_, std::move(socket), peer)->Start();
  }

  HttpServer* const server_;
  net::io_context context_{1};
  Acceptor acceptor_;
  Timer until_room_;
  bool accepting_ = false;  // now, or later
  std::thread thread_;
};

// --- the server ----------------------------------------------------------------------------------

HttpServer::HttpServer(int listener, const HttpLimits& limits, Handler handler)
    : limits_(limits), handler_(std::move(handler)) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "getsockname");
  }
  local_ = address.ss_family == AF_UNIX;
  for (unsigned int i = std::max(std::thread::hardware_concurrency(), kLeastThreads); i > 0; --i) {
    workers_.push_back(std::make_unique<Worker>(this, Protocol(address.ss_family, 0), listener));
  }
  close(listener);
}

HttpServer::~HttpServer() = default;

bool HttpServer::IsFull() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return connections_.size() >= limits_.connections;
}

bool HttpServer::IsDraining() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return draining_;
}

bool HttpServer::IsWelcome(const Address& client) const {
  if (std::any_of(limits_.unlimited.begin(), limits_.unlimited.end(),
                  [&](const Network& network) { return network.Contains(client); })) {
    return true;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto open = of_client_.find(client.Client());
  return open == of_client_.end() || open->second < limits_.connections_per_client;
}

void HttpServer::Add(Connection* connection) {
  const std::lock_guard<std::mutex> lock(mutex_);
  unsigned int* const open =
      connection->peer() ? &of_client_[connection->peer()->Client()] : nullptr;
  connections_.insert(connection);
  if (open != nullptr) ++*open;  // now that nothing can throw any more
}

void HttpServer::Remove(Connection* connection) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (connection->peer()) {
    const auto open = of_client_.find(connection->peer()->Client());
    if (--open->second == 0) of_client_.erase(open);
  }
  connections_.erase(connection);
}

// A connection is in the set until Remove(), and its socket is closed after that: it is still this
// one's.
void HttpServer::EndOverdue() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto now = Clock::now();
  for (Connection* connection : connections_)
    connection->EndIfOverdue(now);
}

void HttpServer::Drain(std::chrono::seconds limit) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    draining_ = true;
  }
  for (const auto& worker : workers_)
    worker->Quiesce();
  const auto idle = [this] {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::none_of(connections_.begin(), connections_.end(),
                        [](const Connection* connection) { return connection->busy(); });
  };
  const auto deadline = Clock::now() + limit;
  while (!idle() && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EndOverdue();
  }
}

}  // namespace tavrel::tools
