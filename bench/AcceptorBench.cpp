// What the acceptor costs beside the Kerberos library and the GSS-API library alone, replay
// protection on for all of them. bench/acceptor knows the limits.
#include <gssapi/gssapi_ext.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "Appliance.h"
#include "Pac.h"
#include "Race.h"
#include "Service.h"

namespace tavrel::bench {
namespace {

using plus::AcceptorOptions;
using plus::tests::ForgedUser;
using plus::tests::PacParts;
using plus::tests::Service;
using tests::ForgedTicket;
using tests::ScopedVariable;

// A service whose keytab has `old_keys` keys more, of later versions. To it each ticket is a new
// one, unless it is to know them.
struct Scene {
  explicit Scene(int old_keys = 0, bool knows_tickets = false)
      : cache_folder("KRB5RCACHEDIR", service.settings / ""), cache("KRB5RCACHENAME", "dfl:") {
    service.options.replay_capacity = std::size_t{1} << 20U;
    service.options.require_pac = false;
    if (!knows_tickets) service.options.ticket_memory = 0;
    krb5_context context = nullptr;
    krb5_keytab keytab = nullptr;
    krb5_keytab_entry entry{};
    krb5_init_context(&context);
    krb5_kt_resolve(context, ("FILE:" + service.options.keytab).c_str(), &keytab);
    krb5_parse_name(context, "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM", &entry.principal);
    for (int i = 0; i < old_keys; ++i) {
      entry.vno = static_cast<krb5_kvno>(2 + i);
      krb5_c_make_random_key(context, ENCTYPE_AES256_CTS_HMAC_SHA1_96, &entry.key);
      krb5_kt_add_entry(context, keytab, &entry);
      krb5_free_keyblock_contents(context, &entry.key);
    }
    krb5_free_principal(context, entry.principal);
    krb5_kt_close(context, keytab);
    krb5_free_context(context);
    acceptor = service.Make();
  }

  Service service;
  ScopedVariable cache_folder;
  ScopedVariable cache;
  std::unique_ptr<plus::Acceptor> acceptor;
};

ForgedUser UserOf(std::size_t groups) {
  ForgedUser user;
  user.groups = {{513, 7}};
  user.extra_sids = {{"S-1-18-1", 7}};
  while (user.groups.size() < groups) {
    user.groups.emplace_back(2000 + user.groups.size(), 7);
  }
  return user;
}

// New tokens for each round, each good once, of one ticket.
class Supply {
 public:
  Supply(const ForgedTicket& ticket, bool negotiated)
      : ticket_(tests::Issued(ticket)), negotiated_(negotiated) {}

  std::function<void(std::size_t)> Refill() {
    return [this](std::size_t count) {
      tokens_.clear();
      next_ = 0;
      for (std::size_t i = 0; i < count; ++i) {
        tokens_.push_back(Make());
      }
    };
  }
  Token& Next() { return tokens_.at(next_++); }

 private:
  Token Make() const {
    const std::vector<char> request = tests::ApReq(ticket_);
    std::vector<char> token = tests::GssToken(request);
    if (negotiated_) token = tests::SpnegoToken(token);
    return {{token.begin(), token.end()}, token.size() - request.size()};
  }

  const ForgedTicket ticket_;
  const bool negotiated_;
  std::vector<Token> tokens_;
  std::size_t next_ = 0;
};

Lane Accepting(std::string name, const Scene& scene, Supply& supply, bool& refused) {
  return Lane(std::move(name),
              [&] {
                const plus::Acceptance result = scene.acceptor->Accept(supply.Next().bytes);
                refused |= !result;
              })
      .Before(supply.Refill());
}

void Accept(benchmark::State& state, int old_keys, std::size_t groups) {
  const Scene one;
  const Scene scene(old_keys);
  const Scene known(0, true);
  Supply supply(groups == 0 ? plus::tests::Ticket() : plus::tests::TicketWithPac(UserOf(groups)),
                false);
  const BareVerifier bare(one.service.options.keytab);
  bool refused = false;
  std::vector<Lane> lanes = {Accepting("ours", scene, supply, refused)};
  lanes.push_back(Lane("rd_req", [&] {
                    refused |= !bare.Verify(supply.Next().Request());
                  }).Before(supply.Refill()));
  lanes.push_back(Accepting("known", known, supply, refused));
  if (old_keys != 0) lanes.push_back(Accepting("one_key", one, supply, refused));
  Race(state, 16, std::move(lanes));
  if (refused) state.SkipWithError("a token was refused");
}

// GSS-API with what it has of the same: the name, the PAC's bytes, and the reply.
bool AcceptByGss(gss_cred_id_t credential, std::string& token) {
  OM_uint32 minor = 0;
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_name_t name = GSS_C_NO_NAME;
  gss_buffer_desc input{token.size(), token.data()};
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
  gss_buffer_desc value = GSS_C_EMPTY_BUFFER;
  gss_buffer_desc display = GSS_C_EMPTY_BUFFER;
  char attribute_name[] = "urn:mspac:logon-info";
  gss_buffer_desc attribute{sizeof attribute_name - 1, attribute_name};
  int authenticated = 0;
  int complete = 0;
  int more = -1;
  const bool accepted =
      gss_accept_sec_context(&minor, &context, credential, &input, GSS_C_NO_CHANNEL_BINDINGS, &name,
                             nullptr, &output, nullptr, nullptr, nullptr) == GSS_S_COMPLETE &&
      gss_display_name(&minor, name, &text, nullptr) == GSS_S_COMPLETE &&
      gss_get_name_attribute(&minor, name, &attribute, &authenticated, &complete, &value, &display,
                             &more) == GSS_S_COMPLETE &&
      authenticated != 0;
  for (gss_buffer_desc* const buffer : {&output, &text, &value, &display})
    gss_release_buffer(&minor, buffer);
  gss_release_name(&minor, &name);
  gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  return accepted;
}

void BesideGss(benchmark::State& state) {
  const Scene scene;
  const Scene known(0, true);
  Supply supply(plus::tests::TicketWithPac(UserOf(10)), true);
  gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
  gss_key_value_element_desc element{"keytab", scene.service.options.keytab.c_str()};
  const gss_key_value_set_desc store{1, &element};
  OM_uint32 minor = 0;
  gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_ACCEPT,
                        &store, &credential, nullptr, nullptr);
  bool refused = false;
  std::vector<Lane> lanes = {Accepting("ours", scene, supply, refused)};
  lanes.push_back(Lane("gss", [&] {
                    refused |= !AcceptByGss(credential, supply.Next().bytes);
                  }).Before(supply.Refill()));
  lanes.push_back(Accepting("known", known, supply, refused));
  Race(state, 16, std::move(lanes));
  gss_release_cred(&minor, &credential);
  if (refused) state.SkipWithError("a token was refused");
}

// The decoder alone: what groups add.
void Decode(benchmark::State& state, std::size_t groups) {
  const PacParts parts = plus::tests::PartsOf(UserOf(groups));
  const plus::PacBuffers buffers = {
      parts[0].second, parts[1].second, {}, parts[2].second, parts[3].second};
  bool wrong = false;
  Race(state, 64, {Lane("ours", [&] {
         plus::Authorization user;
         wrong |= plus::DecodePac(buffers, user) != nullptr || user.groups.size() != groups;
       })});
  if (wrong) state.SkipWithError("the PAC is wrong");
}

void Threads(benchmark::State& state) {
  constexpr std::size_t kEach = 512;
  const Scene scene;
  const Scene other;
  Supply supplies[2] = {{plus::tests::TicketWithPac(UserOf(10)), false},
                        {plus::tests::TicketWithPac(UserOf(10)), false}};
  std::atomic<bool> refused = false;
  const auto sign_in = [&](Supply& supply) {
    for (std::size_t i = 0; i < kEach; ++i) {
      if (!scene.acceptor->Accept(supply.Next().bytes)) refused = true;
    }
  };
  // Each of two threads with an acceptor of its own: what sharing one costs.
  const auto sign_in_apart = [&](Supply& supply) {
    const Scene& mine = &supply == &supplies[0] ? scene : other;
    for (std::size_t i = 0; i < kEach; ++i) {
      if (!mine.acceptor->Accept(supply.Next().bytes)) refused = true;
    }
  };
  const auto count = [](Supply&) {
    for (std::size_t i = 0; i < kEach * 32768; ++i)
      benchmark::DoNotOptimize(i);
  };
  const auto lane = [&](const char* name, std::size_t at_once, auto work) {
    return Lane(name,
                [&supplies, at_once, work] {
                  std::vector<std::thread> running;
                  for (std::size_t i = 0; i < at_once; ++i)
                    running.emplace_back([&supplies, i, work] { work(supplies[i]); });
                  for (std::thread& thread : running)
                    thread.join();
                })
        .Before([&supplies](std::size_t) {
          for (Supply& supply : supplies)
            supply.Refill()(kEach);
        });
  };
  Race(state, 1,
       {lane("one", 1, sign_in), lane("all", 2, sign_in), lane("apart", 2, sign_in_apart),
        lane("count_one", 1, count), lane("count_all", 2, count)},
       Watch::kWall);
  if (refused) state.SkipWithError("a token was refused");
  state.counters["speedup"] = 2 * state.counters["x_all"];
  state.counters["apart_speedup"] = 2 * state.counters["x_apart"];
  state.counters["count_speedup"] = 2 / state.counters["x_count_all_count_one"];
}

const bool registered = [] {
  const auto add = [](const char* name, auto run) {
    benchmark::RegisterBenchmark(name, run)->UseManualTime();
  };
  add("Acceptor/one key", [](benchmark::State& state) { Accept(state, 0, 0); });
  add("Acceptor/1000 old keys", [](benchmark::State& state) { Accept(state, 1000, 0); });
  add("Acceptor/50 groups", [](benchmark::State& state) { Accept(state, 0, 50); });
  add("Acceptor/1000 groups", [](benchmark::State& state) { Accept(state, 0, 1000); });
  add("Acceptor/beside GSS-API", BesideGss);
  add("Acceptor/decode 50 groups", [](benchmark::State& state) { Decode(state, 50); });
  add("Acceptor/decode 1000 groups", [](benchmark::State& state) { Decode(state, 1000); });
  benchmark::RegisterBenchmark("Acceptor/two threads", Threads)->UseManualTime()->Iterations(20);
  return true;
}();

}  // namespace
}  // namespace tavrel::bench
