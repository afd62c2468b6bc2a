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
  std::vector<std::string_view> log;
};

int Join(Scenario&, KrbRealm& realm, std::string* error) {
  return realm.Join(error);
}
int TestPassword(Scenario& scene, KrbRealm& realm, std::string* error) {
  return realm.TestJoin(scene.Parameters(), error);
}
int TestJoin(Scenario& scene, KrbRealm& realm, std::string* error) {
  return realm.TestJoin(scene.domain, scene.user, scene.password, error);
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

constexpr char kConnecting[] = "1 ldap Connect: Connecting to host: {URL}\n";

const Case kCases[] = {
    // No controller to be found, to be reached or to be trusted.
    {"UnknownDomain",
     [](Scenario& scene) { scene.domain = "nowhere.example.com"; },
     Join,
     kFailure,
     "Unable to connect to NOWHERE.EXAMPLE.COM: Unable to find ldap host for domain",
     {"1 discovery GetLDAPHosts: Discovering dns hosts for domain NOWHERE.EXAMPLE.COM\n"
      "4 discovery GetLDAPHosts: Error in dns search for domain  NOWHERE.EXAMPLE.COM\n"
      "4 ldap-join Connect: Unable to find ldap host for domain NOWHERE.EXAMPLE.COM\n"
      "3 krb-realm Join: Unable to connect to NOWHERE.EXAMPLE.COM: "
      "Unable to find ldap host for domain\n"}},
    {"UnknownDomainTested",
     [](Scenario& scene) { scene.domain = "nowhere.example.com"; },
     TestJoin,
     kFailure,
     "Unable to connect to NOWHERE.EXAMPLE.COM: Unable to find ldap host for domain",
     {"4 krb-keytab HasKey: Error starting keytab sequence: Key table file '{KEYTAB}' not found\n"
      "1 krb-realm TestJoin: Found key for principal, testing with password\n"
      "1 discovery GetLDAPHosts: Discovering dns hosts for domain NOWHERE.EXAMPLE.COM\n"
      "4 discovery GetLDAPHosts: Error in dns search for domain  NOWHERE.EXAMPLE.COM\n"
      "4 ldap-join Connect: Unable to find ldap host for domain NOWHERE.EXAMPLE.COM\n"
      "4 krb-realm TestJoin: Unable to connect to NOWHERE.EXAMPLE.COM: "
      "Unable to find ldap host for domain\n"}},
    {"EmptyDomain",
     [](Scenario& scene) { scene.domain = ""; },
     Join,
     kFailure,
     "Unable to connect to : Unable to find ldap host for domain",
     {"1 discovery GetLDAPHosts: Discovering dns hosts for domain \n"
      "4 discovery GetLDAPHosts: Error in dns search for domain  \n"
      "4 ldap-join Connect: Unable to find ldap host for domain \n"
      "3 krb-realm Join: Unable to connect to : Unable to find ldap host for domain\n"}},
    {"DeadServersOnly",
     [](Scenario& scene) {
       scene.servers = {{Lab("DEAD_IP"), vdi::LDAP_ENCRYPTION_NONE, ""},
                        {"ldaps://" + Lab("DEAD_IP"), vdi::LDAP_ENCRYPTION_LDAPS, ""}};
     },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server",
     {"1 ldap Connect: Connecting to host: ldap://10.53.57.40\n"
      "3 ldap Connect: LDAP starttls failed against ldap://10.53.57.40: "
      "Can't contact LDAP server\n"
      "1 ldap Connect: Connecting to host: ldaps://10.53.57.40\n"
      "3 ldap Connect: LDAP bind failed against ldaps://10.53.57.40: Can't contact LDAP server\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server\n"}},
    {"StartTlsOfAnotherAuthority",
     [](Scenario& scene) {
       Use(scene, Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE, Lab("WRONG_CA"));
     },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Connect error",
     {kConnecting,
      "3 ldap Connect: LDAP starttls failed against {URL}: Connect error\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Connect error\n"}},
    {"LdapsOfAnotherAuthority",
     [](Scenario& scene) {
       Use(scene, "ldaps://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_LDAPS, Lab("WRONG_CA"));
     },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server",
     {kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: Can't contact LDAP server\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server\n"}},
    {"MissingAuthority",
     [](Scenario& scene) {
       Use(scene, Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE, scene.folder / "missing.pem");
     },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server",
     {kConnecting,
      "3 ldap Connect: LDAP new tls context failed against {URL}: Can't contact LDAP server\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Can't contact LDAP server\n"}},
    {"NoTls",
     [](Scenario& scene) { Use(scene, "ldap://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_NONE); },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Strong(er) authentication required",
     {kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: Strong(er) authentication required\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: "
      "Strong(er) authentication required\n"}},
    {"LdapsOptionsWithoutLdaps",
     [](Scenario& scene) {
       Use(scene, "ldap://" + Lab("DC_NAME"), vdi::LDAP_ENCRYPTION_LDAPS, Lab("CA"));
     },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Strong(er) authentication required",
     {kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: Strong(er) authentication required\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: "
      "Strong(er) authentication required\n"}},

    // The controller does not take the administrator for one.
    {"WrongPassword",
     [](Scenario& scene) { scene.password = "Wrong.Pass.1"; },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Invalid credentials",
     {kDiscovered, kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: "
      "Invalid credentials\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Invalid credentials\n"}},
    {"WrongPasswordTested",
     [](Scenario& scene) {
       UseTheController(scene);
       scene.password = "Wrong.Pass.1";
     },
     TestPassword,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Invalid credentials",
     {kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: Invalid credentials\n"
      "4 krb-realm TestJoin: Unable to connect to CORP.EXAMPLE.COM: Invalid credentials\n"}},
    {"BareUserName",
     [](Scenario& scene) { scene.user = "Administrator"; },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Invalid credentials",
     {kDiscovered, kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: "
      "Invalid credentials\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Invalid credentials\n"}},
    {"EmptyUserName",
     [](Scenario& scene) { scene.user = ""; },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Invalid credentials",
     {kDiscovered, kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: "
      "Invalid credentials\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Invalid credentials\n"}},
    {"EmptyPassword",
     [](Scenario& scene) { scene.password = ""; },
     Join,
     kFailure,
     "Unable to connect to CORP.EXAMPLE.COM: Invalid credentials",
     {kDiscovered, kConnecting,
      "3 ldap Connect: LDAP bind failed against {URL}: "
      "Invalid credentials\n"
      "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: Invalid credentials\n"}},
    {"Anonymous",
     [](Scenario& scene) { scene.user = scene.password = ""; },
     Join,
     kFailure,
     "Failed to get account object from host CORP.EXAMPLE.COM: Operations error",
     {kDiscovered, kBound,
      "1 ldap-join GetAccountObject: Getting account object from {DC}\n"
      "4 ldap-join GetAccountObject: LDAP search failed: Operations error\n"
      "3 ldap-join GetAccountObject: Unable to find an account object on any available server\n"
      "4 krb-realm Join: Failed to get account object from host CORP.EXAMPLE.COM: "
      "Operations error\n"}},

    // The domain makes no principal. Only the join test that is given a domain repeats it as given.
    {"Principal",
     [](Scenario& scene) {
       UseTheController(scene);
       scene.domain = "corp@example.com";
     },
     Join,
     kFailure,
     kUntouched,
     {kBound,
      "4 krb-param SetClientPrincipal: Error parsing principal name: "
      "Malformed representation of principal\n"
      "3 krb-realm Join: Error initializing kerberos principal to CORP@EXAMPLE.COM\n"}},
    {"PrincipalOfAPasswordTest",
     [](Scenario& scene) {
       UseTheController(scene);
       scene.domain = "corp@example.com";
     },
     TestPassword,
     kFailure,
     kUntouched,
     {kBound,
      "4 krb-param SetClientPrincipal: Error parsing principal name: "
      "Malformed representation of principal\n"
      "4 krb-realm TestJoin: Error initializing kerberos parameters to CORP@EXAMPLE.COM\n"}},
    {"PrincipalOfATest",
     [](Scenario& scene) { scene.domain = "corp@example.com"; },
     TestJoin,
     kFailure,
     kUntouched,
     {"4 krb-param SetClientPrincipal: Error parsing principal name: "
      "Malformed representation of principal\n"
      "4 krb-realm TestJoin: Error initializing kerberos parameters to corp@example.com\n"}},

    // The account cannot be looked up, created or changed.
    {"MayNotAdd",
     SignInAsAlice,
     Join,
     kFailure,
     "Could not add host to CORP.EXAMPLE.COM: Insufficient access",
     {kDiscovered, kBound, kAbsent,
      "1 krb-realm Join: Adding to CORP.EXAMPLE.COM\n"
      "4 ldap-join AddAccountObject: LDAP add failed: Insufficient access\n"
      "4 krb-realm Join: Could not add host to CORP.EXAMPLE.COM: Insufficient access\n"}},
    {"MayNotAddInATest",
     [](Scenario& scene) {
       UseTheController(scene);
       SignInAsAlice(scene);
     },
     TestPassword,
     kFailure,
     "Could not add host to CORP.EXAMPLE.COM: Insufficient access",
     {kBound, kAbsent,
      "1 krb-realm Join: Adding to CORP.EXAMPLE.COM\n"
      "4 ldap-join AddAccountObject: LDAP add failed: Insufficient access\n"
      "4 krb-realm Join: Could not add host to CORP.EXAMPLE.COM: Insufficient access\n"}},
    {"ControllerOfAnotherDomain",
     [](Scenario& scene) {
       UseTheController(scene);
       scene.domain = "nowhere.example.com";
     },
     Join,
     kFailure,
     "Could not add host to NOWHERE.EXAMPLE.COM: Constraint violation",
     {kBound, kAbsent,
      "1 krb-realm Join: Adding to NOWHERE.EXAMPLE.COM\n"
      "4 ldap-join AddAccountObject: LDAP add failed: Constraint violation\n"
      "4 krb-realm Join: Could not add host to NOWHERE.EXAMPLE.COM: Constraint violation\n"}},
    {"MayNotChange",
     [](Scenario& scene) {
       scene.directory.Add(scene.account);
       SignInAsAlice(scene);
     },
     Join,
     kFailure,
     "Could not set properties in CORP.EXAMPLE.COM: Insufficient access",
     {kDiscovered, kBound, kPresent,
      "1 krb-realm Join: Machine already in CORP.EXAMPLE.COM\n"
      "1 ldap-join SetProperties: Setting user account control: 4096\n"
      "4 ldap-join SetProperties: LDAP modify failed: Insufficient access\n"
      "4 krb-realm Join: Could not set properties in CORP.EXAMPLE.COM: Insufficient access\n"}},

    // The password cannot be set, or not be proved.
    {"MayNotSetPassword",
     ForbidPasswords,
     Join,
     kFailure,
     "Unable to set machine password for CORP.EXAMPLE.COM: Insufficient access",
     {kDiscovered, kBound, kPresent, kAlreadyIn, kNoKeytab, kPresent,
      "4 ldap-join SetPassword: LDAP modify failed: Insufficient access\n"}},
    {"MayNotSetPasswordInATest",
     [](Scenario& scene) {
       UseTheController(scene);
       ForbidPasswords(scene);
     },
     TestPassword,
     kFailure,
     "Unable to set password on CORP.EXAMPLE.COM: Insufficient access",
     {kBound, kPresent, kAlreadyIn, kNoPasswordYet, kPresent,
      "4 ldap-join SetPassword: LDAP modify failed: Insufficient access\n"}},
    {"NoKdc",
     LoseTheKdc,
     Join,
     kFailure,
     "Unable to authenticate to CORP.EXAMPLE.COM KDC after setting password: "
     "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'",
     {kDiscovered, kBound, kAbsent, kAdded, kNoKeytab, kPresent,
      "4 krb-keytab ASAuthenticate: Error authenticating through password: "
      "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'\n"}},
    {"NoKdcInATest",
     [](Scenario& scene) {
       UseTheController(scene);
       LoseTheKdc(scene);
     },
     TestPassword,
     kFailure,
     "Unable to authenticate to CORP.EXAMPLE.COM: "
     "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'",
     {kBound, kAbsent, kAdded,
      "4 krb-keytab ASAuthenticate: Error authenticating through password: "
      "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'\n",
      kPresent,
      "4 krb-keytab ASAuthenticate: Error authenticating through password: "
      "Cannot contact any KDC for realm 'CORP.EXAMPLE.COM'\n"}},

    // The keytab cannot be written, which is no failure of the join.
    {"KeytabInAMissingFolder",
     [](Scenario& scene) { scene.keytab = scene.folder / "no/keytab"; },
     Join,
     kSuccess,
     "Unable to write Kerberos keytab for CORP.EXAMPLE.COM: Key table file '{KEYTAB}' not found",
     {kDiscovered, kBound, kAbsent, kAdded, kNoKeytab, kPresent, kTicket,
      "4 krb-keytab WriteKey: Error adding key to keytab: Key table file '{KEYTAB}' not found\n"}},
    {"KeytabThatIsAFolder",
     [](Scenario& scene) { std::filesystem::create_directory(scene.keytab); },
     Join,
     kSuccess,
     "Unable to write Kerberos keytab for CORP.EXAMPLE.COM: Is a directory",
     {kDiscovered, kBound, kAbsent, kAdded, kNoKeytab, kPresent, kTicket,
      "4 krb-keytab WriteKey: Error adding key to keytab: Is a directory\n"}},
    {"CorruptKeytab",
     [](Scenario& scene) { std::ofstream(scene.keytab) << "no keytab"; },
     Join,
     kSuccess,
     "Unable to write Kerberos keytab for CORP.EXAMPLE.COM: "
     "Unsupported key table format version number",
     {kDiscovered, kBound, kAbsent, kAdded, kNoKeytab, kPresent, kTicket,
      "4 krb-keytab WriteKey: Error adding key to keytab: "
      "Unsupported key table format version number\n"}},
    {"NoKeytab",
     [](Scenario& scene) { scene.keytab = ""; },
     Join,
     kSuccess,
     "Unable to write Kerberos keytab for CORP.EXAMPLE.COM: Key table name malformed",
     {kDiscovered, kBound, kAbsent, kAdded,
      "4 krb-keytab ASAuthenticate: Invalid keytab file name.\n", kPresent, kTicket,
      "4 krb-keytab WriteKey: Error adding key to keytab: Key table name malformed\n"}},

    // The key is RC4, and the controller's own choice is AES.
    {"DefaultEncryptionTypes",
     [](Scenario& scene) { scene.SetVariable("KRB5_CONFIG", Lab("KRB5_CONFIG_DEFAULT_ENCTYPES")); },
     Join,
     kFailure,
     "Unable to authenticate to CORP.EXAMPLE.COM: Pre-authentication failed: "
     "No key table entry found for {NAME}$@CORP.EXAMPLE.COM",
     {kDiscovered, kBound, kAbsent, kAdded, kNoKeytab, kPresent, kTicket, kKey1,
      "4 krb-keytab ASAuthenticate: Error authenticating through keytab: "
      "Pre-authentication failed: No key table entry found for {NAME}$@CORP.EXAMPLE.COM\n"}},
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
  EXPECT_EQ(told.log, Log(refused.log));
  EXPECT_EQ(untold.status, told.status);
  EXPECT_EQ(untold.log, told.log);
}

}  // namespace
}  // namespace tavrel::tests
