// Reading the keytab: Iterate, Print, GetNextClientVno and HasKey.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

static_assert(std::is_abstract_v<KeytabAccumulator>);
static_assert(!std::has_virtual_destructor_v<KeytabAccumulator> &&
                  !std::is_destructible_v<KeytabAccumulator>,
              "visitors are never deleted through their interface");
static_assert(sizeof(KeytabAccumulator) == sizeof(void*) && sizeof(KeytabPrinter) == sizeof(void*),
              "no data but the virtual table");
static_assert(std::is_base_of_v<KeytabAccumulator, KeytabMatcher> &&
              std::is_base_of_v<KeytabAccumulator, KeytabPrinter>);
static_assert(sizeof(Keytab) == sizeof(KrbContext*) && !std::is_polymorphic_v<Keytab>,
              "a pointer that is cheap to make");
static_assert(!std::is_convertible_v<KrbContext*, Keytab>);

// Collects the version numbers of the entries it is shown.
struct Versions : KeytabAccumulator {
  void Process(const krb5_keytab_entry& entry) override { seen.push_back(entry.vno); }
  std::vector<krb5_kvno> seen;
};

// The library calls of one walk over entries, each compared with a principal or only visited.
std::vector<std::string> WalkCalls(int entries, bool compared, bool to_the_end = true) {
  std::vector<std::string> calls = {"krb5_kt_start_seq_get"};
  for (int i = 0; i < entries; ++i) {
    calls.push_back("krb5_kt_next_entry");
    if (compared) calls.push_back("krb5_principal_compare");
    calls.push_back("krb5_free_keytab_entry_contents");
  }
  if (to_the_end) calls.push_back("krb5_kt_next_entry");
  calls.push_back("krb5_kt_end_seq_get");
  return calls;
}

class Walk : public testing::TestWithParam<const char*> {
 protected:
  ScratchKeytab scratch{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(, Walk, testing::Values("FILE", "MEMORY"),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(Walk, ShowsEveryEntryAndFreesItRightAfterwards) {
  scratch.Add({kMachine, 1});
  scratch.Add({kOther, 7});
  scratch.Add({kMachine, 2});
  std::vector<krb5_kvno> in_order;
  for (const std::string& entry : scratch.Entries()) {
    std::string principal;
    std::istringstream(entry) >> principal >> in_order.emplace_back();
  }
  Versions versions;
  LogCapture log;
  CallTrace trace;

  const krb5_error_code code = scratch.keytab.Iterate(versions);

  EXPECT_EQ(code, 0);
  EXPECT_THAT(versions.seen, ElementsAreArray(in_order));
  EXPECT_THAT(trace.Names(), ElementsAreArray(WalkCalls(3, false)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(Walk, HandsOverTheWholeEntry) {
  const StoredKey stored{"HTTP/a.b@CORP.EXAMPLE.COM", 0xffffffff, std::string("\0\xff key", 6),
                         ENCTYPE_AES256_CTS_HMAC_SHA1_96};
  scratch.Add(stored);
  struct : KeytabAccumulator {
    void Process(const krb5_keytab_entry& entry) override {
      char* name = nullptr;
      krb5_unparse_name(context, entry.principal, &name);
      seen = {name, entry.vno,
              std::string(reinterpret_cast<const char*>(entry.key.contents), entry.key.length),
              entry.key.enctype};
      krb5_free_unparsed_name(context, name);
    }
    krb5_context context = nullptr;
    StoredKey seen;
  } visitor;
  visitor.context = scratch.krb.context;

  const krb5_error_code code = scratch.keytab.Iterate(visitor);

  EXPECT_EQ(code, 0);
  EXPECT_EQ(ScratchKeytab::Text(visitor.seen), ScratchKeytab::Text(stored));
}

TEST_P(Walk, OverAKeytabWithoutTheMachineFindsNothingOfIt) {
  scratch.Add({kOther, 5});
  LogCapture log;

  const std::uint32_t next = scratch.keytab.GetNextClientVno();
  const bool has_key = scratch.keytab.HasKey();

  EXPECT_EQ(next, 1u);
  EXPECT_FALSE(has_key);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(Walk, NextVersionIsAboveTheHighestOfTheMachine) {
  for (const krb5_kvno vno : {2u, 5u, 3u})
    scratch.Add({kMachine, vno});
  scratch.Add({kOther, 9});
  scratch.Add({"appliance$@CORP.EXAMPLE.COM", 10});
  scratch.Add({"APPLIANCE$@OTHER.EXAMPLE.COM", 11});
  scratch.Add({"APPLIANCE$/x@CORP.EXAMPLE.COM", 12});
  LogCapture log;
  CallTrace trace;

  const std::uint32_t next = scratch.keytab.GetNextClientVno();

  EXPECT_EQ(next, 6u);
  EXPECT_THAT(trace.Names(), ElementsAreArray(WalkCalls(7, true)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_P(Walk, NextVersionCountsEveryEncryptionType) {
  scratch.Add({kMachine, 2});
  scratch.Add({kMachine, 4, "0123456789abcdef", ENCTYPE_AES128_CTS_HMAC_SHA1_96});

  EXPECT_EQ(scratch.keytab.GetNextClientVno(), 5u);
}

TEST_P(Walk, NextVersionComparesWithoutASign) {
  scratch.Add({kMachine, 0x80000000});
  scratch.Add({kMachine, 3});

  EXPECT_EQ(scratch.keytab.GetNextClientVno(), 0x80000001u);
}

TEST_P(Walk, NextVersionIsAtLeast1AlsoBehindTheLargest) {
  scratch.Add({kMachine, 0xffffffff});

  EXPECT_EQ(scratch.keytab.GetNextClientVno(), 0xffffffffu);
}

TEST_P(Walk, HasKeyWhateverItsVersionAndEncryptionType) {
  scratch.Add({kMachine, 4711, "x", ENCTYPE_AES256_CTS_HMAC_SHA1_96});
  LogCapture log;

  const bool has_key = scratch.keytab.HasKey();

  EXPECT_TRUE(has_key);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(HasKey, StopsAtTheFirstEntryOfTheMachine) {
  ScratchKeytab scratch;
  scratch.Add({kOther, 1});
  scratch.Add({kMachine, 1});
  scratch.Add({kMachine, 2});
  LogCapture log;
  CallTrace trace;

  const bool has_key = scratch.keytab.HasKey();

  EXPECT_TRUE(has_key);
  EXPECT_THAT(trace.Names(), ElementsAreArray(WalkCalls(2, true, false)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(HasKey, ReadsToTheEndWhenTheMachineHasNone) {
  ScratchKeytab scratch;
  scratch.Add({kOther, 1});
  scratch.Add({kOther, 2});
  CallTrace trace;

  const bool has_key = scratch.keytab.HasKey();

  EXPECT_FALSE(has_key);
  EXPECT_THAT(trace.Names(), ElementsAreArray(WalkCalls(2, true)));
}

TEST(HasKey, KeepsItsAnswerWhenTheCursorCannotBeClosed) {
  for (const char* owner : {kMachine, kOther}) {
    ScratchKeytab scratch;
    scratch.Add({owner, 1});
    const StandIn broken(calls::krb5_kt_end_seq_get,
                         [](krb5_context context, krb5_keytab keytab, krb5_kt_cursor* cursor) {
                           calls::krb5_kt_end_seq_get.Real(context, keytab, cursor);
                           return KRB5_KT_IOERR;
                         });
    LogCapture log;

    const bool has_key = scratch.keytab.HasKey();

    EXPECT_EQ(has_key, owner == kMachine);
    EXPECT_THAT(log.Notable(), ElementsAre("4 krb-keytab HasKey: Error ending keytab sequence: "
                                           "Error writing to key table"));
    EXPECT_EQ(log.Records()[0].file, "KrbKeytab.cpp");
  }
}

TEST(HasKey, LogsThePrefixAloneWhenTheLibraryHasNoText) {
  ScratchKeytab scratch;
  const StandIn silent(calls::krb5_get_error_message,
                       [](krb5_context, krb5_error_code) -> const char* { return nullptr; });
  LogCapture log;

  const bool has_key = scratch.keytab.HasKey();

  EXPECT_FALSE(has_key);
  EXPECT_THAT(log.Notable(), ElementsAre("4 krb-keytab HasKey: Error starting keytab sequence: "));
}

// A keytab that cannot be opened, for real.
struct Unreadable {
  const char* name;
  void (*make)(const std::string& path);
  krb5_error_code code;
  std::string (*message)(const std::string& path);

  friend void PrintTo(const Unreadable& keytab, std::ostream* out) { *out << keytab.name; }
};
class UnreadableKeytab : public testing::TestWithParam<Unreadable> {
 protected:
  UnreadableKeytab() { GetParam().make(scratch.Path()); }

  ScratchKeytab scratch;
};
constexpr auto kBadFormat = [](const std::string&) -> std::string {
  return "Unsupported key table format version number";
};
INSTANTIATE_TEST_SUITE_P(
    , UnreadableKeytab,
    testing::Values(
        Unreadable{
            "Missing", [](const std::string&) {}, ENOENT,
            [](const std::string& path) { return "Key table file '" + path + "' not found"; }},
        Unreadable{"AFolder",
                   [](const std::string& path) { std::filesystem::create_directory(path); }, EISDIR,
                   [](const std::string&) -> std::string { return "Is a directory"; }},
        Unreadable{"Empty", [](const std::string& path) { std::ofstream file(path); },
                   KRB5_KEYTAB_BADVNO, kBadFormat},
        Unreadable{"OfAnotherFormat",
                   [](const std::string& path) { std::ofstream(path) << "not a keytab"; },
                   KRB5_KEYTAB_BADVNO, kBadFormat}),
    [](const auto& info) { return info.param.name; });

TEST_P(UnreadableKeytab, EndsAWalkBeforeTheFirstEntry) {
  Versions versions;
  LogCapture log;
  CallTrace trace;

  const krb5_error_code code = scratch.keytab.Iterate(versions);
  const krb5_error_code printed = scratch.keytab.Print();
  const std::uint32_t next = scratch.keytab.GetNextClientVno();
  const bool has_key = scratch.keytab.HasKey();

  EXPECT_EQ(code, GetParam().code);
  EXPECT_EQ(printed, GetParam().code);
  EXPECT_EQ(next, 1u);
  EXPECT_FALSE(has_key);
  EXPECT_THAT(versions.seen, IsEmpty());
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_start_seq_get", "krb5_kt_start_seq_get",
                                         "krb5_kt_start_seq_get", "krb5_kt_start_seq_get",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(), ElementsAre("4 krb-keytab HasKey: Error starting keytab sequence: " +
                                         GetParam().message(scratch.Path())));
}

TEST(AReadError, EndsTheWalkLikeTheEndOfTheKeytab) {
  ScratchKeytab scratch;
  scratch.Add({kMachine, 1});
  const std::size_t whole = scratch.Bytes().size();
  scratch.Add({kMachine, 2});
  std::filesystem::resize_file(scratch.Path(), whole + 5);  // no more than the entry's length
  Versions versions;
  LogCapture log;
  CallTrace trace;

  const krb5_error_code code = scratch.keytab.Iterate(versions);

  EXPECT_EQ(code, 0);
  EXPECT_THAT(versions.seen, ElementsAre(1));
  EXPECT_THAT(trace.Names(), ElementsAreArray(WalkCalls(1, false)));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(AReadError, HidesWhatFollowsFromEveryQuery) {
  ScratchKeytab scratch;
  scratch.Add({kOther, 1});
  scratch.Add({kMachine, 2});
  int reads = 0;
  const StandIn broken(calls::krb5_kt_next_entry,
                       [&](krb5_context context, krb5_keytab keytab, krb5_keytab_entry* entry,
                           krb5_kt_cursor* cursor) -> krb5_error_code {
                         if (++reads % 2 == 0) return EIO;
                         return calls::krb5_kt_next_entry.Real(context, keytab, entry, cursor);
                       });
  LogCapture log;
  CallTrace trace;

  const std::uint32_t next = scratch.keytab.GetNextClientVno();
  const bool has_key = scratch.keytab.HasKey();

  std::vector<std::string> twice = WalkCalls(1, true);
  const std::vector<std::string> once = twice;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(next, 1u);
  EXPECT_FALSE(has_key);
  EXPECT_THAT(trace.Names(), ElementsAreArray(twice));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(AFailedClose, IsWhatAWalkReturnsAndNothingElse) {
  ScratchKeytab scratch;
  scratch.Add({kMachine, 3});
  const StandIn broken(calls::krb5_kt_end_seq_get,
                       [](krb5_context context, krb5_keytab keytab, krb5_kt_cursor* cursor) {
                         calls::krb5_kt_end_seq_get.Real(context, keytab, cursor);
                         return KRB5_KT_IOERR;
                       });
  Versions versions;
  LogCapture log;
  CallTrace trace;

  const krb5_error_code code = scratch.keytab.Iterate(versions);
  const std::uint32_t next = scratch.keytab.GetNextClientVno();

  std::vector<std::string> expected = WalkCalls(1, false);
  for (const std::string& call : WalkCalls(1, true))
    expected.push_back(call);
  EXPECT_EQ(code, KRB5_KT_IOERR);
  EXPECT_THAT(versions.seen, ElementsAre(3));
  EXPECT_EQ(next, 4u);
  EXPECT_THAT(trace.Names(), ElementsAreArray(expected));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(AVisitorThatThrows, LeavesNoCursorOpenAndNoEntryBehind) {
  ScratchKeytab scratch;
  scratch.Add({kMachine, 1});
  scratch.Add({kMachine, 2});
  struct : KeytabAccumulator {
    void Process(const krb5_keytab_entry&) override { throw std::runtime_error("enough"); }
  } visitor;
  CallTrace trace;

  EXPECT_THROW(scratch.keytab.Iterate(visitor), std::runtime_error);

  EXPECT_THAT(trace.Names(), ElementsAreArray(WalkCalls(1, false, false)));
}

}  // namespace
}  // namespace tavrel::tests
