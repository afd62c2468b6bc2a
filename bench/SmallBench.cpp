// The library's small parts, each beside the library calls it is made of.

#include <arpa/nameser.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <krb5.h>
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <resolv.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Race.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/Join.h"
#include "tavrel/KrbError.h"
#include "tavrel/RandomString.h"
#include "tavrel/StringEncoding.h"

namespace {

std::string dns_answer;  // what res_search() below gives

void Append16(std::string& text, std::size_t value) {
  text.push_back(static_cast<char>(value >> 8 & 0xff));
  text.push_back(static_cast<char>(value & 0xff));
}

// An answer of `count` SRV records, with compressed names as servers send them.
std::string SrvAnswer(int count) {
  std::string text("\x12\x34\x81\x80", 4);
  Append16(text, 1);
  Append16(text, static_cast<std::size_t>(count));
  text.append(4, '\0');
  const auto label = [](std::string_view name) {
    return std::string(1, static_cast<char>(name.size())).append(name);
  };
  for (const char* name : {"_ldap", "_tcp", "dc", "_msdcs"})
    text += label(name);
  const std::size_t domain = text.size();
  text += label("corp") + label("example") + label("com") + '\0';
  Append16(text, ns_t_srv);
  Append16(text, ns_c_in);
  for (int i = 0; i < count; ++i) {
    Append16(text, 0xc000 | 12);  // the question's name
    Append16(text, ns_t_srv);
    Append16(text, ns_c_in);
    text += std::string("\0\0\x02\x58", 4);
    const std::string target = label("dc" + std::to_string(i));
    Append16(text, 6 + target.size() + 2);
    Append16(text, 0);
    Append16(text, 100);
    Append16(text, 389);
    text += target;
    Append16(text, 0xc000 | domain);
  }
  return text;
}

}  // namespace

extern "C" int res_search(const char*, int, int, unsigned char* answer, int size) noexcept {
  std::memcpy(answer, dns_answer.data(),
              std::min(dns_answer.size(), static_cast<std::size_t>(size)));
  return static_cast<int>(dns_answer.size());
}

namespace tavrel::bench {
namespace {

void Discovery(benchmark::State& state, int records) {
  dns_answer = SrvAnswer(records);
  const DNSDiscoveryService discovery;
  bool complete = true;
  const auto ours = [&] {
    complete &=
        discovery.GetLDAPHosts("corp.example.com").size() == static_cast<std::size_t>(records);
  };
  const auto bare = [&] {
    const auto* bytes = reinterpret_cast<const unsigned char*>(dns_answer.data());
    ns_msg message;
    if (ns_initparse(bytes, static_cast<int>(dns_answer.size()), &message) != 0) complete = false;
    for (int i = 0; i < records; ++i) {
      ns_rr record;
      char target[NS_MAXDNAME];
      complete &= ns_parserr(&message, ns_s_an, i, &record) == 0 &&
                  ns_name_uncompress(ns_msg_base(message), ns_msg_end(message),
                                     ns_rr_rdata(record) + 6, target, sizeof target) >= 0;
      benchmark::DoNotOptimize(target);
    }
  };
  Race(state, records >= 100 ? 8 : 64, {{"ours", ours}, {"parse", bare}});
  if (!complete) state.SkipWithError("not every record was read");
}

const JoinParameters& Parameters() {
  static const JoinParameters parameters("corp.example.com", {}, "Administrator", "Secret.1");
  return parameters;
}

void AccountName(benchmark::State& state) {
  Race(state, 256,
       {{"ours", [] { benchmark::DoNotOptimize(Parameters().GetAccountName()); }},
        {"gethostname", [] {
           char name[256];
           benchmark::DoNotOptimize(gethostname(name, sizeof name));
         }}});
}

void ShortenName(benchmark::State& state) {
  const std::string name = "an-appliance-with-a-long-name";
  Race(state, 256,
       {{"ours", [&] { benchmark::DoNotOptimize(Parameters().ShortenName(name)); }},
        {"sha1", [&] {
           unsigned char digest[SHA_DIGEST_LENGTH];
           SHA1(reinterpret_cast<const unsigned char*>(name.data()), 7, digest);
           benchmark::DoNotOptimize(digest);
         }}});
}

void MachineDN(benchmark::State& state) {
  Race(state, 256,
       {{"ours", [] { benchmark::DoNotOptimize(Parameters().GetMachineDN()); }},
        {"gethostname", [] {
           char name[256];
           benchmark::DoNotOptimize(gethostname(name, sizeof name));
         }}});
}

void Encoder(benchmark::State& state, std::size_t length) {
  const std::string text(length, 'x');
  Race(state, 512,
       {{"ours",
         [&] {
           berval* value = StringEncoding::EncodeUtf8to16Octetstring(text.data(), text.size());
           benchmark::DoNotOptimize(value);
           std::free(value->bv_val);
           std::free(value);
         }},
        {"two_allocations", [&] {
           void* value = std::malloc(sizeof(berval));
           void* bytes = std::malloc(2 * length);
           benchmark::DoNotOptimize(value);
           benchmark::DoNotOptimize(bytes);
           std::free(bytes);
           std::free(value);
         }}});
}

void Random(benchmark::State& state) {
  constexpr std::size_t kLength = 50;
  Race(state, 64,
       {{"ours", [] { benchmark::DoNotOptimize(RandomString(kLength)); }},
        {"bare", [] {
           unsigned char bytes[kLength];
           const int device = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
           benchmark::DoNotOptimize(read(device, bytes, sizeof bytes));
           close(device);
           BIO* const chain = BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem()));
           BIO_set_flags(chain, BIO_FLAGS_BASE64_NO_NL);
           BIO_write(chain, bytes, sizeof bytes);
           BIO_flush(chain);
           BIO_free_all(chain);
         }}});
}

void ErrorToStatus(benchmark::State& state, int code) {
  Race(state, 4096, {{"ours", [code] { benchmark::DoNotOptimize(KrbErrorToStatus(code)); }}});
}

template <typename Function>
void Add(const std::string& name, Function function) {
  benchmark::RegisterBenchmark(name.c_str(), function)->UseManualTime();
}

const bool registered = [] {
  for (const int records : {1, 10, 100, 500}) {
    Add("Discovery/records:" + std::to_string(records),
        [=](benchmark::State& state) { Discovery(state, records); });
  }
  Add("Names/GetAccountName", AccountName);
  Add("Names/ShortenName", ShortenName);
  Add("Names/GetMachineDN", MachineDN);
  for (const std::size_t length : {52U, 127U}) {
    Add("Encoder/" + std::to_string(length),
        [=](benchmark::State& state) { Encoder(state, length); });
  }
  Add("RandomString/50", Random);
  Add("KrbErrorToStatus/first", [](benchmark::State& s) { ErrorToStatus(s, KRB5KDC_ERR_NONE); });
  Add("KrbErrorToStatus/last",
      [](benchmark::State& s) { ErrorToStatus(s, KRB5_ERR_NUMERIC_REALM); });
  Add("KrbErrorToStatus/unknown", [](benchmark::State& s) { ErrorToStatus(s, 0); });
  return true;
}();

}  // namespace
}  // namespace tavrel::bench
