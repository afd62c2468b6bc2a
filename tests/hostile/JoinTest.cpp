// What a join in a real domain makes of a keytab that is out of reach, and of another process that
// joins the same machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "Child.h"
#include "GssClient.h"
#include "Interpose.h"
#include "Lab.h"
#include "LogCapture.h"
#include "ScratchFolder.h"
#include "ScratchKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

// A machine of a test's own.
class HostileJoin : public testing::Test {
 protected:
  HostileJoin() {
    static int number = 0;
    machine_ = "box" + std::to_string(++number);
    if (sethostname(machine_.data(), machine_.size()) != 0) throw std::runtime_error("no name");
  }

  // A realm of the machine in this process: what it tells of a join from level 2 up, and the
  // versions of the machine's keys then.
  std::string Join() const {
    LogCapture log;
    std::string error = "(untouched)";
    KrbRealm realm(Lab("DOMAIN"), Lab("ADMIN"), Lab("ADMIN_PASSWORD"), keytab_);
    const int status = realm.Join(&error);
    std::string told = std::to_string(status) + ", \"" + error + "\"\n";
    for (const std::string& line : log.Notable())
      told += line + "\n";
    // libkrb5 leaves a keytab locked that it could not write.
    if (error.find("Unable to write") != std::string::npos) return told;
    for (const StoredKey& stored : ReadKeytab("FILE:" + keytab_)) {
      if (stored.principal == Account() + "$@CORP.EXAMPLE.COM") {
        told += "version " + std::to_string(stored.vno) + "\n";
      }
    }
    return told;
  }

  // The same in a process of its own, with a machine password of its own.
  std::string JoinElsewhere() const {
    return InChild([&] { return Join(); });
  }

  // Who the machine says presents alice's ticket, after it has joined once more.
  std::string Alice() const {
    return InChild([&] {
      KrbRealm realm(Lab("DOMAIN"), Lab("ADMIN"), Lab("ADMIN_PASSWORD"), keytab_);
      if (realm.Join(nullptr) != 0) return std::string("not joined");
      const GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
      std::vector<char> token =
          alice.Token("HOST/" + machine_ + "." + Lab("DOMAIN") + "@" + Lab("REALM"));
      return realm.Authenticate(token.data(), static_cast<int>(token.size()));
    });
  }

  std::string Account() const {
    std::string name = machine_;
    for (char& c : name)
      c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    return name;
  }

  ScratchFolder folder_;
  std::string machine_;
  std::string keytab_ = folder_ / "krb5.keytab";
};

constexpr char kJoined[] = "2 krb-realm Join: Joined to CORP.EXAMPLE.COM\n";

std::string NotWritten(const std::string& reason) {
  return "0, \"Unable to write Kerberos keytab for CORP.EXAMPLE.COM: " + reason + "\"\n" + kJoined +
         "4 krb-keytab WriteKey: Error adding key to keytab: " + reason + "\n";
}

// A machine that had no keytab has one with these versions of its key.
std::string Written(const std::vector<int>& versions) {
  std::string told = std::string("0, \"Keytab file not created yet.\"\n") + kJoined;
  for (const int version : versions)
    told += "version " + std::to_string(version) + "\n";
  return told;
}

TEST_F(HostileJoin, OnAFullDiskSucceedsWithoutAKeytab) {
  const std::string disk = folder_ / "disk";
  std::filesystem::create_directory(disk);
  ASSERT_EQ(mount("none", disk.c_str(), "tmpfs", 0, "size=16k"), 0);
  std::ofstream(disk + "/other") << std::string(1 << 20, 'x');
  keytab_ = disk + "/krb5.keytab";

  const std::string told = JoinElsewhere();

  EXPECT_EQ(told, NotWritten("End of key table reached"));  // libkrb5's text for a full disk
  umount(disk.c_str());
}

TEST_F(HostileJoin, WritesItsKeyIntoTheKeytabThatReplacedItsOwn) {
  const std::string joined_before = JoinElsewhere();
  const std::string other = folder_ / "other.keytab";

  const std::string told = InChild([&] {
    if (std::system(("scene password '" + Account() + "$' Changed.Pass.1").c_str()) != 0) {
      return std::string("no scene");
    }
    const StandIn replaced(calls::krb5_kt_add_entry, [&](auto... arguments) {
      std::filesystem::remove(keytab_);
      return calls::krb5_kt_add_entry.Real(arguments...);
    });
    return Join();
  });

  EXPECT_EQ(joined_before, Written({1}));
  EXPECT_EQ(told, std::string("0, \"Preauthentication failed\"\n") + kJoined +
                      "4 krb-keytab ASAuthenticate: Error authenticating through keytab: "
                      "Preauthentication failed\n"
                      "version 2\n");
  EXPECT_EQ(Alice(), "CORP.EXAMPLE.COM\\alice");
}

// --- two processes ---

// One process joins until just before it makes the call; another joins from its beginning to its
// end; then the first goes on.
template <typename Call>
std::pair<std::string, std::string> OvertakenBefore(Call& call, int nth,
                                                    const std::function<std::string()>& join) {
  Child overtaken([&](const Child::Pause& pause) {
    int calls = 0;
    const StandIn waits(call, [&](auto... arguments) {
      if (++calls == nth) pause();
      return call.Real(arguments...);
    });
    return join();
  });
  const std::string other = InChild(join);
  overtaken.Resume();
  return {overtaken.Result(), other};
}

TEST_F(HostileJoin, OfTwoAtOnceTheOneThatAddsTheAccountLaterFailsAndTheOtherStands) {
  const auto [told, other] = OvertakenBefore(calls::ldap_add_ext_s, 1, [&] { return Join(); });

  EXPECT_EQ(told,
            "3, \"Could not add host to CORP.EXAMPLE.COM: Already exists\"\n"
            "4 ldap-join AddAccountObject: LDAP add failed: Already exists\n"
            "4 krb-realm Join: Could not add host to CORP.EXAMPLE.COM: Already exists\n"
            "version 1\n");
  EXPECT_EQ(other, Written({1}));
  EXPECT_EQ(Alice(), "CORP.EXAMPLE.COM\\alice");
}

TEST_F(HostileJoin, OfTwoAtOnceTheOneThatSetsThePasswordLaterStandsAndBothSucceed) {
  const auto [told, other] = OvertakenBefore(calls::ldap_modify_ext_s, 2, [&] { return Join(); });

  EXPECT_EQ(told, Written({1, 2}));
  EXPECT_EQ(other, Written({1}));
  EXPECT_EQ(Alice(), "CORP.EXAMPLE.COM\\alice");
}

TEST_F(HostileJoin, OfTwoAtOnceTheOneWhosePasswordWasReplacedBeforeItWasProvedFails) {
  const auto [told, other] =
      OvertakenBefore(calls::krb5_get_init_creds_password, 1, [&] { return Join(); });

  EXPECT_EQ(told,
            "3, \"Unable to authenticate to CORP.EXAMPLE.COM KDC after setting password: "
            "Preauthentication failed\"\n" +
                std::string(kJoined) +
                "4 krb-keytab ASAuthenticate: Error authenticating through password: "
                "Preauthentication failed\nversion 1\n");
  EXPECT_EQ(other, Written({1}));
  EXPECT_EQ(Alice(), "CORP.EXAMPLE.COM\\alice");
}

TEST_F(HostileJoin,
       OfTwoAtOnceTheOneWhosePasswordWasReplacedAfterItWasProvedLeavesADeadKeyBehindTheOther) {
  const auto [told, other] = OvertakenBefore(calls::krb5_kt_add_entry, 1, [&] { return Join(); });

  EXPECT_EQ(told, Written({1, 1}));
  EXPECT_EQ(other, Written({1}));
  EXPECT_EQ(Alice(), "CORP.EXAMPLE.COM\\alice");
}

TEST_F(HostileJoin, OfTwoAtOnceEachSucceedsOrFailsAndTheNextOneSucceeds) {
  constexpr int kRounds = 8;
  std::map<std::string, int> outcomes;
  for (int round = 0; round < kRounds; ++round) {
    machine_ += "x";
    ASSERT_EQ(sethostname(machine_.data(), machine_.size()), 0);
    keytab_ = folder_ / (machine_ + ".keytab");
    const auto join = [&](const Child::Pause& pause) {
      pause();
      return Join();
    };
    Child first(join), second(join);

    first.Resume();
    second.Resume();
    const std::string a = first.Result().substr(0, 1), b = second.Result().substr(0, 1);

    ++outcomes[a + b];
    EXPECT_THAT(a, testing::AnyOf("0", "3"));
    EXPECT_THAT(b, testing::AnyOf("0", "3"));
    EXPECT_EQ(Alice(), "CORP.EXAMPLE.COM\\alice") << a << b;
  }
  std::printf("two processes joining one machine at once:");
  for (const auto& [statuses, count] : outcomes)
    std::printf(" %d times statuses %c and %c;", count, statuses[0], statuses[1]);
  std::printf(" the next join always succeeds\n");
}

}  // namespace
}  // namespace tavrel::tests
