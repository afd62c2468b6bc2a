// What the tests of joins share: one way to run a scenario, and how all of them can begin.
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

inline const Lines kJoined = {"2 krb-realm Join: Joined to CORP.EXAMPLE.COM"};
inline const std::string kExchange = "4 krb-keytab ASAuthenticate: Error authenticating through ";
inline const Lines kClockDifference = {
    "3 krb-keytab ASAuthenticate: Clock difference with KDC detected"};

inline Lines NotFound(const std::string& reason) {
  return {"4 ldap-join GetAccountObject: LDAP search failed: " + reason,
          "3 ldap-join GetAccountObject: Unable to find an account object on any available server"};
}

// --- scenarios -----------------------------------------------------------------------------------

inline const std::string kWrong = "Preauthentication failed";
inline const std::string kSkew = "Clock skew too great";

// What the KDC says to a secret.
inline const FakeDomain::Ticket kGood{};
inline const FakeDomain::Ticket kSkewed{0, 600};
inline const FakeDomain::Ticket kTooSkewed{KRB5KRB_AP_ERR_SKEW, 0};
inline const FakeDomain::Ticket kRefused{KRB5KDC_ERR_PREAUTH_FAILED, 0};

// What the directory says to a lookup.
inline FakeLdap::Answer Flags(const std::string& flags) {
  return {LDAP_SUCCESS, {FakeLdap::Entry({flags})}};
}
inline const FakeLdap::Answer kPresent = Flags("4098");
inline const FakeLdap::Answer kAbsent{LDAP_NO_SUCH_OBJECT, {}};
inline const FakeLdap::Answer kForbidden{LDAP_INSUFFICIENT_ACCESS, {}};
inline const FakeLdap::Answer kUnreadable = Flags("none");

// How the domain differs from one in which everything works.
struct Given {
  Given& Finds(std::deque<FakeLdap::Answer> answers) { return lookups = std::move(answers), *this; }
  Given& Refuses(const std::string& request, int code) {
    return refused = request, refusal = code, *this;
  }
  Given& KeyGives(std::deque<FakeDomain::Ticket> tickets) {
    return by_keytab = std::move(tickets), *this;
  }
  Given& PasswordGives(std::deque<FakeDomain::Ticket> tickets) {
    return by_password = std::move(tickets), *this;
  }

  std::deque<FakeLdap::Answer> lookups;
  std::string refused = "nothing";
  int refusal = 0;
  std::deque<FakeDomain::Ticket> by_keytab = {kGood};
  std::deque<FakeDomain::Ticket> by_password = {kGood};
};

struct Scenario {
  const char* name;
  Given given;
  int status;
  std::string error;  // what holds "as before" when it is left alone
  std::string steps;
  Lines log;  // from level 2 up
};

inline void PrintTo(const Scenario& scenario, std::ostream* out) {
  *out << scenario.name;
}
inline std::string NameOf(const testing::TestParamInfo<Scenario>& info) {
  return info.param.name;
}

// Runs one operation of a machine with and without a text, which is all the same but for the text.
template <typename Operation>
void Check(const Scenario& scenario, const std::string& realm_domain, bool holds_key,
           Operation operation) {
  using testing::Each;
  using testing::HasSubstr;
  using testing::Not;
  const KrbSettings settings;
  for (const bool with_text : {true, false}) {
    Machine machine(realm_domain);
    if (holds_key) machine.HoldKey();
    FakeDomain domain;
    domain.ldap.next_answers = scenario.given.lookups;
    domain.ldap.Refuse(scenario.given.refused, scenario.given.refusal);
    domain.by_keytab = scenario.given.by_keytab;
    domain.by_password = scenario.given.by_password;
    std::string error = "as before";
    LogCapture log;

    const int status = operation(machine, with_text ? &error : nullptr);

    const std::string machine_password = Parameters().GetMachinePassword();
    EXPECT_EQ(status, scenario.status);
    EXPECT_EQ(error, with_text ? scenario.error : "as before");
    EXPECT_EQ(domain.Steps(), scenario.steps);
    EXPECT_THAT(log.Notable(), testing::ElementsAreArray(scenario.log));
    EXPECT_EQ(domain.Held(), 0);
    EXPECT_THAT(domain.Passwords(), Each(machine_password));
    for (const std::string& line : domain.ldap.Lines()) {
      if (line.rfind("ldap_sasl_bind_s", 0) == 0) {
        EXPECT_THAT(line, HasSubstr(" 'Administrator' simple 'Admin.Pass.1'"));
      }
    }
    EXPECT_THAT(log.Lines(), Each(Not(HasSubstr(machine_password))));
    EXPECT_THAT(log.Lines(), Each(Not(HasSubstr("Admin.Pass.1"))));
  }
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
  const std::string join = "4 krb-realm Join: ";
  const std::string modify = "4 ldap-join SetProperties: LDAP modify failed: ";
  return {
      Scenario{"NoController", Given().Refuses("dns", -1), kFailure, unconnected + no_host, "dns",
               Lines{"4 discovery GetLDAPHosts: Error in dns search for domain  CORP.EXAMPLE.COM",
                     "4 ldap-join Connect: " + no_host + " CORP.EXAMPLE.COM",
                     connecting + unconnected + no_host}},
      Scenario{"BindRefused", Given().Refuses("ldap_sasl_bind_s", LDAP_INVALID_CREDENTIALS),
               kFailure, unconnected + "Invalid credentials", "dns, bind, unbind",
               Lines{"3 ldap Connect: LDAP bind failed against ldap://dc1.corp.example.com:389: "
                     "Invalid credentials",
                     connecting + unconnected + "Invalid credentials"}},
      Scenario{"LookupRefused", Given().Finds({kForbidden}), kFailure,
               not_found + "Insufficient access", "dns, bind, find, unbind",
               NotFound("Insufficient access") + Lines{join + not_found + "Insufficient access"}},
      Scenario{"FlagsThatAreNoNumber", Given().Finds({kUnreadable}), kFailure, not_found + "stoi",
               "dns, bind, find, unbind", Lines{join + not_found + "stoi"}},
      Scenario{"FlagsThatAreTooLarge", Given().Finds({Flags("2147483648")}), kFailure,
               not_found + "stoi", "dns, bind, find, unbind", Lines{join + not_found + "stoi"}},
      Scenario{"AddRefused",
               Given().Finds({kAbsent}).Refuses("ldap_add_ext_s", LDAP_ALREADY_EXISTS), kFailure,
               not_added + "Already exists", "dns, bind, find, add, unbind",
               Lines{"4 ldap-join AddAccountObject: LDAP add failed: Already exists",
                     join + not_added + "Already exists"}},
      Scenario{"FlagsRefused",
               Given().Refuses("replace userAccountControl", LDAP_INSUFFICIENT_ACCESS), kFailure,
               not_set + "Insufficient access", "dns, bind, find, flags 4096, unbind",
               Lines{modify + "Insufficient access", join + not_set + "Insufficient access"}},
      Scenario{
          "FlagsOfANewAccountRefused",
          Given().Finds({kAbsent}).Refuses("replace userAccountControl", LDAP_UNWILLING_TO_PERFORM),
          kFailure, not_set + "Server is unwilling to perform",
          "dns, bind, find, add, flags 4096, unbind",
          Lines{modify + "Server is unwilling to perform",
                join + not_set + "Server is unwilling to perform"}}};
}

}  // namespace tavrel::tests

#endif
