// What clients send, and when, against the daemon's HTTP server at a Unix socket.
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "authd/Http.h"

namespace tavrel::tools {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Says in its answers what is asked for.
class Server {
 public:
  Server() {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address_.sun_family = AF_UNIX;
    socklen_t size = sizeof address_.sun_family;  // the kernel finds a name
    if (bind(listener, Generic(), size) != 0 || listen(listener, 8) != 0) {
      throw std::runtime_error("no socket");
    }
    size_ = sizeof address_;
    getsockname(listener, Generic(), &size_);
    server_ = std::make_unique<HttpServer>(listener, HttpLimits{}, [](const HttpRequest& request) {
      return HttpAnswer{HttpStatus::kOk, {{"X-Path", std::string(request.path())}}};
    });
  }

  HttpServer* operator->() const { return server_.get(); }

  int Connect() {
    const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience = {5, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    connect(client, Generic(), size_);
    return client;
  }

 private:
  sockaddr* Generic() { return reinterpret_cast<sockaddr*>(&address_); }

  sockaddr_un address_{};
  socklen_t size_ = 0;
  std::unique_ptr<HttpServer> server_;
};

void Send(int client, std::string_view text) {
  send(client, text.data(), text.size(), MSG_NOSIGNAL);
}

// All that is answered until the server ends the connection, which the client does not.
std::string Answers(int client) {
  std::string answers;
  char chunk[4096];
  for (ssize_t got = 0; (got = recv(client, chunk, sizeof chunk, 0)) > 0;) {
    answers.append(chunk, static_cast<std::size_t>(got));
  }
  close(client);
  return answers;
}

std::string Asked(Server& server, const std::string& text) {
  const int client = server.Connect();
  Send(client, text);
  return Answers(client);
}

constexpr std::size_t kLargest = std::size_t{128} * 1024;  // header
constexpr char kLast[] = "GET /last HTTP/1.1\r\nConnection: close\r\n\r\n";

TEST(ARequest, OfAnyLengthIsServed) {
  Server server;
  for (const char* length : {"0", "1", "18446744073709551615"}) {
    EXPECT_THAT(Asked(server, "POST / HTTP/1.1\r\nConnection: close\r\nContent-Length: " +
                                  std::string(length) + "\r\n\r\n"),
                StartsWith("HTTP/1.1 200 OK"))
        << length;
  }
  EXPECT_THAT(Asked(server, std::string("POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n") + kLast),
              HasSubstr("X-Path: /last"));
}

// A proxy would take the answer to what a client wrote into a body for that to another request.
TEST(ARequest, IsTheLastOneWhenItsBodyIsNotKnown) {
  Server server;
  for (const char* body :
       {"Transfer-Encoding: gzip", "Transfer-Encoding: chunked, gzip",
        "Transfer-Encoding: xchunked", "Transfer-Encoding: chunked", "Content-Length: 9"}) {
    const std::string answers =
        Asked(server, "POST /first HTTP/1.1\r\n" + std::string(body) + "\r\n\r\n" + kLast);

    EXPECT_THAT(answers, HasSubstr("X-Path: /first")) << body;
    EXPECT_THAT(answers, HasSubstr("Connection: close")) << body;
    EXPECT_THAT(answers, Not(HasSubstr("X-Path: /last"))) << body;
  }
}

// Each piece ends where the parser has taken all fields but for the first letter of the next one.
TEST(AHeader, HasItsLimitInWhateverPiecesItComes) {
  Server server;
  const int client = server.Connect();
  Send(client, "GET / HTTP/1.1\r\nConnection: close\r\na");
  const std::string piece = ":" + std::string(4000, 'x') + "\r\na";
  for (std::size_t sent = 0; sent < kLargest * 2; sent += piece.size()) {
    int unread = 1;
    while (ioctl(client, SIOCOUTQ, &unread) == 0 && unread != 0)
      poll(nullptr, 0, 1);
    Send(client, piece);
  }
  Send(client, ":\r\n\r\n");

  EXPECT_THAT(Answers(client), StartsWith("HTTP/1.1 401 Unauthorized"));
}

// A field takes more memory than it has bytes.
TEST(AHeader, HasNotMoreThan256Fields) {
  Server server;
  const auto answer = [&](int fields) {
    std::string text = "GET / HTTP/1.1\r\nConnection: close\r\n";
    for (int i = 1; i < fields; ++i)
      text += "a:\r\n";
    return Asked(server, text + "\r\n");
  };

  EXPECT_THAT(answer(256), StartsWith("HTTP/1.1 200 OK"));
  EXPECT_THAT(answer(257), StartsWith("HTTP/1.1 401 Unauthorized"));
}

TEST(AnAnswer, HasFieldsOfAnyLength) {
  Server server;
  const std::string path = "/" + std::string(100'000, 'x');

  EXPECT_THAT(Asked(server, "GET " + path + " HTTP/1.1\r\nConnection: close\r\n\r\n"),
              HasSubstr("X-Path: " + path + "\r\n"));
}

TEST(AnAnswer, KeepsTheConnectionWhereTheClientWantsThat) {
  Server server;
  const std::string asked = std::string("GET /first HTTP/1.0\r\nConnection: keep-alive\r\n\r\n") +
                            "HEAD /second HTTP/1.1\r\n\r\n" + "GET /third HTTP/1.0\r\n\r\n" + kLast;
  const std::string answers = Asked(server, asked);

  for (const char* path : {"/first", "/second", "/third"}) {
    EXPECT_THAT(answers, HasSubstr("X-Path: " + std::string(path))) << path;
  }
  EXPECT_THAT(answers, Not(HasSubstr("X-Path: /last")));
}

TEST(AConnection, IsNotOverdueWhenItHasBegun) {
  Server server;
  std::atomic<bool> done = false;
  std::thread main_thread([&] {
    while (!done)
      server->EndOverdue();
  });
  int answered = 0;
  for (int i = 0; i < 500; ++i) {
    if (Asked(server, kLast).rfind("HTTP/1.1 200", 0) == 0) ++answered;
  }
  done = true;
  main_thread.join();

  EXPECT_EQ(answered, 500);
}

}  // namespace
}  // namespace tavrel::tools
