// Each call of libcrypto's, and each allocation, fails once while a session is sealed and opened:
// that never opens one which should stay shut, and never changes whose it is. Each allocation fails
// while a policy is read and judges, and a client's address is found: nobody passes who should not.
// In the end all of these and each call for its sockets fail once while the daemon answers.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <new>
#include <optional>
#include <string>

#include "Service.h"
#include "authd/Front.h"
#include "authd/Gate.h"
#include "authd/Http.h"
#include "authd/Policy.h"
#include "authd/Session.h"
#include "common/Text.h"

namespace {
std::atomic<int> due = 0;  // the call that fails, counted from now; 0: none
bool Fails() {
  return due > 0 && --due == 0;
}
}  // namespace

// NOLINTBEGIN: the linker prefers these to the libraries', whose declarations they follow.
void* operator new(std::size_t size) {
  void* const memory = Fails() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#define FAULT(type, name, parameters, arguments, failure)                                \
  extern "C" type name parameters {                                                      \
    static const auto real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
    return Fails() ? failure : real arguments;                                           \
  }
#define INIT                                                                   \
  (EVP_CIPHER_CTX * c, const EVP_CIPHER* t, ENGINE* e, const unsigned char* k, \
   const unsigned char* n)
#define UPDATE \
  (EVP_CIPHER_CTX * c, unsigned char* to, int* size, const unsigned char* from, int count)
FAULT(EVP_CIPHER_CTX*, EVP_CIPHER_CTX_new, (), (), nullptr)
FAULT(int, EVP_CIPHER_CTX_ctrl, (EVP_CIPHER_CTX * c, int type, int a, void* p), (c, type, a, p), 0)
FAULT(int, EVP_EncryptInit_ex, INIT, (c, t, e, k, n), 0)
FAULT(int, EVP_DecryptInit_ex, INIT, (c, t, e, k, n), 0)
FAULT(int, EVP_EncryptUpdate, UPDATE, (c, to, size, from, count), 0)
FAULT(int, EVP_DecryptUpdate, UPDATE, (c, to, size, from, count), 0)
FAULT(int, EVP_EncryptFinal_ex, (EVP_CIPHER_CTX * c, unsigned char* to, int* size), (c, to, size),
      0)
FAULT(int, EVP_DecryptFinal_ex, (EVP_CIPHER_CTX * c, unsigned char* to, int* size), (c, to, size),
      0)
FAULT(int, RAND_bytes, (unsigned char* to, int count), (to, count), 0)
FAULT(ssize_t, getrandom, (void* to, size_t size, unsigned int how), (to, size, how), -1)
FAULT(EVP_MD*, EVP_MD_fetch, (OSSL_LIB_CTX * l, const char* name, const char* p), (l, name, p),
      nullptr)
FAULT(int, EVP_Digest,
      (const void* data, size_t size, unsigned char* to, unsigned int* count, const EVP_MD* t,
       ENGINE* e),
      (data, size, to, count, t, e), 0)
FAULT(int, accept, (int s, sockaddr* from, socklen_t* size), (s, from, size), (errno = EMFILE, -1))
FAULT(ssize_t, recvmsg, (int s, msghdr* m, int flags), (s, m, flags), (errno = ECONNRESET, -1))
FAULT(ssize_t, sendmsg, (int s, const msghdr* m, int flags), (s, m, flags), (errno = EPIPE, -1))
// NOLINTEND

namespace tavrel::tools {
namespace {

constexpr char kHost[] = "box.corp.example.com";
constexpr std::int64_t kNow = 1'800'000'000;

Sessions Make() {
  std::string error;
  return {*SessionKeys::Parse(std::string(64, 'a'), "keys", &error), std::chrono::hours(8),
          std::chrono::hours(1)};
}

User Alice() {
  User alice;
  alice.name = "alice@CORP.EXAMPLE.COM";
  alice.groups = {*plus::Sid::FromText("S-1-5-21-1-2-3-513")};
  alice.service = "HTTP/box.corp.example.com";
  alice.signed_in = kNow;
  return alice;
}

// Runs `act` with one call after the other failing, until a run in which none did, and returns how
// many there were.
template <typename Act>
int Sweep(const Act& act) {
  for (int nth = 1;; ++nth) {
    due = nth;
    try {
      act();
    } catch (const std::bad_alloc&) {  // a refusal, too
    }
    const bool fired = due == 0;
    due = 0;
    if (!fired) return nth - 1;
  }
}

// What is compared is not part of a sweep.
struct Paused {
  Paused() { due = -due; }
  ~Paused() { due = -due; }
};

constexpr int kCalls = 8;  // at the least, of libcrypto's

TEST(Fault, NeverOpensASessionThatIsNotGenuine) {
  const Sessions sessions = Make();
  std::string cookie = sessions.Seal(Alice(), kHost, kNow);
  cookie[cookie.size() / 2] = cookie[cookie.size() / 2] == 'A' ? 'B' : 'A';

  bool opened = false;
  const int calls = Sweep([&] { opened = opened || sessions.Open(cookie, kHost, kNow); });

  EXPECT_FALSE(opened);
  EXPECT_GE(calls, kCalls);
}

TEST(Fault, NeverChangesWhoseASessionIs) {
  const Sessions sessions = Make();
  const std::string cookie = sessions.Seal(Alice(), kHost, kNow);

  const int calls = Sweep([&] {
    const auto opened = sessions.Open(cookie, kHost, kNow);
    const Paused paused;
    if (opened) {
      EXPECT_EQ(opened->user.name, Alice().name);
      EXPECT_EQ(opened->user.groups, Alice().groups);
    }
  });

  EXPECT_GE(calls, kCalls);
}

TEST(Fault, NeverSealsASessionThatCannotBeOpened) {
  const Sessions sessions = Make();

  const int calls = Sweep([&] {
    const std::string cookie = sessions.Seal(Alice(), kHost, kNow);
    const Paused paused;
    EXPECT_TRUE(cookie.empty() || sessions.Open(cookie, kHost, kNow));
  });

  EXPECT_GE(calls, kCalls);
}

TEST(Fault, NeverMakesAPolicyLaxer) {
  const User alice = Alice();
  const auto client = Address::Parse("2001:db8:1111:2222:3333:4444:5555:6666");
  for (const char* rules :
       {"deny user alice@CORP.EXAMPLE.COM\nallow everyone\n",
        "deny group S-1-5-21-1-2-3-513 service HTTP/box.corp.example.com\nallow everyone\n",
        "deny network 2001:db8:1111:2222:3333:4444:5555:0/112\nallow everyone\n",
        "allow user mallory@CORP.EXAMPLE.COM group S-1-5-21-1-2-3-513\n",
        "revoke user alice@CORP.EXAMPLE.COM before 2036-01-01T00:00:00Z\n"}) {
    bool passed = false;
    const int calls = Sweep([&] {
      std::string error;
      const auto policy = Policy::Parse(rules, "policy", &error);
      passed = passed || (policy && policy->Decide(alice, client).allowed) ||
               (policy && rules[0] == 'r' && !policy->Revoked(alice));
    });

    EXPECT_FALSE(passed) << rules;
    EXPECT_GE(calls, 5) << rules;
  }
}

TEST(Fault, NeverTakesAProxyForItsClient) {
  const std::string client = "2001:db8:1111:2222:3333:4444:5555:6666";
  const std::string proxy = "2001:db8:1111:2222:3333:4444:5555:9999";
  const std::vector<Network> trusted = {*Network::Parse(proxy)};
  const Address right = *Address::Parse(client);

  const int calls = Sweep([&] {
    const auto found = ForwardedFor(client + ", " + proxy, trusted);
    EXPECT_TRUE(!found || *found == right);
  });

  EXPECT_GE(calls, 3);
}

// --- the daemon, and a request to it -------------------------------------------------------------

using plus::tests::Negotiated;
using plus::tests::TicketWithPac;

// Listens at a port of this machine.
class Daemon {
 public:
  explicit Daemon(const std::string& policy, std::vector<Network> proxies = {})
      : gate_(service_.Make(), RulesOf(policy)),
        front_(Settings(std::move(proxies)), &gate_, &metrics_) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address_;
    if (bind(listener, Generic(), size) != 0 || listen(listener, 8) != 0 ||
        getsockname(listener, Generic(), &size) != 0) {
      throw std::runtime_error("no port");
    }
    server_ = std::make_unique<HttpServer>(
        listener, HttpLimits{}, [this](const HttpRequest& r) { return front_.Serve(r); });
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);  // its log
    close(nowhere);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() {
    dup2(error_output_, STDERR_FILENO);
    close(error_output_);
  }

  // What it answers. Allocates nothing, so that what fails is the daemon's.
  std::string_view Ask(const std::string& request) {
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience = {5, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    connect(client, Generic(), sizeof address_);
    send(client, request.data(), request.size(), MSG_NOSIGNAL);
    std::size_t size = 0;
    for (ssize_t got = 1; got > 0; size += static_cast<std::size_t>(got)) {
      got = std::max<ssize_t>(recv(client, answer_ + size, sizeof answer_ - size, 0), 0);
    }
    close(client);
    return {answer_, size};
  }

 private:
  static std::shared_ptr<const Rules> RulesOf(const std::string& policy) {
    std::string error;
    return std::make_shared<const Rules>(Rules{*Policy::Parse(policy, "policy", &error), Make()});
  }
  static FrontSettings Settings(std::vector<Network> proxies) {
    return {std::move(proxies), "X-Request-ID", false, std::chrono::hours(8)};
  }
  sockaddr* Generic() { return reinterpret_cast<sockaddr*>(&address_); }

  const plus::tests::Service service_;
  const int error_output_ = dup(STDERR_FILENO);
  sockaddr_in address_{};
  Metrics metrics_;
  Gate gate_;
  const Front front_;
  std::unique_ptr<HttpServer> server_;
  char answer_[16384]{};
};

std::string Request(const std::string& headers) {
  return "GET / HTTP/1.1\r\nHost: " + std::string(kHost) + "\r\nConnection: close\r\n" + headers +
         "\r\n";
}
bool IsSignedIn(std::string_view answer) {
  return answer.rfind("HTTP/1.1 200", 0) == 0;
}
std::string Cookie(const char* host) {
  User alice = Alice();
  alice.signed_in = Now();
  return "Cookie: tavrel=" + Make().Seal(alice, host, Now()) + "\r\n";
}
std::string Authorization(const tavrel::tests::ForgedTicket& ticket) {
  return "Authorization: Negotiate " + ToBase64(Negotiated(ticket)) + "\r\n";
}

// Asks with one call after the other failing, each time with new headers. Returns how many there
// were.
int SweepOf(Daemon& daemon, const std::function<std::string()>& headers,
            const std::function<void(std::string_view)>& look) {
  return Sweep([&] {
    std::string request;
    {
      const Paused paused;
      request = Request(headers());
    }
    const std::string_view answer = daemon.Ask(request);
    const Paused paused;
    look(answer);
  });
}

// Whoever asks so is not signed in, and by no fault.
void ExpectNeverSignedIn(Daemon& daemon, const std::function<std::string()>& headers) {
  EXPECT_FALSE(IsSignedIn(daemon.Ask(Request(headers()))));
  bool signed_in = false;

  const int calls = SweepOf(daemon, headers, [&](std::string_view answer) {
    signed_in = signed_in || IsSignedIn(answer);
  });

  EXPECT_FALSE(signed_in);
  EXPECT_GE(calls, 20);
}

TEST(FaultInARequest, SignsNobodyInWhomThePolicyDenies) {
  Daemon daemon("deny group S-1-5-21-1-2-3-513\nallow everyone\n");

  ExpectNeverSignedIn(daemon, [] { return Cookie(kHost); });
  ExpectNeverSignedIn(daemon, [] { return Authorization(TicketWithPac()); });
}

TEST(FaultInARequest, BelievesNoAddressThatAClientClaims) {
  const std::string claims = "X-Forwarded-For: 10.1.2.3\r\n";
  Daemon daemon("allow network 10.0.0.0/8\n");
  Daemon behind_a_proxy("allow network 10.0.0.0/8\n", {*Network::Parse("127.0.0.0/8")});

  ExpectNeverSignedIn(daemon, [&] { return claims + Cookie(kHost); });
  ExpectNeverSignedIn(behind_a_proxy,
                      [&] { return claims + "X-Forwarded-For: 192.0.2.1\r\n" + Cookie(kHost); });
}

TEST(FaultInARequest, TakesNoTokenTwice) {
  Daemon daemon("allow everyone\n");
  const std::string once = Authorization(TicketWithPac()) + "X-Request-ID: mine\r\n";
  ASSERT_TRUE(IsSignedIn(daemon.Ask(Request(once))));

  ExpectNeverSignedIn(daemon, [&] { return once; });
}

TEST(FaultInARequest, TakesNothingThatIsNotForThisService) {
  Daemon daemon("allow everyone\n");
  tavrel::tests::ForgedTicket other = plus::tests::Ticket();
  other.server = {"host", "appliance.corp.example.com"};
  other = plus::tests::WithPac(other, plus::tests::PartsOf({}));

  ExpectNeverSignedIn(daemon, [&] { return Authorization(other); });
  ExpectNeverSignedIn(daemon, [] { return Cookie("www.corp.example.com"); });
}

TEST(FaultInARequest, ChangesNobody) {
  Daemon daemon("allow everyone\n");
  for (const bool by_token : {true, false}) {
    const auto headers = [&] { return by_token ? Authorization(TicketWithPac()) : Cookie(kHost); };
    const std::string right(daemon.Ask(Request(headers())));
    ASSERT_TRUE(IsSignedIn(right));
    const auto line = [](std::string_view answer, std::string_view name) {
      const std::size_t begin = answer.find(name);
      return answer.substr(begin, answer.find('\r', begin) - begin);
    };

    const int calls = SweepOf(daemon, headers, [&](std::string_view answer) {
      if (!IsSignedIn(answer)) return;
      EXPECT_EQ(line(answer, "X-Remote-User"), line(right, "X-Remote-User"));
      EXPECT_EQ(line(answer, "X-Remote-Groups"), line(right, "X-Remote-Groups"));
    });

    EXPECT_GE(calls, 20);
  }
}

}  // namespace
}  // namespace tavrel::tools
