// Long lives, and many machines.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <thread>

#include "GssClient.h"
#include "MembershipScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::GssClient;
using tavrel::tests::Lab;
using testing::ElementsAreArray;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

// Makes every key in a keytab as much older as so much time makes it, in seconds. The controller's
// clock is its own.
void PassTime(const std::string& keytab, std::uint32_t seconds) {
  std::string bytes = tavrel::tests::FileBytes(keytab);
  const auto number = [&](std::size_t at, std::size_t size) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
      value = value << 8U | static_cast<unsigned char>(bytes.at(at + i));
    return value;
  };
  for (std::size_t entry = 2; entry + 4 <= bytes.size(); entry += 4 + number(entry, 4)) {
    std::size_t at = entry + 6;
    for (std::uint32_t parts = number(entry + 4, 2) + 1; parts > 0; --parts)  // and the realm
      at += 2 + number(at, 2);
    at += 4;  // the name's type
    const std::uint32_t written = number(at, 4) - seconds;
    for (unsigned i = 0; i < 4; ++i)
      bytes[at + i] = static_cast<char>(written >> (24U - 8U * i) & 0xFFU);
  }
  std::ofstream(keytab, std::ios::binary) << bytes;
}

class Life : public MembershipScenario {
 public:
  std::string Accepts(KrbRealm& realm, const GssClient& client) const {
    std::vector<char> token = client.Token(account + "$@CORP.EXAMPLE.COM");
    return realm.Authenticate(token.data(), static_cast<int>(token.size()));
  }
  GssClient Alice() const {
    return GssClient(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  }
};

// In which the clocks of all go on together.
class Week : public Life {
 public:
  // So many hours from the beginning. The controller then ends connections that it takes for idle.
  void Reach(int hour) {
    // As a whole: the controller ends when it finds the file empty.
    const std::string next = Lab("MOVING_CLOCK") + ".next";
    std::ofstream(next) << '+' << hour << 'h';
    std::filesystem::rename(next, Lab("MOVING_CLOCK"));
    directory.~Directory();
    new (&directory) tavrel::tests::Directory;
  }
};

TEST_F(Week, OfDailyRotationsAcceptsEveryUserForAsLongAsTheirTicketLives) {
  NameMachine("weekly");
  ASSERT_THAT(Enrol(), Changes());
  const int first = std::stoi(Value("msDS-KeyVersionNumber"));
  tavrel::tests::JoinedRealm realm(*this);
  std::map<int, GssClient> clients;  // by the hour in which their ticket was issued
  for (int hour = 0; hour <= 7 * 24; hour += 4) {
    SCOPED_TRACE(hour);
    Reach(hour);
    clients.erase(clients.begin(), clients.lower_bound(hour - 9));
    clients.emplace(hour, Alice());
    for (const auto& [issued, client] : clients)
      EXPECT_EQ(Accepts(realm, client), kAlice) << "issued in hour " << issued;

    const Result result = Member().RotateWhenOlderThan(std::chrono::hours(24), kLimit);

    // Eleven hours after a rotation is too late for the old key: twelve, in steps of four.
    EXPECT_EQ(result.changed, hour > 0 && (hour % 24 == 0 || (hour > 24 && hour % 24 == 12)));
    EXPECT_TRUE(result) << testing::PrintToString(result);
    EXPECT_EQ(Value("msDS-KeyVersionNumber"), std::to_string(first + hour / 24));
    EXPECT_LE(Entries().size(), 4U);
    for (const auto& [issued, client] : clients)
      EXPECT_EQ(Accepts(realm, client), kAlice) << "issued in hour " << issued;
  }
}

TEST_F(Life, OfAWeekOfDailyRotationsHasTwoVersionsAndLosesNoUser) {
  NameMachine("weekly");
  ASSERT_THAT(Enrol(), Changes());
  tavrel::tests::JoinedRealm realm(*this);
  for (int day = 1; day <= 7; ++day) {
    SCOPED_TRACE(day);
    PassTime(keytab, 24 * 3600);
    const GssClient before = Alice();
    EXPECT_EQ(Accepts(realm, before), kAlice);

    EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(24), kLimit), Changes());

    EXPECT_EQ(Accepts(realm, before), kAlice);
    EXPECT_EQ(Accepts(realm, Alice()), kAlice);
    EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({day + 1, day})));
    EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(24), kLimit), ChangesNothing());
  }
  PassTime(keytab, 11 * 3600);
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(24), kLimit), Changes());
  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({8})));
}

TEST_F(Life, OfKeysEndsNeverWhereTicketsLiveForEver) {
  NameMachine("eternal");
  options.ticket_lifetime = std::chrono::seconds::max();
  ASSERT_THAT(Enrol(), Changes());
  ASSERT_THAT(Member().Rotate(kLimit), Changes());
  PassTime(keytab, 24 * 3600);
  EXPECT_THAT(Member().Rotate(kLimit), Changes());
  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({3, 2, 1})));

  PassTime(keytab, 24 * 3600);
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours::max(), kLimit), ChangesNothing());
  // A clock that was ahead when the key was written is no reason to keep it for ever.
  PassTime(keytab, -48U * 3600);
  EXPECT_THAT(Member().RotateWhenOlderThan(std::chrono::hours(24), kLimit), Changes());
}

TEST_F(Life, OfTwoHundredMachinesBeginsAtOnce) {
  constexpr int kMachines = 200;
  std::vector<Result> results(kMachines);
  std::vector<std::thread> machines;
  for (int i = 0; i < kMachines; ++i) {
    machines.emplace_back([&, i] {
      MembershipOptions own;
      own.account_name = "CROWD" + std::to_string(i);
      own.dns_name = "crowd" + std::to_string(i) + ".corp.example.com";
      Membership member(domain, folder / own.account_name, own);
      results[static_cast<std::size_t>(i)] = member.Enrol(Administrator(), std::chrono::minutes(5));
    });
  }
  for (std::thread& machine : machines)
    machine.join();

  EXPECT_THAT(results, testing::Each(Changes()));
}

}  // namespace
}  // namespace tavrel::plus::tests
