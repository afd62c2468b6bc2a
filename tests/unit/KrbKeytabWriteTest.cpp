// Writing a key: Keytab::WriteKey.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"
#include "platform/bounded_memory.h"

namespace tavrel::tests::calls {

Interposed<void(std::size_t, void*, int, std::size_t)> memset_to_buf("__memset_to_buf");

}  // namespace tavrel::tests::calls

extern "C" void __memset_to_buf(std::size_t destination_size, void* destination, int value,
                                std::size_t count) {
  tavrel::tests::calls::memset_to_buf.Call(__builtin_return_address(0), destination_size,
                                           destination, value, count);
}

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

// The RC4-HMAC keys of these passwords, as they are known everywhere.
constexpr char kPassword[] = "password";
constexpr char kPasswordKey[] = "8846f7eaee8fb117ad06bdd830b7586c";
constexpr char kEmptyKey[] = "31d6cfe0d16ae931b73c59d7e0c089c0";

std::string Entry(int vno, const std::string& hex_key) {
  return std::string(kMachine) + " " + std::to_string(vno) + " 23 " + hex_key;
}

class WriteKey : public testing::TestWithParam<const char*> {
 protected:
  ScratchKeytab scratch{GetParam()};
  std::string error = "untouched";
};
INSTANTIATE_TEST_SUITE_P(, WriteKey, testing::Values("FILE", "MEMORY"),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(WriteKey, GivesTheFirstKeyVersion1) {
  LogCapture log;

  const bool written = scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_TRUE(written);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(scratch.Entries(), ElementsAre(Entry(1, kPasswordKey)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(WriteKey, CountsOnlyTheMachinesVersions) {
  scratch.Add({kOther, 41});
  LogCapture log;

  const bool written = scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_TRUE(written);
  EXPECT_THAT(scratch.Entries(), testing::UnorderedElementsAre(ScratchKeytab::Text({kOther, 41}),
                                                               Entry(1, kPasswordKey)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(WriteKey, WithTheCurrentPasswordAddsNothing) {
  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));
  const std::string bytes = scratch.Bytes();
  LogCapture log;

  const bool written = scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_TRUE(written);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(scratch.Entries(), ElementsAre(Entry(1, kPasswordKey)));
  EXPECT_EQ(scratch.Bytes(), bytes);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(WriteKey, AppendsANewVersionForEachNewPassword) {
  ASSERT_TRUE(scratch.keytab.WriteKey("first", nullptr));
  LogCapture log;

  const bool second = scratch.keytab.WriteKey("second", &error);
  const bool third = scratch.keytab.WriteKey(kPassword, &error);
  const bool again = scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_TRUE(second);
  EXPECT_TRUE(third);
  EXPECT_TRUE(again);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(scratch.Entries(), testing::UnorderedElementsAre(Entry(1, Hex(Rc4Key("first"))),
                                                               Entry(2, Hex(Rc4Key("second"))),
                                                               Entry(3, kPasswordKey)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(WriteKey, WritesAnEarlierPasswordAgainUnderANewVersion) {
  ASSERT_TRUE(scratch.keytab.WriteKey("first", nullptr));
  ASSERT_TRUE(scratch.keytab.WriteKey("second", nullptr));

  const bool written = scratch.keytab.WriteKey("first", nullptr);

  EXPECT_TRUE(written);
  EXPECT_THAT(scratch.Entries(), testing::UnorderedElementsAre(Entry(1, Hex(Rc4Key("first"))),
                                                               Entry(2, Hex(Rc4Key("second"))),
                                                               Entry(3, Hex(Rc4Key("first")))));
}

TEST_P(WriteKey, GoesAboveTheHighestVersionOfAnyEncryptionType) {
  scratch.Add({kMachine, 6, "0123456789abcdef", ENCTYPE_AES128_CTS_HMAC_SHA1_96});

  const bool written = scratch.keytab.WriteKey(kPassword, nullptr);

  EXPECT_TRUE(written);
  EXPECT_THAT(scratch.Entries(), testing::Contains(Entry(7, kPasswordKey)));
}

TEST_P(WriteKey, TakesAnEmptyPassword) {
  LogCapture log;

  const bool written = scratch.keytab.WriteKey("", &error);

  EXPECT_TRUE(written);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(scratch.Entries(), ElementsAre(Entry(1, kEmptyKey)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(WritingAKey, AppendsToTheFile) {
  ScratchKeytab scratch;
  scratch.Add({kOther, 1});
  const std::string before = scratch.Bytes();

  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));

  EXPECT_EQ(scratch.Bytes().substr(0, before.size()), before);
  EXPECT_GT(scratch.Bytes().size(), before.size());
}

// The library calls that lead to a new key in an empty keytab, in order.
const std::vector<std::string> kCallsToAdd = {
    "krb5_principal2salt",         //
    "__memset_to_buf",             //
    "krb5_kt_start_seq_get",       // the next version
    "krb5_kt_next_entry",          //
    "krb5_kt_end_seq_get",         //
    "krb5_c_string_to_key",        //
    "krb5_free_data_contents",     // the salt
    "krb5_kt_start_seq_get",       // is it current?
    "krb5_kt_next_entry",          //
    "krb5_kt_end_seq_get",         //
    "krb5_kt_get_name",            // is the file whole?
    "open",                        //
    "fcntl",                       //
    "lseek",                       //
    "pread",                       // its version, and the hole
    "close",                       //
    "krb5_kt_add_entry",           //
    "krb5_free_keyblock_contents"  //
};

// A keytab file without entries.
void Empty(ScratchKeytab& scratch) {
  scratch.Add({kMachine, 1});
  krb5_keytab_entry entry{};
  ASSERT_EQ(krb5_kt_get_entry(scratch.krb.context, scratch.krb.keytab, scratch.krb.client_principal,
                              1, 0, &entry),
            0);
  ASSERT_EQ(krb5_kt_remove_entry(scratch.krb.context, scratch.krb.keytab, &entry), 0);
  krb5_free_keytab_entry_contents(scratch.krb.context, &entry);
}

TEST(WritingAKey, ReadsFirstAndModifiesTheKeytabWithNoCursorOpen) {
  ScratchKeytab scratch;
  Empty(scratch);
  CallTrace trace;

  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));

  EXPECT_THAT(trace.Names(), ElementsAreArray(kCallsToAdd));
}

TEST(WritingAKey, ThatIsCurrentReleasesWhatItDerived) {
  ScratchKeytab scratch;
  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));
  const std::vector<std::string> walk = {
      "krb5_kt_start_seq_get",           "krb5_kt_next_entry", "krb5_principal_compare",
      "krb5_free_keytab_entry_contents", "krb5_kt_next_entry", "krb5_kt_end_seq_get"};
  std::vector<std::string> expected = {"krb5_principal2salt", "__memset_to_buf"};
  expected.insert(expected.end(), walk.begin(), walk.end());
  expected.insert(expected.end(), {"krb5_c_string_to_key", "krb5_free_data_contents"});
  expected.insert(expected.end(), walk.begin(), walk.end());
  expected.push_back("krb5_free_keyblock_contents");
  CallTrace trace;

  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));

  EXPECT_THAT(trace.Names(), ElementsAreArray(expected));
}

TEST(WritingAKey, PassesTheLibraryTheSaltThePasswordAndAClearedEntry) {
  ScratchKeytab scratch;
  const std::string password("pass\0word", 9);
  std::string salt;
  std::string secret;
  krb5_enctype etype = 0;
  const StandIn derive(calls::krb5_c_string_to_key,
                       [&](krb5_context context, krb5_enctype type, const krb5_data* string,
                           const krb5_data* salted, krb5_keyblock* key) {
                         etype = type;
                         secret.assign(string->data, string->length);
                         salt.assign(salted->data, salted->length);
                         return calls::krb5_c_string_to_key.Real(context, type, string, salted,
                                                                 key);
                       });
  krb5_keytab_entry added{};
  const StandIn add(calls::krb5_kt_add_entry,
                    [&](krb5_context, krb5_keytab, krb5_keytab_entry* entry) -> krb5_error_code {
                      added = *entry;
                      return 0;
                    });
  std::vector<std::size_t> sizes;
  int value = -1;
  const StandIn fill(calls::memset_to_buf,
                     [&](std::size_t size, void* destination, int byte, std::size_t count) {
                       sizes = {size, count};
                       value = byte;
                       calls::memset_to_buf.Real(size, destination, byte, count);
                     });

  ASSERT_TRUE(scratch.keytab.WriteKey(password, nullptr));

  EXPECT_EQ(etype, 23);
  EXPECT_EQ(secret, password);
  EXPECT_EQ(salt, "CORP.EXAMPLE.COMAPPLIANCE$");
  EXPECT_THAT(sizes, ElementsAre(sizeof(krb5_keytab_entry), sizeof(krb5_keytab_entry)));
  EXPECT_EQ(value, 0);
  EXPECT_EQ(added.principal, scratch.krb.client_principal) << "borrowed, not copied";
  EXPECT_EQ(added.timestamp, 0);
  EXPECT_EQ(added.vno, 1u);
  EXPECT_EQ(added.key.enctype, 23);
}

TEST(WritingAKey, DerivesNoBytesFromAnEmptyPassword) {
  ScratchKeytab scratch;
  unsigned int length = 1;
  const StandIn derive(calls::krb5_c_string_to_key,
                       [&](krb5_context context, krb5_enctype type, const krb5_data* string,
                           const krb5_data* salt, krb5_keyblock* key) {
                         length = string->length;
                         return calls::krb5_c_string_to_key.Real(context, type, string, salt, key);
                       });

  ASSERT_TRUE(scratch.keytab.WriteKey("", nullptr));

  EXPECT_EQ(length, 0u);
}

TEST(WritingAKey, GoesByTheWayTheKeytabIsRead) {
  ScratchKeytab scratch;
  ASSERT_TRUE(scratch.keytab.WriteKey(kPassword, nullptr));
  const StandIn unreadable(calls::krb5_kt_start_seq_get,
                           [](auto...) -> krb5_error_code { return EACCES; });
  std::string error = "untouched";
  LogCapture log;

  const bool written = scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_TRUE(written);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(scratch.Entries(), ElementsAre(Entry(1, kPasswordKey), Entry(1, kPasswordKey)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

// A step that fails. `calls` are the library calls made then; of those in an undisturbed run, the
// first `undisturbed` come before them.
struct Step {
  const char* name;
  std::shared_ptr<void> (*fail)();
  const char* prefix;
  std::ptrdiff_t undisturbed;
  std::vector<std::string> calls;

  friend void PrintTo(const Step& step, std::ostream* out) { *out << step.name; }
};

template <auto& function>
std::shared_ptr<void> Fail() {
  return std::make_shared<StandIn<std::decay_t<decltype(function)>>>(
      function, [](auto...) -> krb5_error_code { return KRB5_KT_IOERR; });
}
constexpr char kMessage[] = "Error writing to key table";

class AFailedStep : public testing::TestWithParam<Step> {
 protected:
  AFailedStep() {
    Empty(scratch);
    bytes = scratch.Bytes();
  }

  std::vector<std::string> Calls() const {
    std::vector<std::string> calls(kCallsToAdd.begin(),
                                   kCallsToAdd.begin() + GetParam().undisturbed);
    calls.insert(calls.end(), GetParam().calls.begin(), GetParam().calls.end());
    return calls;
  }

  ScratchKeytab scratch;
  std::string bytes;
};
INSTANTIATE_TEST_SUITE_P(
    , AFailedStep,
    testing::Values(Step{"Salt",
                         Fail<calls::krb5_principal2salt>,
                         "4 krb-keytab WriteKey: Error generating principal salt: ",
                         0,
                         {"krb5_principal2salt", "krb5_get_error_message",
                          "krb5_free_error_message"}},
                    Step{"Derivation",
                         Fail<calls::krb5_c_string_to_key>,
                         "4 krb-keytab WriteKey: Error creating key from password: ",
                         5,
                         {"krb5_c_string_to_key", "krb5_free_data_contents",
                          "krb5_get_error_message", "krb5_free_error_message"}},
                    Step{"Adding",
                         Fail<calls::krb5_kt_add_entry>,
                         "4 krb-keytab WriteKey: Error adding key to keytab: ",
                         16,
                         {"krb5_kt_add_entry", "krb5_get_error_message", "krb5_free_error_message",
                          "krb5_free_keyblock_contents"}}),
    [](const auto& info) { return info.param.name; });

TEST_P(AFailedStep, IsReportedAndLeavesTheKeytabAsItWas) {
  const auto failing = GetParam().fail();
  for (const bool reported : {true, false}) {
    std::string error = "earlier";
    LogCapture log;
    CallTrace trace;

    const bool written = scratch.keytab.WriteKey(kPassword, reported ? &error : nullptr);

    EXPECT_FALSE(written);
    EXPECT_EQ(error, reported ? kMessage : "earlier");
    EXPECT_EQ(scratch.Bytes(), bytes);
    EXPECT_THAT(trace.Names(), ElementsAreArray(Calls()));
    EXPECT_THAT(log.Notable(), ElementsAre(GetParam().prefix + std::string(kMessage)));
  }
}

TEST_P(AFailedStep, MayHaveNoText) {
  const auto failing = GetParam().fail();
  const StandIn silent(calls::krb5_get_error_message,
                       [](krb5_context, krb5_error_code) -> const char* { return nullptr; });
  std::string error = "earlier";
  LogCapture log;

  scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_EQ(error, "");
  EXPECT_THAT(log.Notable(), ElementsAre(GetParam().prefix));
}

TEST(WritingAKey, IntoAFolderThatIsNotThereFails) {
  ScratchKeytab scratch;
  ASSERT_TRUE(scratch.krb.SetKeytab(scratch.settings / "no folder/keytab"));
  std::string error;
  LogCapture log;

  const bool written = scratch.keytab.WriteKey(kPassword, &error);

  EXPECT_FALSE(written);
  EXPECT_EQ(error, "Key table file '" + scratch.settings / "no folder/keytab" + "' not found");
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 krb-keytab WriteKey: Error adding key to keytab: " + error));
}

}  // namespace
}  // namespace tavrel::tests
