#include "MachineKeytab.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <krb5.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace tavrel::plus::tests {
namespace {

std::function<void()> on_fsync;  // what else happens when a file has been written

}  // namespace
}  // namespace tavrel::plus::tests

extern "C" int fsync(int /*file*/) {
  if (tavrel::plus::tests::on_fsync) tavrel::plus::tests::on_fsync();
  return 0;
}

namespace tavrel::plus::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

KeytabKey Key(const std::string& name, std::uint32_t version,
              std::string_view key = "0123456789abcdef") {
  KeytabKey made;
  made.realm = "CORP.EXAMPLE.COM";
  made.components = {name};
  made.version = version;
  made.written = 1700000000;
  made.type = ENCTYPE_AES128_CTS_HMAC_SHA1_96;
  made.key = Secret(key);
  return made;
}

std::string Bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

const std::chrono::milliseconds kLimit(10000);

class MachineKeytabFile : public testing::Test {
 public:
  MachineKeytabFile() {
    char folder[] = "/tmp/tavrel-keytab.XXXXXX";
    folder_ = mkdtemp(folder);
    path = folder_ + "/krb5.keytab";
  }
  ~MachineKeytabFile() override { std::filesystem::remove_all(folder_); }

  // "NAME version N" of each entry, as libkrb5 reads the file.
  std::vector<std::string> AsKerberosReads() const {
    std::vector<std::string> entries;
    krb5_context context = nullptr;
    krb5_keytab keytab = nullptr;
    krb5_kt_cursor cursor = nullptr;
    krb5_init_context(&context);
    krb5_kt_resolve(context, ("FILE:" + path).c_str(), &keytab);
    if (krb5_kt_start_seq_get(context, keytab, &cursor) == 0) {
      krb5_keytab_entry entry;
      while (krb5_kt_next_entry(context, keytab, &entry, &cursor) == 0) {
        char* name = nullptr;
        krb5_unparse_name(context, entry.principal, &name);
        entries.push_back(std::string(name) + " version " + std::to_string(entry.vno));
        krb5_free_unparsed_name(context, name);
        krb5_free_keytab_entry_contents(context, &entry);
      }
      krb5_kt_end_seq_get(context, keytab, &cursor);
    }
    krb5_kt_close(context, keytab);
    krb5_free_context(context);
    return entries;
  }

  static std::vector<KeytabKey> List(KeytabKey first) {
    std::vector<KeytabKey> list;
    list.push_back(std::move(first));
    return list;
  }

  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_))
      names.push_back(entry.path().filename());
    return names;
  }

  std::string folder_;
  std::string path;
  const Deadline deadline{kLimit};
};

TEST_F(MachineKeytabFile, IsMadeEmptyAndPrivateWhereThereIsNone) {
  MachineKeytab keytab(path);

  EXPECT_FALSE(keytab.Hold(deadline));

  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_THAT(AsKerberosReads(), IsEmpty());
  EXPECT_THAT(Files(), ElementsAre("krb5.keytab"));
}

TEST_F(MachineKeytabFile, HoldsWhatLibkrb5Reads) {
  MachineKeytab keytab(path);
  ASSERT_FALSE(keytab.Hold(deadline));
  std::vector<KeytabKey> keys;
  keys.push_back(Key("BOX$", 70000));
  keys.push_back(Key("BOX$", 255));

  EXPECT_FALSE(keytab.Replace(std::move(keys), deadline));

  EXPECT_THAT(AsKerberosReads(), ElementsAre("BOX$@CORP.EXAMPLE.COM version 70000",
                                             "BOX$@CORP.EXAMPLE.COM version 255"));
  MachineKeytab again(path);
  ASSERT_FALSE(again.Read(deadline));
  ASSERT_EQ(again.Keys().size(), 2U);
  EXPECT_TRUE(again.Keys()[0] == Key("BOX$", 70000));
  EXPECT_EQ(again.Keys()[0].written, 1700000000U);
  EXPECT_THAT(Files(), ElementsAre("krb5.keytab"));
}

TEST_F(MachineKeytabFile, KeepsItsOwnerGroupModeAndLink) {
  const std::string real = folder_ + "/real.keytab";
  {
    MachineKeytab keytab(real);
    ASSERT_FALSE(keytab.Hold(deadline));
  }
  ASSERT_EQ(chown(real.c_str(), 12, 34), 0);
  ASSERT_EQ(chmod(real.c_str(), 0640), 0);
  std::filesystem::create_symlink(real, path);
  MachineKeytab keytab(path);
  ASSERT_FALSE(keytab.Hold(deadline));

  EXPECT_FALSE(keytab.Replace(List(Key("BOX$", 1)), deadline));

  struct stat status {};
  ASSERT_EQ(lstat(real.c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_uid, 12U);
  EXPECT_EQ(status.st_gid, 34U);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_TRUE(std::filesystem::is_symlink(path));
}

TEST_F(MachineKeytabFile, IsHeldByOneAtATimeEvenOnceItIsReplaced) {
  MachineKeytab first(path);
  ASSERT_FALSE(first.Hold(deadline));
  const Deadline soon(std::chrono::milliseconds(50));

  EXPECT_EQ(MachineKeytab(path).Hold(soon).cause, Cause::kBusy);
  ASSERT_FALSE(first.Replace(List(Key("BOX$", 1)), deadline));
  EXPECT_EQ(MachineKeytab(path).Hold(soon).cause, Cause::kBusy);
  EXPECT_FALSE(MachineKeytab(path).Read(deadline));  // a reader does not wait
  EXPECT_EQ(AsKerberosReads().size(), 1U);
}

TEST_F(MachineKeytabFile, KeepsAKeyThatAProgramOfLibkrb5AddedMeanwhile) {
  MachineKeytab keytab(path);
  ASSERT_FALSE(keytab.Hold(deadline));
  ASSERT_FALSE(keytab.Replace(List(Key("BOX$", 1)), deadline));
  const Secret with_another = [&] {
    std::vector<KeytabKey> keys = List(Key("BOX$", 1));
    keys.push_back(Key("OTHER$", 7));
    return FormatKeytab(keys);
  }();
  std::ofstream(path, std::ios::binary) << with_another.View();

  EXPECT_FALSE(keytab.Replace(List(Key("BOX$", 2)), deadline));

  EXPECT_THAT(AsKerberosReads(),
              ElementsAre("BOX$@CORP.EXAMPLE.COM version 2", "OTHER$@CORP.EXAMPLE.COM version 7"));
}

TEST_F(MachineKeytabFile, KeepsEveryKeyThatOthersAddWhileItIsWritten) {
  MachineKeytab keytab(path);
  ASSERT_FALSE(keytab.Hold(deadline));
  std::uint32_t added = 0;
  on_fsync = [&] {
    if (added == 3) return;
    std::vector<KeytabKey> keys;
    for (std::uint32_t version = 1; version <= added + 1; ++version)
      keys.push_back(Key("OTHER$", version));
    ++added;
    std::ofstream(path, std::ios::binary) << FormatKeytab(keys).View();
  };

  const Failure failure = keytab.Replace(List(Key("BOX$", 1)), deadline);
  on_fsync = nullptr;

  EXPECT_FALSE(failure);
  EXPECT_THAT(
      AsKerberosReads(),
      ElementsAre("BOX$@CORP.EXAMPLE.COM version 1", "OTHER$@CORP.EXAMPLE.COM version 1",
                  "OTHER$@CORP.EXAMPLE.COM version 2", "OTHER$@CORP.EXAMPLE.COM version 3"));
}

TEST_F(MachineKeytabFile, IsMadeWhereALinkLeads) {
  std::filesystem::create_symlink("real.keytab", path);
  MachineKeytab keytab(path);

  EXPECT_FALSE(keytab.Hold(Deadline(std::chrono::seconds(1))));
  EXPECT_FALSE(keytab.Replace(List(Key("BOX$", 1)), deadline));

  EXPECT_TRUE(std::filesystem::is_symlink(path));
  EXPECT_EQ(AsKerberosReads().size(), 1U);
  std::filesystem::remove(path);
  std::filesystem::create_symlink("no/real.keytab", path);
  EXPECT_EQ(MachineKeytab(path).Hold(Deadline(std::chrono::seconds(1))).cause, Cause::kKeytab);
}

TEST_F(MachineKeytabFile, StaysAsItWasWhenItCannotBeReplaced) {
  MachineKeytab keytab(path);
  ASSERT_FALSE(keytab.Hold(deadline));
  ASSERT_FALSE(keytab.Replace(List(Key("BOX$", 1)), deadline));
  const std::string before = Bytes(path);
  std::filesystem::create_directory(path + ".new");  // what cannot be removed as a file

  EXPECT_EQ(keytab.Reserve(3).cause, Cause::kKeytab);
  EXPECT_EQ(keytab.Replace(List(Key("BOX$", 2)), deadline).cause, Cause::kKeytab);

  EXPECT_EQ(Bytes(path), before);
}

TEST_F(MachineKeytabFile, WaitsForAWriterAndNoLongerThanItMay) {
  MachineKeytab keytab(path);
  ASSERT_FALSE(keytab.Hold(deadline));
  const int writer = open(path.c_str(), O_RDWR);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(writer, F_OFD_SETLK, &lock), 0);

  const Failure failure =
      keytab.Replace(List(Key("BOX$", 1)), Deadline(std::chrono::milliseconds(50)));
  close(writer);

  EXPECT_EQ(failure.cause, Cause::kBusy);
  EXPECT_FALSE(keytab.Replace(List(Key("BOX$", 1)), deadline));
}

TEST_F(MachineKeytabFile, ThatIsNoneIsLeftAlone) {
  std::ofstream(path) << "[libdefaults]\n";

  EXPECT_EQ(MachineKeytab(path).Hold(deadline).cause, Cause::kKeytab);
  EXPECT_EQ(MachineKeytab(folder_).Hold(deadline).cause, Cause::kKeytab);
  EXPECT_EQ(MachineKeytab(folder_ + "/no/krb5.keytab").Hold(deadline).cause, Cause::kKeytab);
  EXPECT_EQ(Bytes(path), "[libdefaults]\n");
}

TEST(ParseKeytab, ReadsEveryEntryThatIsWhole) {
  std::vector<KeytabKey> two;
  two.push_back(Key("BOX$", 1));
  two.push_back(Key("BOX$", 2));
  const Secret bytes = FormatKeytab(two);
  const std::size_t first = 2 + (bytes.Size() - 2) / 2;

  for (std::size_t size = 0; size <= bytes.Size(); ++size) {
    std::vector<KeytabKey> read;
    EXPECT_EQ(ParseKeytab(bytes.View().substr(0, size), read), size >= 2) << size;
    EXPECT_EQ(read.size(), size == bytes.Size() ? 2U : size >= first ? 1U : 0U) << size;
  }
}

TEST(ParseKeytab, PassesOverHolesAndStopsAtTheEndMark) {
  const Secret one = FormatKeytab([] {
    std::vector<KeytabKey> keys;
    keys.push_back(Key("BOX$", 3));
    return keys;
  }());
  const std::string entry(one.View().substr(2));
  std::vector<KeytabKey> read;

  EXPECT_TRUE(ParseKeytab("\x05\x02" + std::string("\xFF\xFF\xFF\xFE\x00\x00", 6) + entry +
                              std::string(4, '\0') + entry,
                          read));

  EXPECT_EQ(read.size(), 1U);
}

}  // namespace
}  // namespace tavrel::plus::tests
