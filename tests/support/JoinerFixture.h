// A joiner whose directory, discovery and machine are fakes.
#ifndef TAVREL_TESTS_JOINERFIXTURE_H
#define TAVREL_TESTS_JOINERFIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "FakeLdap.h"
#include "LogCapture.h"
#include "MachineName.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/Join.h"

namespace tavrel::tests {

inline constexpr char kEarlier[] = "what an earlier call left";
inline const std::string kDn = "'cn=APPLIANCE,cn=Computers,dc=CORP,dc=EXAMPLE,dc=COM'";

// Knows these hosts, and which domains it was asked for.
class FakeDiscovery final : public DiscoveryService {
 public:
  explicit FakeDiscovery(std::list<std::string> hosts = {}) : hosts_(std::move(hosts)) {}

  std::list<std::string> GetLDAPHosts(const std::string& domain) const override {
    asked.push_back(domain);
    return hosts_;
  }

  mutable std::vector<std::string> asked;

 private:
  std::list<std::string> hosts_;
};

// A machine named appliance that is to join corp.example.com through `servers`.
class JoinerFixture : public testing::Test {
 protected:
  explicit JoinerFixture(const std::list<LdapServer>& servers = {})
      : name("Appliance.lab"), params("corp.example.com", servers, "admin", "secret") {}

  // A joiner with these sessions, of which those that start with "-" are not connected.
  void Sessions(const std::vector<std::string>& hosts) {
    int session = 0;
    for (const std::string& host : hosts) {
      ++session;
      joiner.sessions.emplace_back(host, vdi::LDAP_ENCRYPTION_NONE, "");
      if (host[0] != '-') joiner.sessions.back().handle = fake.Handle(session);
    }
  }

  AccountObject Account(std::uint32_t flags = 4096) { return {false, true, fake.Handle(1), flags}; }

  MachineName name;
  FakeLdap fake;
  FakeDiscovery discovery;
  JoinParameters params;
  Joiner joiner{&params, &discovery};
  LogCapture log;
  std::string error = kEarlier;
};

// Those of `lines` that start with `start`.
inline std::vector<std::string> StartingWith(const std::string& start,
                                             const std::vector<std::string>& lines) {
  std::vector<std::string> found;
  for (const std::string& line : lines) {
    if (line.rfind(start, 0) == 0) found.push_back(line);
  }
  return found;
}

}  // namespace tavrel::tests

#endif
