// tavrel keys: what is in a keytab.
#include <getopt.h>
#include <krb5.h>

#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "common/Json.h"
#include "common/Text.h"
#include "tavrel/Command.h"

namespace tavrel::tools {
namespace {

constexpr int kNoKeytab = 66;

// The library's objects, given back in the order of need.
struct Krb {
  krb5_context context = nullptr;
  krb5_keytab keytab = nullptr;
  Krb() = default;
  Krb(const Krb&) = delete;
  Krb& operator=(const Krb&) = delete;
  ~Krb() {
    if (keytab != nullptr) krb5_kt_close(context, keytab);
    if (context != nullptr) krb5_free_context(context);
  }
};

std::string Message(krb5_context context, krb5_error_code code) {
  const char* const text = krb5_get_error_message(context, code);
  std::string message = text != nullptr ? text : "";
  krb5_free_error_message(context, text);
  return message;
}

JsonObject Describe(krb5_context context, const krb5_keytab_entry& entry) {
  char enctype[100] = "";
  krb5_enctype_to_name(entry.key.enctype, 0, enctype, sizeof enctype);
  char* name = nullptr;
  JsonObject object;
  if (krb5_unparse_name(context, entry.principal, &name) == 0) object.Add("principal", name);
  krb5_free_unparsed_name(context, name);
  return object.Add("key_version", std::int64_t{entry.vno})
      .Add("enctype", enctype)
      .Add("written", FormatTime(static_cast<std::uint32_t>(entry.timestamp)));
}

std::string Line(krb5_context context, const krb5_keytab_entry& entry) {
  char enctype[100] = "";
  krb5_enctype_to_name(entry.key.enctype, 0, enctype, sizeof enctype);
  char* name = nullptr;
  krb5_unparse_name(context, entry.principal, &name);
  std::string line = FormatTime(static_cast<std::uint32_t>(entry.timestamp)) + "  " +
                     std::to_string(entry.vno) + "  " + enctype + "  " +
                     Escaped(name != nullptr ? name : "", false);
  krb5_free_unparsed_name(context, name);
  return line;
}

}  // namespace

int RunKeys(int argc, char** argv) {
  const bool json = argc == 3 && std::strcmp(argv[1], "--json") == 0;
  if ((argc != 2 && !json) || *argv[argc - 1] == '-') {
    std::cerr << "usage: tavrel keys [--json] KEYTAB\n";
    return kUsage;
  }
  Krb krb;
  const auto failed = [&](krb5_error_code code) {
    std::cerr << "tavrel keys: " << argv[argc - 1] << ": " << Message(krb.context, code) << '\n';
    return kNoKeytab;
  };
  krb5_error_code code = krb5_init_context(&krb.context);
  if (code == 0) code = krb5_kt_resolve(krb.context, argv[argc - 1], &krb.keytab);
  krb5_kt_cursor cursor = nullptr;
  if (code == 0) code = krb5_kt_start_seq_get(krb.context, krb.keytab, &cursor);
  if (code != 0) return failed(code);
  std::vector<JsonObject> objects;
  krb5_keytab_entry entry{};
  while ((code = krb5_kt_next_entry(krb.context, krb.keytab, &entry, &cursor)) == 0) {
    if (json) {
      objects.push_back(Describe(krb.context, entry));
    } else {
      std::cout << Line(krb.context, entry) << '\n';
    }
    krb5_free_keytab_entry_contents(krb.context, &entry);
  }
  krb5_kt_end_seq_get(krb.context, krb.keytab, &cursor);
  if (json) std::cout << JsonArray(objects) << '\n';
  return code == KRB5_KT_END ? 0 : failed(code);
}

}  // namespace tavrel::tools
