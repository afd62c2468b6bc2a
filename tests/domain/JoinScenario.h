// What the tests of a real domain share: a machine of their own, its keytab, the records of what
// the library did, and the scenes that others set.
#ifndef TAVREL_TESTS_DOMAIN_JOINSCENARIO_H
#define TAVREL_TESTS_DOMAIN_JOINSCENARIO_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Directory.h"
#include "KrbSettings.h"
#include "LogCapture.h"
#include "ScratchFolder.h"
#include "ScratchKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {

// What the error text holds before every operation: what is to be left alone still has it after.
constexpr char kUntouched[] = "(untouched)";

// Passwords of accounts that this process did not set.
constexpr char kEarlierPassword[] = "Earlier.Pass.1";
constexpr char kChangedPassword[] = "Changed.Pass.1";

// What an operation of the realm gave.
struct Outcome {
  int status;
  std::string error;
  std::string log;  // a line for each record from level 2 up, see LogCapture::Notable()
};

class JoinScenario : public testing::Test {
 public:
  JoinScenario();
  // Also looks whether any record or error text of the test told a secret.
  void TearDown() override;

  // Really names the machine. Its account is the host name in upper case unless it is given.
  void NameMachine(const std::string& host, const std::string& account_name = "");

  // The realm, and the parameters of a join, that the members below describe.
  KrbRealm Realm() const { return KrbRealm(domain, servers, user, password, keytab); }
  JoinParameters Parameters() const { return JoinParameters(domain, servers, user, password); }

  // Runs an operation and gives its result, its error text and its records.
  using Operation = std::function<int(std::string* error)>;
  Outcome Run(const Operation& operation);
  // The same with a null error text; the outcome's is empty.
  Outcome RunWithoutError(const Operation& operation);
  Outcome Join(KrbRealm& realm);
  Outcome TestJoin(KrbRealm& realm);  // with the domain and the administrator of the members below

  // The records made since the last outcome.
  std::string TakeLog();

  // The log that consists of these blocks of lines, see Records.h.
  std::string Log(const std::vector<std::string_view>& blocks) const;

  // Runs lab/scene.
  static void Scene(const std::string& arguments);
  // Changes the directory's database, past its access checks.
  static void ChangeDatabase(const std::string& ldif);
  // Makes account and keytab what an earlier process left that joined with kEarlierPassword.
  void JoinedEarlier();
  // Gives the account kChangedPassword.
  void PasswordChangedByOthers();
  // Puts the key of that password into the keytab as the first version of that account's.
  void AddKey(const std::string& name, const std::string& key_password) const;

  // What changes when the account is given a password, though it be the same.
  std::string PasswordState() const;

  // Each entry of the keytab as "principal version N enctype N"; none when it cannot be read.
  std::vector<std::string> Entries() const;
  std::string KeytabBytes() const { return FileBytes(keytab); }

  // Puts lines into the settings of libkrb5, behind the lab's [libdefaults].
  void AddKerberosSettings(const std::string& lines);
  void SetVariable(const char* name, const std::string& value) {
    variables_.emplace_back(name, value);
  }

  // Runs the current test once more, in a process whose clock is off by `offset`. True there; in
  // the process that asked it is false, and a failure of the other has become one of this test.
  static bool InProcessWithClock(const std::string& offset);
  static bool HasOtherClock();  // true in that other process

  ScratchFolder folder;
  Directory directory;
  std::string domain = Lab("REALM");
  std::list<LdapServer> servers;  // none: DNS is asked
  std::string user = Lab("ADMIN");
  std::string password = Lab("ADMIN_PASSWORD");
  std::string keytab = folder / "krb5.keytab";
  std::string account;                       // of the latest NameMachine(), without "$"
  std::string dc = Lab("DC_NAME") + ":389";  // the controller, as DNS or the list names it

 private:
  LogCapture log_;
  std::string host_name_;                // to be restored
  std::set<std::string> accounts_;       // to be removed
  std::list<ScopedVariable> variables_;  // to be restored
  std::string written_;                  // all records and error texts so far
};

// The realm of a scenario, joined; by the machine `host`, when that is given.
class JoinedRealm : public KrbRealm {
 public:
  explicit JoinedRealm(JoinScenario& scene);
  JoinedRealm(JoinScenario& scene, const std::string& host);
};

}  // namespace tavrel::tests

#endif
