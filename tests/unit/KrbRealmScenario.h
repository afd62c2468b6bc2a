// What the tests of joins share: the records of every step, and one way to run a scenario.
#ifndef TAVREL_TESTS_UNIT_KRBREALMSCENARIO_H
#define TAVREL_TESTS_UNIT_KRBREALMSCENARIO_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakeDomain.h"
#include "KrbSettings.h"
#include "LogCapture.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {

using Lines = std::vector<std::string>;

inline Lines operator+(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// One line below the other, so that a failure shows which differ.
inline std::string Text(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += line + "\n";
  return text;
}

class Machine : public KrbRealm {
 public:
  explicit Machine(const std::string& domain, const std::string& keytab = "MEMORY:join")
      : KrbRealm(domain, "Administrator", "Admin.Pass.1", keytab) {}

  // As an earlier join left it.
  void HoldKey() {
    EXPECT_TRUE(krb_context.SetClientPrincipal("APPLIANCE$@CORP.EXAMPLE.COM"));
    EXPECT_TRUE(Keytab(&krb_context).WriteKey("an earlier password", nullptr));
    krb_context.ReleaseClientPrincipal();
  }

  using KrbRealm::join_parameters;
  using KrbRealm::krb_context;
};

inline JoinParameters Parameters(const std::string& domain = "corp.example.com") {
  return {domain, {}, "Administrator", "Admin.Pass.1"};
}

// --- records -------------------------------------------------------------------------------------

inline const std::string kController = "dc1.corp.example.com:389";
inline const Lines kFoundController = {
    "1 discovery GetLDAPHosts: Discovering dns hosts for domain CORP.EXAMPLE.COM",
    "1 discovery GetLDAPHosts: SRV Port: 389",
    "1 discovery GetLDAPHosts: SRV Target: dc1.corp.example.com",
    "1 ldap-join Connect: Adding a discovered host " + kController,
    "1 ldap Connect: Connecting to host: ldap://" + kController};
inline const Lines kConnected = kFoundController + Lines{"1 ldap Connect: LDAP bind is successful"};
inline const Lines kAsked = {"1 ldap-join GetAccountObject: Getting account object from " +
                             kController};
inline const Lines kAnswered = {"1 ldap-join GetAccountObject: Found account object from " +
                                kController};
inline const Lines kNoAnswer = {
    "3 ldap-join GetAccountObject: Unable to find an account object on any available server"};

inline Lines Found(const std::string& flags) {
  return kAsked +
         Lines{"1 ldap-join GetAccountObject: Found user account control on " + kController + ": " +
               flags} +
         kAnswered;
}

inline Lines NotFound(const std::string& reason) {
  return kAsked + Lines{"4 ldap-join GetAccountObject: LDAP search failed: " + reason} + kNoAnswer;
}

inline Lines SettingFlags(const std::string& flags) {
  return {"1 ldap-join SetProperties: Setting user account control: " + flags};
}

inline Lines Realm(int level, const std::string& text) {
  return {std::to_string(level) + " krb-realm Join: " + text};
}

inline const Lines kAlready = Realm(1, "Machine already in CORP.EXAMPLE.COM");
inline const Lines kAdding = Realm(1, "Adding to CORP.EXAMPLE.COM");
inline const Lines kJoined = Realm(2, "Joined to CORP.EXAMPLE.COM");
inline const Lines kAccountReady =
    kConnected + Found("4098") + kAlready + SettingFlags("4096") + kJoined;
inline const Lines kAccountMade =
    kConnected + kAsked + kAnswered + kAdding + SettingFlags("4096") + kJoined;

inline Lines Exchange(int level, const std::string& text) {
  return {std::to_string(level) + " krb-keytab ASAuthenticate: " + text};
}

inline const Lines kTicket = {
    "1 krb-keytab PrintCreds: serverprincipal: CORP.EXAMPLE.COM krbtgt CORP.EXAMPLE.COM",
    "1 krb-keytab PrintCreds: clientprincipal: CORP.EXAMPLE.COM APPLIANCE$"};
inline const Lines kTicketOfAnotherTime =
    kTicket + Exchange(3, "Clock difference with KDC detected");

inline Lines ByKeytab(const std::string& reason) {
  return Exchange(4, "Error authenticating through keytab: " + reason);
}
inline Lines ByPassword(const std::string& reason) {
  return Exchange(4, "Error authenticating through password: " + reason);
}

inline const std::string kWrong = "Preauthentication failed";
inline const std::string kSkew = "Clock skew too great";
inline const Lines kKeyFailed = kAccountReady + ByKeytab(kWrong);

inline Lines Printed(const std::string& version) {
  return {"1 krb-keytab Process: Key: APPLIANCE$@CORP.EXAMPLE.COM version " + version + " at 0"};
}
inline const Lines kPrinted =
    Printed("2") + Printed("1");  // a keytab in memory has the newest first

// --- scenarios -----------------------------------------------------------------------------------

// What the KDC says to a secret.
inline const FakeDomain::Ticket kGood{};
inline const FakeDomain::Ticket kSkewed{0, 600};
inline const FakeDomain::Ticket kTooSkewed{KRB5KRB_AP_ERR_SKEW, 0};
inline const FakeDomain::Ticket kRefused{KRB5KDC_ERR_PREAUTH_FAILED, 0};

// What the directory says to a lookup.
inline const FakeDomain::Account kPresent{};
inline const FakeDomain::Account kAbsent{LDAP_NO_SUCH_OBJECT, ""};
inline const FakeDomain::Account kForbidden{LDAP_INSUFFICIENT_ACCESS, ""};
inline const FakeDomain::Account kUnreadable{LDAP_SUCCESS, "none"};

struct Scenario {
  const char* name;
  void (*set)(FakeDomain& domain);
  int status;
  std::string error;  // what holds "as before" when it is left alone
  std::string steps;
  Lines log;
};

inline void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}

struct Outcome {
  int status;
  std::string steps;
  Lines log;
};

// Runs one operation of a machine, and checks what is the same for all.
template <typename Operation>
Outcome Run(const Scenario& scenario, Machine& machine, Operation operation) {
  FakeDomain domain;
  scenario.set(domain);
  LogCapture log;

  const int status = operation(machine);

  const std::string machine_password = Parameters().GetMachinePassword();
  EXPECT_EQ(domain.Held(), 0);
  EXPECT_THAT(domain.Passwords(), testing::Each(machine_password));
  EXPECT_THAT(log.Lines(), testing::Each(testing::Not(testing::HasSubstr(machine_password))));
  EXPECT_THAT(log.Lines(), testing::Each(testing::Not(testing::HasSubstr("Admin.Pass.1"))));
  return {status, domain.Steps(), log.Lines()};
}

// With and without a text, which is all the same but for the text.
template <typename Operation>
void Check(const Scenario& scenario, const std::string& realm_domain, bool holds_key,
           const Lines& first, Operation operation) {
  const KrbSettings settings;
  for (const bool with_text : {true, false}) {
    Machine machine(realm_domain);
    if (holds_key) machine.HoldKey();
    std::string error = "as before";

    const Outcome outcome = Run(
        scenario, machine, [&](Machine& m) { return operation(m, with_text ? &error : nullptr); });

    EXPECT_EQ(outcome.status, scenario.status);
    EXPECT_EQ(error, with_text ? scenario.error : "as before");
    EXPECT_EQ(outcome.steps, scenario.steps);
    EXPECT_EQ(Text(outcome.log), Text(first + scenario.log));
  }
}

inline std::string NameOf(const testing::TestParamInfo<Scenario>& info) {
  return info.param.name;
}

inline const std::string kUnproven = "Unable to authenticate to CORP.EXAMPLE.COM: ";
inline const std::string kAccountSteps = "dns, bind, find, flags 4096, ";

// --- the account step ----------------------------------------------------------------------------

// How a join or its test ends before Kerberos is asked; `connecting` opens the record of a failure
// to connect.
inline std::vector<Scenario> BeforeKerberos(const std::string& connecting) {
  const std::string no_host = "Unable to find ldap host for domain";
  const std::string unconnected = "Unable to connect to CORP.EXAMPLE.COM: ";
  const std::string not_found = "Failed to get account object from host CORP.EXAMPLE.COM: ";
  const std::string not_added = "Could not add host to CORP.EXAMPLE.COM: ";
  const std::string not_set = "Could not set properties in CORP.EXAMPLE.COM: ";
  return {
      {"NoController", [](FakeDomain& domain) { domain.announced = false; }, kFailure,
       unconnected + no_host, "dns",
       Lines{"1 discovery GetLDAPHosts: Discovering dns hosts for domain CORP.EXAMPLE.COM",
             "4 discovery GetLDAPHosts: Error in dns search for domain  CORP.EXAMPLE.COM",
             "4 ldap-join Connect: " + no_host + " CORP.EXAMPLE.COM",
             connecting + unconnected + no_host}},
      {"BindRefused", [](FakeDomain& domain) { domain.binds = {LDAP_INVALID_CREDENTIALS}; },
       kFailure, unconnected + "Invalid credentials", "dns, bind, unbind",
       kFoundController + Lines{"3 ldap Connect: LDAP bind failed against ldap://" + kController +
                                    ": Invalid credentials",
                                connecting + unconnected + "Invalid credentials"}},
      {"LookupRefused", [](FakeDomain& domain) { domain.lookups = {kForbidden}; }, kFailure,
       not_found + "Insufficient access", "dns, bind, find, unbind",
       kConnected + NotFound("Insufficient access") + Realm(4, not_found + "Insufficient access")},
      {"FlagsThatAreNoNumber", [](FakeDomain& domain) { domain.lookups = {kUnreadable}; }, kFailure,
       not_found + "stoi", "dns, bind, find, unbind",
       kConnected + kAsked + Realm(4, not_found + "stoi")},
      {"FlagsThatAreTooLarge",
       [](FakeDomain& domain) {
         domain.lookups = {{LDAP_SUCCESS, "2147483648"}};
       },
       kFailure, not_found + "stoi", "dns, bind, find, unbind",
       kConnected + kAsked + Realm(4, not_found + "stoi")},
      {"AddRefused",
       [](FakeDomain& domain) {
         domain.lookups = {kAbsent};
         domain.add = LDAP_ALREADY_EXISTS;
       },
       kFailure, not_added + "Already exists", "dns, bind, find, add, unbind",
       kConnected + kAsked + kAnswered + kAdding +
           Lines{"4 ldap-join AddAccountObject: LDAP add failed: Already exists"} +
           Realm(4, not_added + "Already exists")},
      {"FlagsRefused", [](FakeDomain& domain) { domain.set_flags = LDAP_INSUFFICIENT_ACCESS; },
       kFailure, not_set + "Insufficient access", "dns, bind, find, flags 4096, unbind",
       kConnected + Found("4098") + kAlready + SettingFlags("4096") +
           Lines{"4 ldap-join SetProperties: LDAP modify failed: Insufficient access"} +
           Realm(4, not_set + "Insufficient access")},
      {"FlagsOfANewAccountRefused",
       [](FakeDomain& domain) {
         domain.lookups = {kAbsent};
         domain.set_flags = LDAP_UNWILLING_TO_PERFORM;
       },
       kFailure, not_set + "Server is unwilling to perform",
       "dns, bind, find, add, flags 4096, unbind",
       kConnected + kAsked + kAnswered + kAdding + SettingFlags("4096") +
           Lines{"4 ldap-join SetProperties: LDAP modify failed: Server is unwilling to perform"} +
           Realm(4, not_set + "Server is unwilling to perform")},
  };
}

}  // namespace tavrel::tests

#endif
