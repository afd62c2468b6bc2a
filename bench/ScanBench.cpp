// What it costs to find the Kerberos request in a token, beside memmem.

#include <cstring>

#include "Appliance.h"
#include "ForgedRequest.h"
#include "KrbSettings.h"
#include "Race.h"

namespace tavrel::bench {
namespace {

// An identifier that ends where the token does: nothing is left to hand to the Kerberos library, so
// that what is measured is the scan and the log records.
std::string EndsAfterIdentifier(std::string before) {
  return before + tests::kKerberosOid + std::string("\x01\x00", 2);
}

void Scan(benchmark::State& state, const std::string& before) {
  const tests::KrbSettings settings;
  WriteKeytab(settings / "keytab", 1);
  JoinedRealm realm(settings / "keytab");
  std::string token = EndsAfterIdentifier(before);
  std::string shortest = EndsAfterIdentifier("");
  const auto length = static_cast<int>(token.size());
  Race(
      state, 512,
      {{"ours", [&] { realm.Authenticate(token.data(), length); }},
       {"records", [&] { realm.Authenticate(shortest.data(), static_cast<int>(shortest.size())); }},
       {"memmem", [&] {
          benchmark::DoNotOptimize(memmem(token.data(), token.size(), tests::kKerberosOid.data(),
                                          tests::kKerberosOid.size()));
        }}});
  const double scan = state.counters["ours_ns"] - state.counters["records_ns"];
  state.counters["scan_ns"] = scan;
  state.counters["x_scan_memmem"] = scan / state.counters["memmem_ns"];
}

std::string Repeated(const std::string& what, std::size_t size) {
  std::string text;
  while (text.size() < size)
    text += what;
  text.resize(size);
  return text;
}

const bool registered = [] {
  std::string benign;  // what ciphertext looks like, the same in every run
  for (std::uint32_t state = 1; benign.size() < 65536;) {
    state = state * 1664525 + 1013904223;
    benign.push_back(static_cast<char>(state >> 24));
  }
  const std::string near_miss = tests::kKerberosOid.substr(0, 8) + "\x03";
  const std::string nearer = tests::kKerberosOid.substr(1);
  const auto add = [](const std::string& kind, const std::string& before) {
    benchmark::RegisterBenchmark(("Scan/" + kind + "/" + std::to_string(before.size())).c_str(),
                                 [before](benchmark::State& state) { Scan(state, before); })
        ->UseManualTime();
  };
  for (const std::size_t size : {100U, 568U, 1300U, 4096U, 16384U, 49152U, 65536U})
    add("benign", benign.substr(0, size));
  for (const std::size_t size : {4096U, 65536U}) {
    add("last byte differs", Repeated(near_miss, size));
    add("first byte missing", Repeated(nearer, size));
    add("all first bytes", Repeated("\x2a", size));
  }
  return true;
}();

}  // namespace
}  // namespace tavrel::bench
