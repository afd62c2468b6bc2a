#include "tavrel/KrbContext.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "Interpose.h"
#include "KrbSettings.h"
#include "LogCapture.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char kHeld[] =
    "4 krb-param ReleaseContext: Attempt to release context before keytab and client principal";

static_assert(!std::is_copy_constructible_v<KrbContext> && !std::is_copy_assignable_v<KrbContext>,
              "two objects would release the same handles");
static_assert(!std::is_polymorphic_v<KrbContext>);
static_assert(std::is_standard_layout_v<KrbContext> && offsetof(KrbContext, context) == 0 &&
                  offsetof(KrbContext, context) < offsetof(KrbContext, client_principal) &&
                  offsetof(KrbContext, client_principal) < offsetof(KrbContext, keytab),
              "other modules read the members, in this order");

// The principal as libkrb5 writes it.
std::string Name(const KrbContext& krb) {
  char* text = nullptr;
  krb5_unparse_name(krb.context, krb.client_principal, &text);
  const std::string name = text;
  krb5_free_unparsed_name(krb.context, text);
  return name;
}

// A line of a configuration that libkrb5 makes no context from.
constexpr char kMalformed[] = "a line without a relation";

// libkrb5 fails, whatever the arguments.
constexpr auto kFails = [](auto...) -> krb5_error_code { return ENOMEM; };

TEST(Construction, MakesAContextAndNothingElse) {
  LogCapture log;
  CallTrace trace;

  const KrbContext krb;

  EXPECT_NE(krb.context, nullptr);
  EXPECT_EQ(krb.client_principal, nullptr);
  EXPECT_EQ(krb.keytab, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_init_context"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(Construction, LogsWhyThereIsNoContext) {
  const StandIn broken(calls::krb5_init_context, kFails);
  LogCapture log;
  CallTrace trace;

  const KrbContext krb;

  EXPECT_EQ(krb.context, nullptr);
  EXPECT_EQ(krb.client_principal, nullptr);
  EXPECT_EQ(krb.keytab, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_init_context", "krb5_get_error_message",
                                         "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 krb-param Init: Error initializing context: Cannot allocate memory"));
  EXPECT_EQ(log.Records()[0].file, "KrbContext.cpp");
}

TEST(Construction, AsksForTheTextWithoutAContext) {
  const StandIn broken(calls::krb5_init_context, kFails);
  std::vector<krb5_context> asked_with;
  const StandIn asked(calls::krb5_get_error_message,
                      [&](krb5_context context, krb5_error_code code) {
                        asked_with.push_back(context);
                        return calls::krb5_get_error_message.Real(context, code);
                      });

  const KrbContext krb;

  EXPECT_THAT(asked_with, ElementsAre(nullptr));
}

TEST(Construction, WithAMissingConfigurationSucceeds) {
  const KrbSettings settings;
  const ScopedVariable config("KRB5_CONFIG", settings / "no.conf");
  LogCapture log;

  const KrbContext krb;

  EXPECT_NE(krb.context, nullptr);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(Init, ReplacesTheContext) {
  KrbContext krb;
  LogCapture log;
  CallTrace trace;

  const bool made = krb.Init();

  EXPECT_TRUE(made);
  EXPECT_NE(krb.context, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_free_context", "krb5_init_context"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(Init, LeavesAHeldKeytabAsItIsAndSaysSoOnce) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetKeytab("MEMORY:held"));
  const krb5_keytab held = krb.keytab;
  LogCapture log;
  CallTrace trace;

  const bool made = krb.Init();

  EXPECT_TRUE(made);
  EXPECT_NE(krb.context, nullptr);
  EXPECT_EQ(krb.keytab, held);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_free_context", "krb5_init_context"));
  EXPECT_THAT(log.Notable(), ElementsAre(kHeld));
}

TEST(Init, ThatFailsLeavesNoContextAndTheRestAsItWas) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetClientPrincipal("a@R"));
  const krb5_principal held = krb.client_principal;
  const StandIn broken(calls::krb5_init_context, kFails);
  LogCapture log;
  CallTrace trace;

  const bool made = krb.Init();

  EXPECT_FALSE(made);
  EXPECT_EQ(krb.context, nullptr);
  EXPECT_EQ(krb.client_principal, held);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_free_context", "krb5_init_context",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(
      log.Notable(),
      ElementsAre(kHeld, "4 krb-param Init: Error initializing context: Cannot allocate memory"));
}

TEST(Init, MakesUpForAFailedConstruction) {
  auto broken = std::make_unique<StandIn<decltype(calls::krb5_init_context)>>(
      calls::krb5_init_context, kFails);
  KrbContext krb;
  ASSERT_EQ(krb.context, nullptr);
  broken.reset();
  CallTrace trace;

  const bool made = krb.Init();

  EXPECT_TRUE(made);
  EXPECT_NE(krb.context, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_init_context"));
}

TEST(SetKeytab, AnEmptyPathClosesTheEarlierKeytab) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetKeytab("MEMORY:earlier"));
  LogCapture log;
  CallTrace trace;

  const bool bound = krb.SetKeytab("");

  EXPECT_FALSE(bound);
  EXPECT_EQ(krb.keytab, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_close"));
  EXPECT_THAT(log.Notable(), ElementsAre("4 krb-param SetKeytab: Keytab path is empty"));
}

TEST(SetKeytab, PassesTheNameUnchanged) {
  const KrbSettings settings;
  const std::string file = settings / "not there yet";
  for (const std::string& name : {file, "FILE:" + file, "WRFILE:" + file, std::string("MEMORY:a b"),
                                  std::string(" relative")}) {
    KrbContext krb;
    std::string resolved;
    const StandIn resolve(calls::krb5_kt_resolve,
                          [&](krb5_context context, const char* path, krb5_keytab* keytab) {
                            resolved = path;
                            return calls::krb5_kt_resolve.Real(context, path, keytab);
                          });
    LogCapture log;

    const bool bound = krb.SetKeytab(name);

    EXPECT_TRUE(bound) << name;
    EXPECT_NE(krb.keytab, nullptr) << name;
    EXPECT_EQ(resolved, name);
    EXPECT_THAT(log.Notable(), IsEmpty()) << name;
  }
  EXPECT_FALSE(std::ifstream(file).is_open()) << "resolving creates nothing";
}

TEST(SetKeytab, ClosesTheEarlierKeytabFirst) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetKeytab("MEMORY:earlier"));
  LogCapture log;
  CallTrace trace;

  const bool bound = krb.SetKeytab("MEMORY:later");

  char name[64];
  EXPECT_TRUE(bound);
  EXPECT_EQ(krb5_kt_get_name(krb.context, krb.keytab, name, sizeof name), 0);
  EXPECT_STREQ(name, "MEMORY:later");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_close", "krb5_kt_resolve"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(SetKeytab, ThatTheLibraryRefusesLeavesNoKeytab) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetKeytab("MEMORY:earlier"));
  LogCapture log;
  CallTrace trace;

  const bool bound = krb.SetKeytab("NOPE:x");

  EXPECT_FALSE(bound);
  EXPECT_EQ(krb.keytab, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_close", "krb5_kt_resolve",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 krb-param SetKeytab: Error resolving keytab: Unknown Key table type"));
}

TEST(SetClientPrincipal, ReplacesTheEarlierPrincipal) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetClientPrincipal("earlier@R"));
  LogCapture log;
  CallTrace trace;

  const bool set = krb.SetClientPrincipal("APPLIANCE$@CORP.EXAMPLE.COM");

  EXPECT_TRUE(set);
  EXPECT_EQ(Name(krb), "APPLIANCE$@CORP.EXAMPLE.COM");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_free_principal", "krb5_parse_name"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(SetClientPrincipal, ThatTheLibraryRefusesLeavesNoPrincipal) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetClientPrincipal("earlier@R"));
  LogCapture log;
  CallTrace trace;

  const bool set = krb.SetClientPrincipal("a@b@c");

  EXPECT_FALSE(set);
  EXPECT_EQ(krb.client_principal, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_free_principal", "krb5_parse_name",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(), ElementsAre("4 krb-param SetClientPrincipal: Error parsing principal "
                                         "name: Malformed representation of principal"));
}

TEST(SetClientPrincipal, LeavesAnEmptyNameToTheLibrary) {
  const KrbSettings settings;
  KrbContext krb;
  LogCapture log;
  CallTrace trace;

  const bool set = krb.SetClientPrincipal("");

  EXPECT_TRUE(set);
  EXPECT_EQ(Name(krb), "@CORP.EXAMPLE.COM");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_parse_name"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(AFailure, WithoutATextIsLoggedAsThePrefixAlone) {
  KrbContext krb;
  const StandIn silent(calls::krb5_get_error_message,
                       [](krb5_context, krb5_error_code) -> const char* { return nullptr; });
  LogCapture log;

  const bool bound = krb.SetKeytab("NOPE:x");
  const bool set = krb.SetClientPrincipal("a@b@c");

  EXPECT_FALSE(bound);
  EXPECT_FALSE(set);
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 krb-param SetKeytab: Error resolving keytab: ",
                          "4 krb-param SetClientPrincipal: Error parsing principal name: "));
}

TEST(WithoutAContext, NothingCanBeSet) {
  const KrbSettings settings(kMalformed);
  KrbContext krb;
  LogCapture log;
  CallTrace trace;

  const bool bound = krb.SetKeytab("MEMORY:x");
  const bool set = krb.SetClientPrincipal("a@R");

  EXPECT_FALSE(bound);
  EXPECT_FALSE(set);
  EXPECT_EQ(krb.keytab, nullptr);
  EXPECT_EQ(krb.client_principal, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message",
                                         "krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(), ElementsAre("4 krb-param SetKeytab: Error resolving keytab: Bad magic "
                                         "number for krb5_context structure",
                                         "4 krb-param SetClientPrincipal: Error parsing principal "
                                         "name: Bad magic number for krb5_context structure"));
}

TEST(ReleaseContext, FreesTheContextOnceAndLogsWhatIsStillHeld) {
  for (const auto& [keytab, principal] : {std::pair(false, false), std::pair(true, false),
                                          std::pair(false, true), std::pair(true, true)}) {
    KrbContext krb;
    ASSERT_EQ(keytab && krb.SetKeytab("MEMORY:held"), keytab);
    ASSERT_EQ(principal && krb.SetClientPrincipal("a@R"), principal);
    const std::vector<std::string> records(keytab || principal ? 2 : 0, kHeld);
    LogCapture log;
    CallTrace trace;

    krb.ReleaseContext();
    krb.ReleaseContext();

    EXPECT_EQ(krb.context, nullptr);
    EXPECT_EQ(krb.keytab != nullptr, keytab);
    EXPECT_EQ(krb.client_principal != nullptr, principal);
    EXPECT_THAT(trace.Names(), ElementsAre("krb5_free_context"));
    EXPECT_THAT(log.Notable(), ElementsAreArray(records));
  }
}

TEST(Release, GivesKeytabAndPrincipalBackOnce) {
  KrbContext krb;
  ASSERT_TRUE(krb.SetKeytab("MEMORY:x"));
  ASSERT_TRUE(krb.SetClientPrincipal("a@R"));
  LogCapture log;
  CallTrace trace;

  krb.ReleaseKeytab();
  krb.ReleaseKeytab();
  krb.ReleaseClientPrincipal();
  krb.ReleaseClientPrincipal();

  EXPECT_EQ(krb.keytab, nullptr);
  EXPECT_EQ(krb.client_principal, nullptr);
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_close", "krb5_free_principal"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(Destruction, ReleasesTheContextLastAndLogsNothing) {
  std::optional<KrbContext> krb(std::in_place);
  ASSERT_TRUE(krb->SetKeytab("MEMORY:x"));
  ASSERT_TRUE(krb->SetClientPrincipal("a@R"));
  LogCapture log;
  CallTrace trace;

  krb.reset();

  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_kt_close", "krb5_free_principal", "krb5_free_context"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(Destruction, OfAnObjectThatHoldsNothingReleasesNothing) {
  std::optional<KrbContext> krb(std::in_place);
  krb->ReleaseContext();
  LogCapture log;
  CallTrace trace;

  krb.reset();

  EXPECT_THAT(trace.Names(), IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

}  // namespace
}  // namespace tavrel::tests
