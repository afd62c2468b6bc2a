// The names of a join. The input is lines of text: the host name ("(fails)" when it cannot be had),
// the domain, and a name to shorten.
#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Expect.h"
#include "Interpose.h"
#include "LogCapture.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/Join.h"

namespace tavrel::fuzz {
namespace {

using tests::LogCapture;
using tests::StandIn;
namespace calls = tests::calls;
using Lines = std::vector<std::string>;

std::string UpTo(std::string& text, char end) {
  const std::size_t length = std::min(text.find(end), text.size());
  const std::string head = text.substr(0, length);
  text.erase(0, length + 1);
  return head;
}

std::string Map(std::string text, char first, char last, char to_first) {
  for (char& c : text) {
    if (c >= first && c <= last) c = static_cast<char>(c - first + to_first);
  }
  return text;
}
std::string Upper(const std::string& text) {
  return Map(text, 'a', 'z', 'A');
}
std::string Lower(const std::string& text) {
  return Map(text, 'A', 'Z', 'a');
}

std::string ShortName(const std::string& name) {
  if (name.size() <= 15) return name;
  const std::string kept = name.substr(0, 7);
  unsigned char digest[EVP_MAX_MD_SIZE];
  EVP_Digest(kept.data(), kept.size(), digest, nullptr, EVP_sha1(), nullptr);
  char digits[9];
  std::snprintf(digits, sizeof digits, "%02x%02x%02x%02x", digest[0], digest[1], digest[2],
                digest[3]);
  return kept + "-" + std::string(digits, 7);
}

std::string DomainDN(std::string domain) {
  if (domain.empty()) return "";
  domain += '.';
  std::string dn;
  while (!domain.empty())
    dn += ",dc=" + UpTo(domain, '.');
  return dn.substr(1);
}

// What no name may be, whatever it is made of.
void CheckShape(const JoinParameters& params, const std::string& name) {
  const std::string account = params.GetAccountName();
  Expect(account.size() <= 15, "an account name has at most 15 characters");
  Expect(
      account.find_first_of(std::string(".abcdefghijklmnopqrstuvwxyz") + '\0') == std::string::npos,
      "an account name has neither dots nor small letters");
  const std::string shortened = params.ShortenName(name);
  ExpectEqual(params.ShortenName(shortened), shortened, "a short name stays as it is");
  ExpectEqual(shortened.size(), std::min<std::size_t>(name.size(), 15),
              "a shortened name has 15 characters");

  const std::string dn = params.GetDomainDN();
  std::size_t components = dn.empty() ? 0 : 1;
  for (std::size_t at = 0; (at = dn.find(",dc=", at)) != std::string::npos; ++at)
    ++components;
  const auto dots =
      static_cast<std::size_t>(std::count(params.domain.begin(), params.domain.end(), '.'));
  Expect(params.domain.find(",dc=") != std::string::npos ||
             components == (params.domain.empty() ? 0 : dots + 1),
         "a domain's DN has one component for every part of its name");
}

using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

// The attributes that an account is created with, as libldap is given them.
Attributes Created(const JoinParameters& params, const std::string& dn) {
  struct NoDiscovery : DiscoveryService {
    std::list<std::string> GetLDAPHosts(const std::string&) const override { return {}; }
  };
  const NoDiscovery discovery;
  Attributes attributes;
  const StandIn add(calls::ldap_add_ext_s, [&](LDAP*, const char* name, LDAPMod** mods, auto...) {
    ExpectEqual(std::string(name), Logged(dn), "the account is created under its name");
    for (; *mods != nullptr; ++mods) {
      ExpectEqual((*mods)->mod_op, LDAP_MOD_ADD, "an account is made of additions");
      attributes.emplace_back((*mods)->mod_type, Lines{});
      for (char** value = (*mods)->mod_values; *value != nullptr; ++value)
        attributes.back().second.emplace_back(*value);
    }
    return LDAP_SUCCESS;
  });
  AccountObject account;
  account.ldap = reinterpret_cast<LDAP*>(&attributes);  // only handed on

  account = Joiner(&params, &discovery).AddAccountObject(account, nullptr);

  Expect(account.exists && !account.failed, "a created account exists");
  return attributes;
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrel::fuzz;
  std::string rest(reinterpret_cast<const char*>(data), size);
  const std::string host = UpTo(rest, '\n');
  const std::string domain = UpTo(rest, '\n');
  const std::string name = UpTo(rest, '\n');
  const bool fails = host == "(fails)";
  const StandIn gethostname(calls::gethostname, [&](char* buffer, std::size_t length) {
    ExpectEqual(length, 255u, "a host name has 255 bytes");
    std::strncpy(buffer, host.c_str(), length);  // not terminated when cut, as the real one
    errno = ENAMETOOLONG;
    return fails ? -1 : 0;
  });

  // A name that fills the buffer is cut to 254 characters.
  std::string machine = fails ? "" : Logged(host).substr(0, 254);
  machine = UpTo(machine, '.');
  const std::string account = Upper(ShortName(machine));
  const std::string domain_dn = DomainDN(Upper(domain));
  const std::string machine_dn = "cn=" + account + ",cn=Computers," + domain_dn;
  const Lines records(fails ? 1 : 0, "4 ldap-join GetMachineName: gethostname failed with 36");

  const tavrel::JoinParameters params(domain, {}, domain, host);
  LogCapture log;
  ExpectEqual(params.domain, Upper(domain), "the domain is upper-cased");
  ExpectEqual(params.user, domain, "the user is kept");
  ExpectEqual(params.password, host, "the password is kept");
  ExpectEqual(params.GetMachineName(), machine, "the machine name is the host name to its dot");
  ExpectEqual(log.Lines(), records, "a host name that cannot be had is told");
  ExpectEqual(params.GetAccountName(), account, "the account name is short and upper-cased");
  ExpectEqual(params.GetDomainDN(), domain_dn, "the domain's DN");
  ExpectEqual(params.GetMachineDN(), machine_dn, "the machine's DN");
  ExpectEqual(params.ShortenName(name), ShortName(name), "a shortened name");
  CheckShape(params, name);

  const std::string fqdn = Logged(Lower(machine) + "." + Upper(domain));
  const Attributes expected = {
      {"objectClass", {"user", "computer"}},
      {"userAccountControl", {"4096"}},
      {"dNSHostName", {fqdn}},
      {"cn", {account}},
      {"name", {account}},
      {"sAMAccountName", {account + "$"}},
      {"displayName", {account}},
      {"servicePrincipalName", {"HOST/" + Upper(machine), "HOST/" + fqdn}},
      {"msDs-supportedEncryptionTypes", {"4"}},
      {"instanceType", {"4"}},
      {"operatingSystem", {"Linux"}},
      {"objectCategory", {Logged("CN=Computer,CN=Schema,CN=Configuration," + domain_dn)}}};
  Expect(Created(params, machine_dn) == expected, "a created account's attributes");

  // Few enough that the cache of passwords stays small.
  if (domain.size() <= 1) {
    const std::string password = params.GetMachinePassword();
    ExpectEqual(password.size(), 50u, "a machine password has 50 characters");
    ExpectEqual(tavrel::JoinParameters(Upper(domain), {}, "", "").GetMachinePassword(), password,
                "a domain has one machine password");
  }
  return 0;
}
