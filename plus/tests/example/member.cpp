#include <tavrel/plus/Membership.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

using namespace tavrel::plus;

int main(int count, char** arguments) {  // DOMAIN KEYTAB
  if (count != 3) return 2;
  Membership member(arguments[1], arguments[2]);
  Result result;
  if (const char* password = std::getenv("ADMIN_PASSWORD")) {
    const auto administrator = Credentials::Password("Administrator", password);
    result = member.Enrol(administrator, std::chrono::seconds(30));
  } else {  // the machine itself, from a timer
    result = member.RotateWhenOlderThan(std::chrono::hours(24 * 30), std::chrono::seconds(30));
  }
  if (!result) {
    std::cerr << ToText(result.step) << " at " << result.controller << ": " << ToText(result.cause)
              << ": " << result.text << '\n';
    return 1;
  }
  std::cout << member.Principal() << (result.changed ? ": changed\n" : ": as before\n");
}
