// AS exchanges, with a KDC that is stood in for: Keytab::ASAuthenticate.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <ostream>
#include <string>
#include <tuple>
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

constexpr krb5_timestamp kNow = 1700000000;
constexpr char kSkewed[] = "3 krb-keytab ASAuthenticate: Clock difference with KDC detected";

// The two ways to an initial ticket.
struct Way {
  const char* name;
  int (*authenticate)(Keytab& keytab, std::string* error);
  const char* failure;
  std::vector<std::string> calls;  // up to and with the exchange

  friend void PrintTo(const Way& way, std::ostream* out) { *out << way.name; }
};
const Way kByKeytab{"ByKeytab",
                    [](Keytab& keytab, std::string* error) { return keytab.ASAuthenticate(error); },
                    "4 krb-keytab ASAuthenticate: Error authenticating through keytab: ",
                    {"krb5_kt_have_content", "krb5_get_init_creds_keytab"}};
const Way kByPassword{
    "ByPassword",
    [](Keytab& keytab, std::string* error) { return keytab.ASAuthenticate("Secret.1", error); },
    "4 krb-keytab ASAuthenticate: Error authenticating through password: ",
    {"krb5_get_init_creds_password"}};

// A KDC that issues tickets with the times it is told, or answers with an error.
class InitialTicket : public testing::TestWithParam<Way> {
 protected:
  InitialTicket() {
    scratch.Add({kMachine, 1});
    times.authtime = kNow;
    times.endtime = kNow + 3600;
  }

  int Authenticate(std::string* text) { return GetParam().authenticate(scratch.keytab, text); }

  krb5_error_code Answer(krb5_context context, krb5_creds* creds) const {
    if (code != 0) return code;
    *creds = {};
    creds->times = times;
    krb5_parse_name(context, kMachine, &creds->client);
    krb5_parse_name(context, "krbtgt/CORP.EXAMPLE.COM@CORP.EXAMPLE.COM", &creds->server);
    return 0;
  }

  std::vector<std::string> Calls(std::vector<std::string> then) const {
    std::vector<std::string> calls = GetParam().calls;
    calls.insert(calls.end(), then.begin(), then.end());
    return calls;
  }

  krb5_error_code code = 0;
  krb5_ticket_times times{};
  ScratchKeytab scratch;
  std::string error = "untouched";

 private:
  const StandIn<decltype(calls::time)> clock_{calls::time,
                                              [](std::time_t*) { return std::time_t{kNow}; }};
  const StandIn<decltype(calls::krb5_get_init_creds_keytab)> by_keytab_{
      calls::krb5_get_init_creds_keytab,
      [this](krb5_context context, krb5_creds* creds, auto...) { return Answer(context, creds); }};
  const StandIn<decltype(calls::krb5_get_init_creds_password)> by_password_{
      calls::krb5_get_init_creds_password,
      [this](krb5_context context, krb5_creds* creds, auto...) { return Answer(context, creds); }};
};
INSTANTIATE_TEST_SUITE_P(, InitialTicket, testing::Values(kByKeytab, kByPassword),
                         [](const auto& info) { return info.param.name; });

TEST_P(InitialTicket, ThatStartsNowIsASuccess) {
  LogCapture log;
  CallTrace trace;

  const int status = Authenticate(&error);

  EXPECT_EQ(status, kSuccess);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(trace.Names(), ElementsAreArray(Calls({"time", "krb5_free_cred_contents"})));
  EXPECT_THAT(log.Notable(), IsEmpty());
  EXPECT_EQ(log.Records()[0].file, "KrbKeytab.cpp");
}

TEST_P(InitialTicket, ThatStartsMoreThan300SecondsFromNowShowsClockSkew) {
  for (const krb5_timestamp off : {-100000, -301, -300, 0, 300, 301, 100000}) {
    for (const bool has_start : {true, false}) {
      times.authtime = has_start ? 1 : kNow + off;
      times.starttime = has_start ? kNow + off : 0;
      const bool skewed = off < -300 || off > 300;
      const std::vector<std::string> records(skewed ? 1 : 0, kSkewed);
      LogCapture log;
      CallTrace trace;

      const int status = Authenticate(&error);

      EXPECT_EQ(status, skewed ? kClockSkew : kSuccess) << off;
      EXPECT_EQ(error, "untouched") << off;
      EXPECT_THAT(trace.Names(), ElementsAreArray(Calls({"time", "krb5_free_cred_contents"})));
      EXPECT_THAT(log.Notable(), ElementsAreArray(records)) << off;
      EXPECT_EQ(Authenticate(nullptr), status);
    }
  }
}

TEST_P(InitialTicket, IsJudgedByItsStartAloneEvenWhenItHasEnded) {
  times.endtime = kNow - 100000;

  EXPECT_EQ(Authenticate(&error), kSuccess);
}

struct Refusal {
  krb5_error_code code;
  const char* message;
  int status;
  bool known;
};

TEST_P(InitialTicket, ThatIsRefusedGivesTheLibrarysTextAndTheCodesStatus) {
  for (const auto& [refusal, message, expected, known] : {
           Refusal{KRB5KDC_ERR_PREAUTH_FAILED, "Preauthentication failed", 3, true},
           Refusal{KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN, "Client not found in Kerberos database", 3,
                   true},
           Refusal{KRB5_KDC_UNREACH, "Cannot contact any KDC for requested realm", 3, true},
           Refusal{KRB5KRB_AP_ERR_SKEW, "Clock skew too great", 2, true},
           Refusal{KRB5_KDCREP_SKEW, "Clock skew too great in KDC reply", 2, true},
           Refusal{KRB5_CC_NOT_KTYPE, "No credentials found with supported encryption types", 3,
                   false},
           Refusal{KRB5_PREAUTH_FAILED, "Generic preauthentication failure", 3, true},
           Refusal{ENOMEM, "Cannot allocate memory", 3, false},
           // Told as a failure, though its status is that of a success.
           Refusal{KRB5KDC_ERR_NONE, "No error", 0, true},
       }) {
    code = refusal;
    std::vector<std::string> expected_log = {GetParam().failure + std::string(message)};
    if (!known) {
      expected_log.push_back("3 krb-error KrbErrorToStatus: Unknown krb5 error found: " +
                             std::to_string(refusal));
    }
    for (const bool reported : {true, false}) {
      error = "untouched";
      LogCapture log;
      CallTrace trace;

      const int status = Authenticate(reported ? &error : nullptr);

      EXPECT_EQ(status, expected) << message;
      EXPECT_EQ(error, reported ? message : "untouched");
      EXPECT_THAT(trace.Names(),
                  ElementsAreArray(Calls({"krb5_get_error_message", "krb5_free_error_message"})));
      EXPECT_THAT(log.Notable(), ElementsAreArray(expected_log));
    }
  }
}

TEST_P(InitialTicket, ThatIsRefusedWithoutATextClearsTheCallers) {
  code = KRB5KDC_ERR_POLICY;
  const StandIn silent(calls::krb5_get_error_message,
                       [](krb5_context, krb5_error_code) -> const char* { return nullptr; });
  LogCapture log;

  const int status = Authenticate(&error);

  EXPECT_EQ(status, kFailure);
  EXPECT_EQ(error, "");
  EXPECT_THAT(log.Notable(), ElementsAre(GetParam().failure));
}

TEST(AskingWithTheKeytab, PassesThePrincipalTheKeytabAndNothingElse) {
  ScratchKeytab scratch;
  scratch.Add({kMachine, 1});
  int asked = 0;
  const StandIn kdc(calls::krb5_get_init_creds_keytab,
                    [&](krb5_context context, krb5_creds*, krb5_principal client,
                        krb5_keytab keytab, krb5_deltat start, const char* service,
                        krb5_get_init_creds_opt* options) -> krb5_error_code {
                      ++asked;
                      EXPECT_EQ(context, scratch.krb.context);
                      EXPECT_EQ(client, scratch.krb.client_principal);
                      EXPECT_EQ(keytab, scratch.krb.keytab);
                      EXPECT_EQ(start, 0);
                      EXPECT_EQ(service, nullptr);
                      EXPECT_EQ(options, nullptr);
                      return KRB5_KDC_UNREACH;
                    });

  scratch.keytab.ASAuthenticate(nullptr);

  EXPECT_EQ(asked, 1);
}

TEST(AskingWithAPassword, PassesThePrincipalThePasswordAndNothingElse) {
  for (const std::string& password : {std::string(), std::string("Secret.1 \xc3\xa4%s\\")}) {
    ScratchKeytab scratch;
    std::vector<std::string> passwords;
    const StandIn kdc(
        calls::krb5_get_init_creds_password,
        [&](krb5_context context, krb5_creds*, krb5_principal client, const char* secret,
            krb5_prompter_fct prompter, void* data, krb5_deltat start, const char* service,
            krb5_get_init_creds_opt* options) -> krb5_error_code {
          passwords.push_back(secret);
          EXPECT_EQ(context, scratch.krb.context);
          EXPECT_EQ(client, scratch.krb.client_principal);
          EXPECT_EQ(prompter, nullptr);
          EXPECT_EQ(data, nullptr);
          EXPECT_EQ(start, 0);
          EXPECT_EQ(service, nullptr);
          EXPECT_EQ(options, nullptr);
          return KRB5_KDC_UNREACH;
        });

    scratch.keytab.ASAuthenticate(password, nullptr);

    EXPECT_THAT(passwords, ElementsAre(password));
  }
}

TEST(AskingWithAPassword, DoesNotLookAtTheKeytab) {
  ScratchKeytab scratch;
  scratch.krb.ReleaseKeytab();
  const StandIn kdc(calls::krb5_get_init_creds_password,
                    [](auto...) -> krb5_error_code { return KRB5_KDC_UNREACH; });
  std::string error;
  LogCapture log;
  CallTrace trace;

  const int status = scratch.keytab.ASAuthenticate("Secret.1", &error);

  EXPECT_EQ(status, kFailure);
  EXPECT_EQ(error, "Cannot contact any KDC for requested realm");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_init_creds_password", "krb5_get_error_message",
                                         "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(), ElementsAre(kByPassword.failure + error));
}

TEST(AskingWithTheKeytab, WithoutOneLeavesTheTextAlone) {
  ScratchKeytab scratch;
  scratch.krb.ReleaseKeytab();
  std::string error = "untouched";
  LogCapture log;
  CallTrace trace;

  const int status = scratch.keytab.ASAuthenticate(&error);
  const int status_for_nobody = scratch.keytab.ASAuthenticate(nullptr);

  EXPECT_EQ(status, kFailure);
  EXPECT_EQ(status_for_nobody, kFailure);
  EXPECT_EQ(error, "untouched");
  EXPECT_THAT(trace.Names(), IsEmpty());
  EXPECT_THAT(log.Notable(), ElementsAre("4 krb-keytab ASAuthenticate: Invalid keytab file name.",
                                         "4 krb-keytab ASAuthenticate: Invalid keytab file name."));
}

// A keytab without entries, for real.
struct NoContent {
  const char* name;
  const char* type;
  void (*make)(ScratchKeytab& scratch);

  friend void PrintTo(const NoContent& keytab, std::ostream* out) { *out << keytab.name; }
};
class AKeytabWithoutEntries : public testing::TestWithParam<NoContent> {};
INSTANTIATE_TEST_SUITE_P(, AKeytabWithoutEntries,
                         testing::Values(NoContent{"MissingFile", "FILE", [](ScratchKeytab&) {}},
                                         NoContent{"EmptyFile", "FILE",
                                                   [](ScratchKeytab& scratch) {
                                                     std::ofstream file(scratch.Path());
                                                   }},
                                         NoContent{"ClearedFile", "FILE",
                                                   [](ScratchKeytab& scratch) {
                                                     scratch.Add({kMachine, 1});
                                                     ASSERT_TRUE(scratch.keytab.ClearKeys(nullptr));
                                                   }},
                                         NoContent{"Memory", "MEMORY", [](ScratchKeytab&) {}}),
                         [](const auto& info) { return info.param.name; });

TEST_P(AKeytabWithoutEntries, IsSaidNotToBeCreatedYet) {
  ScratchKeytab scratch(GetParam().type);
  GetParam().make(scratch);
  std::string error = "earlier";
  LogCapture log;
  CallTrace trace;

  const int status = scratch.keytab.ASAuthenticate(&error);
  const int status_for_nobody = scratch.keytab.ASAuthenticate(nullptr);

  EXPECT_EQ(status, kFailure);
  EXPECT_EQ(status_for_nobody, kFailure);
  EXPECT_EQ(error, "Keytab file not created yet.");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_have_content", "krb5_kt_have_content"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

}  // namespace
}  // namespace tavrel::tests
