// Joins and join tests that do not work out: each has its status, its error text and its records,
// and all the same when the caller wants no error text.
#include <filesystem>
#include <fstream>

#include "JoinScenario.h"
#include "Records.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using Scenario = JoinScenario;

struct Case {
  const char* name;
  void (*arrange)(Scenario&);
  int (*act)(Scenario&, KrbRealm&, std::string* error);
  int status;
  std::string error;
  std::string log;  // from level 2 up
};

int Join(Scenario&, KrbRealm& realm, std::string* error) {
  return realm.Join(error);
}
int TestPassword(Scenario& scene, KrbRealm& realm, std::string* error) {
  return realm.TestJoin(scene.Parameters(), error);
}

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

std::string ByPassword(const std::string& reason) {
  return "4 krb-keytab ASAuthenticate: Error authenticating through password: " + reason + "\n";
}
const std::string kNoKdc = "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'";

// The one controller is not bound: a step with it fails.
Case Unbound(const char* name, void (*arrange)(Scenario&), const std::string& step,
             const std::string& reason) {
  const std::string text = "Unable to connect to CORP.EXAMPLE.COM: " + reason;
  return {name,
          arrange,
          Join,
          kFailure,
          text,
          "3 ldap Connect: LDAP " + step + " failed against {URL}: " + reason +
              "\n3 krb-realm Join: " + text + "\n"};
}

// The account step fails at what `record` says.
Case NoAccount(const char* name, void (*arrange)(Scenario&), const std::string& record,
               const std::string& text) {
  return {name,     arrange, Join,
          kFailure, text,    "4 ldap-join " + record + "\n4 krb-realm Join: " + text + "\n"};
}

// The keytab cannot be written, which is no failure of the join.
Case NoKey(const char* name, void (*arrange)(Scenario&), const std::string& reason) {
  return {name,
          arrange,
          Join,
          kSuccess,
          "Unable to write Kerberos keytab for CORP.EXAMPLE.COM: " + reason,
          kJoined + ("4 krb-keytab WriteKey: Error adding key to keytab: " + reason) + "\n"};
}

const Case kCases[] = {
    // No controller to be found, to be reached or to be trusted.
    {"UnknownDomain", [](Scenario& scene) { scene.domain = "nowhere.example.com"; }, Join, kFailure,
     "Unable to connect to NOWHERE.EXAMPLE.COM: Unable to find ldap host for domain",
     "4 discovery GetLDAPHosts: Error in dns search for domain  NOWHERE.EXAMPLE.COM\n"
     "4 ldap-join Connect: Unable to find ldap host for domain NOWHERE.EXAMPLE.COM\n"
     "3 krb-realm Join: Unable to connect to NOWHERE.EXAMPLE.COM: "
     "Unable to find ldap host for domain\n"},
    {"EmptyDomain", [](Scenario& scene) { scene.domain = ""; }, Join, kFailure,
     "Unable to connect to : Unable to find ldap host for domain",
     "4 discovery GetLDAPHosts: Error in dns search for domain  \n"
     "4 ldap-join Connect: Unable to find ldap host for domain \n"
     "3 krb-realm Join: Unable to connect to : Unable to find ldap host for domain\n"},
    {"DeadServersOnly",
     [](Scenario& scene) {
       scene.servers = {{Lab("DEAD_IP"), vdi::LDAP_ENCRYPTION_NONE, ""},
                        {"ldaps://" + Lab("DEAD_IP"), vdi::LDAP_ENCRYPTION_LDAPS, ""}};
     },
     Join, kFailure, "Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server",
     "3 ldap Connect: LDAP starttls failed against ldap://10.53.57.40: "
     "Can't contact LDAP server\n"
     "3 ldap Connect: LDAP bind failed against ldaps://10.53.57.40: Can't contact LDAP server\n"
     "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server\n"},
    Unbound(
        "StartTlsOfAnotherAuthority",
        [](Scenario& scene) {
          Use(scene, Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE, Lab("WRONG_CA"));
        },
        "starttls", "Connect error"),
    Unbound(
        "LdapsOfAnotherAuthority",
        [](Scenario& scene) {
          Use(scene, "ldaps://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_LDAPS, Lab("WRONG_CA"));
        },
        "bind", "Can't contact LDAP server"),
    Unbound(
        "MissingAuthority",
        [](Scenario& scene) {
          Use(scene, Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE, scene.folder / "missing.pem");
        },
        "new tls context", "Can't contact LDAP server"),
    Unbound(
        "NoTls",
        [](Scenario& scene) { Use(scene, "ldap://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE); },
        "bind", "Strong(er) authentication required"),
    Unbound(
        "LdapsOptionsWithoutLdaps",
        [](Scenario& scene) {
          Use(scene, "ldap://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_LDAPS, Lab("CA"));
        },
        "bind", "Strong(er) authentication required"),

    // The controller does not take the administrator for one.
    Unbound(
        "WrongPassword", [](Scenario& scene) { scene.password = "Wrong.Pass.1"; }, "bind",
        "Invalid credentials"),
    Unbound(
        "BareUserName", [](Scenario& scene) { scene.user = "Administrator"; }, "bind",
        "Invalid credentials"),
    Unbound(
        "EmptyUserName", [](Scenario& scene) { scene.user = ""; }, "bind", "Invalid credentials"),
    Unbound(
        "EmptyPassword", [](Scenario& scene) { scene.password = ""; }, "bind",
        "Invalid credentials"),
    NoAccount(
        "Anonymous", [](Scenario& scene) { scene.user = scene.password = ""; },
        "GetAccountObject: LDAP search failed: Operations error\n3 ldap-join "
        "GetAccountObject: Unable to find an account object on any available server",
        "Failed to get account object from host CORP.EXAMPLE.COM: Operations error"),

    // The account cannot be created or changed.
    NoAccount("MayNotAdd", SignInAsAlice, "AddAccountObject: LDAP add failed: Insufficient access",
              "Could not add host to CORP.EXAMPLE.COM: Insufficient access"),
    NoAccount(
        "ControllerOfAnotherDomain",
        [](Scenario& scene) {
          UseTheController(scene);
          scene.domain = "nowhere.example.com";
        },
        "AddAccountObject: LDAP add failed: Constraint violation",
        "Could not add host to NOWHERE.EXAMPLE.COM: Constraint violation"),
    NoAccount(
        "MayNotChange",
        [](Scenario& scene) {
          scene.directory.Add(scene.account);
          SignInAsAlice(scene);
        },
        "SetProperties: LDAP modify failed: Insufficient access",
        "Could not set properties in CORP.EXAMPLE.COM: Insufficient access"),

    // The password cannot be set, or not be proved.
    {"MayNotSetPassword", ForbidPasswords, Join, kFailure,
     "Unable to set machine password for CORP.EXAMPLE.COM: Insufficient access",
     kJoined + std::string("4 ldap-join SetPassword: LDAP modify failed: Insufficient access\n")},
    {"MayNotSetPasswordInATest",
     [](Scenario& scene) {
       UseTheController(scene);
       ForbidPasswords(scene);
     },
     TestPassword, kFailure, "Unable to set password on CORP.EXAMPLE.COM: Insufficient access",
     std::string(kJoined) + kNoPasswordYet +
         "4 ldap-join SetPassword: LDAP modify failed: Insufficient access\n"},
    {"NoKdc", LoseTheKdc, Join, kFailure,
     "Unable to authenticate to CORP.EXAMPLE.COM KDC after setting password: " + kNoKdc,
     kJoined + ByPassword(kNoKdc)},
    {"NoKdcInATest",
     [](Scenario& scene) {
       UseTheController(scene);
       LoseTheKdc(scene);
     },
     TestPassword, kFailure, "Unable to authenticate to CORP.EXAMPLE.COM: " + kNoKdc,
     kJoined + ByPassword(kNoKdc) + ByPassword(kNoKdc)},

    NoKey(
        "KeytabInAMissingFolder",
        [](Scenario& scene) { scene.keytab = scene.folder / "no/keytab"; },
        "Key table file '{KEYTAB}' not found"),
    NoKey(
        "KeytabThatIsAFolder",
        [](Scenario& scene) { std::filesystem::create_directory(scene.keytab); }, "Is a directory"),
    NoKey(
        "CorruptKeytab", [](Scenario& scene) { std::ofstream(scene.keytab) << "no keytab"; },
        "Unsupported key table format version number"),

    // The key is RC4, and the controller's own choice is AES.
    {"DefaultEncryptionTypes",
     [](Scenario& scene) { scene.SetVariable("KRB5_CONFIG", Lab("KRB5_CONFIG_DEFAULT_ENCTYPES")); },
     Join, kFailure,
     "Unable to authenticate to CORP.EXAMPLE.COM: Pre-authentication failed: "
     "No key table entry found for {NAME}$@CORP.EXAMPLE.COM",
     std::string(kJoined) +
         "4 krb-keytab ASAuthenticate: Error authenticating through keytab: "
         "Pre-authentication failed: No key table entry found for {NAME}$@CORP.EXAMPLE.COM\n"},
};

class RefusedJoin : public JoinScenario, public testing::WithParamInterface<Case> {};
INSTANTIATE_TEST_SUITE_P(For, RefusedJoin, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.name; });

TEST_P(RefusedJoin, SaysWhyInTextAndRecordsAndNeedsNoText) {
  const Case& refused = GetParam();
  NameMachine("refused");
  refused.arrange(*this);
  KrbRealm realm = Realm();

  const Outcome told = Run([&](std::string* error) { return refused.act(*this, realm, error); });
  directory.Delete(account);
  std::filesystem::remove(keytab);
  refused.arrange(*this);
  const Outcome untold =
      RunWithoutError([&](std::string* error) { return refused.act(*this, realm, error); });

  EXPECT_EQ(told.status, refused.status);
  EXPECT_EQ(told.error, Log({refused.error}));
  EXPECT_EQ(told.log, Log({refused.log}));
  EXPECT_EQ(untold.status, told.status);
  EXPECT_EQ(untold.log, told.log);
}

}  // namespace
}  // namespace tavrel::tests
