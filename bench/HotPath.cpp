// The operations that happen most, for callgrind to count: each a few times to warm up and then
// kRounds times between two marks. Prints the heap allocations of a sign-in that are not the
// Kerberos library's.

#include <sys/stat.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <thread>

#include "Appliance.h"
#include "KrbSettings.h"
#include "Race.h"
#include "Service.h"
#include "tavrel/KrbContext.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel::bench {
namespace {

constexpr int kRounds = 100;  // bench/hotpath divides by it

void Require(bool done, const char* name) {
  if (done) return;
  std::fprintf(stderr, "%s: failed\n", name);
  std::exit(1);
}

void Count(const char* name, const std::function<void()>& operation) {
  for (int i = 0; i < 3; ++i)
    operation();
  CALLGRIND_START_INSTRUMENTATION;
  CALLGRIND_ZERO_STATS;
  for (int i = 0; i < kRounds; ++i)
    operation();
  CALLGRIND_DUMP_STATS_AT(name);
  CALLGRIND_STOP_INSTRUMENTATION;
}

void CountSignIn(const char* name, const std::string& keytab, const TokenShape& shape) {
  JoinedRealm realm(keytab);
  const BareVerifier bare(keytab);
  Token token = Client(shape).NextToken();
  // The scan of a bare token also stops wherever what is sealed has the identifier's first byte.
  // One that stops at the identifier alone counts the same in each run.
  const auto stops = [&] { return std::count(token.bytes.begin(), token.bytes.end(), '\x2A'); };
  while (!shape.spnego && stops() != 1) {
    token = Client(shape).NextToken();
  }
  std::string user;
  const auto sign_in = [&] {
    user = realm.Authenticate(token.bytes.data(), static_cast<int>(token.bytes.size()));
  };
  Count(name, sign_in);
  Require(!user.empty(), name);
  Count((name + std::string("/rd_req")).c_str(), [&] { bare.Verify(token.Request()); });
  const std::size_t start = allocations;
  bare.Verify(token.Request());
  const std::size_t between = allocations;
  user = "";
  sign_in();
  std::printf("%s\tallocations\t%ld\n", name,
              static_cast<long>(allocations - between) - static_cast<long>(between - start));
}

// The acceptor, of a user in ten groups, without its replay file: then a token can come again, of a
// ticket that is known or is not.
void CountAccept() {
  plus::AcceptorOptions options;
  options.replay_protection = false;
  plus::tests::Service service(options);
  // A file so young that a change might not show is read again and again.
  struct stat status {};
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Require(stat(service.options.keytab.c_str(), &status) == 0, "stat");
  } while (status.st_ctim.tv_sec + 3 >= std::time(nullptr));
  const auto knowing = service.Make();
  service.options.ticket_memory = 0;
  const auto acceptor = service.Make();
  plus::tests::ForgedUser user;
  for (std::uint32_t rid = 2000; rid < 2008; ++rid)
    user.groups.emplace_back(rid, 7);
  const std::string token = plus::tests::Negotiated(plus::tests::TicketWithPac(user));
  bool accepted = false;
  Count("accept", [&] { accepted = static_cast<bool>(acceptor->Accept(token)); });
  Require(accepted, "accept");
  Count("accept-known", [&] { accepted = static_cast<bool>(knowing->Accept(token)); });
  Require(accepted, "accept-known");
  Count("accept-refused", [&] { accepted = static_cast<bool>(acceptor->Accept("junk")); });
  Require(!accepted, "accept-refused");
}

void CountAll() {
  CountAccept();
  const tests::KrbSettings settings;
  WriteKeytab(settings / "one", 1);
  WriteKeytab(settings / "hundred", 1, 99);
  CountSignIn("sign-in", settings / "one", {0, false});
  CountSignIn("sign-in-spnego", settings / "one", {856, true});

  JoinedRealm realm(settings / "one");
  std::string junk(568, 'j');
  Count("sign-in-refused", [&] { realm.Authenticate(junk.data(), static_cast<int>(junk.size())); });

  KrbContext krb;
  krb.SetKeytab(settings / "hundred");
  krb.SetClientPrincipal(kMachine);
  Keytab keytab(&krb);
  bool done = true;
  Count("has-key-100", [&] { done &= keytab.HasKey(); });
  Count("print-100", [&] { done &= keytab.Print() == 0; });
  done &= keytab.WriteKey("Secret.1", nullptr);
  Count("write-current-key-101", [&] { done &= keytab.WriteKey("Secret.1", nullptr); });
  Require(done, "a walk of the keytab");
  Count("error-to-status", [] { KrbErrorToStatus(KRB5KRB_AP_ERR_TKT_EXPIRED); });
}

}  // namespace
}  // namespace tavrel::bench

int main() {
  tavrel::bench::CountAll();
}
