#include <tavrel/plus/Acceptor.h>

#include <iostream>
#include <iterator>

int main() {  // reads one token from standard input
  tavrel::plus::AcceptorOptions options;
  options.keytab = "/etc/appliance.keytab";
  options.replay_file = "/var/lib/appliance/replay";
  std::string error;
  const auto acceptor = tavrel::plus::Acceptor::Make(options, &error);
  if (!acceptor) {
    std::cerr << error << '\n';
    return 2;
  }
  const std::string token(std::istreambuf_iterator<char>(std::cin), {});
  const tavrel::plus::Acceptance result = acceptor->Accept(token);
  if (!result) {
    std::cout << Name(result.refusal->reason) << ": " << result.refusal->text << '\n';
    return 1;
  }
  const auto admins = tavrel::plus::Sid::FromText("S-1-5-21-1-2-3-512");
  std::cout << result.identity->RealmAndName()
            << (result.identity->IsMemberOf(*admins) ? " may\n" : " may not\n");
}
