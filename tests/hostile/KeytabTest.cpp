// Keytabs that are damaged, contended or out of reach.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Child.h"
#include "ForgedRequest.h"
#include "Interpose.h"
#include "KnownLeak.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

const StoredKey kEarlier = {kMachine, 1, Rc4Key("Earlier.Pass.1"), ENCTYPE_ARCFOUR_HMAC};
const StoredKey kForeign = {kOther, 3, "fedcba9876543210", ENCTYPE_ARCFOUR_HMAC};
const StoredKey kCurrent = {kMachine, 2, Rc4Key("Current.Pass.1"), ENCTYPE_ARCFOUR_HMAC};
constexpr char kNewPassword[] = "New.Pass.1";

void Put(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// The bytes of a keytab with these entries.
std::string BytesOf(const std::vector<StoredKey>& keys) {
  ScratchKeytab scratch;
  for (const StoredKey& key : keys)
    scratch.Add(key);
  return scratch.Bytes();
}

// One that had an entry between the two, larger than any of the machine's.
std::string BytesWithAHole() {
  ScratchKeytab scratch;
  const StoredKey large = {"large/" + std::string(200, 'x'), 1, kForeign.key, kForeign.etype};
  for (const StoredKey& key : {kEarlier, large, kForeign})
    scratch.Add(key);
  KrbContext krb;
  if (!krb.SetKeytab(scratch.Path()) || !krb.SetClientPrincipal(large.principal) ||
      !Keytab(&krb).ClearKeys(nullptr)) {
    throw std::runtime_error("no hole");
  }
  return scratch.Bytes();
}

// An operation's result, error text and records from level 2 up.
std::string Told(const std::function<std::string(std::string* error)>& operation) {
  LogCapture log;
  std::string error = "(untouched)";
  std::string text = operation(&error) + ", \"" + error + "\"\n";
  for (const std::string& line : log.Notable())
    text += line + "\n";
  return text;
}
std::string WriteNewKey(Keytab& keytab) {
  return Told(
      [&](std::string* error) { return std::to_string(keytab.WriteKey(kNewPassword, error)); });
}

std::string WriteNewKeyWithin(Keytab& keytab, std::size_t size);

// --- killed ---

struct Scene {
  const char* name;
  std::string bytes;
  krb5_kvno next;
};

class KilledWriteKey : public testing::TestWithParam<int> {
 protected:
  static const Scene& TheScene() {
    static const std::string two = BytesOf({kEarlier, kForeign});
    static const Scene scenes[] = {
        {"behind the others", two, 2},
        {"into a hole", BytesWithAHole(), 2},
        {"over what an earlier kill left", two + std::string(4, '\0') + std::string(60, '\x7f'), 2},
        {"twice", BytesOf({kEarlier, kForeign, {kMachine, 2, Rc4Key(kNewPassword)}}), 2},
    };
    return scenes[GetParam()];
  }
};

TEST_P(KilledWriteKey, LosesNoKeyAndTheNextOneSucceeds) {
  const Scene& scene = TheScene();
  const std::string added = ScratchKeytab::Text({kMachine, scene.next, Rc4Key(kNewPassword)});
  std::set<std::string> before = {ScratchKeytab::Text(kEarlier), ScratchKeytab::Text(kForeign)};
  if (std::string(scene.name) == "twice") before.insert(added);
  std::set<std::string> complete = before;
  complete.insert(added);

  int kills = 0;
  for (long call = 0;; ++kills) {
    ScratchKeytab scratch;
    Put(scratch.Path(), scene.bytes);

    const bool killed = KilledBefore(
        kills + 1, [&] { scratch.keytab.WriteKey(kNewPassword, nullptr); }, &call);

    const std::vector<std::string> entries = scratch.Entries();
    SCOPED_TRACE("killed before call " + std::to_string(kills + 1) + ", of system call " +
                 std::to_string(call));
    EXPECT_THAT(std::set<std::string>(entries.begin(), entries.end()), AnyOf(before, complete));
    if (!killed) break;
    EXPECT_EQ(WriteNewKey(scratch.keytab), "1, \"(untouched)\"\n");
    EXPECT_THAT(scratch.Entries(), testing::UnorderedElementsAreArray(complete));
  }
  std::printf("SIGKILL while a key is written %s: %d system calls\n", scene.name, kills);
  EXPECT_GT(kills, 20);
}

INSTANTIATE_TEST_SUITE_P(Keytab, KilledWriteKey, testing::Range(0, 4));

// --- truncated ---

// libkrb5 1.20 loses the realm of an entry whose end is missing, at each reading: 17 bytes here.
using RealmIsLost = KnownLeak;

// Alice's request with a ticket that is sealed by that password's key.
std::vector<char> RequestBy(const std::string& password) {
  ForgedTicket ticket;
  ticket.password = password;
  ticket.server = {"APPLIANCE$"};
  return ApReq(ticket);
}

std::string Authenticate(Keytab& keytab, std::vector<char> request) {
  return keytab.APAuthenticate(request.data(), static_cast<int>(request.size()));
}
std::string Authenticate(Keytab& keytab, const std::string& password) {
  return Authenticate(keytab, RequestBy(password));
}

TEST(TruncatedKeytab, GivesTheEntriesThatAreWholeAndAcceptsNobodyWithoutOne) {
  const RealmIsLost known_leak;
  const std::vector<StoredKey> all = {kEarlier, kForeign, kCurrent};
  std::vector<std::size_t> ends;
  for (std::size_t count = 1; count <= all.size(); ++count)
    ends.push_back(BytesOf({all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)}).size());
  const std::string bytes = BytesOf(all);
  const std::string alice = "CORP.EXAMPLE.COM\\alice";

  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    SCOPED_TRACE("truncated after byte " + std::to_string(size));
    ScratchKeytab scratch;
    Put(scratch.Path(), bytes.substr(0, size));
    const auto whole = [&](std::size_t entry) { return size >= ends[entry]; };
    const bool has_version = size >= 2;
    struct Counter : KeytabAccumulator {
      void Process(const krb5_keytab_entry&) override { ++count; }
      std::size_t count = 0;
    } counter;
    LogCapture log;

    const krb5_error_code iterated = scratch.keytab.Iterate(counter);
    const krb5_error_code printed = scratch.keytab.Print();
    const std::uint32_t next = scratch.keytab.GetNextClientVno();
    const bool has_key = scratch.keytab.HasKey();
    const std::string by_earlier = Authenticate(scratch.keytab, "Earlier.Pass.1");
    const std::string by_current = Authenticate(scratch.keytab, "Current.Pass.1");
    const std::string by_stranger = Authenticate(scratch.keytab, "Stranger.Pass.1");

    EXPECT_EQ(iterated, has_version ? 0 : KRB5_KEYTAB_BADVNO);
    EXPECT_EQ(printed, iterated);
    EXPECT_EQ(counter.count, std::size_t{whole(0)} + whole(1) + whole(2));
    EXPECT_EQ(next, whole(2) ? 3U : whole(0) ? 2U : 1U);
    EXPECT_EQ(has_key, whole(0));
    EXPECT_EQ(by_earlier, whole(0) ? alice : "");
    EXPECT_EQ(by_current, whole(2) ? alice : "");
    EXPECT_EQ(by_stranger, "");
    EXPECT_EQ(scratch.Bytes(), bytes.substr(0, size));
  }
}

TEST(TruncatedKeytab, IsAskedForATicketWithoutACrash) {
  const RealmIsLost known_leak;
  const std::string bytes = BytesOf({kEarlier, kForeign, kCurrent});
  std::set<std::string> told;

  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    ScratchKeytab scratch("FILE", "dns_lookup_kdc = false\ndns_lookup_realm = false");
    Put(scratch.Path(), bytes.substr(0, size));
    told.insert(Told(
        [&](std::string* error) { return std::to_string(scratch.keytab.ASAuthenticate(error)); }));
  }

  EXPECT_THAT(told, ElementsAre("3, \"Cannot find KDC for realm \"CORP.EXAMPLE.COM\"\"\n"
                                "4 krb-keytab ASAuthenticate: Error authenticating through keytab: "
                                "Cannot find KDC for realm \"CORP.EXAMPLE.COM\"\n",
                                "3, \"Keytab file not created yet.\"\n"));
}

TEST(TruncatedKeytab, IsClearedOfTheEntriesThatAreWhole) {
  const RealmIsLost known_leak;
  const std::string bytes = BytesOf({kEarlier, kForeign, kCurrent});
  const std::size_t end_of_foreign = BytesOf({kEarlier, kForeign}).size();

  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    SCOPED_TRACE("truncated after byte " + std::to_string(size));
    ScratchKeytab scratch;
    Put(scratch.Path(), bytes.substr(0, size));

    const std::string told =
        Told([&](std::string* error) { return std::to_string(scratch.keytab.ClearKeys(error)); });

    EXPECT_EQ(told, size >= 2 ? "1, \"(untouched)\"\n"
                              : "0, \"(untouched)\"\n"
                                "4 krb-keytab ClearKeys: Error starting keytab sequence: "
                                "Unsupported key table format version number\n");
    const std::vector<std::string> rest = scratch.Entries();
    if (size < end_of_foreign) {
      EXPECT_THAT(rest, IsEmpty());
    } else {
      EXPECT_THAT(rest, ElementsAre(ScratchKeytab::Text(kForeign)));
    }
  }
}

// A key that was cut off must not come back as zeros: whoever knows the file's length would know
// it.
TEST(TruncatedKeytab, ReceivesTheNewKeyAndNoneThatNobodyWrote) {
  const RealmIsLost known_leak;
  const std::vector<StoredKey> all = {kEarlier, kForeign, kCurrent};
  const std::string bytes = BytesOf(all);
  std::set<std::string> known;
  for (const StoredKey& key : all)
    known.insert(ScratchKeytab::Text(key));
  int invented = 0, missing = 0, stuck = 0;

  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    ScratchKeytab scratch;
    Put(scratch.Path(), bytes.substr(0, size));

    const bool written = scratch.keytab.WriteKey(kNewPassword, nullptr);

    bool found = false;
    for (const std::string& entry : scratch.Entries()) {
      const bool is_new = entry.find(Hex(Rc4Key(kNewPassword))) != std::string::npos;
      found = found || is_new;
      if (!is_new && known.count(entry) == 0) {
        ++invented;
        std::printf("after byte %zu: %s\n", size, entry.c_str());
      }
    }
    missing += written && !found;
    stuck += !written;
  }

  EXPECT_EQ(invented, 0) << "entries that nobody wrote";
  EXPECT_EQ(missing, 0) << "times a key was said to be written that cannot be read";
  EXPECT_EQ(stuck, 0) << "times nothing could be written";
}

TEST(KilledFirstWriteKey, CanBeRepeated) {
  long call = 0;
  for (int nth = 1;; ++nth) {
    ScratchKeytab scratch;
    if (!KilledBefore(
            nth, [&] { scratch.keytab.WriteKey(kNewPassword, nullptr); }, &call))
      break;

    EXPECT_EQ(WriteNewKey(scratch.keytab), "1, \"(untouched)\"\n")
        << "killed before call " << nth << ", of system call " << call;
  }
}

TEST(FullDisk, WithRoomAgainTakesTheKey) {
  for (const std::string& before : {std::string(), BytesOf({kEarlier, kForeign})}) {
    for (std::size_t room = 0; room < 69; ++room) {
      ScratchKeytab scratch;
      if (!before.empty()) Put(scratch.Path(), before);
      WriteNewKeyWithin(scratch.keytab, before.size() + room);

      const std::string told = WriteNewKey(scratch.keytab);

      EXPECT_EQ(told, "1, \"(untouched)\"\n") << before.size() << " bytes, room for " << room;
      EXPECT_EQ(scratch.Entries().size(), before.empty() ? 1U : 3U)
          << before.size() << " bytes, room for " << room;
    }
  }
}

// --- locked ---

// Another process that has the file locked. libkrb5 locks open file descriptions where the system
// can; both kinds of locks exclude each other.
class Locker {
 public:
  Locker(const std::string& path, short type)
      : child_([=](const Child::Pause& pause) {
          const int file = open(path.c_str(), O_RDWR);
          struct flock lock {};
          lock.l_type = type;
          lock.l_whence = SEEK_SET;
          if (file == -1 || fcntl(file, F_SETLK, &lock) != 0) throw std::runtime_error("no lock");
          pause();
          return std::string("unlocked");
        }) {}

  std::string Unlock() {
    child_.Resume();
    return child_.Result();
  }

 private:
  Child child_;
};

// Waits until somebody waits for a lock on the file, as the kernel lists it:
// "1: -> POSIX  ADVISORY  WRITE 4711 fe:00:1057529 0 EOF".
void AwaitWaiter(const std::string& path) {
  struct stat about {};
  ASSERT_EQ(stat(path.c_str(), &about), 0);
  const std::string file = ":" + std::to_string(about.st_ino) + " ";
  for (;;) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
      if (line.find(" -> ") != std::string::npos && line.find(file) != std::string::npos) return;
    }
    sched_yield();
  }
}

struct Operation {
  const char* name;
  std::function<std::string(Keytab&, std::string*)> run;
  const char* told;
};

TEST(LockedKeytab, IsWaitedForByEveryOperationUntilTheOtherProcessGivesItUp) {
  const Operation operations[] = {
      {"HasKey", [](Keytab& k, std::string*) { return std::to_string(k.HasKey()); }, "1"},
      {"GetNextClientVno",
       [](Keytab& k, std::string*) { return std::to_string(k.GetNextClientVno()); }, "2"},
      {"WriteKey",
       [](Keytab& k, std::string* error) { return std::to_string(k.WriteKey("Two.1", error)); },
       "1"},
      {"ClearKeys",
       [](Keytab& k, std::string* error) { return std::to_string(k.ClearKeys(error)); }, "1"},
      {"APAuthenticate", [](Keytab& k, std::string*) { return Authenticate(k, "Earlier.Pass.1"); },
       "CORP.EXAMPLE.COM\\alice"},
  };
  for (const Operation& operation : operations) {
    SCOPED_TRACE(operation.name);
    ScratchKeytab scratch;
    Put(scratch.Path(), BytesOf({kEarlier, kForeign}));
    Locker locker(scratch.Path(), F_WRLCK);
    Child waiting([&](const Child::Pause& pause) {
      pause();
      std::string error;
      return operation.run(scratch.keytab, &error) + error;
    });

    waiting.Resume();
    AwaitWaiter(scratch.Path());
    const std::string unlocked = locker.Unlock();
    const std::string told = waiting.Result();

    EXPECT_EQ(unlocked, "unlocked");
    EXPECT_EQ(told, operation.told);
  }
}

TEST(LockedKeytab, IsReadBesideAnotherReader) {
  ScratchKeytab scratch;
  Put(scratch.Path(), BytesOf({kEarlier}));
  Locker reader(scratch.Path(), F_RDLCK);

  const bool has_key = scratch.keytab.HasKey();
  const std::string user = Authenticate(scratch.keytab, "Earlier.Pass.1");

  EXPECT_TRUE(has_key);
  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
}

// --- no room ---

// Writes the key in a process that may make no file larger than `size`.
std::string WriteNewKeyWithin(Keytab& keytab, std::size_t size) {
  return InChild([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {size, size};
    setrlimit(RLIMIT_FSIZE, &limit);
    return WriteNewKey(keytab);
  });
}

TEST(FullDisk, LosesNoKeyWhereverTheRoomEnds) {
  const std::string before = BytesOf({kEarlier, kForeign});
  const std::string added = ScratchKeytab::Text({kMachine, 2, Rc4Key(kNewPassword)});
  const std::size_t complete =
      BytesOf({kEarlier, kForeign, {kMachine, 2, Rc4Key(kNewPassword)}}).size();
  const auto refused = [](const std::string& reason) {
    return "0, \"" + reason + "\"\n4 krb-keytab WriteKey: Error adding key to keytab: " + reason +
           "\n";
  };

  for (std::size_t size = before.size(); size <= complete; ++size) {
    SCOPED_TRACE("room until byte " + std::to_string(size));
    ScratchKeytab scratch;
    Put(scratch.Path(), before);

    const std::string told = WriteNewKeyWithin(scratch.keytab, size);

    const std::vector<std::string> entries = scratch.Entries();
    if (size < complete) {
      EXPECT_EQ(told, refused(size < before.size() + 4 ? "File too large"
                                                       : "Error writing to key table"));
      EXPECT_THAT(entries,
                  ElementsAre(ScratchKeytab::Text(kEarlier), ScratchKeytab::Text(kForeign)));
    } else {
      EXPECT_EQ(told, "1, \"(untouched)\"\n");
      EXPECT_THAT(entries,
                  ElementsAre(ScratchKeytab::Text(kEarlier), ScratchKeytab::Text(kForeign), added));
    }
  }
}

// --- no rights ---

// What a process without privileges is told.
std::string AsNobody(const std::function<std::string()>& work) {
  return InChild([&] {
    if (setgid(65534) != 0 || setuid(65534) != 0) throw std::runtime_error("still privileged");
    return work();
  });
}

TEST(KeytabWithoutRights, IsNeitherReadNorWritten) {
  ScratchKeytab scratch;  // in a folder that is its owner's alone
  Put(scratch.Path(), BytesOf({kEarlier}));
  const std::string bytes = scratch.Bytes();
  const std::vector<char> request = RequestBy("Earlier.Pass.1");

  const std::string told = AsNobody([&] {
    Keytab& keytab = scratch.keytab;
    return Told([&](std::string*) { return std::to_string(keytab.HasKey()); }) +
           Told([&](std::string*) { return std::to_string(keytab.GetNextClientVno()); }) +
           WriteNewKey(keytab) +
           Told([&](std::string* error) { return std::to_string(keytab.ClearKeys(error)); }) +
           Told([&](std::string* error) { return std::to_string(keytab.ASAuthenticate(error)); }) +
           Told([&](std::string*) { return Authenticate(keytab, request); });
  });

  EXPECT_EQ(told,
            "0, \"(untouched)\"\n"
            "4 krb-keytab HasKey: Error starting keytab sequence: Permission denied\n"
            "1, \"(untouched)\"\n"
            "0, \"Permission denied\"\n"
            "4 krb-keytab WriteKey: Error adding key to keytab: Permission denied\n"
            "0, \"(untouched)\"\n"
            "4 krb-keytab ClearKeys: Error starting keytab sequence: Permission denied\n"
            "3, \"Keytab file not created yet.\"\n"
            ", \"(untouched)\"\n"
            "4 krb-keytab APAuthenticate: Error reading AP request: Service key not available\n");
  EXPECT_EQ(scratch.Bytes(), bytes);
}

TEST(KeytabWithoutRights, IsReadWhereItMayOnlyBeRead) {
  ScratchKeytab scratch;
  Put(scratch.Path(), BytesOf({kEarlier}));
  const std::string folder = std::filesystem::path(scratch.Path()).parent_path();
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  ASSERT_EQ(chmod(scratch.Path().c_str(), 0644), 0);
  const std::string bytes = scratch.Bytes();

  const std::string told = AsNobody([&] {
    return WriteNewKey(scratch.keytab) + Told([&](std::string* error) {
             return std::to_string(scratch.keytab.ClearKeys(error));
           }) +
           Told([&](std::string*) { return std::to_string(scratch.keytab.HasKey()); });
  });

  EXPECT_EQ(told,
            "0, \"Permission denied\"\n"
            "4 krb-keytab WriteKey: Error adding key to keytab: Permission denied\n"
            "0, \"Permission denied\"\n"
            "4 krb-keytab ClearKeys: Error removing keytab entry: Permission denied\n"
            "1, \"(untouched)\"\n");
  EXPECT_EQ(scratch.Bytes(), bytes);
}

// --- replaced ---

TEST(ReplacedKeytab, ReceivesTheKeyWithTheVersionThatFollowedInTheFileBefore) {
  ScratchKeytab scratch;
  Put(scratch.Path(), BytesOf({kEarlier, kForeign, kCurrent}));
  const std::string replacement = scratch.settings / "replacement";
  Put(replacement, BytesOf({kForeign}));
  const StandIn replaced(calls::krb5_c_string_to_key, [&](auto... arguments) {
    std::filesystem::rename(replacement, scratch.Path());
    return calls::krb5_c_string_to_key.Real(arguments...);
  });

  const std::string told = WriteNewKey(scratch.keytab);

  EXPECT_EQ(told, "1, \"(untouched)\"\n");
  EXPECT_THAT(scratch.Entries(),
              ElementsAre(ScratchKeytab::Text(kForeign),
                          ScratchKeytab::Text({kMachine, 3, Rc4Key(kNewPassword)})));
}

TEST(ReplacedKeytab, IsReadToItsEndByTheWalkThatHadOpenedIt) {
  ScratchKeytab scratch;
  Put(scratch.Path(), BytesOf({kEarlier, kForeign, kCurrent}));
  const std::string replacement = scratch.settings / "replacement";
  Put(replacement, BytesOf({kForeign}));
  struct Replacing : KeytabAccumulator {
    void Process(const krb5_keytab_entry& entry) override {
      if (versions.empty()) std::filesystem::rename(from, to);
      versions.push_back(entry.vno);
    }
    std::string from, to;
    std::vector<krb5_kvno> versions;
  } replacing;
  replacing.from = replacement;
  replacing.to = scratch.Path();

  const krb5_error_code code = scratch.keytab.Iterate(replacing);

  EXPECT_EQ(code, 0);
  EXPECT_THAT(replacing.versions, ElementsAre(1, 3, 2));
  EXPECT_THAT(scratch.Entries(), ElementsAre(ScratchKeytab::Text(kForeign)));
}

}  // namespace
}  // namespace tavrel::tests
