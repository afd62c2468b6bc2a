#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <list>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "GroupedDigits.h"
#include "Interpose.h"
#include "LogCapture.h"
#include "MachineName.h"
#include "tavrel/Join.h"

namespace tavrel::tests {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

JoinParameters Of(const std::string& domain) {
  return {domain, {}, "admin", "secret"};
}

TEST(JoinParametersObject, StoresTheDomainInUpperCaseAndTheRestAsGiven) {
  const JoinParameters params("corp.Example.com", {}, "Administrator@corp.example.com",
                              "Secret.1a");

  EXPECT_EQ(params.domain, "CORP.EXAMPLE.COM");
  EXPECT_EQ(params.user, "Administrator@corp.example.com");
  EXPECT_EQ(params.password, "Secret.1a");
}

TEST(JoinParametersObject, UpperCasesLettersOfTheAlphabetAlone) {
  const std::string domain = "az-09_\xC3\xA4\xFF.\x01~{`";

  const JoinParameters params = Of(domain);

  EXPECT_EQ(params.domain, "AZ-09_\xC3\xA4\xFF.\x01~{`");
}

TEST(JoinParametersObject, HasItsOwnCopyOfTheServersInTheirOrder) {
  std::list<LdapServer> servers = {{"dc2", vdi::LDAP_ENCRYPTION_NONE, ""},
                                   {"ldaps://dc1:636", vdi::LDAP_ENCRYPTION_LDAPS, "/ca.pem"},
                                   {"dc2", static_cast<vdi::Ldap_encryption>(7), "/other.pem"}};
  const std::list<LdapServer> given = servers;

  const JoinParameters params("corp.example.com", servers, "admin", "secret");
  servers.clear();

  ASSERT_NE(params.servers, nullptr);
  EXPECT_EQ(*params.servers, given);
}

TEST(JoinParametersObject, HasAnEmptyListWhenNoServerIsGiven) {
  const JoinParameters params = Of("corp.example.com");

  ASSERT_NE(params.servers, nullptr);
  EXPECT_THAT(*params.servers, IsEmpty());
}

TEST(JoinParametersObject, AsksForTheHostNameOnlyWhenANameNeedsIt) {
  const CallTrace trace;
  LogCapture log;

  const JoinParameters params = Of("corp.example.com");
  std::ignore = params.GetDomainDN();
  std::ignore = params.ShortenName("appliance");

  EXPECT_THAT(trace.Names(), IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(GetMachineName, IsTheSystemsHostNameUpToItsFirstDot) {
  char name[256] = {};
  ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
  const std::string host = name;
  const CallTrace trace;

  const std::string machine = Of("corp.example.com").GetMachineName();

  EXPECT_EQ(machine, host.substr(0, host.find('.')));
  EXPECT_THAT(trace.Names(), ElementsAre("gethostname"));
}

TEST(GetMachineName, EndsAtTheFirstDotAndKeepsItsCase) {
  const std::pair<std::string, std::string> cases[] = {
      {"appliance", "appliance"},
      {"Appliance.lab", "Appliance"},
      {"appliance.corp.example.com", "appliance"},
      {"appliance.", "appliance"},
      {".lab", ""},
      {".", ""},
      {"", ""},
      {"a b-c_\xC3\xA4", "a b-c_\xC3\xA4"},
      {std::string(254, 'n'), std::string(254, 'n')},
      {std::string(253, 'n') + ".", std::string(253, 'n')},
  };

  for (const auto& [host, expected] : cases) {
    const MachineName name(host);
    LogCapture log;
    EXPECT_EQ(Of("corp.example.com").GetMachineName(), expected);
    EXPECT_THAT(log.Notable(), IsEmpty());
  }
}

TEST(GetMachineName, IsCutWhenTheSystemFillsTheBuffer) {
  const StandIn filling(calls::gethostname, [](char* buffer, std::size_t size) {
    EXPECT_EQ(size, 255U);
    std::fill_n(buffer, size, 'n');
    return 0;
  });

  const std::string machine = Of("corp.example.com").GetMachineName();

  EXPECT_EQ(machine, std::string(254, 'n'));
}

TEST(GetMachineName, PassesTheSystemAnEmptyBuffer) {
  const StandIn idle(calls::gethostname, [](char* buffer, std::size_t size) {
    EXPECT_TRUE(std::all_of(buffer, buffer + size, [](char c) { return c == '\0'; }));
    std::copy_n("abc", 3, buffer);  // not terminated
    return 0;
  });

  const std::string machine = Of("corp.example.com").GetMachineName();

  EXPECT_EQ(machine, "abc");
}

TEST(GetMachineName, IsEmptyWhenTheSystemFailsAndTheNumberIsLogged) {
  const GroupedDigits digits;
  const StandIn failing(calls::gethostname, [](char* buffer, std::size_t size) {
    std::fill_n(buffer, size, 'n');
    errno = ENAMETOOLONG;
    return -1;
  });
  LogCapture log;

  const std::string machine = Of("corp.example.com").GetMachineName();

  EXPECT_EQ(machine, "");
  EXPECT_THAT(log.Notable(), ElementsAre("4 ldap-join GetMachineName: gethostname failed with 36"));
  EXPECT_THAT(log.Records(), Each(Field(&LogRecord::file, "Join.cpp")));
}

TEST(GetMachineName, IsAskedForAfreshByEveryNameThatHoldsIt) {
  const JoinParameters params = Of("corp.example.com");
  const MachineName first("first");
  ASSERT_EQ(params.GetMachineDN(), "cn=FIRST,cn=Computers,dc=CORP,dc=EXAMPLE,dc=COM");

  const MachineName second("second");

  EXPECT_EQ(params.GetMachineName(), "second");
  EXPECT_EQ(params.GetAccountName(), "SECOND");
  EXPECT_EQ(params.GetMachineDN(), "cn=SECOND,cn=Computers,dc=CORP,dc=EXAMPLE,dc=COM");
}

TEST(GetDomainDN, HasAComponentForEveryPartOfTheDomainEmptyOnesIncluded) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"corp", "dc=CORP"},
      {"corp.example.com", "dc=CORP,dc=EXAMPLE,dc=COM"},
      {"corp..com", "dc=CORP,dc=,dc=COM"},
      {"corp.com.", "dc=CORP,dc=COM,dc="},
      {".corp", "dc=,dc=CORP"},
      {".", "dc=,dc="},
      {"..", "dc=,dc=,dc="},
      {"a,b=c+d\\e.com", "dc=A,B=C+D\\E,dc=COM"},  // nothing is quoted
  };

  for (const auto& [domain, dn] : cases)
    EXPECT_EQ(Of(domain).GetDomainDN(), dn) << "of " << domain;
}

TEST(ShortenName, KeepsANameOfUpTo15CharactersAsItIs) {
  const JoinParameters params = Of("corp.example.com");

  for (const std::string name : {"", "a", "Appliance", "exactly15chars-"})
    EXPECT_EQ(params.ShortenName(name), name);
}

// The digits are those of `sha1sum`.
TEST(ShortenName, EndsALongerNameInTheDigestOfItsFirst7Characters) {
  const JoinParameters params = Of("corp.example.com");
  const std::pair<std::string, std::string> cases[] = {
      {"exactly16chars-x", "exactly-fa361dc"},
      {"applianceclusternode", "applian-cb64ef3"},
      {"APPLIANCECLUSTERNODE", "APPLIAN-b67a7ea"},
      {std::string(100000, 'a'), "aaaaaaa-e93b4e3"},
      {"a.b.c.d.e.f.g.h.i.j", "a.b.c.d-3a03030"},
      {"\xC3\xA4"
       "bcdefghijklmnopq",
       "\xC3\xA4"
       "bcdef-723f7ac"},
      {std::string("abc\0def", 7) + "123456789", std::string("abc\0def-487b197", 15)},
      // digits of every kind, at every place
      {"webaaaa-000000000", "webaaaa-8635481"},
      {"webackl-000000000", "webackl-ebbeaaf"},
      {"webaayv-000000000", "webaayv-00011d4"},
      {"webacuv-000000000", "webacuv-1e01030"},
      {"webaddb-000000000", "webaddb-20f0d0f"},
  };

  const GroupedDigits digits;
  for (const auto& [name, shortened] : cases)
    EXPECT_EQ(params.ShortenName(name), shortened);
}

TEST(ShortenName, MakesNamesOfAtMost15CharactersThatStayAsTheyAre) {
  const JoinParameters params = Of("corp.example.com");

  for (std::size_t length = 0; length < 300; ++length) {
    const std::string shortened = params.ShortenName(std::string(length, 'n'));
    EXPECT_EQ(shortened.size(), std::min<std::size_t>(length, 15));
    EXPECT_EQ(params.ShortenName(shortened), shortened);
  }
}

TEST(GetAccountName, IsTheShortenedMachineNameInUpperCaseDigitsIncluded) {
  const std::pair<std::string, std::string> cases[] = {
      {"Appliance.lab", "APPLIANCE"},
      {"exactly15chars-.lab", "EXACTLY15CHARS-"},
      {"applianceclusternode", "APPLIAN-CB64EF3"},
      {"applianceclusternode.corp.example.com", "APPLIAN-CB64EF3"},
      {"app.liance.cluster.node", "APP"},  // what follows the dot does not make it long
      // Long names that begin alike become one account,
      {"appliance-elsewhere", "APPLIAN-CB64EF3"},
      // but the case counts: the digest is made before the name is upper-cased.
      {"APPLIANCECLUSTERNODE", "APPLIAN-B67A7EA"},
      {"", ""},
  };

  for (const auto& [host, account] : cases) {
    const MachineName name(host);
    EXPECT_EQ(Of("corp.example.com").GetAccountName(), account) << "of " << host;
  }
}

TEST(GetMachineDN, PutsTheAccountIntoTheComputersContainerOfTheDomain) {
  const MachineName name("Appliance.lab");

  EXPECT_EQ(Of("corp.example.com").GetMachineDN(),
            "cn=APPLIANCE,cn=Computers,dc=CORP,dc=EXAMPLE,dc=COM");
  EXPECT_EQ(Of("").GetMachineDN(), "cn=APPLIANCE,cn=Computers,");
}

TEST(GetMachineDN, HasAnEmptyNameWhenTheHostNameCannotBeRead) {
  const StandIn failing(calls::gethostname, [](char*, std::size_t) {
    errno = EFAULT;
    return -1;
  });
  LogCapture log;

  const std::string dn = Of("corp.example.com").GetMachineDN();

  EXPECT_EQ(dn, "cn=,cn=Computers,dc=CORP,dc=EXAMPLE,dc=COM");
  EXPECT_THAT(log.Notable(), ElementsAre("4 ldap-join GetMachineName: gethostname failed with 14"));
}

static_assert(!std::is_polymorphic_v<JoinParameters>);

TEST(ShortenName, NeedsNoProvider) {
  const StandIn missing(calls::SHA1, [](auto...) -> unsigned char* { return nullptr; });

  EXPECT_EQ(Of("corp.example.com").ShortenName("applianceclusternode"), "applian-cb64ef3");
}

// A system that allows approved algorithms alone has no provider for SHA-1, and no SHA1().
TEST(ShortenNameDeathTest, GivesTheSameNameWhereNoProviderHasTheDigest) {
  const auto shorten = [] {
    EVP_default_properties_enable_fips(nullptr, 1);  // as fips=yes in OPENSSL_CONF
    unsigned char digest[20] = {};
    if (SHA1(digest, 0, digest) != nullptr) std::exit(1);  // it is there after all
    std::exit(Of("corp.example.com").ShortenName("applianceclusternode") == "applian-cb64ef3" ? 0
                                                                                              : 2);
  };

  EXPECT_EXIT(shorten(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tavrel::tests
