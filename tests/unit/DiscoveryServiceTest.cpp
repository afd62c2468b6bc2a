#include "tavrel/DiscoveryService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <string>
#include <type_traits>
#include <vector>

#include "DnsMessage.h"
#include "GroupedDigits.h"
#include "Interpose.h"
#include "LogCapture.h"

namespace tavrel::tests {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kDomain = "corp.example.com";

// "dc1" and its like, in the domain that the question names.
std::string InDomain(const std::string& host) {
  return DnsLabels(host) + DnsPointer(DnsMessage::kDomain);
}

// Answers the library's query with `bytes` while it lives.
class DnsReply {
 public:
  explicit DnsReply(const std::string& bytes)
      : res_search_(calls::res_search, [bytes](const char*, int, int, unsigned char* buffer,
                                               int size) {
          std::memcpy(buffer, bytes.data(), std::min(bytes.size(), static_cast<std::size_t>(size)));
          return static_cast<int>(bytes.size());
        }) {}
  explicit DnsReply(const DnsMessage& message) : DnsReply(message.Bytes()) {}

 private:
  const StandIn<Interposed<int(const char*, int, int, unsigned char*, int)>> res_search_;
};

std::list<std::string> Hosts() {
  return DNSDiscoveryService().GetLDAPHosts(kDomain);
}

// Those records of a discovery, given as "level text".
std::vector<std::string> Logged(std::vector<std::string> records) {
  for (std::string& record : records)
    record.insert(2, "discovery GetLDAPHosts: ");
  return records;
}

TEST(Discovery, AsksForTheSrvRecordsOfTheDomainAsGiven) {
  struct Query {
    std::string name;
    int dns_class, type, size;
  };
  std::vector<Query> queries;
  const StandIn searched(calls::res_search,
                         [&](const char* name, int dns_class, int type, unsigned char*, int size) {
                           queries.push_back({name, dns_class, type, size});
                           return -1;
                         });

  for (const char* domain : {"corp.example.com", "CORP.Example.COM.", ""})
    DNSDiscoveryService().GetLDAPHosts(domain);

  ASSERT_THAT(queries, SizeIs(3));
  EXPECT_EQ(queries[0].name, "_ldap._tcp.dc._msdcs.corp.example.com");
  EXPECT_EQ(queries[1].name, "_ldap._tcp.dc._msdcs.CORP.Example.COM.");
  EXPECT_EQ(queries[2].name, "_ldap._tcp.dc._msdcs.");
  EXPECT_THAT(queries, Each(Field(&Query::dns_class, 1)));
  EXPECT_THAT(queries, Each(Field(&Query::type, 33)));
  EXPECT_THAT(queries, Each(Field(&Query::size, 65535)));
}

TEST(Discovery, NamesEveryServerInTheOrderOfTheAnswer) {
  DnsMessage answer(kDomain);
  answer.Record(ns_t_srv, SrvData(389, InDomain("dc3"), 30, 0));
  answer.Record(ns_t_srv, SrvData(3268, DnsName("dc1.other.example.net"), 10, 65535));
  answer.Record(ns_t_srv, SrvData(389, InDomain("dc2"), 20, 1));
  answer.Record(ns_t_srv, SrvData(389, InDomain("dc3"), 30, 0));
  const DnsReply reply(answer);
  const GroupedDigits digits;
  LogCapture log;

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, ElementsAre("dc3.corp.example.com:389", "dc1.other.example.net:3268",
                                 "dc2.corp.example.com:389", "dc3.corp.example.com:389"));
  EXPECT_THAT(log.Lines(), ElementsAreArray(Logged({
                               "1 Discovering dns hosts for domain " + kDomain,
                               "1 SRV Port: 389",
                               "1 SRV Target: dc3.corp.example.com",
                               "1 SRV Port: 3268",
                               "1 SRV Target: dc1.other.example.net",
                               "1 SRV Port: 389",
                               "1 SRV Target: dc2.corp.example.com",
                               "1 SRV Port: 389",
                               "1 SRV Target: dc3.corp.example.com",
                           })));
  EXPECT_THAT(log.Records(), Each(Field(&LogRecord::file, "DiscoveryService.cpp")));
}

TEST(Discovery, CallsTheResolverOnceAndItsParserOnceARecord) {
  const DnsReply reply(DnsMessage(kDomain).Srv(389, InDomain("dc1")).Srv(389, InDomain("dc2")));
  const CallTrace trace;

  Hosts();

  EXPECT_THAT(trace.Names(), ElementsAre("res_search", "ns_initparse", "ns_parserr",
                                         "ns_name_uncompress", "ns_parserr", "ns_name_uncompress"));
}

struct Refusal {
  const char* name;
  std::string bytes;
  const char* record;
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
  *out << refusal.name;
}

class DiscoveryRefuses : public testing::TestWithParam<Refusal> {};

TEST_P(DiscoveryRefuses, TheWholeAnswer) {
  const DnsReply reply(GetParam().bytes);
  LogCapture log;

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, IsEmpty());
  EXPECT_THAT(log.Notable(), ElementsAreArray(Logged({GetParam().record + kDomain})));
}

const DnsMessage kOneServer = DnsMessage(kDomain).Srv(389, InDomain("dc1"));
constexpr char kUnparsed[] = "4 Error parsing DNS answer for ";
constexpr char kErrorCode[] = "4 The DNS header answer reported an error for ";
constexpr char kNoAnswers[] = "4 DNS reported no answers for ";

INSTANTIATE_TEST_SUITE_P(
    Answers, DiscoveryRefuses,
    testing::Values(
        Refusal{"Empty", "", kUnparsed},
        Refusal{"WithoutAWholeHeader", kOneServer.Bytes().substr(0, 11), kUnparsed},
        Refusal{"CutInTheQuestion", kOneServer.Bytes().substr(0, 30), kUnparsed},
        Refusal{"CutInTheRecord", kOneServer.Bytes().substr(0, kOneServer.Bytes().size() - 1),
                kUnparsed},
        Refusal{"WithFewerRecordsThanAnnounced", DnsMessage(kOneServer).AnswerCount(2).Bytes(),
                kUnparsed},
        Refusal{"WithMoreRecordsThanAnnounced", DnsMessage(kOneServer).AnswerCount(0).Bytes(),
                kUnparsed},
        Refusal{"WithARecordLongerThanTheRest",
                DnsMessage(kDomain)
                    .RecordOfLength(65535, ns_t_srv, SrvData(389, InDomain("dc1")))
                    .Bytes(),
                kUnparsed},
        Refusal{"LargerThanAnyMessage", kOneServer.Bytes() + std::string(70000, '\0'), kUnparsed},
        Refusal{"FormatError", DnsMessage(kOneServer).ResponseCode(1).Bytes(), kErrorCode},
        Refusal{"ServerFailure", DnsMessage(kOneServer).ResponseCode(2).Bytes(), kErrorCode},
        Refusal{"NoSuchName", DnsMessage(kDomain).ResponseCode(3).Bytes(), kErrorCode},
        Refusal{"HighestCode", DnsMessage(kOneServer).ResponseCode(15).Bytes(), kErrorCode},
        Refusal{"WithoutRecords", DnsMessage(kDomain).Bytes(), kNoAnswers}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Discovery, FindsNothingWhenTheSearchFails) {
  const StandIn failing(calls::res_search, [](auto...) { return -1; });
  LogCapture log;
  const CallTrace trace;

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, IsEmpty());
  EXPECT_THAT(log.Notable(),
              ElementsAreArray(Logged({"4 Error in dns search for domain  " + kDomain})));
  EXPECT_THAT(trace.Names(), ElementsAre("res_search"));
}

TEST(Discovery, PassesRecordsOfOtherTypesOverInSilence) {
  DnsMessage answer(kDomain);
  answer.Record(ns_t_cname, InDomain("controllers"));
  answer.Srv(389, InDomain("dc1"));
  answer.Record(ns_t_txt, std::string(1, '\0'));
  answer.Record(ns_t_a, "\x0A\x35\x39\x1E");
  answer.Record(ns_t_a, "");  // too short for an SRV record
  const DnsReply reply(answer);
  LogCapture log;

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, ElementsAre("dc1.corp.example.com:389"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST(Discovery, LogsNothingMoreWhenNoRecordIsAnSrvRecord) {
  const DnsReply reply(DnsMessage(kDomain).Record(ns_t_cname, InDomain("controllers")));
  LogCapture log;

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

struct Target {
  std::string wire;
  std::uint16_t port;
  std::string host;
};

TEST(Discovery, WritesTargetsAndPortsAsTextWithoutATrailingDot) {
  const std::string longest_label(63, 'a');
  const std::vector<Target> targets = {
      {DnsName("dc1.corp.example.com"), 389, "dc1.corp.example.com:389"},
      {DnsName("DC1.Corp.example.COM"), 389, "DC1.Corp.example.COM:389"},
      {InDomain("dc1"), 0, "dc1.corp.example.com:0"},
      {InDomain("dc1"), 65535, "dc1.corp.example.com:65535"},
      {InDomain("dc1"), 256, "dc1.corp.example.com:256"},
      {DnsPointer(DnsMessage::kDomain), 389, "corp.example.com:389"},
      {DnsName("dc1"), 389, "dc1:389"},
      {DnsName(""), 389, ".:389"},
      {DnsPointer(DnsMessage::kDomain + kDomain.size() + 1), 389, ".:389"},  // the domain's own end
      {DnsName(longest_label + "." + longest_label), 389,
       longest_label + "." + longest_label + ":389"},
      {DnsName("dc 1"), 389, "dc\\0321:389"},
      {std::string("\4dc.1\0", 6), 389, "dc\\.1:389"},
      {std::string("\3d\0c\0", 5), 389, "d\\000c:389"},
  };

  for (const Target& target : targets) {
    const DnsReply reply(DnsMessage(kDomain).Srv(target.port, target.wire));
    EXPECT_THAT(Hosts(), ElementsAre(target.host));
  }
}

TEST(Discovery, AcceptsTheLongestPossibleName) {
  // 255 bytes, each of which becomes four characters.
  std::string wire;
  std::string text;
  for (const std::size_t length : {63U, 63U, 63U, 61U}) {
    wire += static_cast<char>(length) + std::string(length, '\1');
    if (!text.empty()) text += '.';
    for (std::size_t i = 0; i < length; ++i)
      text += "\\001";
  }
  wire += '\0';
  ASSERT_THAT(wire, SizeIs(255));
  const DnsReply reply(DnsMessage(kDomain).Srv(389, wire));

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, ElementsAre(text + ":389"));
}

// Records the library cannot use, each between two that it can.

// That record between those of dc1 and dc3.
DnsMessage Between(std::uint16_t type, const std::string& data,
                   const std::string& owner = DnsPointer(DnsMessage::kQuestion)) {
  return DnsMessage(kDomain)
      .Srv(1, InDomain("dc1"))
      .Record(type, data, owner)
      .Srv(3, InDomain("dc3"));
}

void ExpectTheOthersUsed(const DnsMessage& answer, const std::string& record) {
  const DnsReply reply(answer);
  LogCapture log;

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, ElementsAre("dc1.corp.example.com:1", "dc3.corp.example.com:3"));
  EXPECT_THAT(log.Notable(), ElementsAreArray(Logged({record})));
}

const std::string kRecordUnparsed = "3 Error parsing DNS response record 1 for " + kDomain;
const std::string kTargetUnexpanded = "4 Error uncompressing target for " + kDomain;

TEST(Discovery, LeavesOutARecordWhoseOwnerCannotBeRead) {
  // Pointers to beyond the message, and to bytes that are no name.
  for (const std::string& owner :
       {DnsPointer(0x3FFF), DnsPointer(0), DnsLabels("x") + DnsPointer(9999)}) {
    ExpectTheOthersUsed(Between(ns_t_srv, SrvData(2, InDomain("dc2")), owner), kRecordUnparsed);
  }
}

TEST(Discovery, LeavesOutARecordThatTheParserRefuses) {
  const StandIn refusing(calls::ns_parserr,
                         [](ns_msg* message, ns_sect section, int index, ns_rr* record) {
                           if (index == 1) return -1;
                           return calls::ns_parserr.Real(message, section, index, record);
                         });

  ExpectTheOthersUsed(Between(ns_t_srv, SrvData(2, InDomain("dc2"))), kRecordUnparsed);
}

TEST(Discovery, LeavesOutARecordTooShortForATarget) {
  const std::string data = SrvData(2, InDomain("dc2"));
  for (std::size_t length = 0; length < 6; ++length) {
    ExpectTheOthersUsed(Between(ns_t_srv, data.substr(0, length)), kRecordUnparsed);
  }
}

TEST(Discovery, LeavesOutATargetThatRunsPastItsRecord) {
  const std::string data = SrvData(2, DnsName("dc2.corp.example.com"));
  for (std::size_t length = 6; length < data.size(); ++length) {
    DnsMessage answer(kDomain);
    answer.Srv(1, InDomain("dc1"));
    // The next record goes on like the name that was cut, so it could be read on.
    answer.Record(ns_t_srv, data.substr(0, length));
    answer.Record(ns_t_srv, SrvData(3, InDomain("dc3")), DnsName("a.b"));

    ExpectTheOthersUsed(answer, kTargetUnexpanded);
  }
}

TEST(Discovery, LeavesOutATargetThatCannotBeExpanded) {
  const std::size_t target =  // where the second record's target begins
      DnsMessage(kDomain).Srv(1, InDomain("dc1")).Record(ns_t_srv, SrvData(2, "")).Bytes().size();
  std::string too_long;
  for (int i = 0; i < 64; ++i)
    too_long += DnsLabels("abc");
  too_long += DnsName(std::string(63, 'd'));
  const std::string targets[] = {
      DnsPointer(target),  // to itself
      DnsLabels("dc2") + DnsPointer(target),
      DnsPointer(0x3FFF),         // past the end
      std::string("\x40x\0", 3),  // a kind of label that is not defined
      std::string("\x80x\0", 3),
      too_long,
  };
  for (const std::string& wire : targets) {
    ExpectTheOthersUsed(Between(ns_t_srv, SrvData(2, wire)), kTargetUnexpanded);
  }
}

TEST(Discovery, ReturnsAsManyServersAsTheAnswerHas) {
  for (const int count : {1, 2, 17, 500}) {
    DnsMessage answer(kDomain);
    std::vector<std::string> expected;
    for (int i = 0; i < count; ++i) {
      const std::string name = "dc" + std::to_string(i);
      answer.Srv(static_cast<std::uint16_t>(i), InDomain(name));
      expected.push_back(name + ".corp.example.com:" + std::to_string(i));
    }
    const DnsReply reply(answer);

    const std::list<std::string> hosts = Hosts();

    EXPECT_THAT(hosts, ElementsAreArray(expected));
  }
}

TEST(Discovery, ReadsTheLargestPossibleMessageToItsEnd) {
  const std::size_t rest = DnsMessage(kDomain)
                               .Record(ns_t_txt, "")
                               .Srv(389, DnsName("dc1.corp.example.com"))
                               .Bytes()
                               .size();
  DnsMessage answer(kDomain);
  answer.Record(ns_t_txt, std::string(65535 - rest, '\0'));
  answer.Srv(389, DnsName("dc1.corp.example.com"));
  ASSERT_THAT(answer.Bytes(), SizeIs(65535));
  const DnsReply reply(answer);

  const std::list<std::string> hosts = Hosts();

  EXPECT_THAT(hosts, ElementsAre("dc1.corp.example.com:389"));
}

TEST(Discovery, ParsesNoMoreThanItsBufferHolds) {
  // The server's answer is longer than that, and res_search() says so.
  const DnsReply reply(kOneServer.Bytes() + std::string(70000, '\0'));
  int parsed = 0;
  const StandIn parser(calls::ns_initparse, [&](const unsigned char*, int length, ns_msg*) {
    parsed = length;
    return -1;
  });

  Hosts();

  EXPECT_EQ(parsed, 65535);
}

// Whatever arrives, there are never more servers than SRV records.
TEST(Discovery, SurvivesAnswersThatAreCutOrDamaged) {
  const std::string good = DnsMessage(kDomain)
                               .Srv(389, InDomain("dc1"))
                               .Record(ns_t_cname, InDomain("controllers"))
                               .Srv(389, InDomain("dc2"))
                               .Bytes();

  for (std::size_t length = 0; length < good.size(); ++length) {
    const DnsReply reply(good.substr(0, length));
    EXPECT_THAT(Hosts(), IsEmpty()) << "cut to " << length;
  }
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (const int damage : {0x01, 0x80, 0xC0, 0xFF}) {
      std::string bytes = good;
      bytes[i] = static_cast<char>(bytes[i] ^ damage);
      const DnsReply reply(bytes);
      EXPECT_LE(Hosts().size(), 2U) << "byte " << i << " changed by " << damage;
    }
  }
}

static_assert(std::is_abstract_v<DiscoveryService>);
static_assert(std::is_base_of_v<DiscoveryService, DNSDiscoveryService>);
// One virtual operation and no data.
static_assert(sizeof(DNSDiscoveryService) == sizeof(void*));
static_assert(!std::has_virtual_destructor_v<DNSDiscoveryService>);
static_assert(!std::is_destructible_v<DiscoveryService>);

}  // namespace
}  // namespace tavrel::tests
