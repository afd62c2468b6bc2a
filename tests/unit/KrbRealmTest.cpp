#include "tavrel/KrbRealm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <new>
#include <type_traits>

#include "Interpose.h"
#include "KrbSettings.h"
#include "LogCapture.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::list<LdapServer> kServers = {
    {"dc2.corp.example.com", vdi::LDAP_ENCRYPTION_STARTTLS, "/etc/ca.pem"},
    {"ldaps://dc1.corp.example.com", vdi::LDAP_ENCRYPTION_LDAPS, ""}};

class Realm : public KrbRealm {
 public:
  using KrbRealm::join_parameters;
  using KrbRealm::krb_context;
  using KrbRealm::KrbRealm;
};

// --- construction --------------------------------------------------------------------------------

TEST(ARealmMade, HoldsWhatItWasGiven) {
  const KrbSettings settings;
  LogCapture log;
  CallTrace trace;

  const Realm realm("corp.Example.com", kServers, "Admin", "Admin.Pass.1", "MEMORY:realm");

  EXPECT_EQ(realm.join_parameters.domain, "CORP.EXAMPLE.COM");
  EXPECT_EQ(*realm.join_parameters.servers, kServers);
  EXPECT_EQ(realm.join_parameters.user, "Admin");
  EXPECT_EQ(realm.join_parameters.password, "Admin.Pass.1");
  EXPECT_NE(realm.krb_context.context, nullptr);
  EXPECT_NE(realm.krb_context.keytab, nullptr);
  EXPECT_EQ(realm.krb_context.client_principal, nullptr);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_init_context", "krb5_kt_resolve"));
}

TEST(ARealmMade, WithoutServersHasNone) {
  const KrbSettings settings;
  LogCapture log;
  CallTrace trace;

  const Realm realm("corp.Example.com", "Admin", "Admin.Pass.1", "MEMORY:realm");

  EXPECT_EQ(realm.join_parameters.domain, "CORP.EXAMPLE.COM");
  EXPECT_THAT(*realm.join_parameters.servers, IsEmpty());
  EXPECT_EQ(realm.join_parameters.user, "Admin");
  EXPECT_EQ(realm.join_parameters.password, "Admin.Pass.1");
  EXPECT_NE(realm.krb_context.keytab, nullptr);
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_init_context", "krb5_kt_resolve"));
}

TEST(ARealmMade, WithAnEmptyKeytabPathHasNoKeytab) {
  const KrbSettings settings;
  LogCapture log;

  const Realm realm("corp.example.com", kServers, "Admin", "Admin.Pass.1", "");

  EXPECT_EQ(realm.krb_context.keytab, nullptr);
  EXPECT_EQ(*realm.join_parameters.servers, kServers);
  EXPECT_THAT(log.Lines(),
              ElementsAre("4 krb-param SetKeytab: Keytab path is empty",
                          "4 krb-realm KrbRealm: Error initializing kerberos keytab to "));
}

TEST(ARealmMade, WithAKeytabOfAnUnknownTypeHasNoKeytab) {
  const KrbSettings settings;
  LogCapture log;

  const Realm realm("corp.example.com", "Admin", "Admin.Pass.1", "NOPE:keytab");

  EXPECT_EQ(realm.krb_context.keytab, nullptr);
  EXPECT_THAT(
      log.Lines(),
      ElementsAre("4 krb-param SetKeytab: Error resolving keytab: Unknown Key table type",
                  "4 krb-realm KrbRealm: Error initializing kerberos keytab to NOPE:keytab"));
}

TEST(ARealmMade, WithoutAReadableConfigurationHasNoContext) {
  const KrbSettings settings;
  std::ofstream(settings / "broken.conf") << "[libdefaults\n";
  const ScopedVariable broken("KRB5_CONFIG", settings / "broken.conf");
  LogCapture log;

  const Realm realm("corp.example.com", "Admin", "Admin.Pass.1", "MEMORY:realm");

  EXPECT_EQ(realm.krb_context.context, nullptr);
  EXPECT_EQ(realm.krb_context.keytab, nullptr);
  EXPECT_EQ(realm.join_parameters.domain, "CORP.EXAMPLE.COM");
  EXPECT_THAT(
      log.Lines(),
      ElementsAre("4 krb-param Init: Error initializing context: Improper format of Kerberos "
                  "configuration file",
                  "4 krb-param SetKeytab: Error resolving keytab: Bad magic number for "
                  "krb5_context structure",
                  "4 krb-realm KrbRealm: Error initializing kerberos keytab to MEMORY:realm"));
}

// --- destruction ---------------------------------------------------------------------------------

TEST(ARealmDestroyed, ReleasesKeytabPrincipalAndContext) {
  const KrbSettings settings;
  auto realm = std::make_unique<Realm>("corp.example.com", kServers, "Admin", "", "MEMORY:realm");
  ASSERT_TRUE(realm->krb_context.SetClientPrincipal("APPLIANCE$@CORP.EXAMPLE.COM"));
  LogCapture log;
  CallTrace trace;

  realm.reset();

  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_kt_close", "krb5_free_principal", "krb5_free_context"));
}

TEST(ARealmDestroyed, ReleasesOnlyWhatThereIs) {
  const KrbSettings settings;
  auto realm = std::make_unique<Realm>("corp.example.com", "Admin", "", "NOPE:keytab");
  LogCapture log;
  CallTrace trace;

  realm.reset();

  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_free_context"));
}

TEST(ARealmDestroyed, ReleasesNothingWithoutAContext) {
  const KrbContext earlier;  // libkrb5 has its texts once it has made a context
  const StandIn broken(calls::krb5_init_context,
                       [](krb5_context*) -> krb5_error_code { return ENOMEM; });
  auto realm = std::make_unique<Realm>("corp.example.com", "Admin", "", "MEMORY:realm");
  LogCapture log;
  CallTrace trace;

  realm.reset();

  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_THAT(trace.Names(), IsEmpty());
}

// --- the type ------------------------------------------------------------------------------------

static_assert(!std::is_copy_constructible_v<KrbRealm> && !std::is_copy_assignable_v<KrbRealm>);
static_assert(!std::is_move_constructible_v<KrbRealm> && !std::is_move_assignable_v<KrbRealm>);
static_assert(std::has_virtual_destructor_v<KrbRealm>);

TEST(TheRealmsLayout, IsTheContextAndThenTheParameters) {
  struct Members {
    void* slots;
    KrbContext krb_context;
    JoinParameters join_parameters;
  };

  EXPECT_EQ(sizeof(KrbRealm), sizeof(Members));
  const KrbSettings settings;
  const Realm realm("corp.example.com", "Admin", "", "MEMORY:realm");
  EXPECT_LT(static_cast<const void*>(&realm.krb_context),
            static_cast<const void*>(&realm.join_parameters));
}

// Reaches the table of virtual functions as the Itanium C++ ABI lays it out: its address comes
// first in the object, `this` is an ordinary first argument.
class ASlot : public testing::Test {
 protected:
  // Overrides what can be overridden, and adds one.
  class Derived : public KrbRealm {
   public:
    using KrbRealm::KrbRealm;
    int TestJoin(const std::string& domain, const std::string& user, const std::string& password,
                 std::string* error) override {
      *error = domain + " " + user + " " + password;
      return 42;
    }
    virtual int Added() { return 43; }
  };

  template <typename Function>
  static Function* At(std::size_t index, const KrbRealm& realm) {
    const auto* const table = *reinterpret_cast<void* const* const*>(&realm);
    return reinterpret_cast<Function*>(table[index]);
  }

  const KrbSettings settings_;
};

TEST_F(ASlot, OneOfTheRealmIsTheDestructor) {
  alignas(Realm) unsigned char storage[sizeof(Realm)];
  auto* const realm = new (storage) Realm("corp.example.com", "Admin", "", "MEMORY:realm");
  CallTrace trace;

  At<void(KrbRealm*)>(0, *realm)(realm);

  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_close", "krb5_free_context"));
}

// The sanitizers see whether the memory is given back.
TEST_F(ASlot, TwoOfTheRealmIsTheDeletingDestructor) {
  auto* const realm = new Realm("corp.example.com", "Admin", "", "MEMORY:realm");
  CallTrace trace;

  At<void(KrbRealm*)>(1, *realm)(realm);

  EXPECT_THAT(trace.Names(), ElementsAre("krb5_kt_close", "krb5_free_context"));
}

TEST_F(ASlot, ThreeOfTheRealmIsTestJoin) {
  using TestJoin =
      int(KrbRealm*, const std::string&, const std::string&, const std::string&, std::string*);
  Derived realm("corp.example.com", "Admin", "", "MEMORY:realm");
  std::string text;

  const int result = At<TestJoin>(2, realm)(&realm, "a", "b", "c", &text);

  EXPECT_EQ(result, 42);
  EXPECT_EQ(text, "a b c");
}

TEST_F(ASlot, FourIsTheFirstOfADerivedClass) {
  Derived realm("corp.example.com", "Admin", "", "MEMORY:realm");

  const int result = At<int(KrbRealm*)>(3, realm)(&realm);

  EXPECT_EQ(result, 43);
}

// --- afterwards ----------------------------------------------------------------------------------

TEST(ARealmWithoutAContext, RefusesEveryUser) {
  const KrbContext earlier;  // libkrb5 has its texts once it has made a context
  const StandIn broken(calls::krb5_init_context,
                       [](krb5_context*) -> krb5_error_code { return ENOMEM; });
  Realm realm("corp.example.com", "Admin", "", "MEMORY:realm");
  std::string token = "0123456789 request";
  LogCapture log;

  const std::string user = realm.Authenticate(token.data(), static_cast<int>(token.size()));

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre("1 krb-realm Authenticate: Auth request received of length "
                                       "18",
                                       "3 krb-realm Authenticate: Not a KRB_AP_REQ",
                                       "1 krb-realm Authenticate: Sending in at index 11, first "
                                       "data byte r",
                                       "4 krb-keytab APAuthenticate: Error initializing auth "
                                       "context: Bad magic number for krb5_context structure"));
}

TEST(ARealmWithoutAContext, TestsNoJoin) {
  const KrbContext earlier;  // libkrb5 has its texts once it has made a context
  const StandIn broken(calls::krb5_init_context,
                       [](krb5_context*) -> krb5_error_code { return ENOMEM; });
  Realm realm("corp.example.com", "Admin", "", "MEMORY:realm");
  std::string error = "as before";
  LogCapture log;

  const int status = realm.TestJoin("corp.example.com", "Admin", "", &error);

  EXPECT_EQ(status, kFailure);
  EXPECT_EQ(error, "as before");
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-param SetClientPrincipal: Error parsing principal "
                                       "name: Bad magic number for krb5_context structure",
                                       "4 krb-realm TestJoin: Error initializing kerberos "
                                       "parameters to corp.example.com"));
}

}  // namespace
}  // namespace tavrel::tests
