// The daemon's settings.
#ifndef TAVREL_TOOLS_AUTHD_CONFIG_H
#define TAVREL_TOOLS_AUTHD_CONFIG_H

#include <tavrel/plus/Acceptor.h>

#include <chrono>
#include <optional>
#include <string>

#include "authd/Front.h"
#include "authd/Http.h"

namespace tavrel::tools {

// What authd.conf says; tools/README.md describes each setting.
struct Config {
  plus::AcceptorOptions acceptor;
  std::string listen, status_listen, squid_listen;  // empty: nobody listens there
  std::string policy;
  std::string session_keys;  // empty: there are no sessions
  std::chrono::seconds session_lifetime{8 * 3600};
  std::chrono::seconds session_idle{3600};
  FrontSettings front;
  HttpLimits limits;

  // Nothing, with `FILE:LINE: WHAT` in `*error`, when a line is wrong or a setting is missing.
  static std::optional<Config> Parse(std::string_view text, const std::string& file,
                                     std::string* error);
};

// A socket that listens at `unix:/PATH` (mode 0660, in place of one that nobody listens at any
// more), `ADDRESS:PORT` or `[ADDRESS]:PORT`; -1, with what went wrong in `*error`, when there is
// none to have.
int Listen(const std::string& where, std::string* error);

}  // namespace tavrel::tools

#endif
