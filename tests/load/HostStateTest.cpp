// What belongs to the process that loads the library is as it was after every call.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <resolv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "ForgedRequest.h"
#include "KrbSettings.h"
#include "Lab.h"
#include "ScratchFolder.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

using ::testing::ElementsAreArray;

std::string Bytes(const void* first, std::size_t size) {
  return {static_cast<const char*>(first), size};
}

// Everything that a library could have changed, line by line.
std::vector<std::string> HostState() {
  std::vector<std::string> lines;
  for (const int category : {LC_CTYPE, LC_NUMERIC, LC_TIME, LC_COLLATE, LC_MONETARY, LC_MESSAGES})
    lines.push_back("locale " + std::to_string(category) + " " + std::setlocale(category, nullptr));
  lines.push_back("thread locale " +
                  std::to_string(reinterpret_cast<std::uintptr_t>(uselocale(nullptr))));
  for (char** variable = environ; *variable != nullptr; ++variable)
    lines.push_back(std::string("environment ") + *variable);
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0) continue;
    lines.push_back("signal " + std::to_string(signal) + " " +
                    std::to_string(reinterpret_cast<std::uintptr_t>(action.sa_handler)) + " " +
                    std::to_string(action.sa_flags));
  }
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  for (int signal = 1; signal < NSIG; ++signal) {
    if (sigismember(&mask, signal) == 1) lines.push_back("blocked " + std::to_string(signal));
  }
  int cancellation = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &cancellation);
  pthread_setcancelstate(cancellation, nullptr);
  lines.push_back("cancellation " + std::to_string(cancellation));
  const mode_t creation = umask(0);
  umask(creation);
  lines.push_back("umask " + std::to_string(creation));
  lines.push_back("folder " + std::filesystem::current_path().string());
  const auto& resolver = _res;
  lines.push_back("resolver " + std::to_string(resolver.options) + " " +
                  std::to_string(resolver.retrans) + " " + std::to_string(resolver.retry) + " " +
                  std::to_string(resolver.ndots) + " " + resolver.defdname + " " +
                  Bytes(resolver.nsaddr_list, sizeof resolver.nsaddr_list[0] *
                                                  static_cast<std::size_t>(resolver.nscount)));
  return lines;
}

void OnSignal(int) {}

TEST(HostState, IsAsBeforeAfterEveryCall) {
  std::setlocale(LC_ALL, "C.UTF-8");
  umask(0137);
  for (const int signal : {SIGPIPE, SIGCHLD, SIGALRM, SIGHUP, SIGUSR1})
    std::signal(signal, OnSignal);
  sigset_t none;  // whatever the tests before have left
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  res_init();
  _res.retrans = 7;
  _res.retry = 3;
  const ScratchFolder folder;
  const std::string keytab = folder / "krb5.keytab";
  const JoinParameters params(Lab("DOMAIN"), {}, Lab("ADMIN"), Lab("ADMIN_PASSWORD"));
  const JoinParameters mistaken(Lab("DOMAIN"), {}, Lab("ADMIN"), "Mistaken.Pass.1");
  const JoinParameters elsewhere("nowhere.example.com", {}, Lab("ADMIN"), "Admin.Pass.1");
  const auto token = [&](const std::string& password) {
    ForgedTicket ticket;
    ticket.server = {params.GetAccountName() + "$"};
    ticket.password = password;
    return GssToken(ApReq(ticket));
  };
  std::unique_ptr<KrbRealm> realm;
  std::string error;
  std::vector<char> good, forged;
  const struct {
    const char* name;
    std::function<bool()> call;
  } calls[] = {
      {"construct",
       [&] {
         realm =
             std::make_unique<KrbRealm>(Lab("DOMAIN"), Lab("ADMIN"), Lab("ADMIN_PASSWORD"), keytab);
         return true;
       }},
      {"join that is refused", [&] { return realm->Join(mistaken, &error) == kFailure; }},
      {"join of no domain", [&] { return realm->Join(elsewhere, &error) == kFailure; }},
      {"test of a join",
       [&] {
         return realm->TestJoin(Lab("DOMAIN"), Lab("ADMIN"), Lab("ADMIN_PASSWORD"), &error) ==
                kSuccess;
       }},
      {"join", [&] { return realm->Join(&error) == kSuccess; }},
      {"join once more", [&] { return realm->Join(&error) == kSuccess; }},
      {"test with the keytab",
       [&] {
         return realm->TestJoin(Lab("DOMAIN"), Lab("ADMIN"), Lab("ADMIN_PASSWORD"), &error) ==
                kSuccess;
       }},
      {"accept",
       [&] { return !realm->Authenticate(good.data(), static_cast<int>(good.size())).empty(); }},
      {"refuse",
       [&] { return realm->Authenticate(forged.data(), static_cast<int>(forged.size())).empty(); }},
      {"destroy",
       [&] {
         realm.reset();
         return true;
       }},
  };
  for (const auto& [name, call] : calls) {
    SCOPED_TRACE(name);
    good = token(params.GetMachinePassword());
    forged = token("Guess");
    const std::vector<std::string> before = HostState();

    const bool as_expected = call();

    EXPECT_TRUE(as_expected) << error;
    EXPECT_THAT(HostState(), ElementsAreArray(before));
  }
}

}  // namespace
}  // namespace tavrel::tests
