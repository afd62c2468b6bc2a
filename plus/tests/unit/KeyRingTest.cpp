#include "KeyRing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "KnownLeak.h"
#include "ScratchKeytab.h"
#include "Service.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::FileBytes;
using tavrel::tests::ForgedTicket;
using tavrel::tests::KnownLeak;

ForgedTicket WithKey(const std::string& password, krb5_kvno version) {
  ForgedTicket ticket = TicketWithPac();
  ticket.password = password;
  ticket.kvno = version;
  return WithPac(ticket, PartsOf({}));
}

void Replace(const std::string& path, const std::string& bytes) {
  std::ofstream(path + ".new") << bytes;
  std::filesystem::rename(path + ".new", path);
}

TEST(AKeytab, ThatGrowsIsReadAgain) {
  const Service service;
  const auto acceptor = service.Make();
  const ForgedTicket next = WithKey("Next.1", 2);
  EXPECT_FALSE(acceptor->Accept(Token(next)));

  AddKey(service.options.keytab, next);

  EXPECT_TRUE(acceptor->Accept(Token(next)));
  EXPECT_TRUE(acceptor->Accept(Token(WithKey("Secret.1", 1))));
}

TEST(AKeytab, ThatIsReplacedUnderLoadCostsNoRefusal) {
  Service service;
  service.options.replay_protection = false;  // whose file has no room for a load
  const auto acceptor = service.Make();
  const std::string old_path = service.settings / "old";
  const std::string new_path = service.settings / "new";
  AddKey(old_path, WithKey("Secret.1", 1));
  AddKey(new_path, WithKey("Secret.1", 1));
  AddKey(new_path, WithKey("Next.1", 2));
  const std::string old_bytes = FileBytes(old_path);
  const std::string new_bytes = FileBytes(new_path);
  std::atomic<bool> done = false;
  std::atomic<int> refused = 0;
  std::atomic<int> accepted = 0;
  const auto sign_in = [&](const std::string& token) {
    const KnownLeak of_libkrb5;  // of what it has read of an entry that is cut off
    while (!done) {
      const Acceptance result = acceptor->Accept(token);
      ++(result ? accepted : refused);
    }
  };
  // For the one without a key the file is looked at each time.
  const auto knock = [&](const std::string& token) {
    const KnownLeak of_libkrb5;
    while (!done)
      EXPECT_FALSE(acceptor->Accept(token));
  };
  std::thread users[] = {std::thread(sign_in, Token(WithKey("Secret.1", 1))),
                         std::thread(sign_in, Token(WithKey("Secret.1", 1))),
                         std::thread(knock, Token(WithKey("Another.1", 9)))};

  for (int i = 0; i < 40; ++i) {
    Replace(service.options.keytab, i % 2 == 0 ? new_bytes : old_bytes);
    // In place, a part at a time, as cp does.
    std::ofstream file(service.options.keytab, std::ios::trunc);
    for (std::size_t at = 0; at < new_bytes.size(); at += 16) {
      file.write(new_bytes.data() + at,
                 static_cast<std::streamsize>(std::min<std::size_t>(16, new_bytes.size() - at)));
      file.flush();
    }
  }
  while (accepted < 20) {
    std::this_thread::yield();
  }
  done = true;
  for (std::thread& user : users)
    user.join();

  EXPECT_EQ(refused, 0);
  EXPECT_TRUE(acceptor->Accept(Token(WithKey("Next.1", 2))));
}

TEST(AKeytab, ThatIsGoneOrNonsenseChangesNothing) {
  const Service service;
  const auto acceptor = service.Make();
  const ForgedTicket other = WithKey("Other.1", 9);  // makes the acceptor look at once

  std::filesystem::remove(service.options.keytab);
  EXPECT_FALSE(acceptor->Accept(Token(other)));
  EXPECT_TRUE(acceptor->Accept(Token(TicketWithPac())));
  std::ofstream(service.options.keytab) << "nonsense";
  EXPECT_FALSE(acceptor->Accept(Token(other)));
  EXPECT_TRUE(acceptor->Accept(Token(TicketWithPac())));
}

// A core join numbers its keys one below the directory.
TEST(AKeytab, WhoseVersionsAreNotTheDirectorysOpensTicketsOfBothKeys) {
  const Service service;
  AddKey(service.options.keytab, WithKey("Next.1", 2));
  const auto acceptor = service.Make();

  EXPECT_TRUE(acceptor->Accept(Token(WithKey("Secret.1", 2))));
  EXPECT_TRUE(acceptor->Accept(Token(WithKey("Next.1", 3))));
}

// Its modification time says nothing: whoever copies a file can keep that of another.
TEST(AKeytab, IsReadAgainUntilAChangeWouldShow) {
  const Service service;
  const std::string& path = service.options.keytab;
  std::filesystem::last_write_time(
      path, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  KeyStore store(path, {});
  std::string error;
  ASSERT_TRUE(store.Open(context, error)) << error;
  const int watch = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(inotify_add_watch(watch, path.c_str(), IN_OPEN), 0);

  char event[sizeof(inotify_event) + NAME_MAX + 1];
  bool opened = false;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
  while (!opened && std::chrono::steady_clock::now() < end) {
    store.Current(context);
    opened = read(watch, event, sizeof event) > 0;
  }

  EXPECT_TRUE(opened);
  close(watch);
  krb5_free_context(context);
}

TEST(AKeytab, IsLookedAtThoughNoTicketMissedAKey) {
  const Service service;
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  KeyStore store(service.options.keytab, {});
  std::string error;
  ASSERT_TRUE(store.Open(context, error)) << error;
  const auto before = store.Current(context).now;

  AddKey(service.options.keytab, WithKey("Next.1", 2));
  std::this_thread::sleep_for(std::chrono::milliseconds(150));  // it is looked at every 100

  EXPECT_NE(store.Current(context).now, before);
  krb5_free_context(context);
}

// Of one size all the time.
TEST(AKeytab, ThatChangesInAnyWayIsReadAgain) {
  const Service service;
  const std::string path = service.settings / "changing";
  std::string bytes[2];
  for (const krb5_kvno version : {1U, 2U}) {
    AddKey(path, WithKey("Key.1", version));
    bytes[version - 1] = FileBytes(path);
    std::filesystem::remove(path);
  }
  const auto then = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  const auto write = [&](int which, std::chrono::seconds later) {
    std::ofstream(path) << bytes[which];
    std::filesystem::last_write_time(path, then + later);
  };
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  std::string error;
  write(0, {});
  KeyStore store(path, {});
  ASSERT_TRUE(store.Open(context, error)) << error;
  std::shared_ptr<const KeyRing> last = store.Current(context).now;
  const auto read_again = [&] {
    const auto ring = store.Current(context, true).now;
    return std::exchange(last, ring) != ring;
  };

  write(1, {});  // neither its size nor its modification time tell
  EXPECT_TRUE(read_again());
  write(0, std::chrono::seconds(1));
  EXPECT_TRUE(read_again());
  std::filesystem::rename(path, path + ".before");
  write(1, std::chrono::seconds(1));
  EXPECT_TRUE(read_again());
  krb5_free_context(context);
}

TEST(AKeytab, WithoutAKeyRefusesItsTicketsThreeSecondsLater) {
  Service service;
  service.options.replay_protection = false;
  AddKey(service.options.keytab, WithKey("Next.1", 2));
  const std::string path = service.settings / "one";
  AddKey(path, WithKey("Next.1", 2));
  const auto acceptor = service.Make();
  std::filesystem::rename(path, service.options.keytab);
  const auto start = std::chrono::steady_clock::now();
  const std::string of_old_key = Token(WithKey("Secret.1", 1));
  const std::string of_key = Token(WithKey("Next.1", 2));

  while (acceptor->Accept(of_old_key) &&
         std::chrono::steady_clock::now() - start < std::chrono::seconds(20)) {
  }

  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::seconds(3));
  EXPECT_LT(took, std::chrono::seconds(20));

  // A change would show by now: the file is left alone.
  const auto accept_for = [&](std::chrono::milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    do {
      EXPECT_TRUE(acceptor->Accept(of_key));
    } while (std::chrono::steady_clock::now() < end);
  };
  accept_for(std::chrono::milliseconds(1200));
  const int watch = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(inotify_add_watch(watch, service.options.keytab.c_str(), IN_OPEN), 0);
  accept_for(std::chrono::milliseconds(300));
  char event[sizeof(inotify_event) + NAME_MAX + 1];
  EXPECT_EQ(read(watch, event, sizeof event), -1);
  close(watch);
}

TEST(AKeytab, ThatSomebodyLocksHoldsUpOneThread) {
  const Service service;
  const auto acceptor = service.Make();
  const HeldUp held_up(service, *acceptor);

  auto other = std::async(std::launch::async,
                          [&] { return bool{acceptor->Accept(Token(TicketWithPac()))}; });

  EXPECT_EQ(other.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  held_up.Release();
  EXPECT_TRUE(other.get());
}

TEST(AKeyRing, OffersTheVersionAskedForAndTheNewestFew) {
  const Service service;
  for (krb5_kvno version = 2; version <= 20; ++version)
    AddKey(service.options.keytab, WithKey("Old." + std::to_string(version), version));
  AddKey(service.options.keytab, WithKey("Old.20", 20));  // the same key, once more
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  std::string error;

  const auto ring = KeyRing::Read(context, service.options.keytab, {}, error);

  ASSERT_TRUE(ring) << error;
  EXPECT_EQ(ring->Realm(), "CORP.EXAMPLE.COM");
  EXPECT_EQ(ring->Candidates(20, kAes256Sha1).size(), 1 + KeyRing::kMostOtherVersions);
  EXPECT_EQ(ring->Candidates(1, kAes256Sha1).size(), 1 + KeyRing::kMostOtherVersions);
  EXPECT_NE(ring->Candidates(1, kAes256Sha1).front(), ring->Candidates(2, kAes256Sha1).front());
  EXPECT_EQ(ring->Candidates(99, kAes256Sha1).size(), KeyRing::kMostOtherVersions);
  EXPECT_EQ(ring->Candidates(std::nullopt, kAes256Sha1).front(),
            ring->Candidates(20, kAes256Sha1).front());
  EXPECT_TRUE(ring->Candidates(1, kRc4).empty());
  krb5_free_context(context);
}

// Another ring may have another key at the same address.
TEST(ReadyKeys, AreOfTheRingThatTheyWereMadeOf) {
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  const auto ring = std::make_shared<KeyRing>();
  const auto next = std::make_shared<KeyRing>();
  KeyRing::Key key(std::string(32, 'a'));
  ReadyKeys ready;
  const auto used = [&](const std::shared_ptr<const KeyRing>& of) {
    krb5_keyblock* block = nullptr;
    krb5_k_key_keyblock(context, ready.Get(context, of, key, kAes256Sha1), &block);
    const char first = static_cast<char>(block->contents[0]);
    krb5_free_keyblock(context, block);
    return first;
  };
  EXPECT_EQ(used(ring), 'a');

  key = KeyRing::Key(std::string(32, 'b'));

  EXPECT_EQ(used(ring), 'a') << "it is made ready once";
  EXPECT_EQ(used(next), 'b');
  ready = {};
  krb5_free_context(context);
}

TEST(AKeyRing, HoldsTheKeysThatCountAlone) {
  const Service service;
  ForgedTicket of_another = WithKey("Other.1", 5);
  of_another.server = {"OTHER$"};
  AddKey(service.options.keytab, of_another);
  of_another.server_realm = "OTHER.EXAMPLE.COM";
  of_another.kvno = 6;
  AddKey(service.options.keytab, of_another);
  krb5_context context = nullptr;
  ASSERT_EQ(krb5_init_context(&context), 0);
  std::string error;
  const auto has = [&](const KeyFilter& filter, krb5_kvno version) {
    const auto ring = KeyRing::Read(context, service.options.keytab, filter, error);
    return ring && ring->Candidates(version, kAes256Sha1).size() == 1;
  };

  const auto ring = [&](const std::string& realm) {
    return KeyRing::Read(context, service.options.keytab, {"OTHER$", realm}, error);
  };
  AddKey(service.options.keytab, WithKey("Other.1", 6));
  EXPECT_TRUE(*ring("") == *ring("CORP.EXAMPLE.COM"));
  EXPECT_FALSE(*ring("") == *ring("OTHER.EXAMPLE.COM"));

  EXPECT_TRUE(has({"OTHER$", ""}, 5));
  EXPECT_TRUE(has({"OTHER$@CORP.EXAMPLE.COM", ""}, 5));
  EXPECT_TRUE(has({"OTHER$@OTHER.EXAMPLE.COM", ""}, 6));
  EXPECT_TRUE(has({"OTHER$", "OTHER.EXAMPLE.COM"}, 6));
  EXPECT_TRUE(has({"", "OTHER.EXAMPLE.COM"}, 6));
  EXPECT_FALSE(has({"NOBODY$", ""}, 5));
  EXPECT_FALSE(has({"a@b@c", ""}, 5));
  krb5_free_context(context);
}

}  // namespace
}  // namespace tavrel::plus::tests
