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

// What the records and texts of a scenario are made of.
struct Wording {
  std::string connecting;  // of a failed connection: level, category and function
  std::string password;    // start of the text when the password was not set
};
const Wording kJoin = {"3 krb-realm Join: ", "Unable to set machine password for <domain>: "};
const Wording kTest = {"4 krb-realm TestJoin: ", "Unable to set password on <domain>: "};

using Records = std::vector<std::string>;

const std::string kJoined = "2 krb-realm Join: Joined to <domain>";
const std::string kNameless = "4 ldap-join GetMachineName: gethostname failed with <why>";
const std::string kUnreachable = "Can't contact LDAP server";
const std::string kUnknown = "Client not found in Kerberos database";
const std::string kRefused = "Preauthentication failed";
const std::string kNoKeytabYet = "Keytab file not created yet.";
const std::string kByKeytab = "4 krb-keytab ASAuthenticate: Error authenticating through keytab: ";
const std::string kByPassword =
    "4 krb-keytab ASAuthenticate: Error authenticating through password: ";
const std::string kKdc = "Unable to authenticate to <domain> KDC after setting password: ";
const std::string kWriting = "Unable to write Kerberos keytab for <domain>: ";

// Level 4 records and text of the account step.
Expected AccountStep(Records before, const std::string& text) {
  before.push_back("4 krb-realm Join: " + text);
  return {"3", text, before};
}

// Without SHA1() the digest of a long host name comes from elsewhere, and nothing changes; with all
// later calls it is as if the name could not be had. A name that is only asked for as it is,
// `plain`, has no digest.
Rows WithDigests(Rows rows, int plain = 0) {
  const std::string name = "gethostname#";
  for (std::size_t i = 0, count = rows.size(); i < count; ++i) {
    if (rows[i].call.compare(0, name.size(), name) != 0) continue;
    const int number = std::stoi(rows[i].call.substr(name.size()));
    if (number == plain) continue;
    const int digest = plain != 0 && number > plain ? number - 1 : number;
    const Expected then = *rows[i].then;
    rows.push_back({"SHA1#" + std::to_string(digest), {}, Expected{then.result, then.error, {}}});
  }
  return rows;
}

Rows ConnectRows(const Wording& wording, const Records& before) {
  const auto discovery = [&](const std::string& call, const std::string& record) -> Row {
    const std::string none = "Unable to find ldap host for domain";
    const std::string text = "Unable to connect to <domain>: " + none;
    return {call,
            Expected{"3", text,
                     before + Records{record, "4 ldap-join Connect: " + none + " <domain>",
                                      wording.connecting + text}},
            Expected{"3", text, {record}}};
  };
  const auto session = [&](const std::string& call, const std::string& step) -> Row {
    const std::string text = "Unable to connect to <domain>: <why>";
    const std::string record = "3 ldap Connect: " + step + "ldap://dc1.example.net:389: <why>";
    return {call, Expected{"3", text, before + Records{record, wording.connecting + text}},
            Expected{"3", text, {record}}};
  };
  return {
      discovery("res_search", "4 discovery GetLDAPHosts: Error in dns search for domain  <domain>"),
      discovery("ns_initparse", "4 discovery GetLDAPHosts: Error parsing DNS answer for <domain>"),
      discovery("ns_parserr",
                "3 discovery GetLDAPHosts: Error parsing DNS response record 0 for <domain>"),
      discovery("ns_name_uncompress",
                "4 discovery GetLDAPHosts: Error uncompressing target for <domain>"),
      session("ldap_initialize", "LDAP init failed against "),
      session("ldap_set_option(PROTOCOL_VERSION)", "LDAP set version failed against "),
      session("ldap_set_option(X_TLS_REQUIRE_CERT)", "LDAP set require cert failed against "),
      session("ldap_set_option(X_TLS_NEWCTX)", "LDAP new tls context failed against "),
      session("ldap_set_option(REFERRALS)", "LDAP set referral failed against "),
      session("ldap_set_option(NETWORK_TIMEOUT)", "LDAP set timeout failed against "),
      session("ldap_start_tls_s", "LDAP starttls failed against "),
      session("ldap_sasl_bind_s", "LDAP bind failed against "),
      {"ldap_unbind_ext", {}, {}}};
}

// What a name that could not be had leads to. `number` counts the names that were asked for; `once`
// lacks the record that says so.
Row Nameless(int number, Expected once, const Expected& then, std::size_t position = 0) {
  once.records.insert(once.records.begin() + static_cast<std::ptrdiff_t>(position), kNameless);
  return {"gethostname#" + std::to_string(number), once,
          Expected{then.result, then.error, {kNameless}}};
}

const Expected kNotLookedUp = {
    "3", "Failed to get account object from host <domain>: " + kUnreachable, {}};
const Expected kNotAdded = {"3", "Could not add host to <domain>: " + kUnreachable, {}};
const Expected kNotSet = {"3", "Could not set properties in <domain>: " + kUnreachable, {}};

const std::string kSearchFailed = "4 ldap-join GetAccountObject: LDAP search failed: <why>";
const std::string kNowhere =
    "3 ldap-join GetAccountObject: Unable to find an account object on any available server";

Row LookupFails() {
  return {"ldap_search_ext_s#1",
          AccountStep({kSearchFailed, kNowhere},
                      "Failed to get account object from host <domain>: <why>"),
          {}};
}
Row PropertiesFail() {
  return {"ldap_modify_ext_s(userAccountControl)",
          AccountStep({"4 ldap-join SetProperties: LDAP modify failed: <why>"},
                      "Could not set properties in <domain>: <why>"),
          {}};
}

// The account step with an account that is there. `names` were asked for before, and `before` was
// recorded. `done` is how the scenario ends.
Rows AccountRows(int names, const Expected& done) {
  // An account that is not seen is added, which the directory refuses.
  const std::string adding = "4 ldap-join AddAccountObject: LDAP add failed: ";
  const Expected unseen =
      AccountStep({adding + "Already exists"}, "Could not add host to <domain>: Already exists");
  const Expected unseen_then = {"3", kNotAdded.error, {adding + kUnreachable}};
  const std::string gone = "No such object";
  Expected guessed = done;
  const std::string missing =
      "3 ldap-join GetAccountObject: Missing user account controls attribute on "
      "dc1.example.net:389";
  guessed.records.insert(guessed.records.begin(), missing);
  return {Nameless(names + 1, unseen, kNotLookedUp),
          {"ldap_search_ext_s#1 LDAP_NO_SUCH_OBJECT", unseen, unseen_then},
          {"ldap_search_ext_s#1 LDAP_NO_SUCH_OBJECT after", unseen, unseen_then},
          LookupFails(),
          {"ldap_first_entry#1", unseen, unseen_then},
          {"ldap_get_values_len#1", guessed, Expected{"3", kNotSet.error, {missing}}},
          {"ldap_next_entry#1", {}, Expected{"3", kNotSet.error, {}}},
          Nameless(names + 2,
                   AccountStep({"4 ldap-join SetProperties: LDAP modify failed: " + gone},
                               "Could not set properties in <domain>: " + gone),
                   kNotSet),
          PropertiesFail()};
}

// The account step when the account has to be made.
Rows NewAccountRows(int names, const Expected& done) {
  const std::string adding = "4 ldap-join AddAccountObject: LDAP add failed: ";
  const std::string misnamed = "Naming violation";
  const Expected refused =
      AccountStep({adding + misnamed}, "Could not add host to <domain>: " + misnamed);
  return {Nameless(names + 1, done, kNotLookedUp),
          {"ldap_search_ext_s#1 LDAP_NO_SUCH_OBJECT", {}, kNotAdded},
          {"ldap_search_ext_s#1 LDAP_NO_SUCH_OBJECT after", {}, kNotAdded},
          LookupFails(),
          Nameless(names + 2, done, kNotAdded),     // only the host's other names are wrong
          Nameless(names + 3, refused, kNotAdded),  // cn
          Nameless(names + 4, refused, kNotAdded),  // the object's name
          {"ldap_add_ext_s",
           AccountStep({adding + "<why>"}, "Could not add host to <domain>: <why>"),
           {}},
          Nameless(names + 5,
                   AccountStep({"4 ldap-join SetProperties: LDAP modify failed: No such object"},
                               "Could not set properties in <domain>: No such object"),
                   kNotSet),
          PropertiesFail()};
}

// From the second lookup to the password's being set. `entries` were looked at before.
Rows PasswordRows(const Wording& wording, int names, int entries, const Records& before,
                  const Expected& done) {
  const std::string no_context = wording.password + "Invalid LDAP context";
  const std::string none = "Unable to generate password to join domain";
  const std::string none_record = "4 ldap-join SetPassword: Set password failed: " + none;
  const Expected not_found = {"3", no_context, before + Records{kSearchFailed, kNowhere}};
  const Expected not_found_then = {"3", no_context, {kSearchFailed}};
  const Expected none_then = {"3", wording.password + none, {none_record}};
  const std::string n = "#" + std::to_string(entries + 1);
  Expected guessed = done;
  const std::string missing =
      "3 ldap-join GetAccountObject: Missing user account controls attribute on "
      "dc1.example.net:389";
  guessed.records.insert(guessed.records.begin() + static_cast<std::ptrdiff_t>(before.size()),
                         missing);
  return {
      Nameless(names + 1, done, {"3", no_context, {}}, before.size()),
      // The handle is what counts; the account is not looked at.
      {"ldap_search_ext_s#2 LDAP_NO_SUCH_OBJECT", done, none_then},
      {"ldap_search_ext_s#2 LDAP_NO_SUCH_OBJECT after", done, none_then},
      {"ldap_search_ext_s#2", not_found, not_found_then},
      {"ldap_first_entry" + n, done, none_then},
      {"ldap_get_values_len" + n, guessed, Expected{"3", wording.password + none, {missing}}},
      {"ldap_next_entry" + n, {}, none_then},
      {"malloc", Expected{"3", wording.password + none, before + Records{none_record}}, {}},
      Nameless(names + 2,
               {"3", wording.password + "No such object",
                before + Records{"4 ldap-join SetPassword: LDAP modify failed: No such object"}},
               {"3", wording.password + kUnreachable, {}}, before.size()),
      {"ldap_modify_ext_s(unicodePwd)",
       Expected{"3", wording.password + "<why>",
                before + Records{"4 ldap-join SetPassword: LDAP modify failed: <why>"}},
       {}}};
}

// The making of the password while it is set.
Rows GenerationRows(const Wording& wording, const Records& before) {
  const std::string none = "Unable to generate password to join domain";
  const std::string none_record = "4 ldap-join SetPassword: Set password failed: " + none;
  const std::string opening = "4 random-string RandomString: Unable to open /dev/urandom: <why>";
  const Expected fails = {"3", wording.password + none, before + Records{none_record}};
  const Expected then = {"3", wording.password + none, {none_record}};
  return {{"open#1", Expected{"3", wording.password + none, before + Records{opening, none_record}},
           Expected{"3", wording.password + none, {opening}}},
          {"getrandom", {}, then},  // the device's bytes are as good
          {"read", {}, then},       // deliberately not looked at
          {"close#1", {}, then},
          {"BIO_new", fails, then},
          {"BIO_write", fails, then},
          {"BIO_ctrl(FLUSH)", {}, then},  // what was written is long enough
          {"BIO_ctrl(GET_BUF_MEM)", fails, then}};
}

// Rows for the failures of one AS exchange. Its failure, other than a skew, gives `failed`, where
// the place of its record is marked.
const std::string kHere = "<here>";
Rows ExchangeRows(const std::string& call, const std::string& record, const Expected& skewed,
                  const Expected& failed, const std::optional<Expected>& then) {
  const auto with = [](Expected expected, const Records& records) {
    Records all;
    for (const std::string& one : expected.records)
      all = one == kHere ? all + records : all + Records{one};
    expected.records = all;
    return expected;
  };
  const std::string unknown = "3 krb-error KrbErrorToStatus: Unknown krb5 error found: <code>";
  const auto later = [&](const Expected& once) -> std::optional<Expected> {
    if (then) return Expected{then->result, then->error, {record}};
    return Expected{once.result, once.error, {record}};
  };
  const auto skew = [&](const std::string& code) -> Row {
    return {call + " " + code, with(skewed, {record}),
            Expected{skewed.result, skewed.error, {record}}};
  };
  const auto stranger = [&](const std::string& code) -> Row {
    return {call + " " + code, with(failed, {record, unknown}), later(failed)};
  };
  Rows rows = {skew("KRB5KRB_AP_ERR_SKEW"), skew("KRB5_KDCREP_SKEW"), stranger("ENOMEM")};
  if (record.find(kByKeytab) == 0) rows.push_back(stranger("EACCES"));
  rows.push_back({call, with(failed, {record}), later(failed)});
  return rows;
}

// From the password's exchange to the end of a join that writes a key. The keytab had `entries`,
// which were walked through twice; the AS exchange with the keytab was tried `tried` times before.
Rows KeyRows(const Records& before, int entries, int tried, const Expected& done) {
  const auto writing = [&](const std::string& call, const std::string& step) -> Row {
    return {call,
            Expected{"0", kWriting + "<why>",
                     before + Records{"4 krb-keytab WriteKey: " + step + "<why>"}},
            {}};
  };
  const std::string creating = "Error creating key from password: ";
  const std::string adding = "Error adding key to keytab: ";
  const Expected not_created = {"0", kWriting, {"4 krb-keytab WriteKey: " + creating}};
  const Expected not_added = {"0", kWriting, {"4 krb-keytab WriteKey: " + adding}};
  const std::string again = "Unable to authenticate to <domain>: ";
  const Expected not_printed = {"3", again + kNoKeytabYet, {}};

  const auto numbers = [](int first, int last) {
    return "#" + std::to_string(first) + "-" + std::to_string(last);
  };
  Rows rows = LookRows(entries != 0 ? "pread" : nullptr, 2, *writing("", adding).once, not_added) +
              ExchangeRows("krb5_get_init_creds_password", kByPassword + "<why>",
                           {"2", kKdc + "<why>", before + Records{kHere}},
                           {"3", kKdc + "<why>", before + Records{kHere}}, {}) +
              Rows{writing("krb5_principal2salt", "Error generating principal salt: "),
                   writing("krb5_c_string_to_key", creating),
                   writing("krb5_kt_add_entry", adding),
                   {"krb5_kt_start_seq_get#2", {}, not_added},
                   // Only what is printed differs.
                   {"krb5_kt_start_seq_get#3", done, not_printed}};
  int walked = 0;  // fetches
  if (entries == 0) {
    rows.push_back({"krb5_kt_start_seq_get#1", {}, not_created});  // there is no file
  } else {
    // Without the keys that are there the new one gets the lowest version, and is not the one that
    // is used.
    const Expected misnumbered = {"3", again + kRefused, before + Records{kByKeytab + kRefused}};
    const int fetches = entries + 1;
    walked = 2 * fetches;
    rows =
        rows +
        Rows{{"krb5_kt_start_seq_get#1", misnumbered, not_created},
             {"krb5_kt_next_entry#1", misnumbered, not_created},
             {"krb5_kt_next_entry" + numbers(2, fetches), {}, not_created},
             {"krb5_kt_next_entry" + numbers(fetches + 1, walked), {}, not_added},
             {"krb5_free_keytab_entry_contents" + numbers(1, entries), {}, not_created},
             {"krb5_free_keytab_entry_contents" + numbers(entries + 1, 2 * entries), {}, not_added},
             {"krb5_kt_end_seq_get#1", {}, not_created},
             {"krb5_kt_end_seq_get#2", {}, not_added}};
  }
  const std::string n = "#" + std::to_string(tried + 1);
  return rows +
         Rows{{"krb5_kt_next_entry" + numbers(walked + 1, walked + entries + 1), done, not_printed},
              {"krb5_kt_next_entry", {}, not_printed},  // the end
              {"krb5_free_keytab_entry_contents", {}, not_printed},
              {"krb5_kt_end_seq_get", {}, not_printed},
              {"krb5_kt_have_content#2", Expected{"3", again + kNoKeytabYet, before},
               Expected{"3", again + kNoKeytabYet, {}}}} +
         ExchangeRows("krb5_get_init_creds_keytab" + n, kByKeytab + "<why>",
                      {"2", again + "<why>", before + Records{kHere}},
                      {"3", again + "<why>", before + Records{kHere}}, {});
}

Row PrincipalFails(const std::string& call, const Records& before, const std::string& record) {
  const std::string parsing = "4 krb-param SetClientPrincipal: Error parsing principal name: <why>";
  return {call, Expected{"3", "untouched", before + Records{parsing, record}},
          Expected{"3", "untouched", {parsing}}};
}
const std::string kNoPrincipalForJoin =
    "3 krb-realm Join: Error initializing kerberos principal to <domain>";
const std::string kNoPrincipalForTest =
    "4 krb-realm TestJoin: Error initializing kerberos parameters to ";

// Without a name the KDC knows nobody.
Row NamelessPrincipal(int number, const Records& by_keytab) {
  return Nameless(
      number,
      {"3", kKdc + kUnknown, Records{kJoined} + by_keytab + Records{kByPassword + kUnknown}},
      {"3", "untouched", {}});
}

Scenario FirstJoinScenario() {
  const Expected done = {"0", kNoKeytabYet, {kJoined}};
  const Records joined = {kJoined};
  return {
      "FirstJoin", Make<FirstJoin>, done, kOneMore,
      WithDigests(ConnectRows(kJoin, {}) +
                      Rows{NamelessPrincipal(1, {}),
                           PrincipalFails("krb5_parse_name", {}, kNoPrincipalForJoin),
                           // There is none.
                           {"krb5_kt_have_content#1",
                            {},
                            Expected{"3", kJoin.password + "Invalid LDAP context", {kNowhere}}}} +
                      NewAccountRows(1, done) + PasswordRows(kJoin, 6, 0, joined, done) +
                      GenerationRows(kJoin, joined) + KeyRows(joined, 0, 0, done),
                  3)};
}

// What a failed proof of the keys in the keytab leads to: a new password.
Rows FirstProofRows(const Records& refused, const Records& after_content) {
  const Expected then = {"3", kJoin.password + "Invalid LDAP context", {kNowhere}};
  return Rows{{"krb5_kt_have_content#1",
               Expected{"0", kNoKeytabYet, Records{kJoined} + after_content}, then}} +
         ExchangeRows("krb5_get_init_creds_keytab#1", kByKeytab + "<why>",
                      {"2", "<why>", {kJoined, kHere}},
                      {"0", "<why>", Records{kJoined, kHere} + refused}, then);
}

Scenario RepeatedJoinScenario() {
  const Expected done = {"0", "untouched", {kJoined}};
  return {"RepeatedJoin", Make<RepeatedJoin>, done, kUnchanged,
          WithDigests(ConnectRows(kJoin, {}) +
                      Rows{NamelessPrincipal(1, {kByKeytab + kUnknown}),
                           PrincipalFails("krb5_parse_name", {}, kNoPrincipalForJoin)} +
                      AccountRows(1, done) + FirstProofRows({}, {}))};
}

Scenario RejoinScenario() {
  const Records refused = {kJoined, kByKeytab + kRefused};
  const Expected done = {"0", kRefused, refused};
  return {"Rejoin", Make<Rejoin>, done, kOneMore,
          WithDigests(ConnectRows(kJoin, {}) +
                      Rows{NamelessPrincipal(1, {kByKeytab + kUnknown}),
                           PrincipalFails("krb5_parse_name", {}, kNoPrincipalForJoin),
                           {"krb5_get_error_message", Expected{"0", "", {kJoined, kByKeytab}},
                            Expected{"3", kJoin.password + "Invalid LDAP context", {kByKeytab}}}} +
                      AccountRows(1, done) + FirstProofRows({}, {}) +
                      PasswordRows(kJoin, 3, 1, refused, done) + GenerationRows(kJoin, refused) +
                      KeyRows(refused, 2, 1, done))};
}

Scenario TestWithKeytabScenario() {
  const Expected done = {"0", "untouched", {kJoined}};
  const std::string starting = "4 krb-keytab HasKey: Error starting keytab sequence: <why>";
  const std::string ending = "4 krb-keytab HasKey: Error ending keytab sequence: <why>";
  const Expected unconnected = {
      "3", "Unable to connect to <domain>: Unable to find ldap host for domain", {}};
  const Expected by_password = {"0, by password", "untouched", {kJoined}};
  return {"TestWithKeytab", Make<TestWithKeytab>, done, kUnchanged,
          WithDigests(Rows{Nameless(1, by_password, {"3", "untouched", {}}),
                           PrincipalFails("krb5_parse_name#1", {}, kNoPrincipalForTest + "<given>"),
                           // The test is then made with the password, which works as well.
                           {"krb5_kt_start_seq_get",
                            Expected{"0, by password", "untouched", {starting, kJoined}},
                            Expected{"3", unconnected.error, {starting}}},
                           {"krb5_kt_next_entry", by_password, unconnected},
                           {"krb5_free_keytab_entry_contents", {}, unconnected},
                           {"krb5_kt_end_seq_get", Expected{"0", "untouched", {ending, kJoined}},
                            Expected{"3", unconnected.error, {ending}}}} +
                      ConnectRows(kJoin, {}) +
                      Rows{NamelessPrincipal(2, {kByKeytab + kUnknown}),
                           PrincipalFails("krb5_parse_name#2", {}, kNoPrincipalForJoin)} +
                      AccountRows(2, done) + FirstProofRows({}, {}))};
}

Scenario TestWithPasswordScenario() {
  const Records refused = {kJoined, kByPassword + kRefused};
  const Expected done = {"0", kRefused, refused};
  const std::string starting = "4 krb-keytab HasKey: Error starting keytab sequence: <why>";
  const std::string ending = "4 krb-keytab HasKey: Error ending keytab sequence: <why>";
  const Expected unconnected = {
      "3", "Unable to connect to <domain>: Unable to find ldap host for domain", {}};
  const Expected no_handle = {"3", kTest.password + "Invalid LDAP context", {kNowhere}};
  const std::string opening = "4 random-string RandomString: Unable to open /dev/urandom: <why>";
  const std::string again = "Unable to authenticate to <domain>: ";
  return {"TestWithPassword", Make<TestWithPassword>, done, kUnchanged,
          WithDigests(
              Rows{Nameless(1, done, {"3", "untouched", {}}),
                   PrincipalFails("krb5_parse_name#1", {}, kNoPrincipalForTest + "<given>"),
                   {"krb5_kt_start_seq_get", Expected{"0", kRefused, Records{starting} + refused},
                    Expected{"3", unconnected.error, {starting}}},
                   {"krb5_kt_next_entry", {}, unconnected},
                   {"krb5_free_keytab_entry_contents", {}, unconnected},
                   {"krb5_kt_end_seq_get", Expected{"0", kRefused, Records{ending} + refused},
                    Expected{"3", unconnected.error, {ending}}}} +
              ConnectRows(kTest, {}) +
              Rows{Nameless(2,
                            {"3",
                             again + kUnknown,
                             {kJoined, kByPassword + kUnknown, kByPassword + kUnknown}},
                            {"3", "untouched", {}}),
                   PrincipalFails("krb5_parse_name#2", {}, kNoPrincipalForTest + "<domain>")} +
              AccountRows(2, done) +
              // The password is made for the first proof; when that fails it is made once more to
              // be set.
              Rows{{"open", Expected{"0", kRefused, {kJoined, opening, kByPassword + kRefused}},
                    Expected{"3", no_handle.error, {opening}}},
                   {"getrandom", {}, no_handle},
                   {"read", {}, no_handle},
                   {"close", {}, no_handle},
                   {"BIO_new", {}, no_handle},
                   {"BIO_write", {}, no_handle},
                   {"BIO_ctrl(FLUSH)", {}, no_handle},
                   {"BIO_ctrl(GET_BUF_MEM)", {}, no_handle},
                   {"krb5_get_error_message", Expected{"0", "", {kJoined, kByPassword}},
                    Expected{"3", no_handle.error, {kByPassword}}}} +
              ExchangeRows("krb5_get_init_creds_password#1", kByPassword + "<why>",
                           {"2", "<why>", {kJoined, kHere}}, {"0", "<why>", {kJoined, kHere}},
                           no_handle) +
              PasswordRows(kTest, 4, 1, refused, done) +
              ExchangeRows("krb5_get_init_creds_password#2", kByPassword + "<why>",
                           {"2", again + "<why>", refused + Records{kHere}},
                           {"3", again + "<why>", refused + Records{kHere}}, {}))};
}

}  // namespace

std::vector<Scenario> JoinScenarios() {
  return {FirstJoinScenario(), RepeatedJoinScenario(), RejoinScenario(), TestWithKeytabScenario(),
          TestWithPasswordScenario()};
}

}  // namespace tavrel::tests
