// Where the time of a join goes, beside the same LDAP and Kerberos calls made without the library.
// Needs a domain: `lab/run -- tavrel_bench_join`.
//
// Every function of other libraries that the library calls is defined here too, passed on, and
// timed: what is left of the whole is the library's own. So are the functions that talk to sockets,
// to count network round trips.

#include <arpa/nameser.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <krb5.h>
#include <ldap.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/sha.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/logger.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/Join.h"
#include "tavrel/KrbRealm.h"
#include "tavrel/StringEncoding.h"

namespace tavrel::bench {
namespace {

double Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

// What one join did.
struct Account {
  double total = 0;                                   // microseconds, as all times here
  std::map<std::string, double, std::less<>> phases;  // by name
  std::size_t calls = 0;                              // of functions of other libraries
  std::size_t walks = 0;                              // of the keytab
  std::size_t exchanges = 0;                          // a request sent, and the answer to it read
  std::size_t connections = 0;
};
Account* account = nullptr;  // null while nothing is measured
int depth = 0;               // of calls from one library function into another

const char* Phase(std::string_view call) {
  struct Named {
    std::string_view start;
    const char* phase;
  };
  static constexpr Named kPhases[] = {{"res_", "dns"},
                                      {"ns_", "dns"},
                                      {"ldap_initialize", "connect"},
                                      {"ldap_set_option", "connect"},
                                      {"ldap_start_tls_s", "starttls"},
                                      {"ldap_sasl_bind_s", "bind"},
                                      {"ldap_search_ext_s", "search"},
                                      {"ldap_add_ext_s", "add"},
                                      {"ldap_modify_ext_s", "modify"},
                                      {"ldap_unbind_ext", "unbind"},
                                      {"krb5_get_init_creds", "as_exchange"},
                                      {"krb5_kt_", "keytab"}};
  for (const Named& named : kPhases) {
    if (call.substr(0, named.start.size()) == named.start) return named.phase;
  }
  return "other_calls";
}

// The outermost call from outside the other libraries, which is one of the library's.
class TimedCall {
 public:
  explicit TimedCall(const char* name) : name_(name), start_(0) {
    if (account != nullptr && depth++ == 0) start_ = Now();
  }
  TimedCall(const TimedCall&) = delete;
  TimedCall& operator=(const TimedCall&) = delete;
  ~TimedCall() {
    if (account == nullptr || --depth > 0) return;
    account->phases[Phase(name_)] += Now() - start_;
    ++account->calls;
    if (std::string_view(name_) == "krb5_kt_start_seq_get") ++account->walks;
  }

 private:
  const char* name_;
  double start_;
};

// Counts the turns of a socket from sending to receiving.
std::array<bool, 1024> sent{};

bool IsSocket(int fd) {
  struct stat status {};
  return fd >= 0 && static_cast<std::size_t>(fd) < sent.size() && fstat(fd, &status) == 0 &&
         S_ISSOCK(status.st_mode);
}
void Sent(int fd, ssize_t count) {
  if (account != nullptr && count > 0 && IsSocket(fd)) sent[static_cast<std::size_t>(fd)] = true;
}
void Received(int fd, ssize_t count) {
  if (account == nullptr || count <= 0 || !IsSocket(fd)) return;
  if (std::exchange(sent[static_cast<std::size_t>(fd)], false)) ++account->exchanges;
}

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace tavrel::bench

using namespace tavrel::bench;

#define TAVREL_UNPACK(...) __VA_ARGS__
#define TAVREL_CALL(result, name, parameters, arguments)      \
  extern "C" result name parameters {                         \
    static auto* const real = Real<result parameters>(#name); \
    const TimedCall timed(#name);                             \
    return real(TAVREL_UNPACK arguments);                     \
  }
#define read read_of_the_list  // defined below, where it also counts
#include "InterposedCalls.inc"
#undef read

#define TAVREL_SENDS(name, parameters, arguments)              \
  extern "C" ssize_t name parameters {                         \
    static auto* const real = Real<ssize_t parameters>(#name); \
    const ssize_t count = real arguments;                      \
    Sent(fd, count);                                           \
    return count;                                              \
  }
#define TAVREL_RECEIVES(name, parameters, arguments)           \
  extern "C" ssize_t name parameters {                         \
    static auto* const real = Real<ssize_t parameters>(#name); \
    const ssize_t count = real arguments;                      \
    Received(fd, count);                                       \
    return count;                                              \
  }
TAVREL_SENDS(write, (int fd, const void* b, size_t c), (fd, b, c))
TAVREL_SENDS(writev, (int fd, const iovec* b, int c), (fd, b, c))
TAVREL_SENDS(send, (int fd, const void* b, size_t c, int d), (fd, b, c, d))
TAVREL_SENDS(sendmsg, (int fd, const msghdr* b, int c), (fd, b, c))
TAVREL_SENDS(sendto, (int fd, const void* b, size_t c, int d, const sockaddr* e, socklen_t f),
             (fd, b, c, d, e, f))
TAVREL_RECEIVES(read, (int fd, void* b, size_t c), (fd, b, c))
TAVREL_RECEIVES(recv, (int fd, void* b, size_t c, int d), (fd, b, c, d))
TAVREL_RECEIVES(recvmsg, (int fd, msghdr* b, int c), (fd, b, c))
TAVREL_RECEIVES(recvfrom, (int fd, void* b, size_t c, int d, sockaddr* e, socklen_t* f),
                (fd, b, c, d, e, f))
extern "C" int connect(int fd, const sockaddr* address, socklen_t length) {
  static auto* const real = Real<int(int, const sockaddr*, socklen_t)>("connect");
  if (account != nullptr && address->sa_family != AF_UNIX) ++account->connections;
  return real(fd, address, length);
}

void platformlogger_log(const char*, int, const char*, LogLevel, const char*, const char*) {}

namespace tavrel::bench {
namespace {

std::string Setting(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) throw std::runtime_error("run it in the lab: lab/run -- ...");
  return value;
}

void Check(int code, const char* step) {
  if (code != 0) throw std::runtime_error(step + (": " + std::to_string(code)));
}

const JoinParameters& Parameters() {
  static const JoinParameters parameters(Setting("LAB_DOMAIN"), {}, Setting("LAB_ADMIN"),
                                         Setting("LAB_ADMIN_PASSWORD"));
  return parameters;
}
std::string KeytabPath() {
  static const std::string path = Setting("LAB_DIR") + "/bench.keytab";
  return path;
}

void ByTheLibrary(bool) {
  KrbRealm realm(Parameters().domain, Parameters().user, Parameters().password, KeytabPath());
  std::string error;
  Check(realm.Join(&error), "join");
}

struct Attribute {
  const char* name;
  std::vector<std::string> values;
};

// The calls that a join makes, in its order and with its arguments, and nothing around them.
void ByHand(bool first) {
  const JoinParameters& params = Parameters();
  static const std::string machine_dn = params.GetMachineDN();
  static const std::string name = params.GetAccountName();

  krb5_context krb = nullptr;
  krb5_keytab keytab = nullptr;
  krb5_principal machine = nullptr;
  Check(krb5_init_context(&krb), "context");
  Check(krb5_kt_resolve(krb, KeytabPath().c_str(), &keytab), "keytab");

  static unsigned char answer[65535];
  const int length = res_search(("_ldap._tcp.dc._msdcs." + params.domain).c_str(), ns_c_in,
                                ns_t_srv, answer, sizeof answer);
  ns_msg message;
  ns_rr record;
  char target[NS_MAXDNAME];
  Check(ns_initparse(answer, length, &message), "answer");
  Check(ns_parserr(&message, ns_s_an, 0, &record), "record");
  ns_name_uncompress(ns_msg_base(message), ns_msg_end(message), ns_rr_rdata(record) + 6, target,
                     sizeof target);

  LDAP* ldap = nullptr;
  const int version = LDAP_VERSION3;
  const int never = LDAP_OPT_X_TLS_NEVER;
  const int client = 0;
  const timeval patience = {10, 0};
  berval password;
  password.bv_val = const_cast<char*>(params.password.data());
  password.bv_len = params.password.size();
  Check(ldap_initialize(&ldap, (std::string("ldap://") + target + ":389").c_str()), "handle");
  ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version);
  ldap_set_option(ldap, LDAP_OPT_X_TLS_REQUIRE_CERT, &never);
  ldap_set_option(ldap, LDAP_OPT_X_TLS_NEWCTX, &client);
  ldap_set_option(ldap, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
  ldap_set_option(ldap, LDAP_OPT_NETWORK_TIMEOUT, &patience);
  Check(ldap_start_tls_s(ldap, nullptr, nullptr), "StartTLS");
  Check(ldap_sasl_bind_s(ldap, params.user.c_str(), LDAP_SASL_SIMPLE, &password, nullptr, nullptr,
                         nullptr),
        "bind");
  Check(krb5_parse_name(krb, (name + "$@" + params.domain).c_str(), &machine), "principal");

  const auto search = [&] {
    timeval limit = {5, 0};
    LDAPMessage* found = nullptr;
    const int code = ldap_search_ext_s(ldap, machine_dn.c_str(), LDAP_SCOPE_BASE, nullptr, nullptr,
                                       0, nullptr, nullptr, &limit, 2, &found);
    ldap_msgfree(found);
    return code;
  };
  const auto attributes = [](int operation, std::vector<Attribute>& list, auto send) {
    std::vector<std::vector<char*>> values(list.size());
    std::vector<LDAPMod> mods(list.size());
    std::vector<LDAPMod*> pointers;
    for (std::size_t i = 0; i < list.size(); ++i) {
      for (std::string& value : list[i].values)
        values[i].push_back(value.data());
      values[i].push_back(nullptr);
      mods[i].mod_op = operation;
      mods[i].mod_type = const_cast<char*>(list[i].name);
      mods[i].mod_values = values[i].data();
      pointers.push_back(&mods[i]);
    }
    pointers.push_back(nullptr);
    return send(pointers.data());
  };
  search();
  if (first) {
    const std::string fqdn = "appliance." + params.domain;
    std::vector<Attribute> account_object = {
        {"objectClass", {"user", "computer"}},
        {"userAccountControl", {"4096"}},
        {"dNSHostName", {fqdn}},
        {"cn", {name}},
        {"name", {name}},
        {"sAMAccountName", {name + "$"}},
        {"displayName", {name}},
        {"servicePrincipalName", {"HOST/APPLIANCE", "HOST/" + fqdn}},
        {"msDs-supportedEncryptionTypes", {"4"}},
        {"instanceType", {"4"}},
        {"operatingSystem", {"Linux"}},
        {"objectCategory", {"CN=Computer,CN=Schema,CN=Configuration," + params.GetDomainDN()}}};
    Check(attributes(LDAP_MOD_ADD, account_object,
                     [&](LDAPMod** mods) {
                       return ldap_add_ext_s(ldap, machine_dn.c_str(), mods, nullptr, nullptr);
                     }),
          "add");
  }
  std::vector<Attribute> flags = {{"userAccountControl", {"4096"}}};
  Check(attributes(LDAP_MOD_REPLACE, flags,
                   [&](LDAPMod** mods) {
                     return ldap_modify_ext_s(ldap, machine_dn.c_str(), mods, nullptr, nullptr);
                   }),
        "modify");

  const auto by_keytab = [&] {
    krb5_creds creds{};
    Check(krb5_get_init_creds_keytab(krb, &creds, machine, keytab, 0, nullptr, nullptr), "keytab");
    krb5_free_cred_contents(krb, &creds);
  };
  if (krb5_kt_have_content(krb, keytab) == 0) {
    by_keytab();
  } else {
    search();
    std::string secret = params.GetMachinePassword();
    const std::string quoted = '"' + secret + '"';
    berval* encoded = StringEncoding::EncodeUtf8to16Octetstring(quoted.data(), quoted.size());
    berval* values[] = {encoded, nullptr};
    LDAPMod replace{};
    replace.mod_op = LDAP_MOD_REPLACE | LDAP_MOD_BVALUES;
    replace.mod_type = const_cast<char*>("unicodePwd");
    replace.mod_bvalues = values;
    LDAPMod* mods[] = {&replace, nullptr};
    Check(ldap_modify_ext_s(ldap, machine_dn.c_str(), mods, nullptr, nullptr), "password");
    std::free(encoded->bv_val);
    std::free(encoded);

    krb5_creds creds{};
    Check(krb5_get_init_creds_password(krb, &creds, machine, secret.c_str(), nullptr, nullptr, 0,
                                       nullptr, nullptr),
          "password");
    krb5_free_cred_contents(krb, &creds);
    krb5_data secret_data{};
    secret_data.data = secret.data();
    secret_data.length = static_cast<unsigned int>(secret.size());
    krb5_data salt{};
    krb5_principal2salt(krb, machine, &salt);
    krb5_keytab_entry entry{};
    entry.principal = machine;
    entry.vno = 1;
    Check(krb5_c_string_to_key(krb, ENCTYPE_ARCFOUR_HMAC, &secret_data, &salt, &entry.key), "key");
    Check(krb5_kt_add_entry(krb, keytab, &entry), "keytab");
    krb5_free_keyblock_contents(krb, &entry.key);
    krb5_free_data_contents(krb, &salt);
    by_keytab();
  }

  ldap_unbind_ext(ldap, nullptr, nullptr);
  krb5_kt_close(krb, keytab);
  krb5_free_principal(krb, machine);
  krb5_free_context(krb);
}

// Leaves neither account nor keytab.
void Forget() {
  const JoinParameters& params = Parameters();
  const DNSDiscoveryService discovery;
  Joiner joiner(&params, &discovery);
  std::string error;
  if (!joiner.Connect(&error)) throw std::runtime_error(error);
  ldap_delete_ext_s(joiner.sessions.front().handle, params.GetMachineDN().c_str(), nullptr,
                    nullptr);
  std::remove(KeytabPath().c_str());
}

Account Measure(void (*join)(bool), bool first) {
  Account measured;
  sent.fill(false);
  account = &measured;
  const double start = Now();
  join(first);
  measured.total = Now() - start;
  account = nullptr;
  return measured;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void Join(benchmark::State& state, bool first) {
  if (!first) {
    Forget();
    ByTheLibrary(true);
  }
  constexpr void (*kLanes[])(bool) = {ByTheLibrary, ByHand};
  std::vector<Account> accounts[2];
  std::size_t round = 0;
  for (auto _ : state) {
    double taken = 0;
    for (std::size_t turn = 0; turn < 2; ++turn) {
      const std::size_t lane = (round + turn) % 2;
      if (first) Forget();
      accounts[lane].push_back(Measure(kLanes[lane], first));
      taken += accounts[lane].back().total;
    }
    ++round;
    state.SetIterationTime(taken * 1e-6);
  }

  const char* const names[] = {"ours", "by_hand"};
  std::vector<double> ratios;
  for (std::size_t i = 0; i < round; ++i)
    ratios.push_back(accounts[0][i].total / accounts[1][i].total);
  state.counters["x_by_hand"] = Median(ratios);
  for (std::size_t lane = 0; lane < 2; ++lane) {
    const auto report = [&](const std::string& what, auto value) {
      std::vector<double> values;
      for (const Account& measured : accounts[lane])
        values.push_back(value(measured));
      state.counters[names[lane] + ("_" + what)] = Median(values);
    };
    report("us", [](const Account& a) { return a.total; });
    report("exchanges", [](const Account& a) { return static_cast<double>(a.exchanges); });
    report("connections", [](const Account& a) { return static_cast<double>(a.connections); });
    report("keytab_walks", [](const Account& a) { return static_cast<double>(a.walks); });
    report("calls", [](const Account& a) { return static_cast<double>(a.calls); });
    for (const char* phase : {"dns", "connect", "starttls", "bind", "search", "add", "modify",
                              "as_exchange", "keytab", "unbind", "other_calls"}) {
      report(std::string(phase) + "_us", [phase](const Account& a) {
        const auto found = a.phases.find(phase);
        return found != a.phases.end() ? found->second : 0;
      });
    }
    const auto own = [](const Account& a) {
      double rest = a.total;
      for (const auto& [phase, time] : a.phases)
        rest -= time;
      return rest;
    };
    report("own_us", own);
    report("own_percent", [&](const Account& a) { return 100 * own(a) / a.total; });
  }
}

BENCHMARK_CAPTURE(Join, first, true)->UseManualTime()->Iterations(5);
BENCHMARK_CAPTURE(Join, repeated, false)->UseManualTime()->Iterations(10);

}  // namespace
}  // namespace tavrel::bench
