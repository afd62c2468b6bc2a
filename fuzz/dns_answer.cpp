// The answer to a DNS query for a domain's servers. The first byte of the input is how the query
// ends and what lies behind the answer, the rest is the answer.
#include <cstring>

#include "Expect.h"
#include "Interpose.h"
#include "Records.h"
#include "Script.h"
#include "tavrel/DiscoveryService.h"

namespace tavrel::fuzz {
namespace {

using tests::StandIn;
namespace calls = tests::calls;

constexpr std::size_t kLargestAnswer = 65535;

struct Outcome {
  std::list<std::string> hosts;
  Records records;

  void Record(int level, const std::string& text) {
    records.Add(level, "discovery", "GetLDAPHosts", text);
  }
};

// A DNS message (RFC 1035, 4), read the way the C library's resolver does.
class Message {
 public:
  explicit Message(std::string_view bytes) : bytes_(bytes) {}

  struct Record {
    bool readable = false;
    unsigned type = 0;
    std::size_t data = 0;  // where its data starts
    std::size_t length = 0;
  };

  // The records of the answer section; none when the message cannot be parsed at all.
  std::optional<std::vector<Record>> Answers() const {
    if (bytes_.size() < 12) return std::nullopt;
    std::vector<Record> answers;
    std::size_t at = 12;
    for (std::size_t section = 0; section < 4; ++section) {
      for (unsigned left = Number(4 + 2 * section); left > 0; --left) {
        std::string owner;
        const bool expands = Expand(at, owner) != 0;
        const std::size_t name = Skip(at);
        if (name == 0) return std::nullopt;
        at += name;
        if (section == 0) {
          at += 4;
        } else {
          if (at + 10 > bytes_.size()) return std::nullopt;
          const Record record = {expands, Number(at), at + 10, Number(at + 8)};
          at = record.data + record.length;
          if (section == 1) answers.push_back(record);
        }
        if (at > bytes_.size()) return std::nullopt;
      }
    }
    if (at != bytes_.size()) return std::nullopt;
    return answers;
  }

  unsigned Number(std::size_t at) const { return Byte(at) << 8 | Byte(at + 1); }

  // Appends the presentation form of the name at `at`; how many bytes it takes there, 0 when it is
  // malformed.
  std::size_t Expand(std::size_t at, std::string& text) const {
    const std::size_t start = at;
    std::size_t used = 0;
    std::size_t looked_at = 0;  // more than there is: the pointers go round
    std::size_t length = 0;     // uncompressed
    for (;;) {
      if (at >= bytes_.size()) return 0;
      const unsigned label = Byte(at++);
      if (label == 0) break;
      if (label >= 0xc0) {
        if (at >= bytes_.size()) return 0;
        if (used == 0) used = at + 1 - start;
        at = (label & 0x3f) << 8 | Byte(at);
        looked_at += 2;
        if (at >= bytes_.size() || looked_at >= bytes_.size()) return 0;
        continue;
      }
      length += label + 1;
      if (label >= 0x40 || length >= 255 || at + label >= bytes_.size()) return 0;
      if (!text.empty()) text += '.';
      for (const char c : bytes_.substr(at, label))
        text += Presented(c);
      at += label;
      looked_at += label + 1;
    }
    if (text.empty()) text = ".";
    return used != 0 ? used : at - start;
  }

 private:
  unsigned Byte(std::size_t at) const { return static_cast<unsigned char>(bytes_[at]); }

  // How many bytes the name at `at` takes, pointers not followed; 0 when it has no end.
  std::size_t Skip(std::size_t at) const {
    const std::size_t start = at;
    while (at < bytes_.size()) {
      const unsigned label = Byte(at++);
      if (label == 0) return at - start;
      if (label >= 0xc0) return at < bytes_.size() ? at + 1 - start : 0;
      if (label >= 0x40) return 0;
      at += label;
    }
    return 0;
  }

  static std::string Presented(char c) {
    if (std::strchr("\".;\\()@$", c) != nullptr && c != '\0') return {'\\', c};
    if (c > 0x20 && c < 0x7f) return {c};
    char digits[5];
    std::snprintf(digits, sizeof digits, "\\%03u", static_cast<unsigned char>(c));
    return digits;
  }

  std::string_view bytes_;
};

Outcome Reference(const std::string& domain, bool answered, std::string_view answer) {
  Outcome outcome;
  outcome.Record(1, "Discovering dns hosts for domain " + domain);
  if (!answered) {
    outcome.Record(4, "Error in dns search for domain  " + domain);
    return outcome;
  }
  const Message message(answer);
  const auto answers = message.Answers();
  if (!answers) {
    outcome.Record(4, "Error parsing DNS answer for " + domain);
    return outcome;
  }
  if ((message.Number(2) & 0xf) != 0) {
    outcome.Record(4, "The DNS header answer reported an error for " + domain);
    return outcome;
  }
  if (answers->empty()) outcome.Record(4, "DNS reported no answers for " + domain);
  for (std::size_t i = 0; i < answers->size(); ++i) {
    const Message::Record& record = (*answers)[i];
    if (record.readable && record.type != 33) continue;
    // Data too short for a target has none that could be read.
    if (!record.readable || record.length < 6) {
      outcome.Record(3,
                     "Error parsing DNS response record " + std::to_string(i) + " for " + domain);
      continue;
    }
    const std::string port = std::to_string(message.Number(record.data + 4));
    outcome.Record(1, "SRV Port: " + port);
    std::string target;
    const std::size_t used = message.Expand(record.data + 6, target);
    if (used == 0 || used > record.length - 6) {
      outcome.Record(4, "Error uncompressing target for " + domain);
      continue;
    }
    outcome.Record(1, "SRV Target: " + target);
    outcome.hosts.push_back(target + ":" + port);
  }
  return outcome;
}

// `filler` is what the rest of the library's buffer holds, of which nothing may show.
std::list<std::string> Discover(const std::string& domain, int length, std::string_view answer,
                                int filler) {
  const StandIn search(
      calls::res_search, [&](const char* name, int cls, int type, unsigned char* buffer, int size) {
        ExpectEqual(std::string_view(name), "_ldap._tcp.dc._msdcs." + domain,
                    "the domain's servers are asked for");
        Expect(cls == 1 && type == 33, "SRV records are asked for");
        ExpectEqual(size, static_cast<int>(kLargestAnswer), "there is room for the largest answer");
        std::memcpy(buffer, answer.data(), answer.size());
        std::memset(buffer + answer.size(), filler, kLargestAnswer - answer.size());
        return length;
      });
  TheLog().Clear();

  return DNSDiscoveryService().GetLDAPHosts(domain);
}

void CheckShape(const std::list<std::string>& hosts) {
  for (const std::string& host : hosts) {
    const std::size_t colon = host.rfind(':');
    Expect(colon != std::string::npos && colon > 0, "a server is target:port");
    const std::string port = host.substr(colon + 1);
    Expect(!port.empty() && port.size() <= 5 &&
               port.find_first_not_of("0123456789") == std::string::npos &&
               std::stoi(port) <= 65535,
           "a port is a decimal number of 16 bits");
    for (const char c : host)
      Expect(c > 0x20 && c < 0x7f, "a target is printable");
  }
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrel::fuzz;
  Script script(data, size);
  const unsigned byte = script.Byte();
  const unsigned how = byte % 8;
  const int filler = byte / 8 % 2 == 0 ? 0 : 0xff;
  std::string answer = script.Rest().substr(0, kLargestAnswer);
  auto length = static_cast<int>(answer.size());
  if (how == 1) length = -1;
  if (how ==
      2) {  // the answer was larger than the buffer; what fills it up is soon found to be none
    answer.resize(kLargestAnswer, '\x40');
    length = 70000;
  }
  static const std::string domain = "corp.example.com";
  const Outcome expected = Reference(domain, length >= 0, answer);

  const std::list<std::string> hosts = Discover(domain, length, answer, filler);

  ExpectEqual(hosts, expected.hosts, "the servers are the targets of the answer");
  ExpectEqual(TheLog().Text(), expected.records.Text(), "records of a discovery");
  CheckShape(hosts);
  return 0;
}
