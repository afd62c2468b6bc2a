#include "ReplayCache.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ScratchFolder.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::ScratchFolder;
using testing::AnyOf;
using testing::HasSubstr;
using Verdict = ReplayCache::Verdict;

constexpr std::uint32_t kNoon = 1800000000;

class AReplayCache : public testing::Test {
 protected:
  std::unique_ptr<ReplayCache> Open(std::size_t capacity = 1024) {
    error_.clear();
    return ReplayCache::Open(path_, capacity, error_);
  }

  std::string Of(const std::string& what) const { return "replay file " + path_ + ": " + what; }

  ScratchFolder folder_;
  std::string path_ = folder_ / "replay";
  std::string error_;
};

TEST_F(AReplayCache, TellsWhatIsNewOnce) {
  const auto cache = Open();
  ASSERT_TRUE(cache) << error_;

  EXPECT_EQ(cache->Remember("one", kNoon), Verdict::kNew);
  EXPECT_EQ(cache->Remember("one", kNoon), Verdict::kSeen);
  EXPECT_EQ(cache->Remember("two", kNoon), Verdict::kNew);
  EXPECT_EQ(cache->Remember("two", kNoon), Verdict::kSeen);
}

TEST_F(AReplayCache, OutlivesItsProcess) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const auto cache = Open();
    const bool is_new = cache && cache->Remember("one", kNoon) == Verdict::kNew;
    kill(getpid(), is_new ? SIGKILL : SIGTERM);  // without any chance to tidy up
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(WTERMSIG(status), SIGKILL);

  EXPECT_EQ(Open()->Remember("one", kNoon), Verdict::kSeen);
}

TEST_F(AReplayCache, IsOneForAllWhoHaveItOpen) {
  const auto one = Open();
  const auto other = Open();

  EXPECT_EQ(one->Remember("one", kNoon), Verdict::kNew);
  EXPECT_EQ(other->Remember("one", kNoon), Verdict::kSeen);
}

// Whatever a row forgets, nothing is new twice: not one request of a flood many times its size, in
// whatever order they come again.
TEST_F(AReplayCache, ForgetsButNeverCallsARequestNewTwice) {
  const auto cache = Open();
  constexpr std::uint32_t kCount = 20000;
  const auto made = [](std::uint32_t i) { return kNoon + i * 7919 % 600; };
  std::uint32_t first_time = 0;
  for (std::uint32_t i = 0; i < kCount; ++i)
    first_time += cache->Remember(std::to_string(i), made(i)) == Verdict::kNew ? 1 : 0;

  for (std::uint32_t i = kCount; i-- > 0;)
    EXPECT_NE(cache->Remember(std::to_string(i), made(i)), Verdict::kNew) << i;
  EXPECT_GT(first_time, 1024U);
  EXPECT_EQ(std::filesystem::file_size(path_), 4096U + 1024 * 8);
}

// Of clients whose clocks are right none is refused while a quarter of the room is in use.
TEST_F(AReplayCache, HasRoomForAQuarterOfItsRecords) {
  const auto cache = Open(1U << 16U);
  constexpr std::uint32_t kRate = (1U << 16U) / 4 / 600;  // a second
  std::uint32_t refused = 0;
  for (std::uint32_t second = 0; second < 3000; ++second) {
    for (std::uint32_t i = 0; i < kRate; ++i) {
      // Clocks are up to 300 seconds off, either way.
      const std::uint32_t off = (second * 31 + i * 97) % 601;
      const auto verdict = cache->Remember(std::to_string(second) + "/" + std::to_string(i),
                                           kNoon + second + off - 300);
      refused += verdict != Verdict::kNew ? 1 : 0;
    }
  }
  EXPECT_EQ(refused, 0U);
}

TEST_F(AReplayCache, RefusesWhatIsOlderThanWhatItForgot) {
  const auto cache = Open();
  int places = 0;
  for (std::uint32_t i = 0; i < 100000; ++i)
    places += cache->Remember(std::to_string(i), kNoon + 100) == Verdict::kNew ? 1 : 0;

  EXPECT_EQ(places, 1024) << "a full row makes nothing else too old";
  EXPECT_EQ(cache->Remember("late", kNoon), Verdict::kTooOld);
  EXPECT_EQ(cache->Remember("in time", kNoon + 101), Verdict::kNew);
}

TEST_F(AReplayCache, TellsOneThreadAtMostThatARequestIsNew) {
  constexpr int kThreads = 4;
  constexpr std::uint32_t kCount = 20000;
  std::vector<std::atomic<int>> is_new(kCount);
  std::vector<std::unique_ptr<ReplayCache>> caches;
  for (int t = 0; t < kThreads; ++t)
    caches.push_back(Open());

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (std::uint32_t i = 0; i < kCount; ++i) {
        if (caches[static_cast<std::size_t>(t)]->Remember(std::to_string(i), kNoon + i / 100) ==
            Verdict::kNew)
          ++is_new[i];
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();

  int most = 0;
  for (const auto& count : is_new)
    most = std::max(most, count.load());
  EXPECT_EQ(most, 1);
}

// Two threads that want the same place do not lose one of their records.
TEST_F(AReplayCache, RemembersWhatItTookFromOneThreadBesideAnother) {
  std::atomic<int> forgotten = 0;
  const auto sign_in = [&](const std::string& name) {
    const auto cache = Open();
    for (std::uint32_t i = 0; i < 30000; ++i) {
      const std::string request = name + std::to_string(i);
      if (cache->Remember(request, kNoon + i) == Verdict::kNew &&
          cache->Remember(request, kNoon + i) == Verdict::kNew)
        ++forgotten;
    }
  };
  const auto made = Open();

  std::thread other(sign_in, "other");
  sign_in("one");
  other.join();

  EXPECT_EQ(forgotten, 0);
}

TEST_F(AReplayCache, KeepsToTheSizeThatItFound) {
  const auto cache = Open();
  std::fstream file(path_, std::ios::in | std::ios::out);
  file.seekp(8) << std::string(8, '\0') << std::flush;  // no records, it says now
  EXPECT_FALSE(Open());
  file.seekp(8) << std::string("\0\0\0\x80\0\0\0\0", 8) << std::flush;  // 2^31
  EXPECT_FALSE(Open());
  file.seekp(8) << std::string("\0\4\0\0\0\0\0\0", 8) << std::flush;  // 1,024
  EXPECT_TRUE(Open());
  file.seekp(0) << 'x' << std::flush;
  EXPECT_FALSE(Open());

  EXPECT_EQ(cache->Remember("one", kNoon), Verdict::kNew);
  EXPECT_EQ(cache->Remember("one", kNoon), Verdict::kSeen);
}

// The vectors of the algorithm's authors: the key is 0 to 15, the inputs are that many bytes, 0 and
// on.
TEST_F(AReplayCache, FindsARecordBySipHash) {
  ASSERT_TRUE(Open());
  std::string bytes;
  for (char c = 0; c < 16; ++c)
    bytes += c;
  std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(16) << bytes << std::flush;
  const auto cache = Open();
  ASSERT_TRUE(cache) << error_;
  const std::pair<std::size_t, std::uint64_t> vectors[] = {
      {0, 0x726fdb47dd0e0e31}, {8, 0x93f5f5799a932462}, {15, 0xa129ca6149be45e5}};

  for (const auto& [size, digest] : vectors) {
    EXPECT_EQ(cache->Remember(bytes.substr(0, size), kNoon), Verdict::kNew);
    std::uint64_t record = 0;
    file.seekg(static_cast<std::streamoff>(4096 + digest % 64 * 16 * 8));
    file.read(reinterpret_cast<char*>(&record), sizeof record);
    EXPECT_EQ(record, std::uint64_t{kNoon} << 32U | digest >> 32U) << size;
  }
}

TEST_F(AReplayCache, KeepsNoDescriptor) {
  const auto descriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = descriptors();

  const auto made = Open();
  const auto opened = Open();

  EXPECT_TRUE(made && opened);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(AReplayCache, MayHaveTheDescriptorOfStandardInput) {
  const int input = dup(STDIN_FILENO);
  close(STDIN_FILENO);

  const auto made = Open();
  const auto opened = Open();

  const bool is_kept = fcntl(STDIN_FILENO, F_GETFD) != -1;
  if (input != -1) {
    dup2(input, STDIN_FILENO);
    close(input);
  }
  EXPECT_TRUE(made && opened) << error_;
  EXPECT_FALSE(is_kept);
}

TEST_F(AReplayCache, IsOfItsOwnerAlone) {
  ASSERT_TRUE(Open());
  struct stat status {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);

  ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
  EXPECT_FALSE(Open());
  EXPECT_EQ(error_, Of("not a file of this user's alone"));
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  ASSERT_EQ(chown(path_.c_str(), 65534, 65534), 0);
  EXPECT_FALSE(Open());
}

TEST_F(AReplayCache, IsNotMadeOfAnotherFile) {
  ASSERT_TRUE(Open());
  std::filesystem::create_symlink(path_, folder_ / "link");
  const std::string whole = path_;
  path_ = folder_ / "link";
  EXPECT_FALSE(Open());
  path_ = whole;

  std::filesystem::resize_file(path_, 4096 + 1024 * 8 - 1);
  EXPECT_FALSE(Open());
  EXPECT_EQ(error_, Of("not a replay file"));
  std::filesystem::resize_file(path_, 0);
  EXPECT_FALSE(Open());
  std::filesystem::remove(path_);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_FALSE(Open());
  EXPECT_EQ(error_, Of("not a file of this user's alone"));
  std::filesystem::remove(path_);
  std::ofstream(path_) << std::string(4096 + 1024 * 8, 'x');
  EXPECT_FALSE(Open());
  path_ = folder_ / "none/replay";
  EXPECT_FALSE(Open());
  EXPECT_EQ(error_, Of("No such file or directory"));
  path_ = folder_ / std::string(300, 'x');
  EXPECT_FALSE(Open());
  EXPECT_EQ(error_, Of("File name too long"));
}

TEST_F(AReplayCache, LiesWhereItsPathSays) {
  const auto folder = std::filesystem::current_path();
  std::filesystem::current_path("/proc");  // no file can be made here
  EXPECT_TRUE(Open()) << error_;
  std::filesystem::current_path(folder_ / "");
  path_ = "another";
  EXPECT_TRUE(Open()) << error_;
  EXPECT_TRUE(std::filesystem::exists(folder_ / "another"));
  std::filesystem::current_path(folder);

  path_ = "/tavrel-replay-" + std::to_string(getpid());

  Open();

  unlink(path_.c_str());
  EXPECT_THAT(error_, AnyOf("", HasSubstr("denied"), HasSubstr("Read-only")));
}

}  // namespace
}  // namespace tavrel::plus::tests
