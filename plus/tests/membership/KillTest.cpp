// An operation that is killed before one of its system calls. Repeating it ends well, and users are
// accepted with the tickets they have.
#include <sys/syscall.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

#include "../../../tests/hostile/Child.h"
#include "GssClient.h"
#include "MembershipScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::GssClient;
using tavrel::tests::KilledBefore;
using tavrel::tests::Lab;
using testing::IsEmpty;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

// What the controller, or another process, can see the effect of.
bool HasEffect(long number) {
  constexpr long kCalls[] = {SYS_connect, SYS_sendto, SYS_sendmsg,   SYS_pwrite64, SYS_renameat2,
                             SYS_rename,  SYS_linkat, SYS_unlinkat,  SYS_fchown,   SYS_fchmod,
                             SYS_link,    SYS_unlink, SYS_ftruncate, SYS_fsync,    SYS_fallocate};
  return std::find(std::begin(kCalls), std::end(kCalls), number) != std::end(kCalls);
}

class Killed : public MembershipScenario {
 public:
  // Kills `work` before each system call that has an effect, and before the one that follows it, in
  // turn: nobody can tell a kill before any other call from one of these. The second finds the
  // controller still at work on what was sent. The short form takes every seventh of the first.
  static void BeforeEachCall(const std::function<void()>& prepare,
                             const std::function<void()>& work,
                             const std::function<void()>& check) {
    const bool is_brief = std::getenv("TAVREL_KILLS_BRIEF") != nullptr;
    int kills = 0;
    for (int nth = 1;; nth += is_brief ? 7 : 1) {
      prepare();
      long call = -1;
      const bool was_killed =
          KilledBefore(nth, work, &call, [=, had_effect = false](long number) mutable {
            const bool follows = std::exchange(had_effect, HasEffect(number)) && !is_brief;
            return had_effect || follows;
          });
      SCOPED_TRACE("killed before call " + std::to_string(nth) + ", of system call " +
                   std::to_string(call));
      check();
      if (!was_killed || HasFailure()) break;
      ++kills;
    }
    EXPECT_GT(kills, is_brief ? 3 : 40);
    std::printf("killed %d times\n", kills);
  }

  // The machine and its keytab anew, a process that uses them, and a user who has a ticket.
  void InService() {
    std::filesystem::remove(keytab);
    EXPECT_THAT(Enrol(), Changes());
    realm.reset(new KrbRealm(Realm()));
    EXPECT_EQ(Join(*realm).status, kSuccess);
    earlier.emplace(Alice());
    EXPECT_EQ(Accepts(*earlier), kAlice);
  }

  GssClient Alice() const {
    return GssClient(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  }
  std::string Accepts(const GssClient& client) const {
    std::vector<char> token = client.Token(account + "$@CORP.EXAMPLE.COM");
    return realm->Authenticate(token.data(), static_cast<int>(token.size()));
  }
  // Whatever an operation has beside the keytab.
  std::vector<std::string> LeftOver() const {
    std::vector<std::string> names;
    const std::filesystem::path path = keytab;
    for (const auto& entry : std::filesystem::directory_iterator(path.parent_path())) {
      const std::string name = entry.path().filename();
      if (name.rfind(path.filename().string() + '.', 0) == 0) names.push_back(name);
    }
    return names;
  }

  std::unique_ptr<KrbRealm> realm;
  std::optional<GssClient> earlier;
};

TEST_F(Killed, EnrolmentIsRepeated) {
  int number = 0;
  BeforeEachCall(
      [&] {
        NameMachine("enrol" + std::to_string(++number));
        keytab = folder / account;
      },
      [&] { Enrol(); },
      [&] {
        EXPECT_TRUE(Enrol());
        EXPECT_THAT(Enrol(), ChangesNothing());
        EXPECT_THAT(LeftOver(), IsEmpty());
        directory.Delete(account);
      });
  EXPECT_THAT(Enrol(), Changes());
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(Killed, EnrolmentAfterThePasswordWasLostKeepsAcceptingUsers) {
  NameMachine("lost");
  BeforeEachCall(
      [&] {
        InService();
        Scene("password 'LOST$' Behind.Its.Back.1");
      },
      [&] { Enrol(); },
      [&] {
        EXPECT_EQ(Accepts(*earlier), kAlice);
        EXPECT_TRUE(Enrol());
        EXPECT_EQ(Accepts(*earlier), kAlice);
        EXPECT_EQ(Accepts(Alice()), kAlice);
        EXPECT_THAT(LeftOver(), IsEmpty());
      });
}

TEST_F(Killed, RotationIsRepeatedAndUsersAreAcceptedThroughout) {
  NameMachine("rotate");
  BeforeEachCall([&] { InService(); }, [&] { Member().Rotate(kLimit); },
                 [&] {
                   EXPECT_EQ(Accepts(*earlier), kAlice);
                   // The KDC has just issued this one, with whatever key it has now.
                   const GssClient now = Alice();
                   EXPECT_EQ(Accepts(now), kAlice);
                   EXPECT_THAT(Member().Rotate(kLimit), Changes());
                   EXPECT_EQ(Accepts(*earlier), kAlice);
                   EXPECT_EQ(Accepts(now), kAlice);
                   EXPECT_EQ(Accepts(Alice()), kAlice);
                   EXPECT_THAT(LeftOver(), IsEmpty());
                 });
}

// With a password of before a rename, so that the KDC makes keys of the next with another salt.
TEST_F(Killed, EnrolmentWithAOneTimePasswordIsRepeated) {
  NameMachine("onetime");
  options.account_name = "renamed1";
  options.dns_name = "renamed1.corp.example.com";
  const auto once = Credentials::OneTimePassword("One.Time.Pass.1");
  BeforeEachCall(
      [&] {
        std::filesystem::remove(keytab);
        directory.Delete(account);
        directory.Add(account, "One.Time.Pass.1", "computer", 4096);
        ChangeDatabase(
            "dn: " + Dn() +
            "\nchangetype: modify\nreplace: sAMAccountName\nsAMAccountName: RENAMED1$\n");
      },
      [&] { Member().Enrol(once, kLimit); },
      [&] {
        EXPECT_TRUE(Member().Enrol(once, kLimit));
        EXPECT_THAT(Enrol(), ChangesNothing());
      });
}

TEST_F(Killed, LeavingIsRepeated) {
  NameMachine("leave");
  BeforeEachCall([&] { ASSERT_THAT(Enrol(), Changes()); },
                 [&] { Member().Leave(Administrator(), Departure::kDelete, kLimit); },
                 [&] {
                   EXPECT_TRUE(Member().Leave(Administrator(), Departure::kDelete, kLimit));
                   EXPECT_TRUE(directory.Read(account).empty());
                   EXPECT_THAT(Entries(), IsEmpty());
                   EXPECT_THAT(LeftOver(), IsEmpty());
                 });
}

}  // namespace
}  // namespace tavrel::plus::tests
