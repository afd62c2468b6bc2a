// Many machines, many threads, many calls. TAVREL_LOAD=full makes them as many as a large site has;
// each test prints its figures. To be run in the lab.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../hostile/Child.h"
#include "ForgedRequest.h"
#include "GssClient.h"
#include "KrbSettings.h"
#include "Lab.h"
#include "ScratchFolder.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::SizeIs;

bool Full() {
  const char* const load = std::getenv("TAVREL_LOAD");
  return load != nullptr && std::string(load) == "full";
}

double Now() {
  using Seconds = std::chrono::duration<double>;
  return Seconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string Authenticate(KrbRealm& realm, std::vector<char> token) {
  return realm.Authenticate(token.data(), static_cast<int>(token.size()));
}

// --- machines ---

// What a machine of that name says after it has joined and been shown alice's ticket.
std::string JoinAndAuthenticate(const std::string& machine) {
  if (unshare(CLONE_NEWUTS) != 0 || sethostname(machine.data(), machine.size()) != 0) {
    return "cannot be named";
  }
  const ScratchFolder folder;
  KrbRealm realm(Lab("DOMAIN"), Lab("ADMIN"), Lab("ADMIN_PASSWORD"), folder / "krb5.keytab");
  std::string error;
  const double began = Now();
  const int status = realm.Join(&error);
  const double joined = Now();
  if (status != kSuccess) return "status " + std::to_string(status) + ": " + error;

  const GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  const std::vector<char> token =
      alice.Token("HOST/" + machine + "." + Lab("DOMAIN") + "@" + Lab("REALM"));
  const std::string user = Authenticate(realm, token);
  if (user != Lab("REALM") + "\\" + Lab("USER")) return "answered \"" + user + "\"";
  return std::to_string(static_cast<int>((joined - began) * 1000));
}

TEST(Machines, JoinSixteenAtATimeAndThenEachAuthenticates) {
  const int machines = Full() ? 200 : 8;
  constexpr std::size_t kAtATime = 16;
  std::list<Child> running;
  std::vector<std::string> failures;
  int slowest = 0;
  const auto finish_the_first = [&] {
    const std::string said = running.front().Result();
    running.pop_front();
    const bool is_time = said.find_first_not_of("0123456789") == std::string::npos && !said.empty();
    if (!is_time) return failures.push_back(said);
    slowest = std::max(slowest, std::stoi(said));
  };
  const double began = Now();

  for (int i = 0; i < machines; ++i) {
    if (running.size() == kAtATime) finish_the_first();
    char name[16];
    std::snprintf(name, sizeof name, "machine%03d", i);
    running.emplace_back([machine = std::string(name)](const Child::Pause& pause) {
      pause();
      return JoinAndAuthenticate(machine);
    });
    running.back().Resume();
  }
  while (!running.empty())
    finish_the_first();

  std::printf(
      "machines joined and authenticating: %d of %d, %zu at a time, in %.1f s; slowest join %d "
      "ms\n",
      machines - static_cast<int>(failures.size()), machines, kAtATime, Now() - began, slowest);
  EXPECT_THAT(failures, IsEmpty());
}

// --- threads ---

constexpr int kThreads = 8;
constexpr char kPassword[] = "Machine.Pass.1";
constexpr char kOtherPassword[] = "Other.Pass.1";

// A realm that need not join: its keytab and its principal are given.
class GivenRealm : public KrbRealm {
 public:
  explicit GivenRealm(const std::string& keytab)
      : KrbRealm("corp.example.com", "Administrator", "Admin.Pass.1", keytab) {
    SetPrincipal("APPLIANCE$@CORP.EXAMPLE.COM");
  }

  void SetPrincipal(const std::string& name) {
    if (!krb_context.SetClientPrincipal(name)) throw std::runtime_error("no principal");
  }
  void AddKey(const std::string& principal, const std::string& password) {
    SetPrincipal(principal);
    if (!Keytab(&krb_context).WriteKey(password, nullptr)) throw std::runtime_error("no key");
  }
};

// Settings of libkrb5 for a replay cache of the test's own.
struct ReplaySettings {
  KrbSettings settings;
  ScopedVariable cache{"KRB5RCACHENAME", "dfl:"};
  ScopedVariable folder{"KRB5RCACHEDIR", settings / ""};
};

// Verifies every `stride`-th token of `tokens`. What the tokens are goes round: most are good and
// name a user of their own, the others must be refused.
struct Verdicts {
  int accepted = 0;
  int refused = 0;
  std::vector<std::string> wrong;
};
Verdicts Verify(const std::string& keytab, int first, int tokens, int stride) {
  enum Kind { kWrongKey = 5, kTampered, kOtherService, kOver, kReplayed, kKinds };
  GivenRealm realm(keytab);
  Verdicts verdicts;
  std::vector<char> earlier;
  for (int i = first, turn = 0; i < tokens; i += stride, ++turn) {
    const int kind = turn % kKinds;
    ForgedTicket ticket;
    ticket.client = {"user" + std::to_string(i)};
    ticket.server = {"APPLIANCE$"};
    ticket.password = kPassword;
    if (kind == kWrongKey) ticket.password = "Guess" + std::to_string(i);
    if (kind == kOtherService) {
      ticket.server = {"OTHER$"};
      ticket.password = kOtherPassword;
    }
    if (kind == kOver) {
      ticket.authtime -= 10000;
      ticket.starttime -= 10000;
      ticket.endtime = ticket.starttime + 3600;
    }
    std::vector<char> token = GssToken(ApReq(ticket));
    if (kind == kTampered) {
      char& byte = token[token.size() - 1 - static_cast<std::size_t>(turn) % (token.size() / 2)];
      byte = static_cast<char>(byte ^ 1);
    }
    if (kind == kReplayed) token = earlier;
    if (kind < kWrongKey) earlier = token;

    const std::string user = Authenticate(realm, token);

    const std::string right = kind < kWrongKey ? "CORP.EXAMPLE.COM\\" + ticket.client[0] : "";
    if (user != right) {
      verdicts.wrong.push_back("kind " + std::to_string(kind) + ", token " + std::to_string(i) +
                               ": \"" + user + "\"");
    }
    ++(user.empty() ? verdicts.refused : verdicts.accepted);
  }
  return verdicts;
}

TEST(Threads, WithARealmEachVerifyDistinctTokensAndAcceptNoForgedOne) {
  const int tokens = Full() ? 50000 : 2000;
  const ReplaySettings settings;
  const std::string keytab = settings.settings / "keytab";
  {
    GivenRealm realm(keytab);
    realm.AddKey("APPLIANCE$@CORP.EXAMPLE.COM", kPassword);
    realm.AddKey("OTHER$@CORP.EXAMPLE.COM", kOtherPassword);
  }
  std::array<Verdicts, kThreads> verdicts;
  const double began = Now();

  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back(
        [&, i] { verdicts[static_cast<std::size_t>(i)] = Verify(keytab, i, tokens, kThreads); });
  }
  for (std::thread& thread : threads)
    thread.join();

  Verdicts all;
  for (const Verdicts& some : verdicts) {
    all.accepted += some.accepted;
    all.refused += some.refused;
    all.wrong.insert(all.wrong.end(), some.wrong.begin(), some.wrong.end());
  }
  std::printf("tokens verified by %d threads: %d accepted, %d refused, %zu wrongly, in %.1f s\n",
              kThreads, all.accepted, all.refused, all.wrong.size(), Now() - began);
  EXPECT_THAT(all.wrong, IsEmpty());
  EXPECT_EQ(all.accepted, tokens / 2);
  EXPECT_EQ(all.refused, tokens / 2);
}

TEST(Threads, GetOnePasswordForADomainAndAnotherOneForAnother) {
  const int domains = Full() ? 10000 : 500;
  std::array<std::vector<std::string>, kThreads> passwords;
  std::atomic<int> ready{0};

  std::vector<std::thread> threads;
  for (std::vector<std::string>& own : passwords) {
    threads.emplace_back([&] {
      ++ready;
      while (ready < kThreads)
        std::this_thread::yield();
      for (int i = 0; i < domains; ++i) {
        const JoinParameters params("d" + std::to_string(i) + ".example", {}, "", "");
        own.push_back(params.GetMachinePassword());
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();

  std::printf("passwords of %d domains asked for by %d threads\n", domains, kThreads);
  EXPECT_THAT(passwords, Each(passwords[0]));
  EXPECT_THAT(passwords[0], Each(SizeIs(50)));
  EXPECT_THAT(std::set<std::string>(passwords[0].begin(), passwords[0].end()),
              SizeIs(static_cast<std::size_t>(domains)));
}

// --- age ---

struct Footprint {
  long resident_kib;
  std::ptrdiff_t files;
  std::ptrdiff_t threads;
};
Footprint Measure() {
  const auto count = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  };
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return {resident * (sysconf(_SC_PAGESIZE) / 1024), count("/proc/self/fd"),
          count("/proc/self/task")};
}

TEST(OneRealm, StaysAsLargeAsItWasForAllItsLife) {
  const int joins = Full() ? 1000 : 10;
  constexpr int kTokensBetweenJoins = 100;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr long kTolerance = 512 * 1024;  // KiB; what was freed is kept aside for a while
#else
  constexpr long kTolerance = 1024;
#endif
  const ScratchFolder folder;
  KrbRealm realm(Lab("DOMAIN"), Lab("ADMIN"), Lab("ADMIN_PASSWORD"), folder / "krb5.keytab");
  const JoinParameters params(Lab("DOMAIN"), {}, Lab("ADMIN"), Lab("ADMIN_PASSWORD"));
  const JoinParameters mistaken(Lab("DOMAIN"), {}, Lab("ADMIN"), "Mistaken.Pass.1");
  int accepted = 0, refused = 0, joined = 0, not_joined = 0;
  std::vector<std::string> wrong;
  Footprint early{};
  const double began = Now();

  for (int i = 0; i < joins; ++i) {
    const bool is_mistaken = i % 10 == 9;
    std::string error;
    const int status = realm.Join(is_mistaken ? mistaken : params, &error);
    if (status != (is_mistaken ? kFailure : kSuccess)) wrong.push_back(error);
    ++(status == kSuccess ? joined : not_joined);

    for (int k = 0; k < kTokensBetweenJoins; ++k) {
      const bool is_forged = k % 10 == 9;
      ForgedTicket ticket;
      ticket.server = {params.GetAccountName() + "$"};
      ticket.password = is_forged ? "Guess" : params.GetMachinePassword();
      const std::string user = Authenticate(realm, GssToken(ApReq(ticket)));
      if (user != (is_forged ? "" : "CORP.EXAMPLE.COM\\alice")) wrong.push_back(user);
      ++(user.empty() ? refused : accepted);
    }
    if (i == joins / 5) early = Measure();
  }

  const Footprint late = Measure();
  std::printf(
      "one realm: %d joins and %d that failed, %d tokens accepted and %d refused, in %.1f s\n"
      "  after a fifth: %ld KiB resident, %td files, %td threads\n"
      "  at the end:    %ld KiB resident, %td files, %td threads\n",
      joined, not_joined, accepted, refused, Now() - began, early.resident_kib, early.files,
      early.threads, late.resident_kib, late.files, late.threads);
  EXPECT_THAT(wrong, IsEmpty());
  EXPECT_THAT(late.resident_kib, Le(early.resident_kib + kTolerance));
  EXPECT_EQ(late.files, early.files);
  EXPECT_EQ(late.threads, early.threads);
}

}  // namespace
}  // namespace tavrel::tests
