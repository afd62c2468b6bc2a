// Servers that do what no real one does.
#ifndef TAVREL_TESTS_HOSTILE_PEER_H
#define TAVREL_TESTS_HOSTILE_PEER_H

#include <openssl/ssl.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ScratchFolder.h"

namespace tavrel::tests {

// What a busy machine may add to any limit, in seconds: little beside waiting for ever.
inline constexpr double kBusy = 15;

// A self-made authority's certificate for 127.0.0.1 and localhost.
struct CertificateScene {
  std::string name = "localhost";     // the host that the certificate names
  std::string address = "127.0.0.1";  // and its address; none when empty
  long age = 3600;                    // when it was made, in seconds before now
  long left = 3600;                   // how long it is good for, in seconds from now
};
class Certificate {
 public:
  explicit Certificate(const CertificateScene& scene = {});

  const std::string& Authority() const {
    return authority_;
  }                                                    // file of the authority's certificate
  SSL_CTX* Context() const { return context_.get(); }  // of a server that has it

 private:
  ScratchFolder folder_;
  std::string authority_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
};

// A client that has connected.
class Connection {
 public:
  explicit Connection(int socket) : socket_(socket) {}

  // The next `size` bytes; less when the client has closed.
  std::string Receive(std::size_t size);
  void Send(const std::string& bytes);
  // TLS from here on; false when the client refuses it.
  bool StartTls(const Certificate& certificate);

  // Says nothing until the client closes.
  void AwaitEnd();
  // Ends the connection.
  void Close();
  // Ends the connection so that whatever the client sends next is an error (RST).
  void Reset();

 private:
  int socket_;
  std::unique_ptr<SSL, decltype(&SSL_free)> tls_{nullptr, &SSL_free};
};

// Listens on a port of 127.0.0.1 while it lives. Does `serve` to one connection after the other, on
// a thread of its own, and then closes it.
class Peer {
 public:
  explicit Peer(std::function<void(Connection&)> serve, int port = 0);  // 0: any that is free
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer();

  // "127.0.0.1:" and the port
  std::string Host() const { return "127.0.0.1:" + std::to_string(port_); }
  int Port() const { return port_; }
  // How many clients have connected.
  int Connections() const { return connections_; }

 private:
  void Run();

  std::function<void(Connection&)> serve_;
  int listening_ = -1;
  int port_ = 0;
  std::atomic<bool> ready_{false};  // the thread has nothing left to do but to wait
  std::atomic<int> connections_{0};
  std::mutex mutex_;
  bool ending_ = false;
  int current_ = -1;  // the connection that is served
  std::thread thread_;
};

// The same for datagrams: answers each with what `answer` makes of it, which may be nothing.
class UdpPeer {
 public:
  explicit UdpPeer(std::function<std::string(const std::string&)> answer, int port = 0);
  UdpPeer(const UdpPeer&) = delete;
  UdpPeer& operator=(const UdpPeer&) = delete;
  ~UdpPeer();

  int Port() const { return port_; }

 private:
  int port_ = 0;
  int socket_ = -1;  // made after it: that sets the port
  std::thread thread_;
};

}  // namespace tavrel::tests

#endif
