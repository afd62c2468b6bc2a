#include "FakeDomain.h"

#include <utility>

#include "DnsMessage.h"

namespace tavrel::tests {
namespace {

// A line of the directory, and the step that it stands for.
const std::pair<std::string, std::string> kSteps[] = {{"dns", "dns"},
                                                      {"ldap_sasl_bind_s ", "bind"},
                                                      {"ldap_search_ext_s ", "find"},
                                                      {"ldap_add_ext_s ", "add"},
                                                      {"replace userAccountControl: ", "flags "},
                                                      {"replace binary unicodePwd: ", "password"},
                                                      {"ldap_unbind_ext ", "unbind"},
                                                      {"ticket by keytab", "ticket by keytab"},
                                                      {"ticket by password", "ticket by password"},
                                                      {"key ", "key "}};
const std::string& kPasswordLine = kSteps[5].first;

// The password in a value of unicodePwd, hexadecimal: quoted, two bytes a character.
std::string Decoded(const std::string& value) {
  std::string text;
  for (std::size_t i = 4; i + 4 < value.size(); i += 4)
    text += static_cast<char>(std::stoi(value.substr(i, 2), nullptr, 16));
  return text;
}

}  // namespace

FakeDomain::FakeDomain()
    : res_search_(
          calls::res_search,
          [this](const char*, int, int, unsigned char* answer, int) {
            if (ldap.Record("dns") != 0) return -1;
            const std::string bytes =
                DnsMessage("corp.example.com").Srv(389, DnsName("dc1.corp.example.com")).Bytes();
            bytes.copy(reinterpret_cast<char*>(answer), bytes.size());
            return static_cast<int>(bytes.size());
          }),
      by_keytab_(calls::krb5_get_init_creds_keytab,
                 [this](krb5_context context, krb5_creds* creds, krb5_principal client, auto...) {
                   ldap.Record("ticket by keytab");
                   return Issue(context, creds, client, by_keytab);
                 }),
      by_password_(calls::krb5_get_init_creds_password,
                   [this](krb5_context context, krb5_creds* creds, krb5_principal client,
                          const char* password, auto...) {
                     ldap.Record("ticket by password");
                     passwords_.emplace_back(password);
                     return Issue(context, creds, client, by_password);
                   }),
      free_creds_(calls::krb5_free_cred_contents,
                  [this](krb5_context context, krb5_creds* creds) {
                    --tickets_;
                    calls::krb5_free_cred_contents.Real(context, creds);
                  }),
      add_key_(calls::krb5_kt_add_entry,
               [this](krb5_context context, krb5_keytab keytab, krb5_keytab_entry* entry) {
                 const krb5_error_code code = ldap.Record("key " + std::to_string(entry->vno));
                 return code != 0 ? code : calls::krb5_kt_add_entry.Real(context, keytab, entry);
               }) {
  for (int session = 1; session <= 3; ++session)
    ldap.answers[session] = {LDAP_SUCCESS, {FakeLdap::Entry({"4098"})}};
}

std::string FakeDomain::Steps() const {
  std::string steps;
  for (const std::string& line : ldap.Lines()) {
    for (const auto& [start, step] : kSteps) {
      if (line.rfind(start, 0) != 0) continue;
      steps += (steps.empty() ? "" : ", ") + step;
      if (step.back() == ' ') steps += line.substr(start.size());
    }
  }
  return steps;
}

std::vector<std::string> FakeDomain::Passwords() const {
  std::vector<std::string> passwords = passwords_;
  for (const std::string& line : ldap.Lines()) {
    if (line.rfind(kPasswordLine, 0) == 0) {
      passwords.push_back(Decoded(line.substr(kPasswordLine.size())));
    }
  }
  return passwords;
}

krb5_error_code FakeDomain::Issue(krb5_context context, krb5_creds* creds, krb5_principal client,
                                  std::deque<Ticket>& answers) {
  const Ticket ticket = answers.front();
  if (answers.size() > 1) answers.pop_front();
  if (ticket.code != 0) return ticket.code;
  ++tickets_;
  *creds = {};
  creds->times.authtime = static_cast<krb5_timestamp>(std::time(nullptr)) + ticket.starts_in;
  krb5_copy_principal(context, client, &creds->client);
  return krb5_build_principal(context, &creds->server, client->realm.length, client->realm.data,
                              "krbtgt", client->realm.data, nullptr);
}

}  // namespace tavrel::tests
