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

Rows RequestRows() {
  return {
      {"krb5_auth_con_init",
       Expected{"",
                "untouched",
                {"4 krb-keytab APAuthenticate: Error initializing auth context: <why>"}},
       {}},
      {"krb5_rd_req",
       Expected{"", "untouched", {"4 krb-keytab APAuthenticate: Error reading AP request: <why>"}},
       {}},
      {"krb5_auth_con_free", {}, {}}};
}

}  // namespace

std::vector<Scenario> AuthenticateScenarios() {
  return {
      {"AuthenticateAccepted",
       Make<Accepted>,
       {"<domain>\\alice", "untouched", {}},
       kUnchanged,
       RequestRows()},
      {"AuthenticateGarbage",
       Make<Garbage>,
       {"",
        "untouched",
        {"4 krb-keytab APAuthenticate: Error reading AP request: ASN.1 encoding ended "
         "unexpectedly"}},
       kUnchanged,
       RequestRows() +
           Rows{{"krb5_get_error_message",
                 Expected{
                     "", "untouched", {"4 krb-keytab APAuthenticate: Error reading AP request: "}},
                 {}}}},
      {"AuthenticateExpired",
       Make<Expired>,
       {"",
        "untouched",
        {"2 krb-keytab APAuthenticate: Invalid timestamp for AP request for user: "
         "<domain>\\alice"}},
       kUnchanged,
       RequestRows()},
      {"AuthenticateToAnother",
       Make<ToAnother>,
       {"",
        "untouched",
        {"2 krb-keytab APAuthenticate: Invalid server principal for AP request for user "
         "<domain>\\alice"}},
       kUnchanged,
       RequestRows()}};
}

}  // namespace tavrel::tests
