// DNS answers, made byte by byte (RFC 1035, 4).
#ifndef TAVREL_TESTS_DNSMESSAGE_H
#define TAVREL_TESTS_DNSMESSAGE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace tavrel::tests {

std::string Number16(std::size_t number);

// A name in wire form, for example "dc1.example.com"; "" is the root.
std::string DnsName(const std::string& name);

// The labels of a name without its end, for a pointer to follow.
std::string DnsLabels(const std::string& name);

// The rest of a name stands at `offset` of the message.
std::string DnsPointer(std::size_t offset);

// The data of an SRV record (RFC 2782); `target` is in wire form.
std::string SrvData(std::uint16_t port, const std::string& target, std::uint16_t priority = 0,
                    std::uint16_t weight = 100);

// An answer to a question for the controllers of a domain.
class DnsMessage {
 public:
  static constexpr std::size_t kQuestion = 12;  // offset of the name asked for
  static constexpr std::size_t kDomain = 33;    // and of the domain in it

  explicit DnsMessage(const std::string& domain);

  // Appends a record to the answer section. `owner` is in wire form.
  DnsMessage& Record(std::uint16_t type, const std::string& data,
                     const std::string& owner = DnsPointer(kQuestion));

  // One whose length field is `length`, whatever data follows it.
  DnsMessage& RecordOfLength(std::size_t length, std::uint16_t type, const std::string& data,
                             const std::string& owner = DnsPointer(kQuestion));

  DnsMessage& Srv(std::uint16_t port, const std::string& target);

  // Puts another response code into the header.
  DnsMessage& ResponseCode(unsigned code);

  // The header says that there are `count` answers.
  DnsMessage& AnswerCount(std::size_t count);

  const std::string& Bytes() const { return bytes_; }

 private:
  std::string bytes_;
  std::size_t count_ = 0;
};

}  // namespace tavrel::tests

#endif
