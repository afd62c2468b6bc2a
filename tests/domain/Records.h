// The records of a join, block by block. {NAME} is the machine's account; {DC} is the controller as
// DNS or the list of servers names it, and {URL} how it is contacted; {KEYTAB} is the keytab's
// path; {TIME} is about now.
#ifndef TAVREL_TESTS_DOMAIN_RECORDS_H
#define TAVREL_TESTS_DOMAIN_RECORDS_H

#include <string>
#include <string_view>
#include <vector>

namespace tavrel::tests {

// DNS names the one controller.
inline constexpr char kDiscovered[] =
    "1 discovery GetLDAPHosts: Discovering dns hosts for domain CORP.EXAMPLE.COM\n"
    "1 discovery GetLDAPHosts: SRV Port: 389\n"
    "1 discovery GetLDAPHosts: SRV Target: dc1.corp.example.com\n"
    "1 ldap-join Connect: Adding a discovered host dc1.corp.example.com:389\n";

// It accepts the administrator.
inline constexpr char kBound[] =
    "1 ldap Connect: Connecting to host: {URL}\n"
    "1 ldap Connect: LDAP bind is successful\n";

// It has no account of the machine, or one with these flags.
inline constexpr char kAbsent[] =
    "1 ldap-join GetAccountObject: Getting account object from {DC}\n"
    "1 ldap-join GetAccountObject: Found account object from {DC}\n";
inline std::string Present(const std::string& flags) {
  return "1 ldap-join GetAccountObject: Getting account object from {DC}\n"
         "1 ldap-join GetAccountObject: Found user account control on {DC}: " +
         flags +
         "\n"
         "1 ldap-join GetAccountObject: Found account object from {DC}\n";
}
inline const std::string kPresent = Present("4096");

// The account step: creating the account, or finding one and giving it these flags.
inline constexpr char kAdded[] =
    "1 krb-realm Join: Adding to CORP.EXAMPLE.COM\n"
    "1 ldap-join SetProperties: Setting user account control: 4096\n"
    "2 krb-realm Join: Joined to CORP.EXAMPLE.COM\n";
inline std::string AlreadyIn(const std::string& flags) {
  return "1 krb-realm Join: Machine already in CORP.EXAMPLE.COM\n"
         "1 ldap-join SetProperties: Setting user account control: " +
         flags +
         "\n"
         "2 krb-realm Join: Joined to CORP.EXAMPLE.COM\n";
}
inline const std::string kAlreadyIn = AlreadyIn("4096");

// The keytab's keys or the password are tried.
inline constexpr char kNoKeytab[] = "1 krb-keytab ASAuthenticate: Keytab file not created yet.\n";
inline constexpr char kKeyRefused[] =
    "4 krb-keytab ASAuthenticate: Error authenticating through keytab: Preauthentication failed\n";
inline constexpr char kPasswordRefused[] =
    "4 krb-keytab ASAuthenticate: Error authenticating through password: "
    "Preauthentication failed\n";
inline constexpr char kNoPasswordYet[] =
    "4 krb-keytab ASAuthenticate: Error authenticating through password: "
    "KDC has no support for encryption type\n";
inline constexpr char kTicket[] =
    "1 krb-keytab PrintCreds: serverprincipal: CORP.EXAMPLE.COM krbtgt CORP.EXAMPLE.COM\n"
    "1 krb-keytab PrintCreds: clientprincipal: CORP.EXAMPLE.COM {NAME}$\n";

// Entries of the keytab.
inline constexpr char kKey1[] =
    "1 krb-keytab Process: Key: {NAME}$@CORP.EXAMPLE.COM version 1 at {TIME}\n";
inline constexpr char kKey2[] =
    "1 krb-keytab Process: Key: {NAME}$@CORP.EXAMPLE.COM version 2 at {TIME}\n";

// The joins of a new machine, of one whose keytab is gone, and of one whose key works.
inline const std::vector<std::string_view> kNewMachine = {
    kDiscovered, kBound, kAbsent, kAdded, kNoKeytab, kPresent, kTicket, kKey1, kTicket};
inline const std::vector<std::string_view> kKeylessMachine = {
    kDiscovered, kBound, kPresent, kAlreadyIn, kNoKeytab, kPresent, kTicket, kKey1, kTicket};
inline const std::vector<std::string_view> kJoinedMachine = {kDiscovered, kBound, kPresent,
                                                             kAlreadyIn, kTicket};

// What a first join leaves in the error text.
inline constexpr char kNotCreated[] = "Keytab file not created yet.";

}  // namespace tavrel::tests

#endif
