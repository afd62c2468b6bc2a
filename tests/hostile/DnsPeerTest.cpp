// Name servers that answer too much, too little or nonsense.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "DnsMessage.h"
#include "LogCapture.h"
#include "Peer.h"
#include "tavrel/DiscoveryService.h"

namespace tavrel::tests {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Le;

constexpr char kDomain[] = "corp.example.com";
constexpr char kFailed[] =
    "4 discovery GetLDAPHosts: Error in dns search for domain  corp.example.com";

// The resolver asks 127.0.0.1, once, for at most a second, while it lives. The file is one of the
// lab's own.
class ResolverSettings {
 public:
  ResolverSettings() {
    std::ostringstream text;
    text << std::ifstream(kFile).rdbuf();
    earlier_ = text.str();
    std::ofstream(kFile) << "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n";
  }
  ResolverSettings(const ResolverSettings&) = delete;
  ResolverSettings& operator=(const ResolverSettings&) = delete;
  ~ResolverSettings() { std::ofstream(kFile) << earlier_; }

 private:
  static constexpr char kFile[] = "/etc/resolv.conf";
  std::string earlier_;
};

// `answer` with the number of the query.
std::string AnswerTo(const std::string& query, const std::string& answer) {
  return query.substr(0, 2) + answer.substr(std::min<std::size_t>(2, answer.size()));
}

// A header that says: truncated, ask again through TCP.
std::string Truncated(const std::string& query) {
  std::string answer = AnswerTo(query, DnsMessage(kDomain).Bytes());
  answer[2] = static_cast<char>(answer[2] | 0x02);
  return answer;
}

void ServeTcp(Connection& connection, const std::string& answer, std::size_t size) {
  const std::string length = connection.Receive(2);
  if (length.size() < 2) return;
  const std::string query = connection.Receive(static_cast<std::size_t>(
      static_cast<unsigned char>(length[0]) << 8 | static_cast<unsigned char>(length[1])));
  connection.Send((Number16(answer.size()) + AnswerTo(query, answer)).substr(0, size));
}

struct Discovered {
  std::list<std::string> hosts;
  std::vector<std::string> log;
  double seconds;
};
Discovered Discover() {
  LogCapture log;
  const auto began = std::chrono::steady_clock::now();
  const std::list<std::string> hosts = DNSDiscoveryService().GetLDAPHosts(kDomain);
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - began;
  return {hosts, log.Notable(), time.count()};
}

// What is discovered where every datagram is answered with `answer`.
Discovered DiscoverFrom(const std::string& answer) {
  const ResolverSettings settings;
  const UdpPeer server([&](const std::string& query) { return AnswerTo(query, answer); }, 53);
  return Discover();
}

TEST(DnsPeer, WithFiveHundredRecordsIsAskedThroughTcpAndAllAreUsedInTheirOrder) {
  DnsMessage answer(kDomain);
  std::list<std::string> hosts;
  for (int i = 0; i < 500; ++i) {
    const std::string name = "dc" + std::to_string(i) + ".corp.example.com";
    const auto port = static_cast<std::uint16_t>(1000 + i);
    answer.Srv(port, DnsName(name));
    hosts.push_back(name + ":" + std::to_string(port));
  }
  const ResolverSettings settings;
  const UdpPeer udp(Truncated, 53);
  Peer tcp([&](Connection& connection) { ServeTcp(connection, answer.Bytes(), 65537); }, 53);

  const Discovered found = Discover();

  std::printf("DNS: %zu hosts in an answer of %zu bytes, %.2f s\n", found.hosts.size(),
              answer.Bytes().size(), found.seconds);
  EXPECT_EQ(found.hosts, hosts);
  EXPECT_THAT(found.log, IsEmpty());
  EXPECT_EQ(tcp.Connections(), 1);
  EXPECT_THAT(found.seconds, Le(2 + kBusy));
}

TEST(DnsPeer, ThatTruncatesAndCannotBeReachedThroughTcpFailsTheSearch) {
  const ResolverSettings settings;
  const UdpPeer udp(Truncated, 53);

  const Discovered found = Discover();

  EXPECT_THAT(found.hosts, IsEmpty());
  EXPECT_THAT(found.log, ElementsAre(kFailed));
  EXPECT_THAT(found.seconds, Le(5 + kBusy));
}

TEST(DnsPeer, ThatEndsATcpAnswerBeforeItsEndFailsTheSearch) {
  const std::string answer = DnsMessage(kDomain).Srv(389, DnsName("dc1.corp.example.com")).Bytes();
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{2}, std::size_t{10}, answer.size() + 1}) {
    SCOPED_TRACE(size);
    const ResolverSettings settings;
    const UdpPeer udp(Truncated, 53);
    Peer tcp([&](Connection& connection) { ServeTcp(connection, answer, size); }, 53);

    const Discovered found = Discover();

    EXPECT_THAT(found.hosts, IsEmpty());
    EXPECT_THAT(found.log, ElementsAre(kFailed));
    EXPECT_THAT(found.seconds, Le(5 + kBusy));
  }
}

TEST(DnsPeer, ThatNeverAnswersIsGivenUpAfterTheResolversTimeLimit) {
  const ResolverSettings settings;
  const UdpPeer silent([](const std::string&) { return std::string(); }, 53);

  const Discovered found = Discover();

  EXPECT_THAT(found.hosts, IsEmpty());
  EXPECT_THAT(found.log, ElementsAre(kFailed));
  EXPECT_THAT(found.seconds, Le(5 + kBusy));
}

TEST(DnsPeer, WhoseNamesRunInCirclesLosesTheseRecordsOnly) {
  const std::string good = DnsName("dc1.corp.example.com");
  const std::size_t second = DnsMessage(kDomain).Srv(1, good).Bytes().size();
  constexpr std::size_t kTarget = 12 + 6;  // of a record whose owner is a pointer
  const std::string itself = DnsPointer(second + kTarget);
  const std::string label_and_itself = std::string("\x03loop", 4) + DnsPointer(second + kTarget);
  const std::string beyond = DnsPointer(0x3fff);
  const std::string failed =
      "4 discovery GetLDAPHosts: Error uncompressing target for corp.example.com";
  for (const std::string& target : {itself, label_and_itself, beyond}) {
    const std::string answer = DnsMessage(kDomain).Srv(1, good).Srv(2, target).Srv(3, good).Bytes();

    const Discovered found = DiscoverFrom(answer);

    EXPECT_THAT(found.hosts, ElementsAre("dc1.corp.example.com:1", "dc1.corp.example.com:3"));
    EXPECT_THAT(found.log, ElementsAre(failed));
    EXPECT_THAT(found.seconds, Le(2 + kBusy));
  }
}

TEST(DnsPeer, WhoseOwnersRunInCirclesLosesTheseRecordsOnly) {
  const std::string good = DnsName("dc1.corp.example.com");
  const std::size_t second = DnsMessage(kDomain).Srv(1, good).Bytes().size();
  const std::string answer = DnsMessage(kDomain)
                                 .Srv(1, good)
                                 .Record(33, SrvData(2, good), DnsPointer(second))
                                 .Srv(3, good)
                                 .Bytes();

  const Discovered found = DiscoverFrom(answer);

  EXPECT_THAT(found.hosts, ElementsAre("dc1.corp.example.com:1", "dc1.corp.example.com:3"));
  EXPECT_THAT(
      found.log,
      ElementsAre(
          "3 discovery GetLDAPHosts: Error parsing DNS response record 1 for corp.example.com"));
}

// What was said before the cut is heard, what was cut off is not; nothing else ever appears.
TEST(DnsPeer, WhoseAnswerIsTruncatedAtAnyByteGivesOnlyHostsThatItNamed) {
  const std::string a = DnsName("a.example"), b = DnsName("b.example");
  const std::string answer = DnsMessage(kDomain).Srv(1, a).Srv(2, b).Bytes();
  const std::size_t question = DnsMessage(kDomain).Bytes().size();
  std::map<std::list<std::string>, int> outcomes;

  for (std::size_t size = question; size <= answer.size(); ++size) {
    const Discovered found = DiscoverFrom(answer.substr(0, size));
    ++outcomes[found.hosts];
  }

  const int cuts = static_cast<int>(answer.size() - question);
  std::printf("DNS answer truncated at each of %d bytes\n", cuts);
  EXPECT_THAT(outcomes,
              ElementsAre(std::pair(std::list<std::string>{}, cuts),
                          std::pair(std::list<std::string>{"a.example:1", "b.example:2"}, 1)));
}

}  // namespace
}  // namespace tavrel::tests
