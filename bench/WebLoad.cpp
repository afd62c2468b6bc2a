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
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
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

// A connection, on which one request is under way at a time.
class Peer {
 public:
  Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  virtual ~Peer() = default;
  // Begins a request with that token; without one, with the session of an earlier answer.
  virtual void Ask(const std::string& token) = 0;
  // Reads what is there of the answer: whether that is all of it. Throws when it is not good.
  virtual bool Receive() = 0;
  virtual int socket() const = 0;
  // Forgets what an answer that was not good has left.
  virtual void Recover() {}

  void SignIn(const std::string& token) {
    Ask(token);
    while (!Receive()) {
    }
  }
};

void Send(int to, const std::string& text) {
  if (write(to, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("cannot send");
  }
}

void Receive(int from, std::string& text) {
  char chunk[16384];
  const ssize_t got = read(from, chunk, sizeof chunk);
  if (got <= 0) throw std::runtime_error("cut off: " + text);
  text.append(chunk, static_cast<std::size_t>(got));
}

class HttpPeer : public Peer {
 public:
  HttpPeer(std::uint16_t port, bool close, bool open) : port_(port), close_(close), open_(open) {}
  ~HttpPeer() override { Recover(); }

  void Ask(const std::string& token) override {
    if (socket_ == -1) Connect();
    answer_.clear();
    signs_in_ = !token.empty();
    Send(socket_, "GET /index.html HTTP/1.1\r\nHost: box.corp.example.com\r\n" +
                      (signs_in_ ? "Authorization: Negotiate " + token : "Cookie: " + cookie_) +
                      (close_ ? "\r\nConnection: close\r\n\r\n" : "\r\n\r\n"));
  }

  bool Receive() override {
    ::Receive(socket_, answer_);
    const std::size_t end = answer_.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    if (answer_.size() < end + 4 + std::stoul("0" + Header("Content-Length: "))) return false;
    if (close_) Recover();
    if (answer_.rfind("HTTP/1.1 200", 0) != 0) throw std::runtime_error(answer_);
    if (!signs_in_) return true;
    if (!open_ && Header("WWW-Authenticate: Negotiate ").empty()) {
      throw std::runtime_error("no reply in: " + answer_);
    }
    const std::string set = Header("Set-Cookie: ");
    if (!set.empty()) cookie_ = set.substr(0, set.find(';'));
    return true;
  }

  int socket() const override { return socket_; }
  void Recover() override {
    if (socket_ != -1) ::close(socket_);
    socket_ = -1;
  }

 private:
  // What follows that in the answer's header, in which HAProxy writes all names in lower case.
  std::string Header(const char* name) const {
    const char* const found = strcasestr(answer_.c_str(), name);
    if (found == nullptr) return "";
    const char* const value = found + std::strlen(name);
    return {value, std::strcspn(value, "\r")};
  }
  void Connect() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot connect");
    }
  }

  const std::uint16_t port_;
  const bool close_;
  const bool open_;
  int socket_ = -1;
  bool signs_in_ = true;
  std::string answer_;
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

  void Ask(const std::string& token) override {
    answer_.clear();
    Send(squid_, "YR " + token + "\n");
  }
  bool Receive() override {
    ::Receive(squid_, answer_);
    if (answer_.back() != '\n') return false;
    if (answer_.rfind("OK token=", 0) != 0) throw std::runtime_error(answer_);
    return true;
  }
  int socket() const override { return squid_; }

 private:
  pid_t process_ = -1;
  int squid_ = -1;
  std::string answer_;
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

// Each peer's requests one after the other, those of all at once, by one thread: what the clients
// take of the machine is not the servers'. Returns the latencies in microseconds.
std::vector<double> Latencies(const std::vector<std::unique_ptr<Peer>>& peers,
                              const std::vector<std::string>& tokens, const Options& options) {
  std::vector<Clock::time_point> asked(peers.size());
  std::vector<pollfd> waiting(peers.size());
  std::size_t next = 0;
  const auto ask = [&](std::size_t i) {
    asked[i] = Clock::now();
    if (next < options.requests) peers[i]->Ask(options.cookie ? "" : tokens[next]);
    waiting[i] = {next < options.requests ? peers[i]->socket() : -1, POLLIN, 0};
    ++next;
  };
  for (std::size_t i = 0; i < peers.size(); ++i)
    ask(i);
  std::vector<double> latencies;
  while (latencies.size() < options.requests) {
    poll(waiting.data(), waiting.size(), -1);
    for (std::size_t i = 0; i < peers.size(); ++i) {
      if (waiting[i].revents == 0 || !peers[i]->Receive()) continue;
      latencies.push_back(
          std::chrono::duration<double, std::micro>(Clock::now() - asked[i]).count());
      ask(i);
    }
  }
  return latencies;
}

void Race(Options options) {
  std::vector<std::unique_ptr<Peer>> peers;
  const auto tokens = Tokens(
      options.cookie ? options.connections : options.requests + options.connections, options.users);
  for (std::size_t i = 0; i < options.connections; ++i) {
    if (options.helper.empty()) {
      peers.push_back(std::make_unique<HttpPeer>(options.port, options.close, options.open));
    } else {
      auto peer = std::make_unique<HelperPeer>(options.helper);
      options.sessions.insert(peer->session());
      peers.push_back(std::move(peer));
    }
    peers[i]->SignIn(tokens[tokens.size() - 1 - i]);  // what a start costs is not measured
  }
  if (!options.open) ExpectReplayRefused(*peers[0], tokens.back());

  const double processor = ProcessorSeconds(options.sessions);
  const auto start = Clock::now();
  auto latencies = Latencies(peers, tokens, options);
  const double took = std::chrono::duration<double>(Clock::now() - start).count();
  const double used = ProcessorSeconds(options.sessions) - processor;

  std::sort(latencies.begin(), latencies.end());
  const auto count = static_cast<double>(latencies.size());
  std::cout << used * 1e6 / count << ' ' << count / took << ' '
            << latencies[latencies.size() * 99 / 100] << '\n';
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
