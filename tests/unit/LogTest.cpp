// Where records come from.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "JoinerFixture.h"
#include "ScratchKeytab.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

// The source around a line, as far as one statement may reach.
std::string Around(const LogRecord& record) {
  std::ifstream source(TAVREL_SOURCES "/" + record.file);
  std::string text;
  std::string line;
  for (int number = 1; std::getline(source, line); ++number) {
    if (number >= record.line - 2 && number <= record.line + 1) text += line + "\n";
  }
  return text;
}

class ALogRecord : public JoinerFixture {};

TEST_F(ALogRecord, NamesTheLineOfItsStatement) {
  ScratchKeytab scratch;
  KrbRealm realm("corp.example.com", "Admin", "Admin.Pass.1", scratch.Path());
  std::string token = "no token at all";

  realm.Authenticate(token.data(), static_cast<int>(token.size()));
  realm.Join(nullptr);
  fake.Refuse("ldap_modify_ext_s", LDAP_BUSY);
  joiner.SetProperties(Account(), nullptr);
  scratch.keytab.APAuthenticate(token.data(), 3);
  scratch.keytab.ASAuthenticate(nullptr);

  std::map<std::string, int> last;
  for (const LogRecord& record : log.Records()) {
    EXPECT_THAT(Around(record), testing::HasSubstr('"' + record.message.substr(0, 10)))
        << record.file << ":" << record.line;
    last[record.file] = std::max(last[record.file], record.line);
  }
  EXPECT_GT(last["Join.cpp"], 255);
  EXPECT_GT(last["KrbKeytab.cpp"], 255);
  EXPECT_EQ(last.count("KrbRealm.cpp"), 1U);
}

TEST_F(ALogRecord, IsWholeWhateverItsLength) {
  const StandIn nobody(calls::res_search,
                       [](const char*, int, int, unsigned char*, int) { return -1; });
  for (std::size_t length = 200; length < 300; ++length) {
    const std::string domain(length, 'x');
    log.Clear();
    DNSDiscoveryService().GetLDAPHosts(domain);
    EXPECT_EQ(log.Records().front().message, "Discovering dns hosts for domain " + domain);
  }
}

}  // namespace
}  // namespace tavrel::tests
