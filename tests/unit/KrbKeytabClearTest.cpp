// Removing the machine's keys: Keytab::ClearKeys.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char kMessage[] = "Error writing to key table";
constexpr char kCloseFailed[] =
    "4 krb-keytab ClearKeys: Error ending keytab sequence: Error writing to key table";

const StoredKey kFirst{kMachine, 1};
const StoredKey kSecond{kMachine, 2, "fedcba9876543210"};
const StoredKey kThird{kMachine, 2, "an AES key has this very length!",
                       ENCTYPE_AES256_CTS_HMAC_SHA1_96};
const StoredKey kOthers{kOther, 1};
const StoredKey kService{"HTTP/APPLIANCE$@CORP.EXAMPLE.COM", 1};
const StoredKey kElsewhere{"APPLIANCE$@OTHER.EXAMPLE.COM", 1};

// Closes the cursor and says that it failed.
constexpr auto kCloses = [](krb5_context context, krb5_keytab keytab,
                            krb5_kt_cursor* cursor) -> krb5_error_code {
  calls::krb5_kt_end_seq_get.Real(context, keytab, cursor);
  return KRB5_KT_IOERR;
};

class ClearKeys : public testing::TestWithParam<const char*> {
 protected:
  ScratchKeytab scratch{GetParam()};
  std::string error = "untouched";
};
INSTANTIATE_TEST_SUITE_P(, ClearKeys, testing::Values("FILE", "MEMORY"),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(ClearKeys, RemovesAllOfTheMachineAndNothingElse) {
  for (const StoredKey& stored : {kOthers, kFirst, kService, kSecond, kThird, kElsewhere})
    scratch.Add(stored);
  LogCapture log;

  const bool cleared = scratch.keytab.ClearKeys(&error);

  EXPECT_TRUE(cleared);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(scratch.Entries(), testing::UnorderedElementsAre(ScratchKeytab::Text(kOthers),
                                                               ScratchKeytab::Text(kService),
                                                               ScratchKeytab::Text(kElsewhere)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(ClearKeys, WithNothingOfTheMachineWritesNothing) {
  scratch.Add(kOthers);
  const std::string bytes = scratch.Bytes();
  LogCapture log;
  CallTrace trace;

  const bool cleared = scratch.keytab.ClearKeys(&error);

  EXPECT_TRUE(cleared);
  EXPECT_EQ(error, "untouched");
  EXPECT_EQ(scratch.Bytes(), bytes);
  EXPECT_THAT(
      trace.Names(),
      ElementsAre("krb5_kt_start_seq_get", "krb5_kt_next_entry", "krb5_principal_compare",
                  "krb5_free_keytab_entry_contents", "krb5_kt_next_entry", "krb5_kt_end_seq_get"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(ClearKeys, LeavesRoomForTheNextKey) {
  ASSERT_TRUE(scratch.keytab.WriteKey("first", nullptr));
  ASSERT_TRUE(scratch.keytab.WriteKey("second", nullptr));

  ASSERT_TRUE(scratch.keytab.ClearKeys(nullptr));
  ASSERT_TRUE(scratch.keytab.WriteKey("second", nullptr));

  EXPECT_THAT(scratch.Entries(), ElementsAre(ScratchKeytab::Text({kMachine, 1, Rc4Key("second")})));
}

TEST(ClearingKeys, ReadsToTheEndBeforeItRemovesInTheOrderOfTheFile) {
  ScratchKeytab scratch;
  for (const StoredKey& stored : {kFirst, kOthers, kSecond})
    scratch.Add(stored);
  std::vector<krb5_kvno> removed;
  const StandIn remove(calls::krb5_kt_remove_entry,
                       [&](krb5_context context, krb5_keytab keytab, krb5_keytab_entry* entry) {
                         removed.push_back(entry->vno);
                         return calls::krb5_kt_remove_entry.Real(context, keytab, entry);
                       });
  CallTrace trace;

  const bool cleared = scratch.keytab.ClearKeys(nullptr);

  EXPECT_TRUE(cleared);
  EXPECT_THAT(removed, ElementsAre(1, 2));
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_kt_start_seq_get",                                    //
                          "krb5_kt_next_entry", "krb5_principal_compare",             //
                          "krb5_kt_next_entry", "krb5_principal_compare",             //
                          "krb5_free_keytab_entry_contents",                          //
                          "krb5_kt_next_entry", "krb5_principal_compare",             //
                          "krb5_kt_next_entry", "krb5_kt_end_seq_get",                //
                          "krb5_kt_remove_entry", "krb5_free_keytab_entry_contents",  //
                          "krb5_kt_remove_entry", "krb5_free_keytab_entry_contents"));
}

TEST(ClearingKeys, OfAKeytabThatCannotBeOpenedLeavesTheTextAlone) {
  ScratchKeytab scratch;
  std::string error = "untouched";
  LogCapture log;
  CallTrace trace;

  const bool cleared = scratch.keytab.ClearKeys(&error);
  const bool cleared_for_nobody = scratch.keytab.ClearKeys(nullptr);

  const std::string line =
      "4 krb-keytab ClearKeys: Error starting keytab sequence: Key table file '" + scratch.Path() +
      "' not found";
  EXPECT_FALSE(cleared);
  EXPECT_FALSE(cleared_for_nobody);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_start_seq_get", "krb5_get_error_message",
                                         "krb5_free_error_message", "krb5_kt_start_seq_get",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(), ElementsAre(line, line));
}

TEST(ClearingKeys, FailsWhenTheCursorCannotBeClosedAndNothingWasToBeRemoved) {
  ScratchKeytab scratch;
  scratch.Add(kOthers);
  const StandIn broken(calls::krb5_kt_end_seq_get, kCloses);
  std::string error = "untouched";
  LogCapture log;

  const bool cleared = scratch.keytab.ClearKeys(&error);
  const bool cleared_for_nobody = scratch.keytab.ClearKeys(nullptr);

  EXPECT_FALSE(cleared);
  EXPECT_FALSE(cleared_for_nobody);
  EXPECT_EQ(error, kMessage);
  EXPECT_THAT(log.Notable(), ElementsAre(kCloseFailed, kCloseFailed));
}

TEST(ClearingKeys, SucceedsWhenTheCursorCannotBeClosedButAllWereRemoved) {
  for (const bool reported : {true, false}) {
    ScratchKeytab scratch;
    scratch.Add(kFirst);
    scratch.Add(kOthers);
    const StandIn broken(calls::krb5_kt_end_seq_get, kCloses);
    std::string error = "untouched";
    LogCapture log;

    const bool cleared = scratch.keytab.ClearKeys(reported ? &error : nullptr);

    EXPECT_TRUE(cleared);
    EXPECT_EQ(error, reported ? kMessage : "untouched");
    EXPECT_THAT(scratch.Entries(), ElementsAre(ScratchKeytab::Text(kOthers)));
    EXPECT_THAT(log.Notable(), ElementsAre(kCloseFailed));
  }
}

// Removes as often as it is told and then fails with another code than closing does.
class FailingRemoval {
 public:
  explicit FailingRemoval(int removals) : left_(removals) {}

 private:
  int left_;
  const StandIn<decltype(calls::krb5_kt_remove_entry)> stand_in_{
      calls::krb5_kt_remove_entry,
      [this](krb5_context context, krb5_keytab keytab,
             krb5_keytab_entry* entry) -> krb5_error_code {
        if (left_-- == 0) return EROFS;
        return calls::krb5_kt_remove_entry.Real(context, keytab, entry);
      }};
};
constexpr char kRemovalFailed[] =
    "4 krb-keytab ClearKeys: Error removing keytab entry: Read-only file system";

TEST(ClearingKeys, StopsAtTheFirstThatCannotBeRemoved) {
  const std::vector<StoredKey> keys = {kFirst, kSecond, kThird};
  for (int removed = 0; removed < 3; ++removed) {
    ScratchKeytab scratch;
    scratch.Add(kOthers);
    std::vector<std::string> left = {ScratchKeytab::Text(kOthers)};
    for (int i = 0; i < 3; ++i) {
      scratch.Add(keys[static_cast<std::size_t>(i)]);
      if (i >= removed) left.push_back(ScratchKeytab::Text(keys[static_cast<std::size_t>(i)]));
    }
    const FailingRemoval failing(removed);
    std::string error = "untouched";
    LogCapture log;

    const bool cleared = scratch.keytab.ClearKeys(&error);

    EXPECT_FALSE(cleared);
    EXPECT_EQ(error, "Read-only file system");
    EXPECT_THAT(scratch.Entries(), ElementsAreArray(left)) << removed << " were removed";
    EXPECT_THAT(log.Notable(), ElementsAre(kRemovalFailed));
  }
}

TEST(ClearingKeys, ReportsTheRemovalThatFailedLastOverAFailedClose) {
  ScratchKeytab scratch;
  scratch.Add(kFirst);
  const StandIn broken(calls::krb5_kt_end_seq_get, kCloses);
  const FailingRemoval failing(0);
  std::string error = "untouched";
  LogCapture log;

  const bool cleared = scratch.keytab.ClearKeys(&error);

  EXPECT_FALSE(cleared);
  EXPECT_EQ(error, "Read-only file system");
  EXPECT_THAT(log.Notable(), ElementsAre(kCloseFailed, kRemovalFailed));
}

TEST(ClearingKeys, TakesAReadErrorForTheEndOfTheKeytab) {
  ScratchKeytab scratch;
  scratch.Add(kFirst);
  scratch.Add(kSecond);
  int reads = 0;
  const StandIn broken(calls::krb5_kt_next_entry,
                       [&](krb5_context context, krb5_keytab keytab, krb5_keytab_entry* entry,
                           krb5_kt_cursor* cursor) -> krb5_error_code {
                         if (++reads == 2) return EIO;
                         return calls::krb5_kt_next_entry.Real(context, keytab, entry, cursor);
                       });
  std::string error = "untouched";
  LogCapture log;

  const bool cleared = scratch.keytab.ClearKeys(&error);

  EXPECT_TRUE(cleared);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(scratch.Entries(), ElementsAre(ScratchKeytab::Text(kSecond)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

}  // namespace
}  // namespace tavrel::tests
