// Clients of a web server that signs users in: fresh tokens of many users, as fast as it answers.
//
//   tavrel_bench_web --keytab FILE
//     writes the key of HTTP/box.corp.example.com, for which the tokens are
//   tavrel_bench_web (--to PORT | --helper COMMAND) [--requests N] [--connections N] [--users N]
//                    [--close] [--cookie | --open] [--session ID]...
//     makes the tokens, then asks, and prints: microseconds of processor time a request, of the
//     processes in those sessions (see setsid(2)) and of the helper's; requests a second; the 99th
//     of a hundred latencies in microseconds. Each answer has to be good, and to have a reply in
//     it. With --cookie each connection signs in once, before the clock starts, and its requests
//     have the session. With --open the server lets everybody in: no reply is asked for. A helper
//     speaks Squid's protocol.
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <getopt.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Service.h"
#include "common/Text.h"

// Each ticket asks for the service's key, and deriving that takes longer than all the rest.
extern "C" krb5_error_code krb5_c_string_to_key(krb5_context context, krb5_enctype enctype,
                                                const krb5_data* password, const krb5_data* salt,
                                                krb5_keyblock* key) {
  static krb5_keyblock known{};
  if (known.contents == nullptr) {
    const auto derive =
        reinterpret_cast<decltype(&krb5_c_string_to_key)>(dlsym(RTLD_NEXT, "krb5_c_string_to_key"));
    const krb5_error_code code = derive(context, enctype, password, salt, &known);
    if (code != 0) return code;
  }
  return krb5_copy_keyblock_contents(context, &known, key);
}

namespace {

using Clock = std::chrono::steady_clock;
using tavrel::tests::ForgedTicket;
using tavrel::tools::Lower;
using tavrel::tools::ToBase64;

constexpr std::uint32_t kMutual = 2;  // of a GSS-API client's checksum

struct Options {
  std::uint16_t port = 0;
  std::string helper;
  std::size_t requests = 1000;
  std::size_t connections = 4;
  std::size_t users = 100;
  bool close = false;
  bool cookie = false;
  bool open = false;
  std::set<pid_t> sessions;
};

ForgedTicket TicketOf(std::size_t user) {
  tavrel::plus::tests::ForgedUser known;
  known.logon_name = "user" + std::to_string(user);
  known.rid = static_cast<std::uint32_t>(2000 + user);
  ForgedTicket ticket = tavrel::plus::tests::Ticket();
  ticket.client = {known.logon_name};
  ticket.server = {"HTTP", "box.corp.example.com"};
  ticket.options = AP_OPTS_MUTUAL_REQUIRED;
  ticket.gss_checksum = tavrel::plus::tests::GssChecksum("", kMutual);
  return tavrel::plus::tests::WithPac(ticket, tavrel::plus::tests::PartsOf(known));
}

std::vector<std::string> Tokens(std::size_t count, std::size_t users) {
  std::map<std::size_t, ForgedTicket> tickets;
  std::vector<std::string> tokens;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t user = i % users;
    auto found = tickets.find(user);
    if (found == tickets.end())
      found = tickets.emplace(user, tavrel::tests::Issued(TicketOf(user))).first;
    tokens.push_back(ToBase64(tavrel::plus::tests::Negotiated(found->second)));
  }
  return tokens;
}

// --- processes -----------------------------------------------------------------------------------

// Processor time of all processes in those sessions, and of their children that have ended.
double ProcessorSeconds(const std::set<pid_t>& sessions) {
  std::uint64_t ticks = 0;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc"), closedir);
  while (const dirent* entry = readdir(folder.get())) {
    std::ifstream file("/proc/" + std::string(entry->d_name) + "/stat");
    std::string text;
    if (!std::getline(file, text)) continue;
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    pid_t session = 0;
    fields >> skipped >> skipped >> skipped >> session;
    if (sessions.count(session) == 0) continue;
    for (int i = 0; i < 7; ++i)
      fields >> skipped;
    for (int i = 0; i < 4; ++i) {  // utime, stime, and both of the children
      std::uint64_t one = 0;
      fields >> one;
      ticks += one;
    }
  }
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// --- peers ---------------------------------------------------------------------------------------

class Peer {
 public:
  Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  virtual ~Peer() = default;
  // One request with that token; throws when the answer is not good.
  virtual void SignIn(const std::string& token) = 0;
  // Forgets what an answer that was not good has left.
  virtual void Recover() {}
};

void Send(int to, const std::string& text) {
  if (write(to, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("cannot send");
  }
}

bool Receive(int from, std::string& text) {
  char chunk[16384];
  const ssize_t got = read(from, chunk, sizeof chunk);
  if (got > 0) text.append(chunk, static_cast<std::size_t>(got));
  return got > 0;
}

class HttpPeer : public Peer {
 public:
  HttpPeer(std::uint16_t port, bool close, bool open) : port_(port), close_(close), open_(open) {}
  ~HttpPeer() override { Disconnect(); }

  void SignIn(const std::string& token) override {
    const std::string header = Ask("Authorization: Negotiate " + token + "\r\n");
    const std::string lower = Lower(header);  // HAProxy writes all names so
    if (!open_ && lower.find("www-authenticate: negotiate ") == std::string::npos) {
      throw std::runtime_error("no reply in: " + header);
    }
    const std::size_t cookie = lower.find("set-cookie: ");
    if (cookie != std::string::npos) {
      cookie_ = header.substr(cookie + 12, header.find(';', cookie) - cookie - 12);
    }
  }
  void Recover() override { Disconnect(); }
  void UseSession() { Ask("Cookie: " + cookie_ + "\r\n"); }

 private:
  // Returns the header of the answer.
  std::string Ask(const std::string& header) {
    if (socket_ == -1) Connect();
    Send(socket_, "GET /index.html HTTP/1.1\r\nHost: box.corp.example.com\r\n" + header +
                      (close_ ? "Connection: close\r\n\r\n" : "\r\n"));
    std::string answer;
    std::size_t end = std::string::npos;
    while ((end = answer.find("\r\n\r\n")) == std::string::npos) {
      if (!Receive(socket_, answer)) throw std::runtime_error("cut off: " + answer);
    }
    const std::size_t length = Lower(answer).find("content-length: ");
    const std::size_t size =
        end + 4 + (length < end ? std::strtoul(answer.c_str() + length + 16, nullptr, 10) : 0);
    while (answer.size() < size) {
      if (!Receive(socket_, answer)) throw std::runtime_error("cut off: " + answer);
    }
    if (close_) Disconnect();
    answer.resize(end);
    if (answer.rfind("HTTP/1.1 200", 0) != 0) throw std::runtime_error(answer);
    return answer;
  }
  void Connect() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect");
    }
  }
  void Disconnect() {
    if (socket_ != -1) ::close(socket_);
    socket_ = -1;
  }

  const std::uint16_t port_;
  const bool close_;
  const bool open_;
  int socket_ = -1;
  std::string cookie_;
};

// A helper of Squid's, in a session of its own. Its input and output are a socket, as Squid has it.
class HelperPeer : public Peer {
 public:
  explicit HelperPeer(const std::string& command) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("no sockets");
    }
    process_ = fork();
    if (process_ == 0) {
      setsid();
      dup2(ends[1], 0);
      dup2(ends[1], 1);
      execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
      _exit(127);
    }
    ::close(ends[1]);
    squid_ = ends[0];
  }
  ~HelperPeer() override {
    ::close(squid_);
    waitpid(process_, nullptr, 0);
  }
  pid_t session() const { return process_; }

  void SignIn(const std::string& token) override {
    Send(squid_, "YR " + token + "\n");
    std::string answer;
    while (answer.empty() || answer.back() != '\n') {
      if (!Receive(squid_, answer)) throw std::runtime_error("cut off: " + answer);
    }
    if (answer.rfind("OK token=", 0) != 0) throw std::runtime_error(answer);
  }

 private:
  pid_t process_ = -1;
  int squid_ = -1;
};

// --- the race ------------------------------------------------------------------------------------

// A server that lets the same token in twice does less than the others, and is not measured.
void ExpectReplayRefused(Peer& peer, const std::string& token) {
  try {
    peer.SignIn(token);
  } catch (const std::exception&) {
    peer.Recover();
    return;
  }
  throw std::runtime_error("a token was accepted twice");
}

// The part of a connection: its requests one after the other, with their latencies.
void Run(Peer& peer, HttpPeer* session, const std::vector<std::string>& tokens, std::size_t begin,
         std::size_t end, std::vector<double>& latencies) {
  for (std::size_t i = begin; i < end; ++i) {
    const auto start = Clock::now();
    if (session != nullptr) {
      session->UseSession();
    } else {
      peer.SignIn(tokens[i]);
    }
    latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
}

void Race(Options options) {
  std::vector<std::unique_ptr<Peer>> peers;
  std::vector<HttpPeer*> sessions(options.connections, nullptr);
  const auto tokens = Tokens(
      options.cookie ? options.connections : options.requests + options.connections, options.users);
  for (std::size_t i = 0; i < options.connections; ++i) {
    if (options.helper.empty()) {
      auto peer = std::make_unique<HttpPeer>(options.port, options.close, options.open);
      if (options.cookie) sessions[i] = peer.get();
      peers.push_back(std::move(peer));
    } else {
      auto peer = std::make_unique<HelperPeer>(options.helper);
      options.sessions.insert(peer->session());
      peers.push_back(std::move(peer));
    }
    peers[i]->SignIn(tokens[tokens.size() - 1 - i]);  // what a start costs is not measured
  }
  if (!options.open) ExpectReplayRefused(*peers[0], tokens.back());

  std::vector<std::vector<double>> latencies(options.connections);
  std::vector<std::exception_ptr> failures(options.connections);
  std::vector<std::thread> threads;
  const double processor = ProcessorSeconds(options.sessions);
  const auto start = Clock::now();
  for (std::size_t i = 0; i < options.connections; ++i) {
    threads.emplace_back([&, i] {
      try {
        Run(*peers[i], sessions[i], tokens, options.requests * i / options.connections,
            options.requests * (i + 1) / options.connections, latencies[i]);
      } catch (...) {
        failures[i] = std::current_exception();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  const double took = std::chrono::duration<double>(Clock::now() - start).count();
  const double used = ProcessorSeconds(options.sessions) - processor;
  for (const auto& failure : failures) {
    if (failure) std::rethrow_exception(failure);
  }

  std::vector<double> all;
  for (const auto& some : latencies)
    all.insert(all.end(), some.begin(), some.end());
  std::sort(all.begin(), all.end());
  const auto count = static_cast<double>(all.size());
  std::cout << used * 1e6 / count << ' ' << count / took << ' ' << all[all.size() * 99 / 100]
            << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  static const option kLong[] = {{"keytab", required_argument, nullptr, 'k'},
                                 {"to", required_argument, nullptr, 't'},
                                 {"helper", required_argument, nullptr, 'h'},
                                 {"requests", required_argument, nullptr, 'r'},
                                 {"connections", required_argument, nullptr, 'c'},
                                 {"users", required_argument, nullptr, 'u'},
                                 {"close", no_argument, nullptr, 'x'},
                                 {"cookie", no_argument, nullptr, 'o'},
                                 {"open", no_argument, nullptr, 'a'},
                                 {"session", required_argument, nullptr, 's'},
                                 {nullptr, 0, nullptr, 0}};
  signal(SIGPIPE, SIG_IGN);
  Options options;
  try {
    for (int letter = 0; (letter = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
      switch (letter) {
        case 'k': tavrel::plus::tests::AddKey(optarg, TicketOf(0)); return 0;
        case 't': options.port = static_cast<std::uint16_t>(std::stoul(optarg)); break;
        case 'h': options.helper = optarg; break;
        case 'r': options.requests = std::stoul(optarg); break;
        case 'c': options.connections = std::stoul(optarg); break;
        case 'u': options.users = std::stoul(optarg); break;
        case 'x': options.close = true; break;
        case 'o': options.cookie = true; break;
        case 'a': options.open = true; break;
        case 's': options.sessions.insert(std::stoi(optarg)); break;
        default: return 64;
      }
    }
    Race(options);
  } catch (const std::exception& error) {
    std::cerr << "tavrel_bench_web: " << error.what() << '\n';
    return 1;
  }
}
