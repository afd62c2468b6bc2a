// tavrel keys: what is in a keytab.
#include <cstring>
#include <iostream>

#include "common/Json.h"
#include "common/Text.h"
#include "tavrel/Command.h"
#include "tavrel/Krb.h"

namespace tavrel::tools {
namespace {

constexpr int kNoKeytab = 66;

std::string Written(const KeytabEntry& entry) {
  return FormatTime(static_cast<std::uint32_t>(entry.written));
}

}  // namespace

int RunKeys(int argc, char** argv) {
  const bool json = argc == 3 && std::strcmp(argv[1], "--json") == 0;
  if ((argc != 2 && !json) || *argv[argc - 1] == '-') {
    std::cerr << "usage: tavrel keys [--json] KEYTAB\n";
    return kUsage;
  }
  krb5_error_code code = 0;
  std::vector<KeytabEntry> entries;
  const Context context = MakeContext(&code);
  if (code == 0) code = ReadKeytab(context.get(), argv[argc - 1], entries);
  std::vector<JsonObject> objects;
  for (const KeytabEntry& entry : entries) {
    if (json) {
      objects.push_back(JsonObject()
                            .Add("principal", entry.principal)
                            .Add("key_version", std::int64_t{entry.version})
                            .Add("enctype", Name(entry.type))
                            .Add("written", Written(entry)));
    } else {
      std::cout << Written(entry) << "  " << entry.version << "  " << Name(entry.type) << "  "
                << Escaped(entry.principal, false) << '\n';
    }
  }
  if (json && (code == 0 || !objects.empty())) std::cout << JsonArray(objects) << '\n';
  if (code == 0) return 0;
  std::cerr << "tavrel keys: " << argv[argc - 1] << ": " << Explain(context.get(), code) << '\n';
  return kNoKeytab;
}

}  // namespace tavrel::tools
