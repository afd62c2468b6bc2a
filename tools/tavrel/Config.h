// The settings of a membership.
#ifndef TAVREL_TOOLS_TAVREL_CONFIG_H
#define TAVREL_TOOLS_TAVREL_CONFIG_H

#include <tavrel/plus/Membership.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace tavrel::tools {

// What tavrel.conf says; tools/README.md describes each setting.
struct Config {
  std::string domain;
  std::string keytab;
  plus::MembershipOptions membership;
  std::chrono::seconds rotate_after{30 * 86400};
  std::chrono::seconds deadline{60};

  // Nothing, with `FILE:LINE: WHAT` in `*error`, when a line is wrong or a setting is missing.
  static std::optional<Config> Parse(std::string_view text, const std::string& file,
                                     std::string* error);
};

}  // namespace tavrel::tools

#endif
