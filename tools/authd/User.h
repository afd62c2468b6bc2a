// Who signed in, as far as the daemon needs to know.
#ifndef TAVREL_TOOLS_AUTHD_USER_H
#define TAVREL_TOOLS_AUTHD_USER_H

#include <tavrel/plus/Sid.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tavrel::tools {

struct User {
  std::string name;               // alice@CORP.EXAMPLE.COM
  std::optional<plus::Sid> sid;   // nothing when the ticket said nothing of it
  std::vector<plus::Sid> groups;  // all that the ticket names
  std::string service;            // that the client asked for: HTTP/box.corp.example.com
  std::int64_t signed_in = 0;     // when the ticket was accepted, in seconds since 1970
};

}  // namespace tavrel::tools

#endif
