#include "DnsMessage.h"

#include <arpa/nameser.h>

#include <sstream>

namespace tavrel::tests {
namespace {

constexpr std::size_t kFlags = 2;  // offsets in the header
constexpr std::size_t kAnswerCount = 6;
constexpr unsigned kResponse = 0x8180;  // of a recursive server, to a recursive question
constexpr std::size_t kPointer = 0xC000;

}  // namespace

std::string Number16(std::size_t number) {
  return {static_cast<char>(number >> 8U & 0xFFU), static_cast<char>(number & 0xFFU)};
}

std::string DnsLabels(const std::string& name) {
  std::string labels;
  std::istringstream parts(name);
  for (std::string label; std::getline(parts, label, '.');)
    labels += static_cast<char>(label.size()) + label;
  return labels;
}

std::string DnsName(const std::string& name) {
  return DnsLabels(name) + '\0';
}

std::string DnsPointer(std::size_t offset) {
  return Number16(kPointer | offset);
}

std::string SrvData(std::uint16_t port, const std::string& target, std::uint16_t priority,
                    std::uint16_t weight) {
  return Number16(priority) + Number16(weight) + Number16(port) + target;
}

DnsMessage::DnsMessage(const std::string& domain)
    : bytes_(Number16(0x1234) + Number16(kResponse) + Number16(1) + Number16(0) + Number16(0) +
             Number16(0) + DnsLabels("_ldap._tcp.dc._msdcs") + DnsName(domain) +
             Number16(ns_t_srv) + Number16(ns_c_in)) {}

DnsMessage& DnsMessage::Record(std::uint16_t type, const std::string& data,
                               const std::string& owner) {
  return RecordOfLength(data.size(), type, data, owner);
}

DnsMessage& DnsMessage::RecordOfLength(std::size_t length, std::uint16_t type,
                                       const std::string& data, const std::string& owner) {
  const std::string time_to_live = Number16(0) + Number16(600);
  bytes_ += owner + Number16(type) + Number16(ns_c_in) + time_to_live + Number16(length) + data;
  return AnswerCount(++count_);
}

DnsMessage& DnsMessage::Srv(std::uint16_t port, const std::string& target) {
  return Record(ns_t_srv, SrvData(port, target));
}

DnsMessage& DnsMessage::ResponseCode(unsigned code) {
  bytes_.replace(kFlags, 2, Number16(kResponse | code));
  return *this;
}

DnsMessage& DnsMessage::AnswerCount(std::size_t count) {
  bytes_.replace(kAnswerCount, 2, Number16(count));
  return *this;
}

}  // namespace tavrel::tests
