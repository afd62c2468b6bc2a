// What the command lines of the example programs have in common.
#ifndef EXAMPLES_ARGUMENTS_H
#define EXAMPLES_ARGUMENTS_H

#include <tavrel/Ldap.h>

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

// HOST[:PORT][,starttls|ldaps[,CAFILE]] as a server entry. Other protection than these two is not
// offered: the administrator's password would travel in the clear, and no controller takes it so.
inline std::optional<tavrel::LdapServer> ParseServer(std::string_view text) {
  const auto next = [&text] {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(part.size() < text.size() ? part.size() + 1 : part.size());
    return std::string(part);
  };
  const std::string host = next();
  const std::string protection = next();
  const std::string ca_file(text);
  if (host.empty() || host.find('/') != std::string::npos) return std::nullopt;
  // An entry without a scheme always gets StartTLS, whatever its encryption is.
  if (protection.empty() || protection == "starttls") {
    return tavrel::LdapServer("ldap://" + host, vdi::LDAP_ENCRYPTION_STARTTLS, ca_file);
  }
  if (protection == "ldaps") {
    return tavrel::LdapServer("ldaps://" + host, vdi::LDAP_ENCRYPTION_LDAPS, ca_file);
  }
  return std::nullopt;
}

// A whole number from 1 to a million.
inline std::optional<int> ParseCount(std::string_view text) {
  int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (number < 1 || number > 1'000'000) return std::nullopt;
  return number;
}

#endif
