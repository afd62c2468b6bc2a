// Joins and join tests that do not work out: each has its status and its error text, and all the
// same when the caller wants no error text.
#include <filesystem>
#include <fstream>

#include "JoinScenario.h"
#include "Records.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using Scenario = JoinScenario;

// A refusal's reason is that of a real server. Which records tell it is the unit tier's.
struct Case {
  const char* name;
  void (*arrange)(Scenario&);
  std::string error;  // ends with the reason, which a record tells as well
  int status = kFailure;
  bool tests_password = false;  // instead of joining
};

// The controller is the one server, by that name.
void Use(Scenario& scene, const std::string& host, vdi::Ldap_encryption encryption,
         const std::string& authority = "") {
  scene.dc = host;
  scene.servers = {{host, encryption, authority}};
}
void UseTheController(Scenario& scene) {
  Use(scene, Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_STARTTLS);
}
void SignInAsAlice(Scenario& scene) {
  scene.user = "alice@CORP.EXAMPLE.COM";
  scene.password = Lab("USER_PASSWORD");
}
void LoseTheKdc(Scenario& scene) {
  scene.AddKerberosSettings("[realms]\n  CORP.EXAMPLE.COM = {\n    kdc = " + Lab("DEAD_IP") +
                            "\n  }");
}
// Everyone may do everything with the account but set its password.
void ForbidPasswords(Scenario& scene) {
  scene.directory.Add(scene.account);
  Scenario::ChangeDatabase("dn: " + scene.directory.Value(scene.account, "dn") +
                           "\nchangetype: modify\nreplace: nTSecurityDescriptor\n"
                           "nTSecurityDescriptor: D:(OD;;CR;00299570-246d-11d0-a768-00aa006e0529;;"
                           "WD)(A;;GA;;;WD)\n");
}

const std::string kUnconnected = "Unable to connect to CORP.EXAMPLE.COM: ";
const std::string kNoKdc = "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'";
const std::string kNoKey = "Unable to write Kerberos keytab for CORP.EXAMPLE.COM: ";

const Case kCases[] = {
    // No controller to be found, to be reached or to be trusted.
    {"UnknownDomain", [](Scenario& scene) { scene.domain = "nowhere.example.com"; },
     "Unable to connect to NOWHERE.EXAMPLE.COM: Unable to find ldap host for domain"},
    {"EmptyDomain", [](Scenario& scene) { scene.domain = ""; },
     "Unable to connect to : Unable to find ldap host for domain"},
    {"DeadServersOnly",
     [](Scenario& scene) {
       scene.servers = {{Lab("DEAD_IP"), vdi::LDAP_ENCRYPTION_NONE, ""},
                        {"ldaps://" + Lab("DEAD_IP"), vdi::LDAP_ENCRYPTION_LDAPS, ""}};
     },
     kUnconnected + "Can't contact LDAP server"},
    {"StartTlsOfAnotherAuthority",
     [](Scenario& scene) {
       Use(scene, Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE, Lab("WRONG_CA"));
     },
     kUnconnected + "Connect error"},
    {"LdapsOfAnotherAuthority",
     [](Scenario& scene) {
       Use(scene, "ldaps://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_LDAPS, Lab("WRONG_CA"));
     },
     kUnconnected + "Can't contact LDAP server"},
    {"MissingAuthority",
     [](Scenario& scene) {
       Use(scene, Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE, scene.folder / "missing.pem");
     },
     kUnconnected + "Can't contact LDAP server"},
    {"NoTls",
     [](Scenario& scene) { Use(scene, "ldap://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE); },
     kUnconnected + "Strong(er) authentication required"},
    {"LdapsOptionsWithoutLdaps",
     [](Scenario& scene) {
       Use(scene, "ldap://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_LDAPS, Lab("CA"));
     },
     kUnconnected + "Strong(er) authentication required"},

    // The controller does not take the administrator for one.
    {"WrongPassword", [](Scenario& scene) { scene.password = "Wrong.Pass.1"; },
     kUnconnected + "Invalid credentials"},
    {"BareUserName", [](Scenario& scene) { scene.user = "Administrator"; },
     kUnconnected + "Invalid credentials"},
    {"EmptyUserName", [](Scenario& scene) { scene.user = ""; },
     kUnconnected + "Invalid credentials"},
    {"EmptyPassword", [](Scenario& scene) { scene.password = ""; },
     kUnconnected + "Invalid credentials"},
    {"Anonymous", [](Scenario& scene) { scene.user = scene.password = ""; },
     "Failed to get account object from host CORP.EXAMPLE.COM: Operations error"},

    // The account cannot be created or changed.
    {"MayNotAdd", SignInAsAlice, "Could not add host to CORP.EXAMPLE.COM: Insufficient access"},
    {"ControllerOfAnotherDomain",
     [](Scenario& scene) {
       UseTheController(scene);
       scene.domain = "nowhere.example.com";
     },
     "Could not add host to NOWHERE.EXAMPLE.COM: Constraint violation"},
    {"MayNotChange",
     [](Scenario& scene) {
       scene.directory.Add(scene.account);
       SignInAsAlice(scene);
     },
     "Could not set properties in CORP.EXAMPLE.COM: Insufficient access"},

    // The password cannot be set, or not be proved.
    {"MayNotSetPassword", ForbidPasswords,
     "Unable to set machine password for CORP.EXAMPLE.COM: Insufficient access"},
    {"MayNotSetPasswordInATest",
     [](Scenario& scene) {
       UseTheController(scene);
       ForbidPasswords(scene);
     },
     "Unable to set password on CORP.EXAMPLE.COM: Insufficient access", kFailure, true},
    {"NoKdc", LoseTheKdc,
     "Unable to authenticate to CORP.EXAMPLE.COM KDC after setting password: " + kNoKdc},
    {"NoKdcInATest",
     [](Scenario& scene) {
       UseTheController(scene);
       LoseTheKdc(scene);
     },
     "Unable to authenticate to CORP.EXAMPLE.COM: " + kNoKdc, kFailure, true},

    // The keytab cannot be written, which is no failure of the join.
    {"KeytabInAMissingFolder", [](Scenario& scene) { scene.keytab = scene.folder / "no/keytab"; },
     kNoKey + "Key table file '{KEYTAB}' not found", kSuccess},
    {"KeytabThatIsAFolder",
     [](Scenario& scene) { std::filesystem::create_directory(scene.keytab); },
     kNoKey + "Is a directory", kSuccess},
    {"CorruptKeytab", [](Scenario& scene) { std::ofstream(scene.keytab) << "no keytab"; },
     kNoKey + "Unsupported key table format version number", kSuccess},

    // The key is RC4, and the controller's own choice is AES.
    {"DefaultEncryptionTypes",
     [](Scenario& scene) { scene.SetVariable("KRB5_CONFIG", Lab("KRB5_CONFIG_DEFAULT_ENCTYPES")); },
     "Unable to authenticate to CORP.EXAMPLE.COM: Pre-authentication failed: "
     "No key table entry found for {NAME}$@CORP.EXAMPLE.COM"},
};

class RefusedJoin : public JoinScenario, public testing::WithParamInterface<Case> {};
INSTANTIATE_TEST_SUITE_P(For, RefusedJoin, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.name; });

TEST_P(RefusedJoin, SaysWhyInTextAndRecordsAndNeedsNoText) {
  const Case& refused = GetParam();
  NameMachine("refused");
  refused.arrange(*this);
  KrbRealm realm = Realm();

  const auto act = [&](std::string* error) {
    return refused.tests_password ? realm.TestJoin(Parameters(), error) : realm.Join(error);
  };

  const Outcome told = Run(act);
  directory.Delete(account);
  std::filesystem::remove(keytab);
  refused.arrange(*this);
  const Outcome untold = RunWithoutError(act);

  EXPECT_EQ(told.status, refused.status);
  EXPECT_EQ(told.error, Log({refused.error}));
  EXPECT_THAT(told.log,
              testing::HasSubstr(Log({refused.error.substr(refused.error.rfind(": ") + 2)})));
  EXPECT_EQ(untold.status, told.status);
  EXPECT_EQ(untold.log, told.log);
}

}  // namespace
}  // namespace tavrel::tests
