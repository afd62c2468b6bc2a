// By whoever has a token, the keytab, or an account on this machine.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "Attack.h"
#include "ForgedRequest.h"
#include "GssClient.h"
#include "Interpose.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::Ge;
using testing::HasSubstr;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

// A machine that an earlier process joined. Its Kerberos library believes what it is told of the
// time.
class JoinedMachine : public KrbRealm {
 public:
  explicit JoinedMachine(const JoinScenario& scene) : KrbRealm(scene.domain, "", "", scene.keytab) {
    krb_context.SetClientPrincipal(scene.account + "$@" + join_parameters.domain);
  }

  void SetClock(std::time_t now) {
    krb5_set_real_time(krb_context.context, static_cast<krb5_timestamp>(now), 0);
  }
};

class AToken : public Attack {
 public:
  AToken() {
    NameMachine("appliance");
    AddKey(account, kEarlierPassword);
  }

  static void Write(const std::string& path, const std::vector<char>& bytes) {
    std::ofstream(path).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  // That somebody may send who knows the machine's key.
  ForgedTicket Ticket() const {
    ForgedTicket ticket;
    ticket.server = {account + "$"};
    ticket.password = kEarlierPassword;
    return ticket;
  }
};

TEST_F(AToken, MadeWithAStolenKeytabIsAnybodys) {
  NameMachine("robbed");
  keytab = folder / "robbed.keytab";
  JoinedEarlier();
  JoinedRealm realm(*this);
  ForgedTicket ticket = Ticket();
  ticket.client = {"Administrator"};

  const std::string user_name = SignIn(realm, GssToken(ApReq(ticket)));

  EXPECT_EQ(user_name, "CORP.EXAMPLE.COM\\Administrator");
}

// After 300 seconds the Kerberos library may put another token's record in the place of one's. That
// is too soon for a client whose clock is ahead. The second half runs 305 seconds later.
TEST_F(AToken, OfAClientWhoseClockIsFastIsAcceptedAgainWhenOthersHaveSignedIn) {
  const std::string exact = Lab("DIR") + "/exact.token";
  const std::string fast = Lab("DIR") + "/fast.token";
  if (!HasOtherClock()) SetVariable("KRB5RCACHEDIR", folder / "");  // the other process inherits it
  JoinedMachine realm(*this);
  const auto sign_in = [&](const std::string& token) {
    const std::string bytes = FileBytes(token);
    return SignIn(realm, {bytes.begin(), bytes.end()});
  };
  ForgedTicket ticket = Ticket();
  if (!HasOtherClock()) {
    Write(exact, GssToken(ApReq(ticket)));
    ticket.sent_at = static_cast<krb5_timestamp>(std::time(nullptr) + 60);
    Write(fast, GssToken(ApReq(ticket)));
    ASSERT_EQ(sign_in(exact), kAlice);
    ASSERT_EQ(sign_in(fast), kAlice);
    ASSERT_EQ(sign_in(fast), "");
  }
  if (!InProcessWithClock("+305s")) return;

  std::string exact_again, fast_again;
  constexpr int kMost = 20000;  // a thousand is usual
  for (int others = 1; others <= kMost && fast_again.empty(); ++others) {
    ASSERT_EQ(SignIn(realm, GssToken(ApReq(ticket))), kAlice);
    if (others % 50 != 0) continue;
    exact_again += sign_in(exact);
    fast_again = sign_in(fast);
  }

  EXPECT_EQ(exact_again, "");
  EXPECT_EQ(fast_again, kAlice);
}

// A service with a private /tmp, or with another TMPDIR, has a cache of its own; it is empty after
// a restart.
TEST_F(AToken, IsAcceptedOnceForEveryFolderOfTemporaryFiles) {
  unsetenv("KRB5RCACHEDIR");
  const ScratchFolder one, other;
  const std::vector<char> token = GssToken(ApReq(Ticket()));
  const auto sign_in = [&](const ScratchFolder& temporary) {
    const ScopedVariable place("TMPDIR", temporary / "");
    JoinedMachine realm(*this);
    return SignIn(realm, token);
  };

  const std::string first = sign_in(one);
  const std::string second = sign_in(one);
  const std::string elsewhere = sign_in(other);
  Shell("rm '" + (one / "") + "'/*");
  const std::string after_a_restart = sign_in(one);

  EXPECT_EQ(first, kAlice);
  EXPECT_EQ(second, "");
  EXPECT_EQ(elsewhere, kAlice);
  EXPECT_EQ(after_a_restart, kAlice);
}

// The cache's name can be guessed, and its folder is everybody's unless KRB5RCACHEDIR names
// another.
TEST_F(AToken, IsRefusedWhereAnotherUserMadeTheReplayCacheFirst) {
  unsetenv("KRB5RCACHEDIR");
  const ScratchFolder temporary;
  SetVariable("TMPDIR", temporary / "");
  const std::string cache = temporary / ("krb5_" + std::to_string(geteuid()) + ".rcache2");
  std::ofstream(cache) << "";
  constexpr uid_t kAnother = 65534;
  ASSERT_EQ(chown(cache.c_str(), kAnother, kAnother), 0);
  JoinedMachine realm(*this);
  TakeLog();

  const std::string user_name = SignIn(realm, GssToken(ApReq(Ticket())));

  EXPECT_EQ(user_name, "");
  EXPECT_THAT(TakeLog(), HasSubstr("4 krb-keytab APAuthenticate: Error reading AP request: "));
}

// The name of the service, which no key protects, is quoted in a record of level 4.
TEST_F(AToken, WithoutATicketFillsTheLogWithMoreThanItsSize) {
  JoinedMachine realm(*this);
  ForgedTicket ticket = Ticket();
  ticket.server = {std::string(60000, '/')};
  ticket.password = "Wrong.Pass.1";
  const std::vector<char> named = GssToken(ApReq(ticket));
  TakeLog();

  SignIn(realm, named);
  const std::string error = TakeLog();

  const std::size_t at = error.find("4 krb-keytab");
  ASSERT_NE(at, std::string::npos);
  EXPECT_THAT(error.size() - at, Ge(named.size() * 19 / 10));
}

// The Kerberos library keeps times in 32 bits, which the realm takes for signed.
TEST_F(AToken, OfATicketThatEndsAfterJanuary2038IsRefused) {
  constexpr std::time_t kLast = 0x7fffffff;
  constexpr std::time_t kNow = kLast - 3600;
  const auto sign_in = [&](std::time_t end) {
    const StandIn clock(calls::time, [&](std::time_t*) { return kNow; });
    JoinedMachine realm(*this);
    realm.SetClock(kNow);
    ForgedTicket ticket = Ticket();
    ticket.authtime = ticket.starttime = static_cast<krb5_timestamp>(kNow);
    ticket.sent_at = ticket.starttime;
    ticket.endtime = static_cast<krb5_timestamp>(end);
    return SignIn(realm, GssToken(ApReq(ticket)));
  };

  const std::string ends_before = sign_in(kLast);
  const std::string ends_after = sign_in(kLast + 1);

  EXPECT_EQ(ends_before, kAlice);
  EXPECT_EQ(ends_after, "");
}

}  // namespace
}  // namespace tavrel::tests
