// Gives a joined machine a new password, and its keytab the key of it.
//
//   rotate_password DOMAIN USER KEYTAB < PASSWORD
//
// The keytab gets the new key first, so that there is no moment in which the KDC seals tickets with
// a key that the keytab lacks. Earlier keys stay in it for the tickets that users hold. Exit
// status: that of the proof at the end, see tavrel::KrbStatus.
#include <tavrel/DiscoveryService.h>
#include <tavrel/Join.h>
#include <tavrel/KrbContext.h>
#include <tavrel/KrbError.h>
#include <tavrel/KrbKeytab.h>

#include <csignal>
#include <iostream>
#include <string>

int Rotate(const tavrel::JoinParameters& params, const std::string& keytab_path,
           std::string* error) {
  tavrel::KrbContext context;
  if (!context.SetKeytab(keytab_path)) return tavrel::kFailure;
  if (!context.SetClientPrincipal(params.GetAccountName() + "$@" + params.domain)) {
    return tavrel::kFailure;
  }
  const tavrel::DNSDiscoveryService discovery;
  tavrel::Joiner joiner(&params, &discovery);
  if (!joiner.Connect(error)) return tavrel::kFailure;
  const tavrel::AccountObject account = joiner.GetAccountObject(error);
  if (!account.exists) return tavrel::kFailure;

  // A process has one machine password for a domain. It is a new one here, as nothing joined yet.
  tavrel::Keytab keytab(&context);
  if (!keytab.WriteKey(params.GetMachinePassword(), error)) return tavrel::kFailure;
  if (!joiner.SetPassword(account, error)) return tavrel::kFailure;
  return keytab.ASAuthenticate(error);
}

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: rotate_password DOMAIN USER KEYTAB < PASSWORD\n";
    return 64;
  }
  std::string password;
  std::getline(std::cin, password);

  std::signal(SIGPIPE, SIG_IGN);  // a controller may close its connection at any time
  std::string error;
  const int status =
      Rotate(tavrel::JoinParameters(argv[1], {}, argv[2], password), argv[3], &error);
  std::cout << "rotate: status " << status << (error.empty() ? "" : ", \"" + error + "\"") << '\n';
  return status;
}
