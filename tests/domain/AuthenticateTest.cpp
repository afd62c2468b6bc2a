// Users of the domain who sign in at a joined machine, with the tokens that the system's GSS-API
// library makes for them.
#include <cstdio>
#include <ctime>

#include "GssClient.h"
#include "Interpose.h"
#include "JoinScenario.h"
#include "Records.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using Mechanism = GssClient::Mechanism;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

class DomainAuthentication : public JoinScenario {
 public:
  // Expects `realm` to say that `token` is of `user`, and to leave no record of it.
  void Accepts(KrbRealm& realm, std::vector<char> token, const std::string& user = kAlice) {
    TakeLog();
    EXPECT_EQ(realm.Authenticate(token.data(), static_cast<int>(token.size())), user);
    EXPECT_EQ(TakeLog(), "");
  }

  // Expects `realm` to refuse `token`, and to leave that record of it.
  void Refuses(KrbRealm& realm, std::vector<char> token, const std::string& record) {
    TakeLog();
    EXPECT_EQ(realm.Authenticate(token.data(), static_cast<int>(token.size())), "");
    EXPECT_EQ(TakeLog(), Log({record}));
  }

  static GssClient Alice() {
    return GssClient(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  }

  // The machine's own service, whose principal the join sets.
  std::string Machine() const { return account + "$@" + Lab("REALM"); }
};

struct Service {
  const char* name;
  const char* principal;
  Mechanism mechanism;
};
class AuthenticationAt : public DomainAuthentication,
                         public testing::WithParamInterface<Service> {};
INSTANTIATE_TEST_SUITE_P(
    Service, AuthenticationAt,
    testing::Values(Service{"TheAccount", "SERVICE$@CORP.EXAMPLE.COM", Mechanism::kKerberos},
                    Service{"TheAccountBySpnego", "SERVICE$@CORP.EXAMPLE.COM", Mechanism::kSpnego},
                    Service{"TheHost", "HOST/SERVICE@CORP.EXAMPLE.COM", Mechanism::kKerberos},
                    // the directory takes a web server for the host that it runs on
                    Service{"TheWebServer", "HTTP/service.CORP.EXAMPLE.COM@CORP.EXAMPLE.COM",
                            Mechanism::kSpnego},
                    Service{"TheHostBySpnego", "HOST/service.CORP.EXAMPLE.COM@CORP.EXAMPLE.COM",
                            Mechanism::kSpnego}),
    [](const auto& test) { return test.param.name; });

TEST_P(AuthenticationAt, AcceptsAliceByHerRealmAndName) {
  JoinedRealm realm(*this, "service");
  const std::vector<char> token = Alice().Token(GetParam().principal, GetParam().mechanism);

  Accepts(realm, token);
}

TEST_F(DomainAuthentication, AcceptsAMachineAsAUser) {
  NameMachine("caller");
  directory.Add(account, kEarlierPassword);
  JoinedRealm realm(*this, "called");
  const std::vector<char> token =
      GssClient("CALLER$@CORP.EXAMPLE.COM", kEarlierPassword).Token(Machine());

  Accepts(realm, token, "CORP.EXAMPLE.COM\\CALLER$");
}

TEST_F(DomainAuthentication, AcceptsATicketOfTheEarlierPassword) {
  NameMachine("rolling");
  JoinedEarlier();
  JoinedRealm realm(*this);
  const GssClient early = Alice();
  early.Token(Machine());  // the client keeps its ticket
  PasswordChangedByOthers();
  ASSERT_EQ(Join(realm).status, kSuccess);
  ASSERT_EQ(Entries().size(), 2u);
  const std::vector<char> early_token = early.Token(Machine());
  const std::vector<char> late_token = Alice().Token(Machine());

  Accepts(realm, early_token);
  Accepts(realm, late_token);
}

// Only the ticket is asked, and nobody takes back one that was issued.
TEST_F(DomainAuthentication, AcceptsAUserWhoIsGoneAsLongAsTheTicketLasts) {
  NameMachine("lasting");
  JoinedEarlier();
  JoinedRealm realm(*this);
  Scene("user carol Carol.Pass.1");
  const GssClient carol("carol@CORP.EXAMPLE.COM", "Carol.Pass.1");
  carol.Token(Machine());  // the client keeps its ticket
  Scene("delete carol");
  const std::vector<char> token = carol.Token(Machine());

  Accepts(realm, token, "CORP.EXAMPLE.COM\\carol");
}

TEST_F(DomainAuthentication, NeedsNoMoreThanAJoinTestOnAJoinedMachine) {
  NameMachine("testonly");
  JoinedEarlier();
  KrbRealm realm = Realm();
  ASSERT_EQ(TestJoin(realm).status, kSuccess);
  const std::vector<char> token = Alice().Token(Machine());

  Accepts(realm, token);
}

TEST_F(DomainAuthentication, RefusesAReplay) {
  JoinedRealm realm(*this, "replayed");
  const GssClient alice = Alice();
  const std::vector<char> token = alice.Token(Machine());

  Accepts(realm, token);
  Refuses(realm, token,
          "4 krb-keytab APAuthenticate: Error reading AP request: Request is a replay\n");
  Accepts(realm, alice.Token(Machine()));
}

TEST_F(DomainAuthentication, RefusesATicketForAnotherMachine) {
  NameMachine("another");
  directory.Add(account, kEarlierPassword);
  const std::string another = Machine();
  JoinedRealm realm(*this, "asked");
  const std::vector<char> token = Alice().Token(another);

  Refuses(realm, token,
          "4 krb-keytab APAuthenticate: Error reading AP request: "
          "Request ticket server ANOTHER$@CORP.EXAMPLE.COM not found in keytab "
          "(ticket kvno 1)\n");
}

TEST_F(DomainAuthentication, AcceptsNobodyBeforeAJoin) {
  JoinedRealm joined(*this, "unjoined");
  KrbRealm realm = Realm();
  const std::vector<char> token = Alice().Token(Machine());

  Refuses(realm, token,
          "2 krb-keytab APAuthenticate: Invalid server principal for AP request for user "
          "CORP.EXAMPLE.COM\\alice\n");
}

TEST_F(DomainAuthentication, AcceptsNobodyWhenTheKeytabServesAnotherMachineFirst) {
  JoinedRealm former(*this, "former");
  JoinedRealm realm(*this, "latter");
  ASSERT_THAT(Entries(), ElementsAre("FORMER$@CORP.EXAMPLE.COM version 1 enctype 23",
                                     "LATTER$@CORP.EXAMPLE.COM version 1 enctype 23"));
  const std::vector<char> token = Alice().Token(Machine());

  // Machines of one process have one password, and with it one key: the first entry fits.
  Refuses(realm, token,
          "2 krb-keytab APAuthenticate: Invalid server principal for AP request for user "
          "CORP.EXAMPLE.COM\\alice\n");
}

TEST_F(DomainAuthentication, RefusesATicketThatExpiredByTheMachinesClock) {
  JoinedRealm realm(*this, "expired");
  const std::vector<char> token = Alice().Token(Machine());
  const StandIn ahead(calls::time, [](time_t*) { return calls::time.Real(nullptr) + 24 * 3600; });

  Refuses(realm, token,
          "2 krb-keytab APAuthenticate: Invalid timestamp for AP request for user: "
          "CORP.EXAMPLE.COM\\alice\n");
}

TEST_F(DomainAuthentication, RefusesEveryoneWithoutItsKeytab) {
  JoinedRealm realm(*this, "keyless");
  std::remove(keytab.c_str());
  const std::vector<char> token = Alice().Token(Machine());

  Refuses(realm, token,
          "4 krb-keytab APAuthenticate: Error reading AP request: "
          "Key table file '{KEYTAB}' not found\n");
}

TEST_F(DomainAuthentication, RefusesEveryoneAfterAJoinWithoutAKeytab) {
  NameMachine("nokeytab");
  keytab = "";
  JoinedRealm realm(*this);
  const std::vector<char> token = Alice().Token(Machine());

  Refuses(realm, token,
          "4 krb-keytab APAuthenticate: Error reading AP request: "
          "Key table name malformed\n");
}

}  // namespace
}  // namespace tavrel::tests
