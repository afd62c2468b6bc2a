#include "tavrel/KrbRealm.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>
#include <memory>
#include <type_traits>
#include <vector>

#include "Interpose.h"
#include "KrbSettings.h"
#include "LogCapture.h"
#include "tavrel/KrbError.h"

namespace {

int interruptions = 0;  // of those who wait for a signal

}  // namespace

extern "C" int sigtimedwait(const sigset_t* signals, siginfo_t* about, const timespec* time) {
  if (interruptions == 0) {
    return static_cast<int>(syscall(SYS_rt_sigtimedwait, signals, about, time, (NSIG - 1) / 8));
  }
  --interruptions;
  errno = EINTR;
  return -1;
}

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::list<LdapServer> kServers = {
    {"dc2.corp.example.com", vdi::LDAP_ENCRYPTION_STARTTLS, "/etc/ca.pem"},
    {"ldaps://dc1.corp.example.com", vdi::LDAP_ENCRYPTION_LDAPS, ""}};

class Realm : public KrbRealm {
 public:
  using KrbRealm::join_parameters;
  using KrbRealm::krb_context;
  using KrbRealm::KrbRealm;
};

// --- construction --------------------------------------------------------------------------------

TEST(ANewRealm, HoldsWhatItWasGiven) {
  const KrbSettings settings;
  LogCapture log;
  CallTrace trace;

  const Realm realm("corp.Example.com", kServers, "Admin", "Admin.Pass.1", "MEMORY:realm");

  EXPECT_EQ(realm.join_parameters.domain, "CORP.EXAMPLE.COM");
  EXPECT_EQ(*realm.join_parameters.servers, kServers);
  EXPECT_EQ(realm.join_parameters.user, "Admin");
  EXPECT_EQ(realm.join_parameters.password, "Admin.Pass.1");
  EXPECT_NE(realm.krb_context.context, nullptr);
  EXPECT_NE(realm.krb_context.keytab, nullptr);
  EXPECT_EQ(realm.krb_context.client_principal, nullptr);
  EXPECT_THAT(log.Notable(), IsEmpty());
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_init_context", "krb5_kt_resolve"));
}

TEST(ANewRealm, WithAnEmptyKeytabPathHasNoKeytab) {
  const KrbSettings settings;
  LogCapture log;

  const Realm realm("corp.example.com", kServers, "Admin", "Admin.Pass.1", "");

  EXPECT_EQ(realm.krb_context.keytab, nullptr);
  EXPECT_EQ(*realm.join_parameters.servers, kServers);
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 krb-param SetKeytab: Keytab path is empty",
                          "4 krb-realm KrbRealm: Error initializing kerberos keytab to "));
}

TEST(ANewRealm, WithoutAReadableConfigurationHasNoContext) {
  const KrbSettings settings;
  std::ofstream(settings / "broken.conf") << "[libdefaults\n";
  const ScopedVariable broken("KRB5_CONFIG", settings / "broken.conf");
  LogCapture log;

  const Realm realm("corp.example.com", "Admin", "Admin.Pass.1", "MEMORY:realm");

  EXPECT_EQ(realm.krb_context.context, nullptr);
  EXPECT_EQ(realm.krb_context.keytab, nullptr);
  EXPECT_EQ(realm.join_parameters.domain, "CORP.EXAMPLE.COM");
  EXPECT_THAT(
      log.Notable(),
      ElementsAre("4 krb-param Init: Error initializing context: Improper format of Kerberos "
                  "configuration file",
                  "4 krb-param SetKeytab: Error resolving keytab: Bad magic number for "
                  "krb5_context structure",
                  "4 krb-realm KrbRealm: Error initializing kerberos keytab to MEMORY:realm"));
}

// --- destruction ---------------------------------------------------------------------------------

TEST(ARealmDestroyed, ReleasesKeytabPrincipalAndContext) {
  const KrbSettings settings;
  auto realm = std::make_unique<Realm>("corp.example.com", kServers, "Admin", "", "MEMORY:realm");
  ASSERT_TRUE(realm->krb_context.SetClientPrincipal("APPLIANCE$@CORP.EXAMPLE.COM"));
  LogCapture log;
  CallTrace trace;

  realm.reset();

  EXPECT_THAT(log.Notable(), IsEmpty());
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_kt_close", "krb5_free_principal", "krb5_free_context"));
}

// --- the type ------------------------------------------------------------------------------------

static_assert(!std::is_copy_constructible_v<KrbRealm> && !std::is_copy_assignable_v<KrbRealm>);
static_assert(!std::is_move_constructible_v<KrbRealm> && !std::is_move_assignable_v<KrbRealm>);
static_assert(std::has_virtual_destructor_v<KrbRealm>);

TEST(TheRealmsLayout, IsTheContextAndThenTheParameters) {
  struct Members {
    void* slots;
    KrbContext krb_context;
    JoinParameters join_parameters;
  };

  EXPECT_EQ(sizeof(KrbRealm), sizeof(Members));
  const KrbSettings settings;
  const Realm realm("corp.example.com", "Admin", "", "MEMORY:realm");
  EXPECT_LT(static_cast<const void*>(&realm.krb_context),
            static_cast<const void*>(&realm.join_parameters));
}

// --- afterwards ----------------------------------------------------------------------------------

TEST(ARealmWithoutAContext, RefusesEveryUser) {
  const KrbContext earlier;  // libkrb5 has its texts once it has made a context
  const StandIn broken(calls::krb5_init_context,
                       [](krb5_context*) -> krb5_error_code { return ENOMEM; });
  Realm realm("corp.example.com", "Admin", "", "MEMORY:realm");
  std::string token = "0123456789 request";
  LogCapture log;

  const std::string user = realm.Authenticate(token.data(), static_cast<int>(token.size()));

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Notable(), ElementsAre("3 krb-realm Authenticate: Not a KRB_AP_REQ",
                                         "4 krb-keytab APAuthenticate: Error initializing auth "
                                         "context: Bad magic number for krb5_context structure"));
}

// --- its thread ----------------------------------------------------------------------------------

// What this thread is like where it was last looked at.
struct ThreadState {
  void Look() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
    pthread_setcancelstate(cancellation, nullptr);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    blocked.clear();
    for (int signal = 1; signal < NSIG; ++signal) {
      if (sigismember(&mask, signal) == 1) blocked.push_back(signal);
    }
  }

  int cancellation = -1;
  std::vector<int> blocked;
};

TEST(ARealm, DefersCancellationAndBlocksNoSignalButBrokenPipe) {
  const KrbSettings settings;
  LogCapture log;
  Realm realm("corp.example.com", {{"dc1", vdi::LDAP_ENCRYPTION_NONE, ""}}, "Admin", "Admin.Pass.1",
              "MEMORY:thread");
  Joiner joiner(&realm.join_parameters, nullptr);
  joiner.sessions.emplace_back("dc1", vdi::LDAP_ENCRYPTION_NONE, "");
  ASSERT_EQ(ldap_initialize(&joiner.sessions.back().handle, "ldap://dc1"), LDAP_SUCCESS);
  std::string token = "not a token at all";
  ThreadState inside;
  const auto fails = [&](int code) {
    return [&inside, code](auto...) {
      inside.Look();
      return code;
    };
  };
  const StandIn connected(calls::ldap_initialize, fails(LDAP_PARAM_ERROR));
  const StandIn searched(calls::ldap_search_ext_s, fails(LDAP_SERVER_DOWN));
  const StandIn asked(calls::res_search, fails(-1));
  const StandIn read(calls::krb5_rd_req, fails(KRB5KRB_AP_ERR_BADVERSION));
  const StandIn walked(calls::krb5_kt_start_seq_get, fails(KRB5_KT_IOERR));
  const StandIn named(calls::krb5_parse_name, fails(KRB5_PARSE_MALFORMED));
  sigset_t interrupt;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
  const std::vector<int> before = {SIGUSR1};
  const std::vector<int> with_pipes = {SIGUSR1, SIGPIPE};
  const auto looks = [&](const char* operation, const std::vector<int>& blocked, auto call) {
    SCOPED_TRACE(operation);
    inside = {};
    call();
    EXPECT_EQ(inside.cancellation, PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(inside.blocked, blocked);
    ThreadState after;
    after.Look();
    EXPECT_EQ(after.cancellation, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(after.blocked, before);
  };

  looks("Join", with_pipes, [&] { realm.Join(nullptr); });
  looks("Join with parameters", with_pipes, [&] { realm.Join(realm.join_parameters, nullptr); });
  looks("the account step", before, [&] { realm.Join(joiner, realm.join_parameters, nullptr); });
  looks("TestJoin with parameters", with_pipes,
        [&] { realm.TestJoin(realm.join_parameters, nullptr); });
  looks("TestJoin", before, [&] { realm.TestJoin("corp.example.com", "A", "p", nullptr); });
  looks("Authenticate", before, [&] { realm.Authenticate(token.data(), 12); });

  pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
}

// A join whose peer hangs up fetches the signal that it blocked, and not one that was pending
// before.
TEST(ARealm, LeavesTheBrokenPipeOfItsHostPendingAndNoneOfItsOwn) {
  const KrbSettings settings;
  const StandIn hung_up(calls::ldap_initialize, [](auto...) {
    raise(SIGPIPE);
    return LDAP_SERVER_DOWN;
  });
  Realm realm("corp.example.com", {{"dc1", vdi::LDAP_ENCRYPTION_NONE, ""}}, "Admin", "Admin.Pass.1",
              "MEMORY:pipe");
  sigset_t pipes;
  sigemptyset(&pipes);
  sigaddset(&pipes, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipes, nullptr);
  for (const bool is_the_hosts : {false, true}) {
    LogCapture log;
    if (is_the_hosts) raise(SIGPIPE);
    interruptions = 2;

    realm.Join(nullptr);

    EXPECT_EQ(interruptions, is_the_hosts ? 2 : 0);
    interruptions = 0;
    const timespec at_once{};
    EXPECT_EQ(sigtimedwait(&pipes, nullptr, &at_once), is_the_hosts ? SIGPIPE : -1);
  }
  pthread_sigmask(SIG_UNBLOCK, &pipes, nullptr);
}

// libldap waits for an answer, with locks taken, when the thread is cancelled.
TEST(ARealm, WhoseThreadIsCancelledReturnsFromItsJoinFirst) {
  const KrbSettings settings;
  LogCapture log;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(listen(listening, 1), 0);
  ASSERT_EQ(getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size), 0);
  const std::string host = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  struct Joining {
    Realm realm;
    int status = -1;
  } joining{
      {"corp.example.com", {{host, vdi::LDAP_ENCRYPTION_STARTTLS, ""}}, "A", "p", "MEMORY:c"}};
  pthread_t thread{};
  ASSERT_EQ(pthread_create(
                &thread, nullptr,
                [](void* data) -> void* {
                  auto& joining = *static_cast<Joining*>(data);
                  joining.status = joining.realm.Join(nullptr);
                  return nullptr;
                },
                &joining),
            0);
  const int accepted = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
  char request[64];
  ASSERT_GT(read(accepted, request, sizeof request), 0);

  pthread_cancel(thread);
  close(accepted);
  close(listening);

  timespec limit{};
  clock_gettime(CLOCK_REALTIME, &limit);
  limit.tv_sec += 30;
  ASSERT_EQ(pthread_timedjoin_np(thread, nullptr, &limit), 0);
  ASSERT_EQ(joining.status, kFailure) << "the thread ended inside the library";
  EXPECT_EQ(joining.realm.Join(nullptr), kFailure);  // libldap's locks are free
}

}  // namespace
}  // namespace tavrel::tests
