// tavrel: membership of this machine in a domain, and its users' tokens. tavrel(1) describes it.
#include <exception>
#include <iostream>
#include <string_view>

#include "tavrel/Command.h"

namespace tavrel::tools {
namespace {

constexpr Command kCommands[] = {
    {"check", "looks at all that a membership needs, and changes nothing", RunCheck},
    {"enrol", "makes this machine a member of its domain, with AES keys", RunEnrol},
    {"join", "makes this machine a member as the core's Join() does, with an RC4 key", RunJoin},
    {"rotate", "gives the machine a new password, and its keytab the keys", RunRotate},
    {"status", "shows the account, and whether its keys work", RunStatus},
    {"leave", "ends the membership", RunLeave},
    {"keys", "shows what is in a keytab", RunKeys},
    {"whoami", "says whose token this is, or why it is refused", RunWhoami},
    {"token", "makes the token that a browser would send", RunToken},
};

int Usage(std::ostream& to, int status) {
  to << "usage: tavrel COMMAND ...\n\n";
  for (const Command& command : kCommands) {
    to << "  " << command.name << std::string(10 - std::string_view(command.name).size(), ' ')
       << command.summary << '\n';
  }
  to << "\ntavrel(1) says more.\n";
  return status;
}

int Run(int argc, char** argv) {
  const std::string_view name = argc > 1 ? argv[1] : "";
  if (name == "--help") return Usage(std::cout, 0);
  for (const Command& command : kCommands) {
    if (name != command.name) continue;
    try {
      const int status = command.run(argc - 1, argv + 1);
      if (std::cout.flush()) return status;
      std::cerr << "tavrel " << name << ": cannot write what there is to say\n";
      return 1;
    } catch (const std::exception& error) {
      std::cerr << "tavrel " << name << ": " << error.what() << '\n';
      return 1;
    }
  }
  return Usage(std::cerr, kUsage);
}

}  // namespace
}  // namespace tavrel::tools

int main(int argc, char** argv) {
  return tavrel::tools::Run(argc, argv);
}
