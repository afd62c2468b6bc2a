// A keytab that more than one process uses: the nodes of a pair, or a service without privileges.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "GssClient.h"
#include "JoinScenario.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

// A machine that another process joined.
class JoinedMachine : public KrbRealm {
 public:
  JoinedMachine(const std::string& principal, const std::string& keytab)
      : KrbRealm("corp.example.com", "", "", keytab) {
    krb_context.SetClientPrincipal(principal);
  }
};

class ASharedKeytab : public JoinScenario {
 public:
  std::string Machine() const { return account + "$@" + Lab("REALM"); }

  // A token of alice's, with a ticket that she gets now.
  static std::vector<char> Token(const std::string& service) {
    return GssClient(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD")).Token(service);
  }

  // What a process with this replay cache answers that has not joined itself.
  std::string SignIn(std::vector<char> token, const std::string& with_keytab,
                     const std::string& replay_cache) const {
    const ScopedVariable folder_of_caches("KRB5RCACHEDIR", replay_cache);
    JoinedMachine realm(Machine(), with_keytab);
    return realm.Authenticate(token.data(), static_cast<int>(token.size()));
  }
};

// One node joins; the other gets a copy of its keytab. The name that users type is the account's.
TEST_F(ASharedKeytab, ServesBothNodesOfAPairEachWithAReplayCacheOfItsOwn) {
  JoinedRealm node1(*this, "node1");
  ASSERT_EQ(std::system("samba-tool spn add HTTP/www.corp.example.com 'NODE1$' "
                        "-H \"$LAB_SAM_LDB\" >/dev/null"),
            0);
  const std::string copy = folder / "copy.keytab";
  std::filesystem::copy_file(keytab, copy);
  std::filesystem::create_directory(folder / "cache1");
  std::filesystem::create_directory(folder / "cache2");
  const std::vector<char> token = Token("HTTP/www.corp.example.com@CORP.EXAMPLE.COM");

  const std::string on_node1 = SignIn(token, keytab, folder / "cache1");
  const std::string on_node2 = SignIn(token, copy, folder / "cache2");
  const std::string again = SignIn(token, copy, folder / "cache2");

  EXPECT_EQ(on_node1, kAlice);
  EXPECT_EQ(on_node2, kAlice);
  EXPECT_EQ(again, "");
}

// The order that keeps both nodes answering: key into the keytab, keytab to the other node,
// password.
TEST_F(ASharedKeytab, IsCopiedToTheOtherNodeBeforeThePasswordChanges) {
  NameMachine("node1");
  JoinedEarlier();
  const std::string copy = folder / "copy.keytab";
  std::filesystem::copy_file(keytab, copy);
  AddKey(account, kChangedPassword);

  PasswordChangedByOthers();
  const std::string with_the_old_keytab = SignIn(Token(Machine()), copy, folder / "");
  std::filesystem::copy_file(keytab, copy, std::filesystem::copy_options::overwrite_existing);
  const std::string with_the_new_one = SignIn(Token(Machine()), copy, folder / "");

  EXPECT_EQ(with_the_old_keytab, "");
  EXPECT_EQ(with_the_new_one, kAlice);
}

// A node that joins under the other's name sets a password of its own.
TEST_F(ASharedKeytab, OfANodeIsWorthlessWhenTheOtherJoinsUnderItsName) {
  NameMachine("node1");
  JoinedEarlier();
  const std::string keytab1 = keytab;
  keytab = folder / "keytab2";
  KrbRealm node2 = Realm();

  const Outcome joined = Join(node2);
  const std::string on_node1 = SignIn(Token(Machine()), keytab1, folder / "");

  EXPECT_EQ(joined.status, kSuccess);
  EXPECT_EQ(on_node1, "");
}

// A service reads the keytab through its group. A join by root that adds a key leaves owner, group
// and mode alone; one that makes the file anew takes it from the service.
TEST_F(ASharedKeytab, StaysReadableToItsGroupUntilAJoinMakesItAnew) {
  constexpr uid_t kService = 65534;
  NameMachine("service");
  JoinedEarlier();
  AddKerberosSettings("");  // where the service can read them
  std::filesystem::permissions(folder / "", std::filesystem::perms(0711));
  ASSERT_EQ(chown(keytab.c_str(), 0, kService), 0);
  ASSERT_EQ(chmod(keytab.c_str(), 0640), 0);
  const std::string cache = folder / "cache";
  std::filesystem::create_directory(cache);
  ASSERT_EQ(chown(cache.c_str(), kService, kService), 0);
  const auto sign_in_as_service = [&] {
    const std::vector<char> token = Token(Machine());
    EXPECT_EQ(setegid(kService) + seteuid(kService), 0);
    const std::string user_name = SignIn(token, keytab, cache);
    EXPECT_EQ(seteuid(0) + setegid(0), 0);
    return user_name;
  };
  const auto mode = [&] {
    struct stat file {};
    stat(keytab.c_str(), &file);
    return std::pair(file.st_gid, file.st_mode & 0777U);
  };
  JoinedRealm realm(*this);
  const std::string joined = sign_in_as_service();

  PasswordChangedByOthers();
  ASSERT_EQ(Join(realm).status, kSuccess);
  const auto with_a_key_more = mode();
  const std::string with_a_key_more_user = sign_in_as_service();
  std::filesystem::remove(keytab);
  ASSERT_EQ(Join(realm).status, kSuccess);
  const auto anew = mode();
  const std::string anew_user = sign_in_as_service();

  EXPECT_EQ(joined, kAlice);
  EXPECT_EQ(with_a_key_more, std::pair(gid_t{kService}, 0640U));
  EXPECT_EQ(with_a_key_more_user, kAlice);
  EXPECT_EQ(anew, std::pair(gid_t{0}, 0600U));
  EXPECT_EQ(anew_user, "");
}

}  // namespace
}  // namespace tavrel::tests
