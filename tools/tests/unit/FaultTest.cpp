// Each call of libcrypto's, and each allocation, fails once while a session is sealed and opened:
// that never opens one which should stay shut, and never changes whose it is. Each allocation fails
// while a policy is read and judges, and a client's address is found: nobody passes who should not.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdlib>
#include <new>
#include <optional>
#include <string>

#include "authd/Front.h"
#include "authd/Policy.h"
#include "authd/Session.h"

namespace {
int due = 0;  // the call that fails, counted from now; 0: none
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

}  // namespace
}  // namespace tavrel::tools
