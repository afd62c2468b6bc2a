#include "Peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <shared_mutex>
#include <stdexcept>

#include "Child.h"

namespace tavrel::tests {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using X509Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

void Check(bool good, const char* step) {
  if (!good) throw std::runtime_error(std::string("cannot ") + step);
}

void Extend(X509* certificate, int what, const std::string& value) {
  X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, what, value.c_str());
  Check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "extend");
  X509_EXTENSION_free(extension);
}

X509Certificate MakeCertificate(const std::string& name, long age, long left, EVP_PKEY* key) {
  X509Certificate made(X509_new(), &X509_free);
  X509_set_version(made.get(), X509_VERSION_3);
  static long serial = 0;
  ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(made.get()), -age);
  X509_gmtime_adj(X509_getm_notAfter(made.get()), left);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(made.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  X509_set_pubkey(made.get(), key);
  return made;
}

// A socket of that type at 127.0.0.1 and `port`; `chosen` becomes the port that it got.
int Bound(int type, int port, int& chosen) {
  const int made = socket(AF_INET, type | SOCK_CLOEXEC, 0);
  const int again = 1;
  setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &again, sizeof again);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  Check(bind(made, any, size) == 0 && getsockname(made, any, &size) == 0, "bind");
  chosen = ntohs(address.sin_port);
  return made;
}

}  // namespace

Certificate::Certificate(const CertificateScene& scene)
    : authority_(folder_ / "authority.pem"),
      context_(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free) {
  constexpr long kDay = 24 * 3600;
  const Key authority_key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const X509Certificate authority = MakeCertificate("Authority", kDay, kDay, authority_key.get());
  X509_set_issuer_name(authority.get(), X509_get_subject_name(authority.get()));
  Extend(authority.get(), NID_basic_constraints, "critical,CA:TRUE");
  Check(X509_sign(authority.get(), authority_key.get(), EVP_sha256()) != 0, "sign");

  const Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const X509Certificate own = MakeCertificate(scene.name, scene.age, scene.left, key.get());
  X509_set_issuer_name(own.get(), X509_get_subject_name(authority.get()));
  Extend(own.get(), NID_subject_alt_name,
         "DNS:" + scene.name + (scene.address.empty() ? "" : ",IP:" + scene.address));
  Check(X509_sign(own.get(), authority_key.get(), EVP_sha256()) != 0, "sign");

  FILE* const file = std::fopen(authority_.c_str(), "w");
  Check(file != nullptr && PEM_write_X509(file, authority.get()) == 1 && std::fclose(file) == 0,
        "write a certificate");
  Check(SSL_CTX_use_certificate(context_.get(), own.get()) == 1 &&
            SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1,
        "use a certificate");
}

std::string Connection::Receive(std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count =
        tls_ ? SSL_read(tls_.get(), bytes.data() + done, static_cast<int>(size - done))
             : recv(socket_, bytes.data() + done, size - done, 0);
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  bytes.resize(done);
  return bytes;
}

void Connection::Send(const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const std::size_t rest = bytes.size() - done;
    const ssize_t count = tls_ ? SSL_write(tls_.get(), bytes.data() + done, static_cast<int>(rest))
                               : send(socket_, bytes.data() + done, rest, MSG_NOSIGNAL);
    if (count <= 0) return;  // the client has closed
    done += static_cast<std::size_t>(count);
  }
}

bool Connection::StartTls(const Certificate& certificate) {
  tls_.reset(SSL_new(certificate.Context()));
  return SSL_set_fd(tls_.get(), socket_) == 1 && SSL_accept(tls_.get()) == 1;
}

void Connection::AwaitEnd() {
  char part[4096];
  while (recv(socket_, part, sizeof part, 0) > 0) {
  }
}

void Connection::Close() {
  shutdown(socket_, SHUT_RDWR);
}

void Connection::Reset() {
  const linger at_once = {1, 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  sockaddr unconnected{};
  unconnected.sa_family = AF_UNSPEC;
  connect(socket_, &unconnected, sizeof unconnected);
}

Peer::Peer(std::function<void(Connection&)> serve, int port) : serve_(std::move(serve)) {
  listening_ = Bound(SOCK_STREAM, port, port_);
  Check(listen(listening_, 16) == 0, "listen");
  thread_ = std::thread([this] { Run(); });
  while (!ready_)
    std::this_thread::yield();
}

Peer::~Peer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
    if (current_ != -1) shutdown(current_, SHUT_RDWR);
  }
  shutdown(listening_, SHUT_RDWR);
  thread_.join();
  close(listening_);
}

void Peer::Run() {
  // What a client that is gone does to a writer is not to end the program under test.
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
  ready_ = true;
  for (int socket; (socket = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC)) != -1;) {
    const std::shared_lock<std::shared_mutex> working(NoFork());
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!ending_) current_ = socket;
    }
    ++connections_;
    if (current_ == socket) {
      Connection connection(socket);
      serve_(connection);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    current_ = -1;
    close(socket);
  }
}

UdpPeer::UdpPeer(std::function<std::string(const std::string&)> answer, int port)
    : socket_(Bound(SOCK_DGRAM, port, port_)),
      thread_([answer = std::move(answer), socket = socket_] {
        std::string bytes(65535, '\0');
        for (;;) {
          sockaddr_in client{};
          socklen_t size = sizeof client;
          auto* const address = reinterpret_cast<sockaddr*>(&client);
          const ssize_t count = recvfrom(socket, bytes.data(), bytes.size(), 0, address, &size);
          if (count <= 0) return;  // shut down
          const std::string reply = answer(bytes.substr(0, static_cast<std::size_t>(count)));
          if (!reply.empty()) sendto(socket, reply.data(), reply.size(), 0, address, size);
        }
      }) {}

UdpPeer::~UdpPeer() {
  shutdown(socket_, SHUT_RDWR);
  thread_.join();
  close(socket_);
}

}  // namespace tavrel::tests
