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
  const tavrel::plus::Identity& user = *result.identity;
  const auto domain = tavrel::plus::Sid::FromText("S-1-5-21-1-2-3");
  const bool may = user.IsOfDomain(*domain) && user.IsMemberOf(*domain->WithRid(512));
  std::cout << user.RealmAndName() << (may ? " may\n" : " may not\n");
}
