// The Kerberos library's settings for one test, apart from those of the machine.
#ifndef TAVREL_TESTS_KRBSETTINGS_H
#define TAVREL_TESTS_KRBSETTINGS_H

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "ScratchFolder.h"

namespace tavrel::tests {

// Sets an environment variable while it lives.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::string& value) : name_(name) {
    if (const char* earlier = std::getenv(name)) earlier_ = earlier;
    setenv(name, value.c_str(), 1);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;
  ~ScopedVariable() {
    if (earlier_) {
      setenv(name_, earlier_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> earlier_;
};

// `libdefaults` is what the section of that name says; contexts made while it lives see it. No
// replay cache is kept, and the default keytab is one that does not exist.
class KrbSettings {
 public:
  explicit KrbSettings(const std::string& libdefaults = "")
      : config_("KRB5_CONFIG",
                Write("[libdefaults]\ndefault_realm = CORP.EXAMPLE.COM\n" + libdefaults + "\n")),
        replay_cache_("KRB5RCACHENAME", "none:"),
        keytab_("KRB5_KTNAME", "FILE:" + folder_ / "default.keytab") {}

  // The path of `name` in a folder that is removed with the settings.
  std::string operator/(const std::string& name) const { return folder_ / name; }

 private:
  std::string Write(const std::string& text) const {
    const std::string path = folder_ / "krb5.conf";
    std::ofstream(path) << text;
    return path;
  }

  ScratchFolder folder_;
  ScopedVariable config_;
  ScopedVariable replay_cache_;
  ScopedVariable keytab_;
};

// Lets libkrb5 take tickets and clocks that are a day off, so that the library's own checks decide.
inline constexpr char kTolerateSkew[] = "clockskew = 100000";

}  // namespace tavrel::tests

#endif
