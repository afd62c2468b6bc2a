// KrbRealm::Join in every way that it can end.
#include <algorithm>
#include <cerrno>
#include <new>

#include "KrbRealmScenario.h"
#include "tavrel/DiscoveryService.h"

namespace tavrel::tests {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Not;

const std::string kRepairSteps = kAccountSteps + "ticket by keytab, find, password, ";

// --- the complete join ---------------------------------------------------------------------------

// Of a machine that holds a key. All three ways into it end alike.
class AJoin : public testing::TestWithParam<Scenario> {};

TEST_P(AJoin, WithTheRealmsOwnParametersEndsSo) {
  Check(GetParam(), "corp.example.com", true,
        [](Machine& machine, std::string* error) { return machine.Join(error); });
}

TEST_P(AJoin, WithGivenParametersEndsSo) {
  const JoinParameters params = Parameters();
  Check(GetParam(), "other.example.net", true,
        [&](Machine& machine, std::string* error) { return machine.Join(params, error); });
}

TEST_P(AJoin, AsATestWithTheKeytabEndsSo) {
  Check(GetParam(), "other.example.net", true, [](Machine& machine, std::string* error) {
    return machine.TestJoin("corp.example.com", "Administrator", "Admin.Pass.1", error);
  });
}

INSTANTIATE_TEST_SUITE_P(BeforeKerberos, AJoin,
                         testing::ValuesIn(BeforeKerberos("3 krb-realm Join: ")), NameOf);

const std::string kByKeytab = kExchange + "keytab: ";
const Lines kKeyFailed = kJoined + Lines{kByKeytab + kWrong};
const std::string kRefusedPassword = kExchange + "password: ";

INSTANTIATE_TEST_SUITE_P(
    OfKeysThatWork, AJoin,
    testing::Values(
        Scenario{"InTime", Given(), kSuccess, "as before",
                 kAccountSteps + "ticket by keytab, unbind", kJoined},
        Scenario{"AtAnotherTime", Given().KeyGives({kSkewed}), kClockSkew, "as before",
                 kAccountSteps + "ticket by keytab, unbind", kJoined + kClockDifference},
        Scenario{"AtATimeThatTheKdcRefuses", Given().KeyGives({kTooSkewed}), kClockSkew, kSkew,
                 kAccountSteps + "ticket by keytab, unbind", kJoined + Lines{kByKeytab + kSkew}},
        Scenario{"InANewAccount", Given().Finds({kAbsent}), kSuccess, "as before",
                 "dns, bind, find, add, flags 4096, ticket by keytab, unbind", kJoined},
        Scenario{"AndKeepsOtherFlags", Given().Finds({Flags("66050")}), kSuccess,  // 0x10202
                 "as before", "dns, bind, find, flags 69632, ticket by keytab, unbind", kJoined}),
    NameOf);

const std::string kNoPassword = "Unable to set machine password for CORP.EXAMPLE.COM: ";
const std::string kNoProof =
    "Unable to authenticate to CORP.EXAMPLE.COM KDC after setting password: ";
const std::string kNoKey = "Unable to write Kerberos keytab for CORP.EXAMPLE.COM: ";
const std::string kNotSet = "4 ldap-join SetPassword: LDAP modify failed: ";
const std::string kProofSteps =
    kRepairSteps + "ticket by password, key 2, ticket by keytab, unbind";

INSTANTIATE_TEST_SUITE_P(
    OfKeysThatFail, AJoin,
    testing::Values(
        Scenario{"IsRepaired", Given().KeyGives({kRefused, kGood}), kSuccess, kWrong, kProofSteps,
                 kKeyFailed},
        Scenario{"ForAReasonThatIsUnknown", Given().KeyGives({{ENOMEM, 0}, kGood}), kSuccess,
                 "Cannot allocate memory", kProofSteps,
                 kJoined + Lines{kByKeytab + "Cannot allocate memory",
                                 "3 krb-error KrbErrorToStatus: Unknown krb5 error found: 12"}},
        Scenario{"WhenThePasswordIsRefused",
                 Given()
                     .KeyGives({kRefused})
                     .Refuses("replace binary unicodePwd", LDAP_UNWILLING_TO_PERFORM),
                 kFailure, kNoPassword + "Server is unwilling to perform", kRepairSteps + "unbind",
                 kKeyFailed + Lines{kNotSet + "Server is unwilling to perform"}},
        Scenario{"WhenTheAccountCannotBeFoundAgain",
                 Given().KeyGives({kRefused}).Finds({kPresent, kForbidden}), kFailure,
                 kNoPassword + "Invalid LDAP context",
                 kAccountSteps + "ticket by keytab, find, unbind",
                 kKeyFailed + NotFound("Insufficient access")},
        Scenario{"WhenTheAccountsFlagsAreNoNumberNow",
                 Given().KeyGives({kRefused}).Finds({kPresent, kUnreadable}), kFailure,
                 kNoPassword + "Invalid LDAP context",
                 kAccountSteps + "ticket by keytab, find, unbind", kKeyFailed},
        Scenario{"WhenTheAccountIsGone",
                 Given()
                     .KeyGives({kRefused})
                     .Finds({kPresent, kAbsent})
                     .Refuses("replace binary unicodePwd", LDAP_NO_SUCH_OBJECT),
                 kFailure, kNoPassword + "No such object", kRepairSteps + "unbind",
                 kKeyFailed + Lines{kNotSet + "No such object"}},
        Scenario{"WhenTheKdcRefusesThePassword",
                 Given().KeyGives({kRefused}).PasswordGives({kRefused}), kFailure,
                 kNoProof + kWrong, kRepairSteps + "ticket by password, unbind",
                 kKeyFailed + Lines{kRefusedPassword + kWrong}},
        Scenario{"WhenTheKdcRefusesTheTime",
                 Given().KeyGives({kRefused}).PasswordGives({kTooSkewed}), kClockSkew,
                 kNoProof + kSkew, kRepairSteps + "ticket by password, unbind",
                 kKeyFailed + Lines{kRefusedPassword + kSkew}},
        Scenario{"WhenThePasswordsTicketIsOfAnotherTime",
                 Given().KeyGives({kRefused}).PasswordGives({kSkewed}), kClockSkew,
                 kNoProof + kWrong, kRepairSteps + "ticket by password, unbind",
                 kKeyFailed + kClockDifference},
        Scenario{"WhenTheKeytabCannotBeWritten",
                 Given().KeyGives({kRefused}).Refuses("key", KRB5_KT_NOWRITE), kSuccess,
                 kNoKey + "Cannot write to specified key table",
                 kRepairSteps + "ticket by password, key 2, unbind",
                 kKeyFailed + Lines{"4 krb-keytab WriteKey: Error adding key to keytab: Cannot "
                                    "write to specified key table"}},
        Scenario{"WhenTheKdcRefusesTheNewKey", Given().KeyGives({kRefused}), kFailure,
                 kUnproven + kWrong, kProofSteps, kKeyFailed + Lines{kByKeytab + kWrong}},
        Scenario{"WhenTheKdcRefusesTheTimeOfTheNewKey", Given().KeyGives({kRefused, kTooSkewed}),
                 kClockSkew, kUnproven + kSkew, kProofSteps, kKeyFailed + Lines{kByKeytab + kSkew}},
        Scenario{"WhenTheNewKeysTicketIsOfAnotherTime", Given().KeyGives({kRefused, kSkewed}),
                 kClockSkew, kUnproven + kWrong, kProofSteps, kKeyFailed + kClockDifference}),
    NameOf);

// Of a machine without a key, which is no test with the keytab.
class AFirstJoin : public testing::TestWithParam<Scenario> {};

TEST_P(AFirstJoin, WithTheRealmsOwnParametersEndsSo) {
  Check(GetParam(), "corp.example.com", false,
        [](Machine& machine, std::string* error) { return machine.Join(error); });
}

TEST_P(AFirstJoin, WithGivenParametersEndsSo) {
  const JoinParameters params = Parameters();
  Check(GetParam(), "other.example.net", false,
        [&](Machine& machine, std::string* error) { return machine.Join(params, error); });
}

const std::string kNotCreated = "Keytab file not created yet.";
const std::string kFirstSteps =
    "dns, bind, find, add, flags 4096, find, password, ticket by password, ";

INSTANTIATE_TEST_SUITE_P(
    , AFirstJoin,
    testing::Values(Scenario{"OfANewAccount", Given().Finds({kAbsent}), kSuccess, kNotCreated,
                             kFirstSteps + "key 1, ticket by keytab, unbind", kJoined},
                    Scenario{"OfANewAccountAtAnotherTime",
                             Given().Finds({kAbsent}).PasswordGives({kSkewed}), kClockSkew,
                             kNoProof + kNotCreated, kFirstSteps + "unbind",
                             kJoined + kClockDifference},
                    Scenario{"OfAnAccountThatExists", Given(), kSuccess, kNotCreated,
                             kAccountSteps +
                                 "find, password, ticket by password, key 1, ticket by keytab, "
                                 "unbind",
                             kJoined}),
    NameOf);

TEST(AFirstJoinsLog, IsThis) {
  const KrbSettings settings;
  FakeDomain domain;
  domain.ldap.next_answers = {kAbsent};
  Machine machine("corp.example.com");
  LogCapture log;

  machine.Join(nullptr);

  EXPECT_THAT(
      log.Lines(),
      ElementsAre(
          "1 discovery GetLDAPHosts: Discovering dns hosts for domain CORP.EXAMPLE.COM",
          "1 discovery GetLDAPHosts: SRV Port: 389",
          "1 discovery GetLDAPHosts: SRV Target: dc1.corp.example.com",
          "1 ldap-join Connect: Adding a discovered host dc1.corp.example.com:389",
          "1 ldap Connect: Connecting to host: ldap://dc1.corp.example.com:389",
          "1 ldap Connect: LDAP bind is successful",
          "1 ldap-join GetAccountObject: Getting account object from dc1.corp.example.com:389",
          "1 ldap-join GetAccountObject: Found account object from dc1.corp.example.com:389",
          "1 krb-realm Join: Adding to CORP.EXAMPLE.COM",
          "1 ldap-join SetProperties: Setting user account control: 4096",
          "2 krb-realm Join: Joined to CORP.EXAMPLE.COM",
          "1 krb-keytab ASAuthenticate: Keytab file not created yet.",
          "1 ldap-join GetAccountObject: Getting account object from dc1.corp.example.com:389",
          "1 ldap-join GetAccountObject: Found user account control on "
          "dc1.corp.example.com:389: 4098",
          "1 ldap-join GetAccountObject: Found account object from dc1.corp.example.com:389",
          "1 krb-keytab PrintCreds: serverprincipal: CORP.EXAMPLE.COM krbtgt CORP.EXAMPLE.COM",
          "1 krb-keytab PrintCreds: clientprincipal: CORP.EXAMPLE.COM APPLIANCE$",
          "1 krb-keytab Process: Key: APPLIANCE$@CORP.EXAMPLE.COM version 1 at 0",
          "1 krb-keytab PrintCreds: serverprincipal: CORP.EXAMPLE.COM krbtgt CORP.EXAMPLE.COM",
          "1 krb-keytab PrintCreds: clientprincipal: CORP.EXAMPLE.COM APPLIANCE$"));
}

// --- the account step alone ----------------------------------------------------------------------

TEST(TheAccountStep, AsksTheDirectoryAlone) {
  const KrbSettings settings;
  FakeDomain domain;
  Machine machine("corp.example.com");
  const JoinParameters params = Parameters();
  const DNSDiscoveryService discovery;
  Joiner joiner(&params, &discovery);
  ASSERT_TRUE(joiner.Connect(nullptr));
  std::string error = "as before";
  LogCapture log;

  const bool joined = machine.Join(joiner, params, &error);

  EXPECT_TRUE(joined);
  EXPECT_EQ(error, "as before");
  EXPECT_EQ(domain.Steps(), "dns, bind, find, flags 4096");
  EXPECT_THAT(log.Lines(),
              ElementsAre("1 ldap-join GetAccountObject: Getting account object from "
                          "dc1.corp.example.com:389",
                          "1 ldap-join GetAccountObject: Found user account control on "
                          "dc1.corp.example.com:389: 4098",
                          "1 ldap-join GetAccountObject: Found account object from "
                          "dc1.corp.example.com:389",
                          "1 krb-realm Join: Machine already in CORP.EXAMPLE.COM",
                          "1 ldap-join SetProperties: Setting user account control: 4096",
                          "2 krb-realm Join: Joined to CORP.EXAMPLE.COM"));
  EXPECT_EQ(machine.krb_context.client_principal, nullptr);
}

// Nothing replaces the earlier reason.
TEST(TheAccountStep, FailsWithoutASession) {
  const KrbSettings settings;
  Machine machine("corp.example.com");
  const JoinParameters params = Parameters();
  const DNSDiscoveryService discovery;
  const Joiner joiner(&params, &discovery);
  std::string error = "as before";
  const std::string prefix = "Failed to get account object from host CORP.EXAMPLE.COM: ";
  const std::string nowhere =
      "3 ldap-join GetAccountObject: Unable to find an account object on any available server";
  LogCapture log;

  const bool joined = machine.Join(joiner, params, &error);
  const bool joined_without_text = machine.Join(joiner, params, nullptr);

  EXPECT_FALSE(joined);
  EXPECT_FALSE(joined_without_text);
  EXPECT_EQ(error, prefix + "as before");
  EXPECT_THAT(log.Notable(), ElementsAre(nowhere, "4 krb-realm Join: " + prefix + "as before",
                                         nowhere, "4 krb-realm Join: " + prefix));
}

// --- the keytab ----------------------------------------------------------------------------------

TEST(AJoiningRealm, WithoutAKeytabJoinsAllTheSame) {
  const KrbSettings settings;
  FakeDomain domain;
  Machine machine("corp.example.com", "");
  std::string error = "as before";
  LogCapture log;

  const int status = machine.Join(&error);

  EXPECT_EQ(status, kSuccess);
  EXPECT_EQ(error, kNoKey + "Key table name malformed");
  EXPECT_EQ(domain.Steps(), kAccountSteps + "find, password, ticket by password, unbind");
  EXPECT_THAT(log.Notable(),
              ElementsAre(kJoined[0], "4 krb-keytab ASAuthenticate: Invalid keytab file name.",
                          "4 krb-keytab WriteKey: Error adding key to keytab: Key table name "
                          "malformed"));
}

// --- several controllers -------------------------------------------------------------------------

TEST(AJoiningRealm, AsksTheServersThatItWasGiven) {
  const KrbSettings settings;
  Machine machine("other.example.net");
  machine.HoldKey();
  FakeDomain domain;
  domain.ldap.Refuse("ldap_sasl_bind_s 1 ", LDAP_INVALID_CREDENTIALS);
  const std::list<LdapServer> servers = {{"dc1", vdi::LDAP_ENCRYPTION_STARTTLS, ""},
                                         {"dc2", vdi::LDAP_ENCRYPTION_STARTTLS, ""},
                                         {"dc3", vdi::LDAP_ENCRYPTION_STARTTLS, ""}};
  const JoinParameters params("corp.example.com", servers, "Administrator", "Admin.Pass.1");
  std::string error;
  LogCapture log;

  const int status = machine.Join(params, &error);

  EXPECT_EQ(status, kSuccess);
  EXPECT_EQ(error, "Invalid credentials");
  EXPECT_EQ(domain.Steps(),
            "bind, unbind, bind, bind, find, flags 4096, ticket by keytab, unbind, unbind");
  EXPECT_THAT(
      log.Notable(),
      ElementsAre("3 ldap Connect: LDAP bind failed against ldap://dc1: Invalid credentials",
                  kJoined[0]));
}

// --- no password ---------------------------------------------------------------------------------

TEST(TheRealm, CannotJoinWithoutAMachinePassword) {
  const KrbSettings settings;
  const StandIn without_random(calls::open, [](auto...) {
    errno = EMFILE;
    return -1;
  });
  FakeDomain domain;
  domain.by_password = {kRefused};
  Machine machine("nopassword.example.com");
  std::string join_error;
  std::string test_error;

  const int join = machine.Join(&join_error);
  const int test = machine.TestJoin(Parameters("nopassword.example.com"), &test_error);

  EXPECT_EQ(join, kFailure);
  EXPECT_EQ(join_error,
            "Unable to set machine password for NOPASSWORD.EXAMPLE.COM: Unable to generate "
            "password to join domain");
  EXPECT_EQ(test, kFailure);
  EXPECT_EQ(test_error,
            "Unable to set password on NOPASSWORD.EXAMPLE.COM: Unable to generate password to "
            "join domain");
  EXPECT_EQ(domain.Steps(),
            kAccountSteps + "find, unbind, " + kAccountSteps + "ticket by password, find, unbind");
  EXPECT_THAT(domain.Passwords(), ElementsAre(""));
}

// --- no memory -----------------------------------------------------------------------------------

TEST(AJoiningRealm, ReleasesEverythingWhenThereIsNoMemory) {
  const KrbSettings settings;
  FakeDomain domain;
  const StandIn exhausted(calls::ldap_modify_ext_s, [](auto...) -> int { throw std::bad_alloc(); });
  Machine machine("corp.example.com");

  EXPECT_THROW(machine.Join(nullptr), std::bad_alloc);

  EXPECT_EQ(domain.Held(), 0);
  EXPECT_EQ(domain.Steps(), "dns, bind, find, unbind");
}

// --- every call ----------------------------------------------------------------------------------

TEST(AJoiningRealm, MakesEachCallInItsOrder) {
  const KrbSettings settings;
  FakeDomain domain;
  domain.ldap.next_answers = {kAbsent};
  Machine machine("corp.example.com", settings / "keytab");
  Parameters().GetMachinePassword();  // made now, so that its calls are not among those below
  const CallTrace trace;

  const int status = machine.Join(nullptr);

  EXPECT_EQ(status, kSuccess);
  Lines calls = trace.Names();  // but for the host name, which every derived name asks for anew
  calls.erase(std::remove(calls.begin(), calls.end(), "gethostname"), calls.end());
  const Lines options(5, "ldap_set_option");
  EXPECT_THAT(
      calls,
      ElementsAreArray(
          Lines{"res_search", "ns_initparse", "ns_parserr", "ns_name_uncompress",
                "ldap_initialize"} +
          options +
          Lines{// The connection, and the principal.
                "ldap_start_tls_s", "ldap_sasl_bind_s", "krb5_parse_name",
                // The account is looked up, added, and its flags are set.
                "ldap_search_ext_s", "ldap_msgfree", "ldap_add_ext_s", "ldap_modify_ext_s",
                // There is no key.
                "krb5_kt_have_content",
                // The account is looked up again, and its password set and proven.
                "ldap_search_ext_s", "ldap_first_entry", "ldap_get_values_len",
                "ldap_value_free_len", "ldap_next_entry", "ldap_msgfree", "ldap_modify_ext_s",
                "krb5_get_init_creds_password", "time", "krb5_free_cred_contents",
                // The key is written: the highest version is looked for, then the key itself.
                "krb5_principal2salt", "__memset_to_buf", "krb5_kt_start_seq_get",
                "krb5_c_string_to_key", "krb5_free_data_contents", "krb5_kt_start_seq_get",
                "krb5_kt_get_name", "open", "krb5_kt_add_entry", "krb5_free_keyblock_contents",
                // The keytab is printed, and its key proven.
                "krb5_kt_start_seq_get", "krb5_kt_next_entry", "krb5_free_keytab_entry_contents",
                "krb5_kt_next_entry", "krb5_kt_end_seq_get", "krb5_kt_have_content",
                "krb5_get_init_creds_keytab", "time", "krb5_free_cred_contents",
                // The session was open all the time.
                "ldap_unbind_ext"}));
}

}  // namespace
}  // namespace tavrel::tests
