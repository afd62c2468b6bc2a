#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "tavrel/Join.h"

namespace tavrel::tests {

// While set, the library can take no lock.
std::atomic<bool> locks_fail{false};

}  // namespace tavrel::tests

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) {
  using tavrel::tests::IsInLibrary;
  if (tavrel::tests::locks_fail && IsInLibrary(__builtin_return_address(0))) return EINVAL;
  static int (*const real)(pthread_mutex_t*) =
      reinterpret_cast<int (*)(pthread_mutex_t*)>(tavrel::tests::RealSymbol("pthread_mutex_lock"));
  return real(mutex);
}

namespace tavrel::tests {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The passwords of a process are never forgotten, so every test has domains of its own.
JoinParameters Of(const std::string& domain) {
  return {domain, {}, "admin", "secret"};
}

// Counts how often the library opens the random device while it lives, and takes its time over it:
// other threads have every opportunity to come in between.
class Generations {
 public:
  Generations()
      : opened_(calls::open, [this](const char* path, int flags, mode_t mode) {
          ++count_;
          for (int i = 0; i < 100; ++i)
            std::this_thread::yield();
          return calls::open.Real(path, flags, mode);
        }) {
    const int device = calls::open.Real("/dev/null", 0, 0);  // finds the real function beforehand
    calls::close.Real(device);
  }

  int Count() const { return count_; }

 private:
  std::atomic<int> count_ = 0;
  const StandIn<Interposed<int(const char*, int, mode_t)>> opened_;
};

TEST(GetMachinePassword, IsTheSame50CharactersForEveryObjectOfADomain) {
  const JoinParameters params = Of("same.example.com");
  auto other =
      std::make_unique<JoinParameters>("SAME.Example.COM", std::list<LdapServer>{}, "", "");
  const Generations generations;
  LogCapture log;

  const std::string first = params.GetMachinePassword();
  const std::string second = params.GetMachinePassword();
  const std::string others = other->GetMachinePassword();
  other.reset();
  const std::string later = Of("same.example.COM").GetMachinePassword();

  EXPECT_THAT(first, SizeIs(50));
  EXPECT_EQ(second, first);
  EXPECT_EQ(others, first);
  EXPECT_EQ(later, first);
  EXPECT_EQ(generations.Count(), 1);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(GetMachinePassword, DiffersFromDomainToDomain) {
  const std::string domains[] = {"", "differs.example.com", "differs.example.com.",
                                 "sub.differs.example.com"};
  std::set<std::string> passwords;

  for (const std::string& domain : domains)
    passwords.insert(Of(domain).GetMachinePassword());

  EXPECT_THAT(passwords, SizeIs(4));
  EXPECT_THAT(passwords, Each(SizeIs(50)));
}

TEST(GetMachinePassword, IsEmptyWithoutTheRandomDeviceAndMadeOnceItIsBack) {
  const JoinParameters params = Of("retried.example.com");
  LogCapture log;

  {
    const StandIn missing(calls::open, [](auto...) {
      errno = ENOENT;
      return -1;
    });
    EXPECT_EQ(params.GetMachinePassword(), "");
    EXPECT_EQ(params.GetMachinePassword(), "");
  }
  const std::string missing_device =
      "4 random-string RandomString: Unable to open /dev/urandom: No such file or directory";
  EXPECT_THAT(log.Notable(), ElementsAre(missing_device, missing_device));
  log.Clear();
  const std::string password = params.GetMachinePassword();

  EXPECT_THAT(password, SizeIs(50));
  EXPECT_EQ(params.GetMachinePassword(), password);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(GetMachinePassword, IsMadeOnceHoweverManyThreadsAskAtOnce) {
  constexpr int kThreads = 16;
  constexpr int kDomains = 40;
  const Generations generations;
  std::atomic<int> ready = 0;
  std::vector<std::vector<std::string>> passwords(kThreads, std::vector<std::string>(kDomains));
  std::vector<std::thread> threads;

  for (auto& own : passwords) {
    threads.emplace_back([&ready, &own] {
      ++ready;
      while (ready < kThreads)
        std::this_thread::yield();
      for (int i = 0; i < kDomains; ++i)
        own[static_cast<std::size_t>(i)] =
            Of("threads" + std::to_string(i) + ".example.com").GetMachinePassword();
    });
  }
  for (std::thread& thread : threads)
    thread.join();

  EXPECT_EQ(generations.Count(), kDomains);
  EXPECT_THAT(passwords, Each(passwords.front()));
  EXPECT_THAT(passwords.front(), Each(SizeIs(50)));
  EXPECT_THAT(std::set<std::string>(passwords.front().begin(), passwords.front().end()),
              SizeIs(kDomains));
}

TEST(GetMachinePassword, GivesTheLockBackWhenAnExceptionPasses) {
  const JoinParameters params = Of("interrupted.example.com");
  {
    const StandIn interrupted(calls::open, [](auto...) -> int { throw std::bad_alloc(); });
    ASSERT_THROW(params.GetMachinePassword(), std::bad_alloc);
  }

  const std::string password = params.GetMachinePassword();

  EXPECT_THAT(password, SizeIs(50));
}

TEST(GetMachinePassword, ThrowsTheSystemsErrorWhenTheLockCannotBeTaken) {
  const JoinParameters params = Of("locked.example.com");
  const Generations generations;

  locks_fail = true;
  std::error_code code;
  try {
    params.GetMachinePassword();
  } catch (const std::system_error& error) {
    code = error.code();
  }
  locks_fail = false;

  EXPECT_EQ(code, std::errc::invalid_argument);
  EXPECT_EQ(generations.Count(), 0);
  EXPECT_THAT(params.GetMachinePassword(), SizeIs(50));
}

}  // namespace
}  // namespace tavrel::tests
