// By nobody: what a program, a setting or a slip of a hand does alone.
#include <krb5.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "../hostile/Child.h"
#include "Attack.h"
#include "GssClient.h"
#include "Interpose.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::EndsWith;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

class AMistake : public Attack {};

// A thread that works on while the process ends, as long as `holding`.
std::atomic<int> contexts_made{0};
std::atomic<bool> holding{false};

// How a process ends by `end` while a thread of it is at work; empty for an ordinary end.
std::string EndWithAThreadAtWork(void (*end)(int)) {
  return InChild([end]() -> std::string {
    std::thread([] {
      for (;;) {
        const KrbContext context;
        ++contexts_made;
      }
    }).detach();
    while (contexts_made < 100)
      std::this_thread::yield();
    if (std::freopen("/dev/null", "w", stderr) == nullptr) return "no /dev/null";
    holding = true;
    end(0);
    return "";
  });
}

// The machine's principal is set before the account is looked at, and stays.
TEST_F(AMistake, JoinThatFailsAtTheAccountLetsUsersIn) {
  NameMachine("halfway");
  JoinedEarlier();
  user = Lab("USER") + "@" + Lab("REALM");
  password = Lab("USER_PASSWORD");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);
  const std::string user_name = SignIn(realm, GssClient(user, password).Token(Machine()));

  EXPECT_EQ(joined.status, kFailure);
  EXPECT_THAT(joined.error, EndsWith("Insufficient access"));
  EXPECT_EQ(user_name, kAlice);
}

TEST_F(AMistake, JoinTestOfAMistypedDomainLocksUsersOut) {
  JoinedRealm realm(*this, "tested");
  const GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  ASSERT_EQ(SignIn(realm, alice.Token(Machine())), kAlice);

  domain = "corp.exmaple.com";
  const Outcome tested = TestJoin(realm);
  const std::string user_name = SignIn(realm, alice.Token(Machine()));

  EXPECT_EQ(tested.status, kFailure);
  EXPECT_EQ(user_name, "");
}

// The password goes to every controller, and each counts.
TEST_F(AMistake, PasswordMistypedOnceLocksTheJoinerOutWhereThreeControllersCount) {
  constexpr int kControllers = 3;
  NameMachine("locked");
  const auto threshold = [](int logons) {
    ChangeDatabase("dn: " + Lab("BASE_DN") +
                   "\nchangetype: modify\nreplace: lockoutThreshold\nlockoutThreshold: " +
                   std::to_string(logons) + "\n");
  };
  threshold(kControllers);
  Scene("user joiner Joiner.Pass.1");
  user = "joiner@CORP.EXAMPLE.COM";
  password = "Joiner.Pass.1";
  servers = {{Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_STARTTLS, Lab("CA")}};
  const auto joins = [&](const std::string& with, std::size_t controllers) {
    password = with;
    servers.resize(controllers, servers.front());
    KrbRealm realm = Realm();
    return Join(realm).error;
  };
  const std::string refused = "Unable to connect to CORP.EXAMPLE.COM: Invalid credentials";
  const std::string may_not = "Could not add host to CORP.EXAMPLE.COM: Insufficient access";

  const std::string one_wrong = joins("Wrong.Pass.1", 1);
  const std::string not_locked_yet = joins("Joiner.Pass.1", 1);
  const std::string wrong = joins("Wrong.Pass.1", kControllers);
  const std::string right = joins("Joiner.Pass.1", 1);

  threshold(0);
  Scene("delete joiner");
  EXPECT_EQ(one_wrong, refused);
  EXPECT_EQ(not_locked_yet, may_not);
  EXPECT_EQ(wrong, refused);
  EXPECT_EQ(right, refused);
}

// Where a capital i has a dot, the realm's name has none.
TEST_F(AMistake, TurkishLocaleMisnamesTheRealm) {
  SetVariable("LOCPATH", folder / "");
  Shell("localedef -i tr_TR -f ISO-8859-9 '" + (folder / "tr_TR") + "' 2>/dev/null");

  const std::string before = JoinParameters("site.example.com", {}, "", "").domain;
  ASSERT_NE(std::setlocale(LC_ALL, "tr_TR"), nullptr);
  const std::string turkish = JoinParameters("site.example.com", {}, "", "").domain;
  std::setlocale(LC_ALL, "C");

  EXPECT_EQ(before, "SITE.EXAMPLE.COM");
  EXPECT_EQ(turkish, "S\xddTE.EXAMPLE.COM");
}

TEST_F(AMistake, LimitOfFileSizesEndsTheProcessUnlessItIgnoresTheSignal) {
  NameMachine("limited");
  JoinedEarlier();
  const auto write = [&](sighandler_t disposition) {
    return InChild([&]() -> std::string {
      std::signal(SIGXFSZ, disposition);
      const rlimit limit = {8, 8};
      setrlimit(RLIMIT_FSIZE, &limit);
      KrbContext context;
      context.SetKeytab(folder / "limited.keytab");
      context.SetClientPrincipal(Machine());
      std::string error;
      return Keytab(&context).WriteKey("Secret.1", &error) ? "written" : error;
    });
  };

  const std::string by_default = write(SIG_DFL);
  const std::string ignored = write(SIG_IGN);

  EXPECT_EQ(by_default, "ended by signal " + std::to_string(SIGXFSZ));
  EXPECT_EQ(ignored, "File too large");
}

// The Kerberos library takes itself down at exit() while the thread uses it. Nearly every such
// process crashes here.
TEST_F(AMistake, ThreadLeftBehindCrashesTheProcessAtExit) {
  std::string at_exit, at_immediate_exit;
  constexpr int kProcesses = 20;
  for (int i = 0; i < kProcesses; ++i) {
    at_exit += EndWithAThreadAtWork(std::exit);
    at_immediate_exit += EndWithAThreadAtWork(_exit);
    if (!at_exit.empty()) break;
  }

  EXPECT_THAT(at_exit, testing::StartsWith("ended "));
  EXPECT_EQ(at_immediate_exit, "");
}

}  // namespace

// libkrb5 calls this as it takes itself down. The end of the process waits there for the thread.
extern "C" __attribute__((visibility("default"))) errcode_t remove_error_table(
    const struct error_table* table) {
  const errcode_t code =
      reinterpret_cast<decltype(&remove_error_table)>(RealSymbol("remove_error_table"))(table);
  using Clock = std::chrono::steady_clock;
  const auto limit = Clock::now() + std::chrono::seconds(1);
  const int enough = contexts_made + 200;
  while (holding && contexts_made < enough && Clock::now() < limit)
    std::this_thread::yield();
  return code;
}

}  // namespace tavrel::tests
