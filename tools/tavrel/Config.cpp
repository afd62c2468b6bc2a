#include "tavrel/Config.h"

#include <utility>
#include <vector>

#include "common/Settings.h"
#include "common/Takers.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

Take TakeEnctypes(plus::EncryptionTypes* to) {
  return [to](const std::string& value) -> std::string {
    if (value == "aes") {
      *to = plus::EncryptionTypes::kAes;
    } else if (value == "aes rc4") {
      *to = plus::EncryptionTypes::kAesAndRc4;
    } else {
      return "neither `aes` nor `aes rc4`";
    }
    return "";
  };
}

}  // namespace

std::optional<Config> Config::Parse(std::string_view text, const std::string& file,
                                    std::string* error) {
  Config config;
  plus::MembershipOptions& options = config.membership;
  const std::vector<Setting> settings = {
      {"domain", TakeText(&config.domain)},
      {"keytab", TakeFile(&config.keytab)},
      {"controllers", TakeList(&options.controllers)},
      {"site", TakeText(&options.site)},
      {"container", TakeText(&options.container)},
      {"account", TakeText(&options.account_name)},
      {"dns_name", TakeText(&options.dns_name)},
      {"services", TakeList(&options.services)},
      {"enctypes", TakeEnctypes(&options.encryption_types)},
      {"ticket_lifetime", TakeDuration(&options.ticket_lifetime)},
      {"rotate_after", TakeDuration(&config.rotate_after)},
      {"deadline", TakeDuration(&config.deadline)},
  };
  if (!ReadSettings(text, file, settings, error)) return std::nullopt;
  for (const auto& [value, name] :
       {std::pair(&config.domain, "domain"), std::pair(&config.keytab, "keytab")}) {
    if (!value->empty()) continue;
    *error = file + ": there is no '" + name + "', which is needed";
    return std::nullopt;
  }
  return config;
}

}  // namespace tavrel::tools
