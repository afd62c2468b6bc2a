#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "tavrel/DiscoveryService.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

// The server rotates the records of its answers, so their order is not compared.

TEST(DnsDiscovery, FindsTheControllersOfADomain) {
  LogCapture log;

  const auto hosts = DNSDiscoveryService().GetLDAPHosts("corp.example.com");

  EXPECT_THAT(hosts, UnorderedElementsAre("dead.corp.example.com:389", "dc1.corp.example.com:389",
                                          "dc2.corp.example.com:389"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(DnsDiscovery, FindsThemByTheDomainInUpperCaseAndFullyQualified) {
  for (const char* domain : {"CORP.EXAMPLE.COM", "corp.example.com."})
    EXPECT_THAT(DNSDiscoveryService().GetLDAPHosts(domain), SizeIs(3)) << domain;
}

TEST(DnsDiscovery, FindsThemThroughTheSearchListOfTheResolver) {
  const auto hosts = DNSDiscoveryService().GetLDAPHosts("corp");

  EXPECT_THAT(hosts, SizeIs(3));
}

TEST(DnsDiscovery, FindsMoreControllersThanADatagramHolds) {
  std::vector<std::string> expected;
  for (int i = 1; i <= 200; ++i)
    expected.push_back("dc" + std::to_string(i) + ".large.example.com:" + std::to_string(i));

  const auto hosts = DNSDiscoveryService().GetLDAPHosts("large.example.com");

  EXPECT_THAT(hosts, UnorderedElementsAreArray(expected));
}

TEST(DnsDiscovery, TakesTheRootForAServer) {
  LogCapture log;

  const auto hosts = DNSDiscoveryService().GetLDAPHosts("none.example.com");

  EXPECT_THAT(hosts, ElementsAre(".:1"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

// The resolver does not tell a name that does not exist from one without such records.
TEST(DnsDiscovery, FindsNothingWithoutTheNameOrWithoutItsRecords) {
  for (const std::string domain : {"nowhere.example.com", "nodata.example.com"}) {
    LogCapture log;

    const auto hosts = DNSDiscoveryService().GetLDAPHosts(domain);

    EXPECT_THAT(hosts, IsEmpty());
    EXPECT_THAT(log.Notable(),
                ElementsAre("4 discovery GetLDAPHosts: Error in dns search for domain  " + domain));
  }
}

}  // namespace
}  // namespace tavrel::tests
