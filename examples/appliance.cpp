// Joins a domain, and then says whose ticket each token is that it gets.
//
//   appliance DOMAIN USER KEYTAB [TOKEN...]
//
// The administrator's password is read from standard input, so that no list of processes shows it.
// Each TOKEN is a file with a GSS-API token as a client sent it. Exit status: 0 when the machine is
// joined and every token was accepted, 1 when a token was refused, otherwise that of the join.
#include <tavrel/KrbError.h>
#include <tavrel/KrbRealm.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

int main(int argc, char** argv) {
  if (argc < 4) {
    std::cerr << "usage: appliance DOMAIN USER KEYTAB [TOKEN...] < PASSWORD\n";
    return 64;
  }
  std::string password;
  std::getline(std::cin, password);

  tavrel::KrbRealm realm(argv[1], argv[2], password, argv[3]);
  std::string error;
  const int status = realm.Join(&error);
  std::cout << "join: status " << status << (error.empty() ? "" : ", \"" + error + "\"") << '\n';
  if (status != tavrel::kSuccess) return status;

  bool refused = false;
  for (int i = 4; i < argc; ++i) {
    std::ifstream file(argv[i], std::ios::binary);
    std::string token(std::istreambuf_iterator<char>(file), {});
    const std::string user = realm.Authenticate(token.data(), static_cast<int>(token.size()));
    std::cout << "token " << argv[i] << ": " << (user.empty() ? "refused" : user) << '\n';
    refused = refused || user.empty();
  }
  return refused ? 1 : 0;
}
