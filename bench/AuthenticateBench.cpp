// What it costs to verify a token, beside the Kerberos library and the GSS-API library alone.

#include <memory>
#include <thread>

#include "Appliance.h"
#include "KrbSettings.h"
#include "Race.h"

namespace tavrel::bench {
namespace {

using tests::KrbSettings;
using tests::ScopedVariable;

// Logon information of a user with a few groups, and of one with so many that the token is as large
// as Windows makes them.
constexpr std::size_t kNoPac = 0;
constexpr std::size_t kUsualPac = 856;
constexpr std::size_t kLargestPac = 47000;

const char* const kFirstUser = "CORP.EXAMPLE.COM\\alice";

// The tokens of one lane: the same over and over while no replay cache minds, otherwise new ones
// for each round.
class Supply {
 public:
  Supply(Client& client, bool fresh) : client_(client), fresh_(fresh) {
    if (!fresh) tokens_ = client.Tokens(256);
  }
  void Refill(std::size_t count) {
    next_ = 0;
    if (fresh_) tokens_ = client_.Tokens(count);
  }
  Token& Next() { return tokens_[next_++ % tokens_.size()]; }

 private:
  Client& client_;
  bool fresh_;
  std::vector<Token> tokens_;
  std::size_t next_ = 0;
};

void Authenticate(benchmark::State& state, const TokenShape& shape, int keys, bool replay_cache) {
  const KrbSettings settings;
  const ScopedVariable cache_folder("KRB5RCACHEDIR", settings / "");
  const ScopedVariable cache("KRB5RCACHENAME", replay_cache ? "dfl:" : "none:");
  WriteKeytab(settings / "keytab", keys);
  JoinedRealm realm(settings / "keytab");
  const BareVerifier bare(settings / "keytab");
  const GssVerifier gss(settings / "keytab");
  Client client(shape);
  Supply supply(client, replay_cache);
  Token first = client.NextToken();
  state.counters["request_bytes"] = static_cast<double>(first.Request().size());

  const int first_size = static_cast<int>(first.bytes.size());
  bool refused = realm.Authenticate(first.bytes.data(), first_size) != kFirstUser;
  const auto ours = [&] {
    std::string& token = supply.Next().bytes;
    refused |= realm.Authenticate(token.data(), static_cast<int>(token.size())).empty();
  };
  const auto refill = [&](std::size_t count) { supply.Refill(count); };
  std::vector<Lane> lanes = {{"ours", ours},
                             {"rd_req", [&] { refused |= !bare.Verify(supply.Next().Request()); }},
                             {"gss", [&] { refused |= !gss.Verify(supply.Next().bytes); }},
                             {PlatformLevel(), ours}};
  for (Lane& lane : lanes)
    lane.Before(refill);
  lanes.back().Before([&](std::size_t count) {
    supply.Refill(count);
    use_platform_logger = true;
  });
  const auto logged = lanes.back().run;
  lanes.back().run = [logged](std::size_t count) {
    logged(count);
    use_platform_logger = false;
  };
  const std::size_t batch = keys >= 1000 ? 1 : keys >= 100 ? 4 : 16;
  Race(state, batch, std::move(lanes));
  if (refused) state.SkipWithError("a token was refused");
}

// What `threads` do at once, each with a realm of its own, beside one that does the work of one of
// them; and the same of arithmetic, which shows how many processors this machine really has to
// give.
void Threads(benchmark::State& state, std::size_t threads) {
  const KrbSettings settings;
  WriteKeytab(settings / "keytab", 1);
  struct Worker {
    explicit Worker(const std::string& keytab) : realm(keytab), bare(keytab) {}
    JoinedRealm realm;
    BareVerifier bare;
    std::vector<Token> tokens;
    bool refused = false;
  };
  Client client({kUsualPac, false});
  std::vector<std::unique_ptr<Worker>> workers;
  for (std::size_t i = 0; i < threads; ++i) {
    workers.push_back(std::make_unique<Worker>(settings / "keytab"));
    workers.back()->tokens = client.Tokens(64);
  }
  constexpr std::size_t kTokensEach = 256;
  const auto sign_in = [](Worker& worker) {
    for (std::size_t i = 0; i < kTokensEach; ++i) {
      std::string& token = worker.tokens[i % worker.tokens.size()].bytes;
      worker.refused |=
          worker.realm.Authenticate(token.data(), static_cast<int>(token.size())).empty();
    }
  };
  const auto verify = [](Worker& worker) {
    for (std::size_t i = 0; i < kTokensEach; ++i)
      worker.refused |= !worker.bare.Verify(worker.tokens[i % worker.tokens.size()].Request());
  };
  const auto count = [](Worker&) {
    for (std::size_t i = 0; i < kTokensEach * 16384; ++i)
      benchmark::DoNotOptimize(i);
  };
  const auto lane = [&workers](const char* name, std::size_t at_once, auto work) {
    return Lane(name, [&workers, at_once, work] {
      std::vector<std::thread> running;
      for (std::size_t i = 0; i < at_once; ++i)
        running.emplace_back([&workers, i, work] { work(*workers[i]); });
      for (std::thread& thread : running)
        thread.join();
    });
  };
  Race(state, 1,
       {lane("one", 1, sign_in), lane("all", threads, sign_in), lane("rd_req_one", 1, verify),
        lane("rd_req_all", threads, verify), lane("count_one", 1, count),
        lane("count_all", threads, count)},
       Watch::kWall);
  for (const auto& worker : workers) {
    if (worker->refused) state.SkipWithError("a token was refused");
  }
  const auto as_many = static_cast<double>(threads);
  state.counters["speedup"] = as_many * state.counters["x_all"];
  state.counters["rd_req_speedup"] = as_many / state.counters["x_rd_req_all_rd_req_one"];
  state.counters["count_speedup"] = as_many / state.counters["x_count_all_count_one"];
  state.counters["per_second"] = as_many * kTokensEach / state.counters["all_ns"] * 1e9;
}

const bool registered = [] {
  struct Named {
    const char* name;
    TokenShape shape;
  };
  const Named shapes[] = {{"568B", {kNoPac, false}},
                          {"1.3KB", {kUsualPac, false}},
                          {"1.3KB-spnego", {kUsualPac, true}},
                          {"48KB", {kLargestPac, false}}};
  const auto add = [](const std::string& name, const TokenShape& shape, int keys, bool replay) {
    benchmark::RegisterBenchmark(
        ("Authenticate/" + name + "/keys:" + std::to_string(keys) + (replay ? "/replay" : ""))
            .c_str(),
        [=](benchmark::State& state) { Authenticate(state, shape, keys, replay); })
        ->UseManualTime();
  };
  for (const Named& shape : shapes) {
    add(shape.name, shape.shape, 1, false);
    add(shape.name, shape.shape, 1, true);
  }
  for (const int keys : {3, 10, 100, 1000}) {
    add(shapes[0].name, shapes[0].shape, keys, false);
    add(shapes[0].name, shapes[0].shape, keys, true);
  }
  if (PlatformLevel() != "level3") return true;  // measured once
  for (const std::size_t threads : {1U, 2U, 4U}) {
    benchmark::RegisterBenchmark(("Threads/" + std::to_string(threads)).c_str(),
                                 [=](benchmark::State& state) { Threads(state, threads); })
        ->UseManualTime()
        ->Iterations(60);
  }
  return true;
}();

}  // namespace
}  // namespace tavrel::bench
