#include "LdapScript.h"

#include "ForgedRequest.h"

namespace tavrel::tests {
namespace {

constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kOctetString = 0x04;
constexpr unsigned char kEnumerated = 0x0a;
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kSet = 0x31;
constexpr unsigned char kSearchEntry = 0x64;
constexpr unsigned char kSearchReference = 0x73;
constexpr unsigned char kReferral = 0xa3;

std::string Number(unsigned char tag, int value) {
  return Der(tag,
             std::string{static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)});
}

// Takes an element off the front of `bytes` and returns its content.
std::string Take(std::string& bytes) {
  const auto first = static_cast<unsigned char>(bytes.at(1));
  std::size_t size = first;
  std::size_t header = 2;
  if (first >= 0x80) {
    size = 0;
    for (; header < 2U + (first & 0x7fU); ++header)
      size = size << 8U | static_cast<unsigned char>(bytes.at(header));
  }
  const std::string content = bytes.substr(header, size);
  bytes.erase(0, header + size);
  return content;
}

unsigned char ResponseTo(unsigned char operation) {
  return static_cast<unsigned char>(operation + (operation == kSearch ? 2 : 1));
}

}  // namespace

LdapRequest Receive(Connection& connection) {
  std::string bytes = connection.Receive(2);
  if (bytes.size() < 2) return {};
  std::size_t size = static_cast<unsigned char>(bytes[1]);
  if (size >= 0x80) {
    const std::string more = connection.Receive(size & 0x7fU);
    size = 0;
    for (const char c : more)
      size = size << 8U | static_cast<unsigned char>(c);
    bytes += more;
  }
  bytes += connection.Receive(size);

  std::string message = Take(bytes);
  LdapRequest request;
  for (const char c : Take(message))
    request.id = request.id << 8 | static_cast<unsigned char>(c);
  request.operation = static_cast<unsigned char>(message.at(0));
  request.content = Take(message);
  return request;
}

std::string LdapMessage(int id, unsigned char operation, const std::string& content) {
  return Der(kSequence, Number(kInteger, id) + Der(operation, content));
}

std::string LdapResult(const LdapRequest& request, int code, const std::string& referral) {
  std::string content = Number(kEnumerated, code) + Der(kOctetString, "") + Der(kOctetString, "");
  if (!referral.empty()) content += Der(kReferral, Der(kOctetString, referral));
  return LdapMessage(request.id, ResponseTo(request.operation), content);
}

std::string LdapEntry(const LdapRequest& request, const std::vector<std::string>& flags) {
  std::string values;
  for (const std::string& value : flags)
    values += Der(kOctetString, value);
  const std::string attribute =
      Der(kSequence, Der(kOctetString, "userAccountControl") + Der(kSet, values));
  return LdapMessage(request.id, kSearchEntry,
                     Der(kOctetString, "cn=APPLIANCE") + Der(kSequence, attribute));
}

std::string LdapReference(const LdapRequest& request, const std::string& url) {
  return LdapMessage(request.id, kSearchReference, Der(kOctetString, url));
}

void ServeLdap(Connection& connection, const LdapScript& special) {
  for (;;) {
    const LdapRequest request = Receive(connection);
    if (request.operation == 0 || request.operation == kUnbind) return;
    const auto answer = special.find(request.operation);
    if (answer != special.end()) {
      answer->second(connection, request);
      continue;
    }
    if (request.operation == kSearch) connection.Send(LdapEntry(request, {"4096"}));
    connection.Send(LdapResult(request, 0));
  }
}

}  // namespace tavrel::tests
