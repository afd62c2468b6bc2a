// What a keytab's operations do without a context, a keytab or a principal. libkrb5 would crash on
// most of it, and use the machine's default keytab in place of a missing one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char kNoContext[] = "Bad magic number for krb5_context structure";
constexpr char kNoKeytab[] = "Key table name malformed";
constexpr char kNoPrincipal[] = "Bad magic number for krb5_principal structure";

struct NeverCalled : KeytabAccumulator {
  void Process(const krb5_keytab_entry&) override { ADD_FAILURE() << "there is no entry"; }
};

// A keytab that would do, were it used: as the machine's default keytab it must not be.
class Missing : public testing::Test {
 protected:
  Missing() : by_default_("KRB5_KTNAME", "FILE:" + scratch.Path()) {
    scratch.Add({kMachine, 1});
    bytes_ = scratch.Bytes();
  }
  ~Missing() override { EXPECT_EQ(scratch.Bytes(), bytes_) << "nothing is ever written"; }

  ScratchKeytab scratch;
  std::string error = "untouched";

 private:
  ScopedVariable by_default_;
  std::string bytes_;
};

class AKeytabWithoutAContext : public Missing {
 protected:
  // The keytab and the principal stay, as after an Init() that failed.
  AKeytabWithoutAContext() { scratch.krb.ReleaseContext(); }
};
class AKeytabWithoutAHandle : public Missing {
 protected:
  AKeytabWithoutAHandle() { scratch.krb.ReleaseKeytab(); }
};
class AKeytabWithoutAPrincipal : public Missing {
 protected:
  AKeytabWithoutAPrincipal() { scratch.krb.ReleaseClientPrincipal(); }
};

TEST_F(AKeytabWithoutAContext, AWalkFailsBeforeTheFirstEntry) {
  NeverCalled visitor;
  LogCapture log;
  CallTrace trace;

  EXPECT_EQ(scratch.keytab.Iterate(visitor), KV5M_CONTEXT);
  EXPECT_EQ(scratch.keytab.Print(), KV5M_CONTEXT);
  EXPECT_EQ(scratch.keytab.GetNextClientVno(), 1u);

  EXPECT_THAT(trace.Names(), IsEmpty());
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(AKeytabWithoutAHandle, AWalkFailsBeforeTheFirstEntry) {
  NeverCalled visitor;
  LogCapture log;
  CallTrace trace;

  EXPECT_EQ(scratch.keytab.Iterate(visitor), KRB5_KT_BADNAME);
  EXPECT_EQ(scratch.keytab.Print(), KRB5_KT_BADNAME);
  EXPECT_EQ(scratch.keytab.GetNextClientVno(), 1u);

  EXPECT_THAT(trace.Names(), IsEmpty());
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(AKeytabWithoutAContext, ThereIsNoKey) {
  LogCapture log;
  CallTrace trace;

  const bool has_key = scratch.keytab.HasKey();

  EXPECT_FALSE(has_key);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab HasKey: Error starting keytab sequence: " +
                                       std::string(kNoContext)));
}

TEST_F(AKeytabWithoutAHandle, ThereIsNoKey) {
  LogCapture log;
  CallTrace trace;

  const bool has_key = scratch.keytab.HasKey();

  EXPECT_FALSE(has_key);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab HasKey: Error starting keytab sequence: " +
                                       std::string(kNoKeytab)));
}

TEST_F(AKeytabWithoutAContext, NothingCanBeWritten) {
  LogCapture log;
  CallTrace trace;

  const bool written = scratch.keytab.WriteKey("Secret.1", &error);
  const bool written_for_nobody = scratch.keytab.WriteKey("Secret.1", nullptr);

  const std::string line =
      "4 krb-keytab WriteKey: Error generating principal salt: " + std::string(kNoContext);
  EXPECT_FALSE(written);
  EXPECT_FALSE(written_for_nobody);
  EXPECT_EQ(error, kNoContext);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(), ElementsAre(line, line));
}

TEST_F(AKeytabWithoutAHandle, NothingCanBeWritten) {
  LogCapture log;
  CallTrace trace;

  const bool written = scratch.keytab.WriteKey("Secret.1", &error);

  EXPECT_FALSE(written);
  EXPECT_EQ(error, kNoKeytab);
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_principal2salt", "__memset_to_buf", "krb5_c_string_to_key",
                          "krb5_free_data_contents", "krb5_get_error_message",
                          "krb5_free_error_message", "krb5_free_keyblock_contents"));
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab WriteKey: Error adding key to keytab: " +
                                       std::string(kNoKeytab)));
}

TEST_F(AKeytabWithoutAPrincipal, NothingCanBeWritten) {
  LogCapture log;
  CallTrace trace;

  const bool written = scratch.keytab.WriteKey("Secret.1", &error);

  EXPECT_FALSE(written);
  EXPECT_EQ(error, kNoPrincipal);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab WriteKey: Error generating principal salt: " +
                                       std::string(kNoPrincipal)));
}

TEST_F(AKeytabWithoutAContext, NothingCanBeRemoved) {
  LogCapture log;
  CallTrace trace;

  const bool cleared = scratch.keytab.ClearKeys(&error);

  EXPECT_FALSE(cleared);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab ClearKeys: Error starting keytab sequence: " +
                                       std::string(kNoContext)));
}

TEST_F(AKeytabWithoutAHandle, NothingCanBeRemoved) {
  LogCapture log;
  CallTrace trace;

  const bool cleared = scratch.keytab.ClearKeys(&error);

  EXPECT_FALSE(cleared);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab ClearKeys: Error starting keytab sequence: " +
                                       std::string(kNoKeytab)));
}

TEST_F(AKeytabWithoutAContext, NoTicketCanBeObtained) {
  LogCapture log;
  CallTrace trace;

  const int by_keytab = scratch.keytab.ASAuthenticate(&error);
  std::string other_error;
  const int by_password = scratch.keytab.ASAuthenticate("Secret.1", &other_error);

  EXPECT_EQ(by_keytab, kFailure);
  EXPECT_EQ(by_password, kFailure);
  EXPECT_EQ(error, kNoContext);
  EXPECT_EQ(other_error, kNoContext);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(),
              ElementsAre("4 krb-keytab ASAuthenticate: Error authenticating through keytab: " +
                              std::string(kNoContext),
                          "3 krb-error KrbErrorToStatus: Unknown krb5 error found: -1760647388",
                          "4 krb-keytab ASAuthenticate: Error authenticating through password: " +
                              std::string(kNoContext),
                          "3 krb-error KrbErrorToStatus: Unknown krb5 error found: -1760647388"));
}

TEST_F(AKeytabWithoutAPrincipal, NoTicketCanBeObtained) {
  LogCapture log;
  CallTrace trace;

  const int by_keytab = scratch.keytab.ASAuthenticate(&error);
  std::string other_error;
  const int by_password = scratch.keytab.ASAuthenticate("Secret.1", &other_error);

  EXPECT_EQ(by_keytab, kFailure);
  EXPECT_EQ(by_password, kFailure);
  EXPECT_EQ(error, kNoPrincipal);
  EXPECT_EQ(other_error, kNoPrincipal);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_have_content", "krb5_get_error_message",
                                         "krb5_free_error_message", "krb5_get_error_message",
                                         "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(),
              ElementsAre("4 krb-keytab ASAuthenticate: Error authenticating through keytab: " +
                              std::string(kNoPrincipal),
                          "3 krb-error KrbErrorToStatus: Unknown krb5 error found: -1760647423",
                          "4 krb-keytab ASAuthenticate: Error authenticating through password: " +
                              std::string(kNoPrincipal),
                          "3 krb-error KrbErrorToStatus: Unknown krb5 error found: -1760647423"));
}

TEST_F(AKeytabWithoutAPrincipal, NoEntryIsTheMachines) {
  LogCapture log;

  const bool has_key = scratch.keytab.HasKey();
  const std::uint32_t next = scratch.keytab.GetNextClientVno();
  const bool cleared = scratch.keytab.ClearKeys(&error);

  EXPECT_FALSE(has_key);
  EXPECT_EQ(next, 1u);
  EXPECT_TRUE(cleared);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(log.Lines(), IsEmpty());
}

}  // namespace
}  // namespace tavrel::tests
