// The records of a join from level 2 up. {URL} is the controller as it is contacted, {NAME} the
// machine's account, {KEYTAB} the keytab's path.
#ifndef TAVREL_TESTS_DOMAIN_RECORDS_H
#define TAVREL_TESTS_DOMAIN_RECORDS_H

namespace tavrel::tests {

inline constexpr char kJoined[] = "2 krb-realm Join: Joined to CORP.EXAMPLE.COM\n";

// The keytab's keys or the password are tried.
inline constexpr char kNoKeytab[] =
    "4 krb-keytab HasKey: Error starting keytab sequence: Key table file '{KEYTAB}' not found\n";
inline constexpr char kKeyRefused[] =
    "4 krb-keytab ASAuthenticate: Error authenticating through keytab: Preauthentication failed\n";
inline constexpr char kNoPasswordYet[] =
    "4 krb-keytab ASAuthenticate: Error authenticating through password: "
    "KDC has no support for encryption type\n";

// What a first join leaves in the error text.
inline constexpr char kNotCreated[] = "Keytab file not created yet.";

}  // namespace tavrel::tests

#endif
