// What becomes of a keytab file that is not whole when a key is written to it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Interpose.h"
#include "KnownLeak.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

const std::string kVersion("\5\2", 2);
constexpr char kPassword[] = "New.Pass.1";

// A number as it stands in memory.
std::string BytesOf(std::int32_t number) {
  std::string bytes(sizeof number, '\0');
  std::memcpy(bytes.data(), &number, sizeof number);
  return bytes;
}

std::string Length(std::int32_t length) {
  return BytesOf(static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(length))));
}

// The entry that a keytab file holds of `key`, with `padding` bytes behind it.
std::string EntryOf(const StoredKey& key, std::size_t padding = 0) {
  ScratchKeytab scratch;
  scratch.Add(key);
  const std::string content = scratch.Bytes().substr(6) + std::string(padding, '\0');
  return Length(static_cast<std::int32_t>(content.size())) + content;
}

const StoredKey kHere = {kMachine, 1, "0123456789abcdef", ENCTYPE_ARCFOUR_HMAC};
const StoredKey kLost = {kOther, 3, "fedcba9876543210", ENCTYPE_ARCFOUR_HMAC};

class ADamagedFile : public testing::Test {
 protected:
  void Put(const std::string& bytes) { std::ofstream(scratch.Path(), std::ios::binary) << bytes; }

  // Writes a key and expects the file to hold `before` and then its entry.
  void WritesBehind(const std::string& before, krb5_kvno vno) {
    const StoredKey added = {kMachine, vno, Rc4Key(kPassword), ENCTYPE_ARCFOUR_HMAC};

    const bool written = scratch.keytab.WriteKey(kPassword, &error);

    EXPECT_TRUE(written) << error;
    std::string bytes = scratch.Bytes();
    ASSERT_THAT(bytes, StartsWith(before));
    EXPECT_THAT(scratch.Entries(), testing::Contains(ScratchKeytab::Text(added)).Times(1));
    EXPECT_EQ(bytes.size(), before.size() + EntryOf(added).size());
  }

  // Expects `bytes` to be left alone, and the record and the text to say that their format is bad.
  void RefusesToAddTo(const std::string& bytes) {
    Put(bytes);
    LogCapture log;

    const bool written = scratch.keytab.WriteKey(kPassword, &error);

    EXPECT_FALSE(written);
    EXPECT_EQ(error, "Bad format in keytab");
    EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab WriteKey: Error adding key to keytab: "
                                         "Bad format in keytab"));
    EXPECT_EQ(scratch.Bytes(), bytes);
  }

  ScratchKeytab scratch;
  std::string error = "untouched";
};

TEST_F(ADamagedFile, WithoutAByteGetsItsVersion) {
  Put("");

  WritesBehind(kVersion, 1);
}

TEST_F(ADamagedFile, WithHalfAVersionGetsAWholeOne) {
  Put("\5");

  WritesBehind(kVersion, 1);
}

TEST_F(ADamagedFile, KeepsItsMode) {
  Put("");
  ASSERT_EQ(chmod(scratch.Path().c_str(), 0640), 0);

  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, &error));

  struct stat now {};
  ASSERT_EQ(stat(scratch.Path().c_str(), &now), 0);
  EXPECT_EQ(now.st_mode & 07777U, 0640U);
}

TEST_F(ADamagedFile, LosesWhatIsLeftOfACutEntry) {
  const KnownLeak realm;
  const std::string whole = kVersion + EntryOf(kHere);
  const std::string cut = EntryOf(kLost);
  for (std::size_t left = 1; left < cut.size(); left += left < 8 || left > cut.size() - 8 ? 1 : 7) {
    SCOPED_TRACE(left);
    Put(whole + cut.substr(0, left));

    WritesBehind(whole, 2);
  }
}

TEST_F(ADamagedFile, LosesAHoleThatReachesBeyondItsEnd) {
  const std::string whole = kVersion + EntryOf(kHere);
  for (const std::int32_t length : {-1000, -INT32_MAX, INT32_MIN}) {
    SCOPED_TRACE(length);
    Put(whole + Length(length) + "left over");

    WritesBehind(whole, 2);
  }
}

TEST_F(ADamagedFile, KeepsAnEntryOfWhichOnlyThePaddingIsCut) {
  const std::string padded = kVersion + EntryOf(kHere, 40);
  Put(padded.substr(0, padded.size() - 20));
  ASSERT_THAT(scratch.Entries(), ElementsAre(ScratchKeytab::Text(kHere)));

  const bool written = scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_TRUE(written) << error;
  EXPECT_THAT(scratch.Entries(),
              ElementsAre(ScratchKeytab::Text(kHere),
                          ScratchKeytab::Text({kMachine, 2, Rc4Key(kPassword)})));
}

// The old format has its lengths in the machine's order.
TEST_F(ADamagedFile, OfTheOldVersionIsMendedAsWell) {
  const std::int32_t hole = -8, beyond = 1000;
  const std::string whole = std::string("\5\1", 2) + BytesOf(hole) + "leftover";
  Put(whole + BytesOf(beyond) + "something");

  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, &error));

  EXPECT_THAT(scratch.Bytes(), StartsWith(whole));
  EXPECT_THAT(scratch.Entries(),
              ElementsAre(ScratchKeytab::Text({kMachine, 1, Rc4Key(kPassword)})));
}

TEST_F(ADamagedFile, OfAnUnknownVersionIsLeftAlone) {
  const std::string bytes = std::string("\5\3", 2) + Length(1000) + "something";
  Put(bytes);

  EXPECT_FALSE(scratch.keytab.WriteKey(kPassword, &error));

  EXPECT_EQ(error, "Unsupported key table format version number");
  EXPECT_EQ(scratch.Bytes(), bytes);
}

// The end that a writer leaves behind who was killed before it stated the length.
TEST_F(ADamagedFile, EndsWhereALengthIsZero) {
  const std::string whole = kVersion + EntryOf(kHere);
  const std::string bytes = whole + Length(0) + std::string(500, 'x');
  Put(bytes);

  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, &error));

  EXPECT_EQ(scratch.Bytes().size(), bytes.size());

  EXPECT_THAT(scratch.Entries(),
              ElementsAre(ScratchKeytab::Text(kHere),
                          ScratchKeytab::Text({kMachine, 2, Rc4Key(kPassword)})));
}

// Of an entry without a key version of 32 bits, libkrb5 takes a key that is cut off for a whole
// one.
TEST_F(ADamagedFile, LosesAnEntryWhoseKeyIsCut) {
  const KnownLeak realm;
  const std::string cut = EntryOf(kLost);
  const auto short_length = static_cast<std::int32_t>(cut.size() - 8);
  const std::string without_long_version = Length(short_length) + cut.substr(4, cut.size() - 8);
  const std::string whole = kVersion + without_long_version + EntryOf(kHere);
  for (std::size_t left = without_long_version.size() - 1; left > 4; left -= 3) {
    SCOPED_TRACE(left);
    Put(whole + without_long_version.substr(0, left));

    WritesBehind(whole, 2);
  }
}

// libkrb5 reads the fields of an entry whatever its length says: with a length that is too small,
// the next one would be looked for inside the key.
TEST_F(ADamagedFile, WithALengthThatIsTooSmallIsLeftAlone) {
  const std::string first = EntryOf(kHere);
  const std::string second = EntryOf(kLost);
  const auto shortened = [](const std::string& entry, std::int32_t by) {
    return Length(static_cast<std::int32_t>(entry.size()) - 4 - by) + entry.substr(4);
  };

  RefusesToAddTo(kVersion + first + shortened(second, 20));
  EXPECT_THAT(scratch.Entries(),
              ElementsAre(ScratchKeytab::Text(kHere), ScratchKeytab::Text(kLost)));
  RefusesToAddTo(kVersion + shortened(first, 20) + second);
  RefusesToAddTo(kVersion + first + shortened(second, 60));
}

// Behind it nobody would find the key.
TEST_F(ADamagedFile, WithAnEntryInItsMidstThatCannotBeReadIsLeftAlone) {
  RefusesToAddTo(kVersion + Length(30) + std::string(30, '\0') + EntryOf(kHere));
  RefusesToAddTo(kVersion + EntryOf(kHere) + Length(30) + "\x7F" + std::string(29, '\x7F'));
  const std::string entry =
      EntryOf(kHere).substr(4);  // the realm's length at 2, the key's 22 from its end
  const std::string unreadable[] = {
      entry.substr(0, 2) + std::string("\x80\0", 2) + std::string(0x8000, 'r') + entry.substr(20),
      entry.substr(0, entry.size() - 22) + std::string(6, '\0')};
  for (const std::string& content : unreadable)
    RefusesToAddTo(kVersion + Length(static_cast<std::int32_t>(content.size())) + content);
}

// libkrb5 reckons in 32 bits where the next entry starts.
TEST_F(ADamagedFile, WithALengthBeyondAnyFileIsLeftAlone) {
  RefusesToAddTo(kVersion + Length(INT32_MAX) + EntryOf(kHere).substr(4));
}

// Whatever a length is changed to, what could be read can be read, and nothing else but the new
// key.
TEST_F(ADamagedFile, LosesNoReadableKeyAndGetsNoneThatNobodyWrote) {
  const KnownLeak realm;
  const std::string entries[] = {EntryOf(kHere), EntryOf(kLost), EntryOf({kOther, 4}, 20)};
  const auto full = static_cast<std::int32_t>(entries[0].size() - 4);
  for (std::size_t damaged = 0; damaged < std::size(entries); ++damaged) {
    for (std::int32_t length = -full - 20; length < 2 * full; length += length < 30 ? 13 : 1) {
      SCOPED_TRACE(std::to_string(damaged) + ": " + std::to_string(length));
      std::string bytes = kVersion;
      for (std::size_t i = 0; i < std::size(entries); ++i)
        bytes += i == damaged ? Length(length) + entries[i].substr(4) : entries[i];
      Put(bytes);
      std::vector<std::string> expected = scratch.Entries();
      const StoredKey added = {kMachine, scratch.keytab.GetNextClientVno(), Rc4Key(kPassword)};

      const bool written = scratch.keytab.WriteKey(kPassword, &error);

      if (written) {
        expected.push_back(ScratchKeytab::Text(added));
      } else {
        EXPECT_EQ(scratch.Bytes(), bytes);
      }
      EXPECT_THAT(scratch.Entries(), testing::UnorderedElementsAreArray(expected));
    }
  }
}

// A walk that failed says nothing about the file.
TEST_F(ADamagedFile, KeepsItsEntriesWhenTheyCouldNotBeWalkedThrough) {
  const std::string padded = kVersion + EntryOf(kHere, 40);
  const std::string bytes = padded.substr(0, padded.size() - 20);
  const auto no_memory = [](auto...) -> krb5_error_code { return ENOMEM; };
  const auto keeps = [&] {
    Put(bytes);
    EXPECT_TRUE(scratch.keytab.WriteKey(kPassword, &error)) << error;
    EXPECT_THAT(scratch.Bytes(), StartsWith(bytes));
    EXPECT_EQ(scratch.Entries().size(), 2U);
  };

  {
    const StandIn opened(calls::krb5_kt_start_seq_get, no_memory);
    keeps();
  }
  {
    const StandIn read(calls::krb5_kt_next_entry, no_memory);
    keeps();
  }
}

// Whatever keeps the library from looking at the file keeps it from adding to it.
TEST_F(ADamagedFile, ThatCannotBeInspectedIsLeftAlone) {
  std::string bytes = kVersion + EntryOf(kHere) + "cut";
  Put(bytes);
  const auto fails = [&](const std::string& why) {
    LogCapture log;
    EXPECT_FALSE(scratch.keytab.WriteKey(kPassword, &error));
    EXPECT_EQ(error, why);
    EXPECT_THAT(log.Notable(),
                ElementsAre("4 krb-keytab WriteKey: Error adding key to keytab: " + why));
    EXPECT_EQ(scratch.Bytes(), bytes);
  };
  const auto broken = [](auto...) {
    errno = ENODEV;
    return -1;
  };

  {
    const StandIn named(calls::krb5_kt_get_name,
                        [](auto...) -> krb5_error_code { return KRB5_KT_BADNAME; });
    fails("Key table name malformed");
  }
  {
    const StandIn opened(calls::open, [](auto...) {
      errno = EACCES;
      return -1;
    });
    fails("Permission denied");
  }
  {
    const StandIn locked(calls::fcntl, broken);
    fails("No such device");
  }
  {
    const StandIn locked(calls::fcntl, [](auto...) {
      errno = EINVAL;
      return -1;
    });
    fails("Invalid argument");
  }
  {
    const StandIn measured(calls::lseek, broken);
    fails("No such device");
  }
  {
    const StandIn read(calls::pread, broken);
    fails("No such device");
  }
  {
    const StandIn read_in_part(calls::pread, [](auto...) { return 1; });
    fails("Input/output error");
  }
  {
    const StandIn shortened(calls::ftruncate, broken);
    fails("No such device");
  }

  // A cut entry of which only the length stands in the first block that is read.
  bytes = kVersion + EntryOf(kHere, 4089 - EntryOf(kHere).size()) + EntryOf(kLost);
  bytes.pop_back();
  Put(bytes);
  int reads = 0;
  const StandIn read_once(calls::pread, [&](int file, void* into, std::size_t size, off_t at) {
    if (++reads == 1) return calls::pread.Real(file, into, size, at);
    return static_cast<ssize_t>(broken());
  });
  fails("No such device");
  EXPECT_EQ(reads, 2);
}

TEST(ADamagedFileForWriting, IsMendedAsWell) {
  ScratchKeytab scratch("WRFILE");
  std::ofstream(scratch.Path()) << "\5";

  EXPECT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));

  EXPECT_THAT(scratch.Bytes(), StartsWith(kVersion));
}

// As libkrb5 does where open files cannot be locked.
TEST_F(ADamagedFile, IsLockedByProcessWhereTheSystemHasNoOtherLock) {
  Put("\5");
  std::vector<int> commands;
  const StandIn locked(calls::fcntl, [&](int descriptor, int command, void* lock) {
    commands.push_back(command);
    EXPECT_EQ(static_cast<struct flock*>(lock)->l_type, F_WRLCK);
    if (command == F_SETLKW) return calls::fcntl.Real(descriptor, command, lock);
    errno = EINVAL;
    return -1;
  });

  EXPECT_TRUE(scratch.keytab.WriteKey(kPassword, &error));

  EXPECT_THAT(commands, ElementsAre(F_OFD_SETLKW, F_SETLKW));
}

// What the library calls between its last look at the entries and the end.
std::vector<std::string> LastCalls(ScratchKeytab& scratch) {
  scratch.Add(kHere);
  scratch.Add(kLost);
  CallTrace trace;
  EXPECT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));
  const auto last_look =
      std::find(trace.Names().rbegin(), trace.Names().rend(), "krb5_kt_end_seq_get");
  return {last_look.base(), trace.Names().end()};
}

TEST(AWholeFile, IsOnlyReadBeforeTheKeyIsAdded) {
  ScratchKeytab scratch;

  const StandIn opened(calls::open, [](const char* path, int flags, mode_t mode) {
    EXPECT_NE(flags & O_CLOEXEC, 0);
    return calls::open.Real(path, flags, mode);
  });

  EXPECT_THAT(LastCalls(scratch),
              ElementsAre("krb5_kt_get_name", "open", "fcntl", "lseek", "pread", "close",
                          "krb5_kt_add_entry", "krb5_free_keyblock_contents"));
}

// The entries of the widest keytab do not fit into what is read at a time.
TEST(AWholeFile, MayBeOfAnySize) {
  ScratchKeytab scratch;
  for (int i = 1; i <= 40; ++i)
    scratch.Add({std::string(300, 'x') + std::to_string(i) + "@CORP.EXAMPLE.COM", 1});
  const std::string before = scratch.Bytes();

  EXPECT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));

  EXPECT_THAT(scratch.Bytes(), StartsWith(before));
  EXPECT_EQ(scratch.Entries().size(), 41U);
}

TEST(AKeytabInMemory, IsNotTakenForAFile) {
  const ScratchKeytab file;
  for (const std::string& name : {std::string(5000, 'x'), file.Path()}) {  // no path is as long
    ScratchKeytab scratch("MEMORY");
    ASSERT_TRUE(scratch.krb.SetKeytab("MEMORY:" + name));
    EXPECT_THAT(LastCalls(scratch), ElementsAre("krb5_kt_get_name", "krb5_kt_add_entry",
                                                "krb5_free_keyblock_contents"));
  }
}

}  // namespace
}  // namespace tavrel::tests
