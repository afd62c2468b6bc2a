// Joins, and tests of joins.
#include "Scenarios.h"

namespace tavrel::tests {
namespace {

class JoinCase : public RealmCase {
 public:
  JoinCase() { Construct(); }

  std::string Act(std::string* error) override { return std::to_string(realm->Join(error)); }

  std::string Again() override { return JoinsAndAuthenticates(); }

  std::string Password() override { return MachinePassword(); }
};

// A machine that nobody knows yet.
class FirstJoin : public JoinCase {};

// A machine that is a member already.
class RepeatedJoin : public JoinCase {
 public:
  RepeatedJoin() { realm->Join(nullptr); }
};

// A machine whose account was given another password meanwhile.
class Rejoin : public JoinCase {
 public:
  Rejoin() {
    AddAccount();
    AppendKey(world.keytab, {world.principal, 2, Rc4Key("Old.2")});
    AppendKey(world.keytab, {"other$@" + world.far_side.domain, 1, Rc4Key("Other.1")});
    world.secrets.insert(world.secrets.end(), {"Old.2", "Other.1"});
  }
};

template <typename Base>
class Test : public Base {
 public:
  std::string Act(std::string* error) override {
    World& world = this->world;
    return std::to_string(this->realm->TestJoin(world.domain, world.far_side.administrator,
                                                world.far_side.administrator_password, error));
  }
};

// A member whose keytab has its key.
class TestWithKeytab : public Test<RepeatedJoin> {
 public:
  std::string Act(std::string* error) override {
    const std::string status = Test<RepeatedJoin>::Act(error);
    return status == "0" && world.far_side.by_password ? "0, by password" : status;
  }
};

// A machine with an account, but without a key; the keytab is not written.
class TestWithPassword : public Test<JoinCase> {
 public:
  TestWithPassword() {
    AddAccount();
    AppendKey(world.keytab, {"other$@" + world.far_side.domain, 1, Rc4Key("Other.1")});
    world.secrets.emplace_back("Other.1");
  }

  std::string Again() override {
    std::string error;
    const std::string status = Act(&error);
    return status == "0" ? JoinsAndAuthenticates() : "testing gives " + status + ", " + error;
  }

  std::string Password() override { return ""; }
};

// What each of the calls to come gives, in turn; when all later ones fail as well, `then`.
Rows InTurn(const std::string& call, const std::vector<std::string>& results,
            const std::string& then) {
  Rows rows;
  for (std::size_t i = 0; i < results.size(); ++i)
    rows.push_back({call + "#" + std::to_string(i + 1), results[i], then});
  return rows;
}

// The machine's names, which are asked for again and again. Without SHA1() the digest of a long one
// comes from elsewhere; with all later calls it is as if the name could not be had.
Rows NameRows(const std::vector<std::string>& results) {
  return InTurn("gethostname", results, "3") + Rows{{"SHA1", {}, "3"}};
}

Rows ConnectRows() {
  return Each({"res_search", "ns_initparse", "ns_parserr", "ns_name_uncompress", "ldap_initialize",
               "ldap_set_option(PROTOCOL_VERSION)", "ldap_set_option(X_TLS_REQUIRE_CERT)",
               "ldap_set_option(X_TLS_NEWCTX)", "ldap_set_option(REFERRALS)",
               "ldap_set_option(NETWORK_TIMEOUT)", "ldap_start_tls_s", "ldap_sasl_bind_s",
               "krb5_parse_name", "ldap_modify_ext_s(userAccountControl)"},
              "3") +
         Rows{{"ldap_unbind_ext", {}, {}}};
}

// The first lookup, of an account that is there. One that is not seen is added, which the directory
// refuses.
const Rows kAccountRows = {{"ldap_search_ext_s#1", "3", {}},
                           {"ldap_first_entry#1", "3", {}},
                           {"ldap_get_values_len#1", "0", "3"},  // the flags are guessed
                           {"ldap_next_entry#1", {}, "3"}};

// The same when it has to be made.
const Rows kNewAccountRows = {{"ldap_search_ext_s#1 LDAP_NO_SUCH_OBJECT", {}, "3"},
                              {"ldap_search_ext_s#1 LDAP_NO_SUCH_OBJECT after", {}, "3"},
                              {"ldap_search_ext_s#1", "3", {}},
                              {"ldap_add_ext_s", "3", {}}};

// From the second lookup, whose handle is what counts, to the password's being set.
const Rows kPasswordRows = {{"ldap_search_ext_s LDAP_NO_SUCH_OBJECT", "0", "3"},
                            {"ldap_search_ext_s LDAP_NO_SUCH_OBJECT after", "0", "3"},
                            {"ldap_search_ext_s", "3", {}},
                            {"ldap_first_entry", "0", "3"},
                            {"ldap_get_values_len", "0", "3"},
                            {"ldap_next_entry", {}, "3"},
                            {"malloc", "3", {}},
                            {"ldap_modify_ext_s(unicodePwd)", "3", {}}};

// The making of the password while it is set. Its first file is the device.
const Rows kGenerationRows =
    Each({"open#1", "BIO_new", "BIO_write", "BIO_ctrl(GET_BUF_MEM)"}, "3") +
    Each({"getrandom", "read", "close#1", "BIO_ctrl(FLUSH)"}, {}, "3");

// The failures of one AS exchange. One that is not a skew gives `failed`.
Rows ExchangeRows(const std::string& call, const std::string& failed, const Result& then = {}) {
  return {{call + " KRB5KRB_AP_ERR_SKEW", "2", {}},
          {call + " KRB5_KDCREP_SKEW", "2", {}},
          {call, failed, then}};
}

// What a failed proof of the keys in the keytab leads to: a new password.
Rows FirstProofRows() {
  return Rows{{"krb5_kt_have_content#1", "0", "3"}} +
         ExchangeRows("krb5_get_init_creds_keytab#1", "0", "3");
}

// From the password's exchange to the end of a join that writes a key. What is printed of the
// keytab changes nothing; a join that cannot write it is one that works.
Rows KeyRows(const char* transfer) {
  return ExchangeRows("krb5_get_init_creds_password", "3") + LookRows(transfer, "0") +
         Each({"krb5_principal2salt", "krb5_c_string_to_key", "krb5_kt_add_entry"}, "0") +
         Rows{{"krb5_kt_start_seq_get#2", {}, "0"}, {"krb5_kt_start_seq_get#3", "0", "3"},
              {"krb5_kt_next_entry", {}, "3"},      {"krb5_free_keytab_entry_contents", {}, "3"},
              {"krb5_kt_end_seq_get", {}, "3"},     {"krb5_kt_have_content#2", "3", {}}} +
         ExchangeRows("krb5_get_init_creds_keytab", "3");
}

Scenario FirstJoinScenario() {
  const Rows keytab = {{"krb5_kt_have_content#1", {}, "3"},  // there is none
                       {"krb5_kt_start_seq_get#1", {}, "0"},
                       {"krb5_kt_next_entry#1", "0", "3"}};
  // Of the second and third name, the host's others are wrong only.
  return {"FirstJoin", Make<FirstJoin>, "0", kOneMore,
          NameRows({"3", "0", "0", "3", "3", "3", "0", "3"}) + ConnectRows() + kNewAccountRows +
              kPasswordRows + kGenerationRows + keytab + KeyRows(nullptr)};
}

Scenario RepeatedJoinScenario() {
  return {"RepeatedJoin", Make<RepeatedJoin>, "0", kUnchanged,
          NameRows({"3", "3", "3"}) + ConnectRows() + kAccountRows + FirstProofRows()};
}

Scenario RejoinScenario() {
  // Two keys are there, so that a walk has three fetches: two before the key is written, one to
  // print. Without what the first walk sees, the new key gets the lowest version, and is not the
  // one that is used.
  const Rows walks = {{"krb5_kt_start_seq_get#1", "3", "0"},
                      {"krb5_kt_next_entry#1", "3", "0"},
                      {"krb5_kt_next_entry#2-6", {}, "0"},
                      {"krb5_kt_next_entry#7-9", "0", "3"},
                      {"krb5_free_keytab_entry_contents#1-4", {}, "0"},
                      {"krb5_kt_end_seq_get#1-2", {}, "0"},
                      {"krb5_get_error_message", "0", "3"}};
  return {"Rejoin", Make<Rejoin>, "0", kOneMore,
          NameRows({"3", "3", "3", "0", "3"}) + ConnectRows() + kAccountRows + FirstProofRows() +
              kPasswordRows + kGenerationRows + walks + KeyRows("pread")};
}

// The test is made with the password, which works as well, when the keytab cannot be read.
Scenario TestWithKeytabScenario() {
  const std::string by_password = "0, by password";
  const Rows walk = {{"krb5_kt_start_seq_get", by_password, "3"},
                     {"krb5_kt_next_entry", by_password, "3"},
                     {"krb5_free_keytab_entry_contents", {}, "3"},
                     {"krb5_kt_end_seq_get", "0", "3"}};
  return {"TestWithKeytab", Make<TestWithKeytab>, "0", kUnchanged,
          NameRows({by_password, "3", "3", "3"}) + walk + ConnectRows() + kAccountRows +
              FirstProofRows()};
}

// The password is made for the first proof; when that fails it is made once more to be set.
Scenario TestWithPasswordScenario() {
  const Rows walk = {{"krb5_kt_start_seq_get", "0", "3"},
                     {"krb5_kt_next_entry", {}, "3"},
                     {"krb5_free_keytab_entry_contents", {}, "3"},
                     {"krb5_kt_end_seq_get", "0", "3"}};
  return {"TestWithPassword", Make<TestWithPassword>, "0", kUnchanged,
          NameRows({"0", "3", "3", "3", "0", "3"}) + walk + ConnectRows() + kAccountRows +
              Each({"open", "krb5_get_error_message"}, "0", "3") +
              Each({"getrandom", "read", "close", "BIO_new", "BIO_write", "BIO_ctrl(FLUSH)",
                    "BIO_ctrl(GET_BUF_MEM)"},
                   {}, "3") +
              ExchangeRows("krb5_get_init_creds_password#1", "0", "3") + kPasswordRows +
              ExchangeRows("krb5_get_init_creds_password#2", "3")};
}

}  // namespace

std::vector<Scenario> JoinScenarios() {
  return {FirstJoinScenario(), RepeatedJoinScenario(), RejoinScenario(), TestWithKeytabScenario(),
          TestWithPasswordScenario()};
}

}  // namespace tavrel::tests
