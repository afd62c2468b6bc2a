// Tokens, accepted and refused.
#include "Scenarios.h"

namespace tavrel::tests {
namespace {

class Authentication : public RealmCase {
 public:
  Authentication() {
    Construct();
    realm->Join(nullptr);
  }

  std::string Act(std::string*) override { return Authenticate(std::move(token_)); }

  std::string Again() override { return JoinsAndAuthenticates(); }

 protected:
  std::vector<char> token_;
};

class Accepted : public Authentication {
 public:
  Accepted() { token_ = Token(); }
};

class Garbage : public Authentication {
 public:
  Garbage() { token_ = GssToken({'n', 'o', 'n', 'e'}); }
};

class Expired : public Authentication {
 public:
  Expired() {
    ForgedTicket ticket = Ticket();
    ticket.authtime -= 2000;
    ticket.starttime = ticket.authtime;
    ticket.endtime = ticket.authtime + 1000;
    token_ = GssToken(ApReq(ticket));
  }
};

// For another principal that has a key in the keytab.
class ToAnother : public Authentication {
 public:
  ToAnother() {
    AppendKey(world.keytab, {"other@" + world.far_side.domain, 1, Rc4Key("Other.1")});
    ForgedTicket ticket = Ticket();
    ticket.server = {"other"};
    ticket.password = "Other.1";
    token_ = GssToken(ApReq(ticket));
  }
};

}  // namespace

std::vector<Scenario> AuthenticateScenarios() {
  const Rows rows =
      Each({"krb5_auth_con_init", "krb5_rd_req"}, "") + Rows{{"krb5_auth_con_free", {}, {}}};
  const Rows refused = rows + Rows{{"krb5_get_error_message", "", {}}};
  return {{"AuthenticateAccepted", Make<Accepted>, "<domain>\\alice", kUnchanged, rows},
          {"AuthenticateGarbage", Make<Garbage>, "", kUnchanged, refused},
          {"AuthenticateExpired", Make<Expired>, "", kUnchanged, rows},
          {"AuthenticateToAnother", Make<ToAnother>, "", kUnchanged, rows}};
}

}  // namespace tavrel::tests
