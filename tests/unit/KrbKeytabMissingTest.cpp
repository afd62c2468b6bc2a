// What a keytab's operations do without a context, a keytab or a principal. libkrb5 would crash on
// most of it, and use the machine's default keytab in place of a missing one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAreArray;

struct Missing {
  void (*take)(KrbContext& krb);
  krb5_error_code code;
  std::string text;
};
// The keytab and the principal stay, as after an Init() that failed.
const Missing kContext{[](KrbContext& krb) { krb.ReleaseContext(); }, KV5M_CONTEXT,
                       "Bad magic number for krb5_context structure"};
const Missing kKeytab{[](KrbContext& krb) { krb.ReleaseKeytab(); }, KRB5_KT_BADNAME,
                      "Key table name malformed"};
const Missing kPrincipal{[](KrbContext& krb) { krb.ReleaseClientPrincipal(); }, KV5M_PRINCIPAL,
                         "Bad magic number for krb5_principal structure"};

struct NeverCalled : KeytabAccumulator {
  void Process(const krb5_keytab_entry&) override { ADD_FAILURE() << "there is no entry"; }
};

using Operation = int(Keytab& keytab, std::string* error);

int Iterate(Keytab& keytab, std::string*) {
  NeverCalled visitor;
  return keytab.Iterate(visitor);
}
int Print(Keytab& keytab, std::string*) {
  return keytab.Print();
}
int NextVno(Keytab& keytab, std::string*) {
  return static_cast<int>(keytab.GetNextClientVno());
}
int HasKey(Keytab& keytab, std::string*) {
  return keytab.HasKey();
}
int Write(Keytab& keytab, std::string* error) {
  return keytab.WriteKey("Secret.1", error);
}
int Clear(Keytab& keytab, std::string* error) {
  return keytab.ClearKeys(error);
}
int AskWithKeytab(Keytab& keytab, std::string* error) {
  return keytab.ASAuthenticate(error);
}
int AskWithPassword(Keytab& keytab, std::string* error) {
  return keytab.ASAuthenticate("Secret.1", error);
}

constexpr char kSilent[] = "";
constexpr char kWalk[] = "4 krb-keytab HasKey: Error starting keytab sequence: ";
constexpr char kClear[] = "4 krb-keytab ClearKeys: Error starting keytab sequence: ";
constexpr char kSalt[] = "4 krb-keytab WriteKey: Error generating principal salt: ";
constexpr char kAdd[] = "4 krb-keytab WriteKey: Error adding key to keytab: ";
constexpr char kAsk[] = "4 krb-keytab ASAuthenticate: Error authenticating through keytab: ";
constexpr char kAskPassword[] =
    "4 krb-keytab ASAuthenticate: Error authenticating through password: ";

using Calls = std::vector<std::string>;
const Calls kMessage = {"krb5_get_error_message", "krb5_free_error_message"};
const Calls kNotAdded = {"krb5_principal2salt",        "__memset_to_buf",
                         "krb5_c_string_to_key",       "krb5_free_data_contents",
                         "krb5_get_error_message",     "krb5_free_error_message",
                         "krb5_free_keyblock_contents"};
const Calls kNotAsked = {"krb5_kt_have_content", "krb5_get_error_message",
                         "krb5_free_error_message"};
const Calls kWalked = {"krb5_kt_start_seq_get", "krb5_kt_next_entry",
                       "krb5_free_keytab_entry_contents", "krb5_kt_next_entry",
                       "krb5_kt_end_seq_get"};

struct Row {
  const char* name;
  const Missing& missing;
  Operation* run;
  int result;
  std::string record;  // up to the text of what is missing
  bool told;           // the caller gets that text
  Calls calls;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

class AKeytabThatLacks : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(
    , AKeytabThatLacks,
    testing::Values(
        Row{"AContext_Iterate", kContext, Iterate, KV5M_CONTEXT, kSilent, false, {}},
        Row{"AContext_Print", kContext, Print, KV5M_CONTEXT, kSilent, false, {}},
        Row{"AContext_NextVno", kContext, NextVno, 1, kSilent, false, {}},
        Row{"AContext_HasKey", kContext, HasKey, false, kWalk, false, kMessage},
        Row{"AContext_Write", kContext, Write, false, kSalt, true, kMessage},
        Row{"AContext_Clear", kContext, Clear, false, kClear, false, kMessage},
        Row{"AContext_AskWithKeytab", kContext, AskWithKeytab, kFailure, kAsk, true, kMessage},
        Row{"AContext_AskWithPassword", kContext, AskWithPassword, kFailure, kAskPassword, true,
            kMessage},
        Row{"AKeytab_Iterate", kKeytab, Iterate, KRB5_KT_BADNAME, kSilent, false, {}},
        Row{"AKeytab_Print", kKeytab, Print, KRB5_KT_BADNAME, kSilent, false, {}},
        Row{"AKeytab_NextVno", kKeytab, NextVno, 1, kSilent, false, {}},
        Row{"AKeytab_HasKey", kKeytab, HasKey, false, kWalk, false, kMessage},
        Row{"AKeytab_Write", kKeytab, Write, false, kAdd, true, kNotAdded},
        Row{"AKeytab_Clear", kKeytab, Clear, false, kClear, false, kMessage},
        // No entry is the machine's.
        Row{"APrincipal_HasKey", kPrincipal, HasKey, false, kSilent, false, kWalked},
        Row{"APrincipal_NextVno", kPrincipal, NextVno, 1, kSilent, false, kWalked},
        Row{"APrincipal_Clear", kPrincipal, Clear, true, kSilent, false, kWalked},
        Row{"APrincipal_Write", kPrincipal, Write, false, kSalt, true, kMessage},
        Row{"APrincipal_AskWithKeytab", kPrincipal, AskWithKeytab, kFailure, kAsk, true, kNotAsked},
        Row{"APrincipal_AskWithPassword", kPrincipal, AskWithPassword, kFailure, kAskPassword, true,
            kMessage}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_P(AKeytabThatLacks, SaysSoAndCallsNothingThatNeedsIt) {
  const Row& row = GetParam();
  for (const bool reported : {true, false}) {
    ScratchKeytab scratch;
    scratch.Add({kMachine, 1});
    const std::string bytes = scratch.Bytes();
    const ScopedVariable by_default("KRB5_KTNAME", "FILE:" + scratch.Path());  // it would do
    row.missing.take(scratch.krb);
    std::vector<std::string> records;
    if (!row.record.empty()) records.push_back(row.record + row.missing.text);
    if (row.result == kFailure) {
      records.push_back("3 krb-error KrbErrorToStatus: Unknown krb5 error found: " +
                        std::to_string(row.missing.code));
    }
    std::string error = "untouched";
    LogCapture log;
    CallTrace trace;

    const int result = row.run(scratch.keytab, reported ? &error : nullptr);

    EXPECT_EQ(result, row.result);
    EXPECT_EQ(error, reported && row.told ? row.missing.text : "untouched");
    EXPECT_THAT(log.Notable(), ElementsAreArray(records));
    EXPECT_THAT(trace.Names(), ElementsAreArray(row.calls));
    EXPECT_EQ(scratch.Bytes(), bytes) << "nothing is ever written";
  }
}

}  // namespace
}  // namespace tavrel::tests
