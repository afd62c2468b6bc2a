#include "tavrel/RandomString.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"

namespace tavrel::tests {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Gives the library these bytes instead of random ones while it lives.
class FixedBytes {
 public:
  explicit FixedBytes(const std::string& bytes)
      : read_(calls::read, [bytes](int, void* buffer, std::size_t size) {
          const std::size_t count = std::min(size, bytes.size());
          std::copy_n(bytes.data(), count, static_cast<char*>(buffer));
          return static_cast<ssize_t>(count);
        }) {}

 private:
  const StandIn<Interposed<ssize_t(int, void*, std::size_t)>> read_;
};

TEST(RandomString, IsAsLongAsAskedForAndOfTheBase64Alphabet) {
  LogCapture log;

  for (std::size_t length = 1; length <= 300; ++length) {
    const std::string text = RandomString(length);
    EXPECT_THAT(text, SizeIs(length));
    EXPECT_EQ(text.find_first_not_of(kAlphabet), std::string::npos) << text;
  }

  EXPECT_THAT(RandomString(1'000'000), SizeIs(1'000'000));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(RandomString, DrawsOnTheWholeAlphabetAndNeverRepeats) {
  std::set<std::string> texts;
  std::set<char> characters;

  for (int i = 0; i < 1000; ++i) {
    const std::string text = RandomString(50);
    texts.insert(text);
    characters.insert(text.begin(), text.end());
  }

  EXPECT_THAT(texts, SizeIs(1000));
  EXPECT_THAT(characters, SizeIs(64));
}

// Test vectors of RFC 4648, section 10, and the ends of the alphabet.
TEST(RandomString, IsTheStartOfTheBase64OfTheBytesRead) {
  const std::pair<std::string, std::string> cases[] = {
      {"f", "Z"},
      {"fo", "Zm"},
      {"foo", "Zm9"},
      {"foob", "Zm9v"},
      {"fooba", "Zm9vY"},
      {"foobar", "Zm9vYm"},
      {std::string(3, '\xFF'), "///"},
      {"\xFB\xEF\xBE", "+++"},
      {std::string(60, '\0'), std::string(60, 'A')},
      {std::string(90, '\xFF'), std::string(90, '/')},  // more than a line of base64
  };

  for (const auto& [bytes, text] : cases) {
    const FixedBytes fixed(bytes);
    EXPECT_EQ(RandomString(bytes.size()), text);
  }
}

TEST(RandomString, IsEmptyForALengthOfZeroAfterAskingTheDevice) {
  const CallTrace trace;
  LogCapture log;

  const std::string text = RandomString(0);

  EXPECT_EQ(text, "");
  EXPECT_THAT(trace.Names(), ElementsAre("open", "read", "close"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(RandomString, IsEmptyForALengthThatIsNoPositive32BitNumber) {
  LogCapture log;

  for (const std::uint64_t length :
       {std::uint64_t{1} << 31U, (std::uint64_t{1} << 32U) - 1, std::uint64_t{1} << 32U,
        (std::uint64_t{1} << 32U) + 5, ~std::uint64_t{0}}) {
    const auto size = static_cast<std::size_t>(length);
    if (size != length) continue;  // more than this machine can say
    EXPECT_EQ(RandomString(size), "") << length;
  }

  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(RandomString, ReadsTheDeviceOnceAndClosesIt) {
  std::vector<std::string> steps;
  int device = -1;
  const StandIn opened(calls::open, [&](const char* path, int flags, mode_t mode) {
    device = calls::open.Real(path, flags, mode);
    steps.push_back(std::string("open ") + path);
    EXPECT_EQ(flags & O_ACCMODE, O_RDONLY);
    EXPECT_NE(flags & O_CLOEXEC, 0);
    return device;
  });
  const StandIn read(calls::read, [&](int from, void* buffer, std::size_t size) {
    steps.push_back("read " + std::to_string(size));
    EXPECT_EQ(from, device);
    return calls::read.Real(from, buffer, size);
  });
  const StandIn closed(calls::close, [&](int which) {
    steps.emplace_back("close");
    EXPECT_EQ(which, device);
    return calls::close.Real(which);
  });

  RandomString(50);

  EXPECT_THAT(steps, ElementsAre("open /dev/urandom", "read 50", "close"));
}

TEST(RandomString, TakesTheseStepsAndFreesItsChain) {
  const CallTrace trace;

  RandomString(50);

  EXPECT_THAT(trace.Names(), ElementsAre("open", "getrandom", "read", "close", "BIO_new", "BIO_new",
                                         "BIO_set_flags", "BIO_push", "BIO_write", "BIO_ctrl",
                                         "BIO_ctrl", "BIO_free_all"));
}

TEST(RandomString, IsEmptyWithoutTheDevice) {
  const StandIn missing(calls::open, [](auto...) {
    errno = EMFILE;
    return -1;
  });
  const CallTrace trace;
  LogCapture log;

  const std::string text = RandomString(50);

  EXPECT_EQ(text, "");
  EXPECT_THAT(trace.Names(), ElementsAre("open"));
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 random-string RandomString: Unable to open /dev/urandom: "
                          "Too many open files"));
  EXPECT_THAT(log.Records(), Each(Field(&LogRecord::file, "RandomString.cpp")));
}

// A device that opens and gives nothing would otherwise make a password of zeros.
TEST(RandomString, IsRandomWhateverTheDeviceGives) {
  const StandIn kernel(calls::getrandom, [](void* buffer, std::size_t size, unsigned int flags) {
    EXPECT_EQ(flags, 0U);
    const std::size_t count = std::min<std::size_t>(size, 20);  // a signal came
    std::fill_n(static_cast<char*>(buffer), count, '\x5A');
    return static_cast<ssize_t>(count);
  });
  const std::string of_the_kernel = "WlpaWlpaWlpaWlpaWlpaWlpaWlpaWlpaWlpaWlpaWlpaWlpaWl";
  for (const ssize_t count : {ssize_t{-1}, ssize_t{0}, ssize_t{9}}) {
    int reads = 0;
    const StandIn short_read(calls::read, [&](int, void* buffer, std::size_t) {
      ++reads;
      if (count > 0) std::fill_n(static_cast<char*>(buffer), count, '\0');
      return count;
    });
    LogCapture log;
    const CallTrace trace;

    const std::string text = RandomString(50);

    EXPECT_EQ(text, count == 9 ? "AAAAAAAAAAAA" + of_the_kernel.substr(12) : of_the_kernel);
    EXPECT_EQ(reads, 1);
    EXPECT_THAT(trace.Names(), testing::Contains("close").Times(1));
    EXPECT_THAT(log.Notable(), IsEmpty());
  }
}

TEST(RandomString, NeedsAllOfTheDeviceFromAKernelThatHasNoRandomBytes) {
  for (const int reason : {ENOSYS, EPERM}) {
    const StandIn kernel(calls::getrandom, [&](auto...) {
      errno = reason;
      return -1;
    });

    EXPECT_THAT(RandomString(50), SizeIs(50));
    const StandIn short_read(calls::read, [](auto...) { return 49; });
    EXPECT_EQ(RandomString(50), "");
  }
}

TEST(RandomString, AsksTheKernelAgainWhenASignalCame) {
  int asked = 0;
  const StandIn kernel(calls::getrandom, [&](void* buffer, std::size_t size, unsigned int flags) {
    if (++asked > 1) return calls::getrandom.Real(buffer, size, flags);
    errno = EINTR;
    return ssize_t{-1};
  });

  RandomString(50);

  EXPECT_EQ(asked, 2);
}

TEST(RandomString, IsEmptyWhenLibcryptoHasNoMemory) {
  for (int failing = 1; failing <= 2; ++failing) {
    int made = 0;
    const StandIn no_memory(calls::BIO_new, [&](const BIO_METHOD* method) -> BIO* {
      return ++made == failing ? nullptr : calls::BIO_new.Real(method);
    });
    const CallTrace trace;

    const std::string text = RandomString(50);

    EXPECT_EQ(text, "");
    std::vector<std::string> steps = {"open", "getrandom", "read", "close", "BIO_new"};
    if (failing == 2) steps.insert(steps.end(), {"BIO_new", "BIO_free_all"});
    EXPECT_THAT(trace.Names(), testing::ElementsAreArray(steps));
  }
}

TEST(RandomString, IsEmptyWhenTheTextCannotBeEncoded) {
  const StandIn broken(calls::BIO_write, [](BIO*, const void*, int) { return -1; });
  const CallTrace trace;

  const std::string text = RandomString(50);

  EXPECT_EQ(text, "");
  EXPECT_THAT(trace.Names(), testing::Contains("BIO_free_all").Times(1));
}

TEST(RandomString, IsEmptyWhenTheEncodedTextCannotBeRead) {
  const StandIn broken(calls::BIO_ctrl, [](BIO* bio, int command, long number, void* pointer) {
    if (command == BIO_C_GET_BUF_MEM_PTR) return 0L;
    return calls::BIO_ctrl.Real(bio, command, number, pointer);
  });

  const std::string text = RandomString(50);

  EXPECT_EQ(text, "");
}

TEST(RandomString, IsNeverShorterThanAskedForUnlessEmpty) {
  // Without the flush the last bytes are not encoded.
  const StandIn unflushed(calls::BIO_ctrl, [](BIO* bio, int command, long number, void* pointer) {
    if (command == BIO_CTRL_FLUSH) return 0L;
    return calls::BIO_ctrl.Real(bio, command, number, pointer);
  });

  for (const std::size_t length : {1U, 2U, 50U})
    EXPECT_THAT(RandomString(length), testing::AnyOf(SizeIs(length), IsEmpty()));
}

}  // namespace
}  // namespace tavrel::tests
