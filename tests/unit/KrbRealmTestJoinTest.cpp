// KrbRealm::TestJoin in every way that it can end.
#include <filesystem>

#include "KrbRealmScenario.h"

namespace tavrel::tests {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;

// --- the password test ---------------------------------------------------------------------------

// Both ways into it end alike.
class APasswordTest : public testing::TestWithParam<Scenario> {};

TEST_P(APasswordTest, OfGivenParametersEndsSo) {
  const JoinParameters params = Parameters();
  Check(GetParam(), "other.example.net", true,
        [&](Machine& machine, std::string* error) { return machine.TestJoin(params, error); });
}

TEST_P(APasswordTest, OfAMachineWithoutAKeyEndsSo) {
  Check(GetParam(), "other.example.net", false, [](Machine& machine, std::string* error) {
    return machine.TestJoin("corp.example.com", "Administrator", "Admin.Pass.1", error);
  });
}

INSTANTIATE_TEST_SUITE_P(BeforeKerberos, APasswordTest,
                         testing::ValuesIn(BeforeKerberos("4 krb-realm TestJoin: ")), NameOf);

const std::string kByPassword = kExchange + "password: ";

INSTANTIATE_TEST_SUITE_P(
    OfAPasswordThatWorks, APasswordTest,
    testing::Values(Scenario{"InTime", Given(), kSuccess, "as before",
                             kAccountSteps + "ticket by password, unbind", kJoined},
                    Scenario{"AtAnotherTime", Given().PasswordGives({kSkewed}), kClockSkew,
                             "as before", kAccountSteps + "ticket by password, unbind",
                             kJoined + kClockDifference},
                    Scenario{"AtATimeThatTheKdcRefuses", Given().PasswordGives({kTooSkewed}),
                             kClockSkew, kSkew, kAccountSteps + "ticket by password, unbind",
                             kJoined + Lines{kByPassword + kSkew}}),
    NameOf);

const std::string kNotSet = "Unable to set password on CORP.EXAMPLE.COM: ";
const std::string kReset = kAccountSteps + "ticket by password, find, password, ";
const Lines kPasswordFailed = kJoined + Lines{kByPassword + kWrong};

INSTANTIATE_TEST_SUITE_P(
    OfAPasswordThatFails, APasswordTest,
    testing::Values(
        Scenario{"SetsIt", Given().PasswordGives({kRefused, kGood}), kSuccess, kWrong,
                 kReset + "ticket by password, unbind", kPasswordFailed},
        Scenario{"InANewAccountSetsIt", Given().Finds({kAbsent}).PasswordGives({kRefused, kGood}),
                 kSuccess, kWrong,
                 "dns, bind, find, add, flags 4096, ticket by password, find, password, ticket by "
                 "password, unbind",
                 kPasswordFailed},
        Scenario{"WhenItIsRefused",
                 Given()
                     .PasswordGives({kRefused})
                     .Refuses("replace binary unicodePwd", LDAP_CONSTRAINT_VIOLATION),
                 kFailure, kNotSet + "Constraint violation", kReset + "unbind",
                 kPasswordFailed +
                     Lines{"4 ldap-join SetPassword: LDAP modify failed: Constraint violation"}},
        Scenario{"WhenTheAccountCannotBeFoundAgain",
                 Given().PasswordGives({kRefused}).Finds({kPresent, kForbidden}), kFailure,
                 kNotSet + "Invalid LDAP context",
                 kAccountSteps + "ticket by password, find, unbind",
                 kPasswordFailed + NotFound("Insufficient access")},
        Scenario{"WhenTheAccountsFlagsAreNoNumberNow",
                 Given().PasswordGives({kRefused}).Finds({kPresent, kUnreadable}), kFailure,
                 kNotSet + "Invalid LDAP context",
                 kAccountSteps + "ticket by password, find, unbind", kPasswordFailed},
        Scenario{"WhenTheKdcRefusesTheNewOne", Given().PasswordGives({kRefused}), kFailure,
                 kUnproven + kWrong, kReset + "ticket by password, unbind",
                 kPasswordFailed + Lines{kByPassword + kWrong}},
        Scenario{"WhenTheKdcRefusesTheTime", Given().PasswordGives({kRefused, kTooSkewed}),
                 kClockSkew, kUnproven + kSkew, kReset + "ticket by password, unbind",
                 kPasswordFailed + Lines{kByPassword + kSkew}},
        Scenario{"WhenTheTicketIsOfAnotherTime", Given().PasswordGives({kRefused, kSkewed}),
                 kClockSkew, kUnproven + kWrong, kReset + "ticket by password, unbind",
                 kPasswordFailed + kClockDifference}),
    NameOf);

// --- the keytab ----------------------------------------------------------------------------------

TEST(ATest, OfAnUnreadableKeytabIsThePasswordTest) {
  const KrbSettings settings;
  FakeDomain domain;
  const std::string path = settings / "keytab";
  Machine machine("other.example.net", path);
  LogCapture log;

  const int status = machine.TestJoin("corp.example.com", "Administrator", "Admin.Pass.1", nullptr);

  EXPECT_EQ(status, kSuccess);
  EXPECT_THAT(log.Notable(),
              ElementsAre("4 krb-keytab HasKey: Error starting keytab sequence: Key table file '" +
                              path + "' not found",
                          kJoined[0]));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(ATest, SaysWhatItTestsWith) {
  const KrbSettings settings;
  for (const bool holds_key : {true, false}) {
    Machine machine("other.example.net");
    if (holds_key) machine.HoldKey();
    FakeDomain domain;
    LogCapture log;

    machine.TestJoin("corp.example.com", "Administrator", "Admin.Pass.1", nullptr);

    EXPECT_EQ(log.Lines()[0],
              std::string("1 krb-realm TestJoin: Found key for principal, testing with ") +
                  (holds_key ? "keytab" : "password"));
  }
}

TEST(ATest, OfAKeytabWithoutTheMachineIsThePasswordTest) {
  const KrbSettings settings;
  Machine machine("other.example.net");
  machine.HoldKey();
  FakeDomain domain;
  const CallTrace trace;

  const int status =
      machine.TestJoin("another.example.net", "Administrator", "Admin.Pass.1", nullptr);

  EXPECT_EQ(status, kSuccess);
  EXPECT_EQ(domain.Steps(), kAccountSteps + "ticket by password, unbind");
  EXPECT_THAT(trace.Names(), Not(Contains("krb5_kt_add_entry")));
}

// --- the machine's principal ---------------------------------------------------------------------

const std::string kUnparsable =
    "4 krb-param SetClientPrincipal: Error parsing principal name: Malformed representation of "
    "principal";

struct Misnamed {
  const char* name;
  int (*operation)(Machine& machine, std::string* error);
  std::string steps;
  std::string log;
};

void PrintTo(const Misnamed& misnamed, std::ostream* out) {
  *out << misnamed.name;
}

class APrincipal : public testing::TestWithParam<Misnamed> {};

TEST_P(APrincipal, ThatCannotBeParsedEndsTheOperation) {
  const KrbSettings settings;
  for (const bool with_text : {true, false}) {
    FakeDomain domain;
    Machine machine("corp@example.com");
    std::string error = "as before";
    LogCapture log;

    const int status = GetParam().operation(machine, with_text ? &error : nullptr);

    EXPECT_EQ(status, kFailure);
    EXPECT_EQ(error, "as before");
    EXPECT_EQ(domain.Steps(), GetParam().steps);
    EXPECT_EQ(domain.Held(), 0);
    EXPECT_THAT(log.Notable(), ElementsAre(kUnparsable, GetParam().log));
  }
}

INSTANTIATE_TEST_SUITE_P(
    , APrincipal,
    testing::Values(
        Misnamed{"OfAJoin",
                 [](Machine& machine, std::string* error) { return machine.Join(error); },
                 "dns, bind, unbind",
                 "3 krb-realm Join: Error initializing kerberos principal to CORP@EXAMPLE.COM"},
        Misnamed{"OfAPasswordTest",
                 [](Machine& machine, std::string* error) {
                   return machine.TestJoin(Parameters("corp@example.com"), error);
                 },
                 "dns, bind, unbind",
                 "4 krb-realm TestJoin: Error initializing kerberos parameters to "
                 "CORP@EXAMPLE.COM"},
        Misnamed{"OfATest",
                 [](Machine& machine, std::string* error) {
                   return machine.TestJoin("corp@example.com", "a", "b", error);
                 },
                 "",
                 "4 krb-realm TestJoin: Error initializing kerberos parameters to "
                 "corp@example.com"}),
    [](const auto& info) { return std::string(info.param.name); });

std::string PrincipalOf(const Machine& machine) {
  if (machine.krb_context.client_principal == nullptr) return "none";
  char* text = nullptr;
  krb5_unparse_name(machine.krb_context.context, machine.krb_context.client_principal, &text);
  const std::string name = text;
  krb5_free_unparsed_name(machine.krb_context.context, text);
  return name;
}

TEST(TheRealm, KeepsThePrincipalOfTheLastOperation) {
  const KrbSettings settings;
  FakeDomain domain;
  Machine machine("corp.example.com");

  machine.Join(nullptr);
  const std::string joined = PrincipalOf(machine);
  machine.TestJoin(Parameters("a.example.net"), nullptr);
  const std::string tested = PrincipalOf(machine);
  machine.TestJoin("b.example.net", "a", "b", nullptr);
  const std::string tested_by_name = PrincipalOf(machine);
  domain.ldap.Refuse("dns", -1);
  machine.Join(Parameters("c.example.net"), nullptr);
  const std::string unconnected = PrincipalOf(machine);

  EXPECT_EQ(joined, "APPLIANCE$@CORP.EXAMPLE.COM");
  EXPECT_EQ(tested, "APPLIANCE$@A.EXAMPLE.NET");
  EXPECT_EQ(tested_by_name, "APPLIANCE$@B.EXAMPLE.NET");
  EXPECT_EQ(unconnected, "APPLIANCE$@B.EXAMPLE.NET");
  EXPECT_EQ(machine.join_parameters.domain, "CORP.EXAMPLE.COM");
  EXPECT_EQ(machine.join_parameters.user, "Administrator");
  EXPECT_EQ(machine.join_parameters.password, "Admin.Pass.1");
}

}  // namespace
}  // namespace tavrel::tests
