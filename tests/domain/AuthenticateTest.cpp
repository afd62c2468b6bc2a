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
  struct Answer {
    std::string user;
    std::string log;
  };

  Answer Authenticate(KrbRealm& realm, std::vector<char> token) {
    TakeLog();
    const std::string answered = realm.Authenticate(token.data(), static_cast<int>(token.size()));
    return {answered, TakeLog()};
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
  NameMachine("service");
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const std::vector<char> token = Alice().Token(GetParam().principal, GetParam().mechanism);

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "CORP.EXAMPLE.COM\\alice");
  EXPECT_EQ(answer.log, "");
}

TEST_F(DomainAuthentication, AcceptsAMachineAsAUser) {
  NameMachine("caller");
  directory.Add(account, kEarlierPassword);
  NameMachine("called");
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const std::vector<char> token =
      GssClient("CALLER$@CORP.EXAMPLE.COM", kEarlierPassword).Token(Machine());

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "CORP.EXAMPLE.COM\\CALLER$");
  EXPECT_EQ(answer.log, "");
}

TEST_F(DomainAuthentication, AcceptsATicketOfTheEarlierPassword) {
  NameMachine("rolling");
  JoinedEarlier();
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const GssClient early = Alice();
  early.Token(Machine());  // the client keeps its ticket
  PasswordChangedByOthers();
  ASSERT_EQ(Join(realm).status, kSuccess);
  ASSERT_EQ(Entries().size(), 2u);
  const std::vector<char> early_token = early.Token(Machine());
  const std::vector<char> late_token = Alice().Token(Machine());

  const Answer early_answer = Authenticate(realm, early_token);
  const Answer late_answer = Authenticate(realm, late_token);

  EXPECT_EQ(early_answer.user, kAlice);
  EXPECT_EQ(early_answer.log, "");
  EXPECT_EQ(late_answer.user, kAlice);
  EXPECT_EQ(late_answer.log, "");
}

// Only the ticket is asked, and nobody takes back one that was issued.
TEST_F(DomainAuthentication, AcceptsAUserWhoIsGoneAsLongAsTheTicketLasts) {
  NameMachine("lasting");
  JoinedEarlier();
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  Scene("user carol Carol.Pass.1");
  const GssClient carol("carol@CORP.EXAMPLE.COM", "Carol.Pass.1");
  carol.Token(Machine());  // the client keeps its ticket
  Scene("delete carol");
  const std::vector<char> token = carol.Token(Machine());

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "CORP.EXAMPLE.COM\\carol");
}

TEST_F(DomainAuthentication, NeedsNoMoreThanAJoinTestOnAJoinedMachine) {
  NameMachine("testonly");
  JoinedEarlier();
  KrbRealm realm = Realm();
  ASSERT_EQ(TestJoin(realm).status, kSuccess);
  const std::vector<char> token = Alice().Token(Machine());

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, kAlice);
}

TEST_F(DomainAuthentication, RefusesAReplay) {
  NameMachine("replayed");
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const GssClient alice = Alice();
  const std::vector<char> token = alice.Token(Machine());
  ASSERT_EQ(Authenticate(realm, token).user, kAlice);

  const Answer answer = Authenticate(realm, token);
  const Answer fresh = Authenticate(realm, alice.Token(Machine()));

  EXPECT_EQ(answer.user, "");
  EXPECT_EQ(answer.log, Log({"4 krb-keytab APAuthenticate: Error reading AP request: "
                             "Request is a replay\n"}));
  EXPECT_EQ(fresh.user, kAlice);
}

TEST_F(DomainAuthentication, RefusesATicketForAnotherMachine) {
  NameMachine("another");
  directory.Add(account, kEarlierPassword);
  const std::string another = Machine();
  NameMachine("asked");
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const std::vector<char> token = Alice().Token(another);

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "");
  EXPECT_EQ(answer.log, Log({"4 krb-keytab APAuthenticate: Error reading AP request: "
                             "Request ticket server ANOTHER$@CORP.EXAMPLE.COM not found in keytab "
                             "(ticket kvno 1)\n"}));
}

TEST_F(DomainAuthentication, AcceptsNobodyBeforeAJoin) {
  NameMachine("unjoined");
  KrbRealm joined = Realm();
  ASSERT_EQ(Join(joined).status, kSuccess);
  KrbRealm realm = Realm();
  const std::vector<char> token = Alice().Token(Machine());

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "");
  EXPECT_EQ(answer.log,
            Log({"2 krb-keytab APAuthenticate: Invalid server principal for AP request for user "
                 "CORP.EXAMPLE.COM\\alice\n"}));
}

TEST_F(DomainAuthentication, AcceptsNobodyWhenTheKeytabServesAnotherMachineFirst) {
  NameMachine("former");
  KrbRealm former = Realm();
  ASSERT_EQ(Join(former).status, kSuccess);
  NameMachine("latter");
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  ASSERT_THAT(Entries(), ElementsAre("FORMER$@CORP.EXAMPLE.COM version 1 enctype 23",
                                     "LATTER$@CORP.EXAMPLE.COM version 1 enctype 23"));
  const std::vector<char> token = Alice().Token(Machine());

  const Answer answer = Authenticate(realm, token);

  // Machines of one process have one password, and with it one key: the first entry fits.
  EXPECT_EQ(answer.user, "");
  EXPECT_EQ(answer.log,
            Log({"2 krb-keytab APAuthenticate: Invalid server principal for AP request for user "
                 "CORP.EXAMPLE.COM\\alice\n"}));
}

TEST_F(DomainAuthentication, RefusesATicketThatExpiredByTheMachinesClock) {
  NameMachine("expired");
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const std::vector<char> token = Alice().Token(Machine());
  const StandIn ahead(calls::time, [](time_t*) { return calls::time.Real(nullptr) + 24 * 3600; });

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "");
  EXPECT_EQ(answer.log,
            Log({"2 krb-keytab APAuthenticate: Invalid timestamp for AP request for user: "
                 "CORP.EXAMPLE.COM\\alice\n"}));
}

TEST_F(DomainAuthentication, RefusesEveryoneWithoutItsKeytab) {
  NameMachine("keyless");
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  std::remove(keytab.c_str());
  const std::vector<char> token = Alice().Token(Machine());

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "");
  EXPECT_EQ(answer.log, Log({"4 krb-keytab APAuthenticate: Error reading AP request: "
                             "Key table file '{KEYTAB}' not found\n"}));
}

TEST_F(DomainAuthentication, RefusesEveryoneAfterAJoinWithoutAKeytab) {
  NameMachine("nokeytab");
  keytab = "";
  KrbRealm realm = Realm();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const std::vector<char> token = Alice().Token(Machine());

  const Answer answer = Authenticate(realm, token);

  EXPECT_EQ(answer.user, "");
  EXPECT_EQ(answer.log, Log({"4 krb-keytab APAuthenticate: Error reading AP request: "
                             "Key table name malformed\n"}));
}

}  // namespace
}  // namespace tavrel::tests
