// What the checks found.
#ifndef TAVREL_TOOLS_TAVREL_CHECK_FINDINGS_H
#define TAVREL_TOOLS_TAVREL_CHECK_FINDINGS_H

#include <algorithm>
#include <iostream>
#include <mutex>
#include <string>

#include "common/Json.h"

namespace tavrel::tools {

enum class Verdict { kOk, kWarn, kFail };

// Writes each finding to standard output as soon as it is there: as text, or as an element of one
// JSON array. May be used by any number of threads.
class Findings {
 public:
  explicit Findings(bool json) : json_(json) {}

  // `check` names what was looked at, and `found` what it looks like. Both and `remedy` may hold
  // any bytes: some come from the network.
  void Ok(const std::string& check, const std::string& found) {
    Add(Verdict::kOk, check, found, "");
  }
  void Warn(const std::string& check, const std::string& found, const std::string& remedy) {
    Add(Verdict::kWarn, check, found, remedy);
  }
  void Fail(const std::string& check, const std::string& found, const std::string& remedy) {
    Add(Verdict::kFail, check, found, remedy);
  }

  // Ends the output. Returns the worst verdict; what is found afterwards is left out.
  Verdict End() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (json_ && !ended_) std::cout << (any_ ? "]" : "[]") << std::endl;
    ended_ = true;
    return worst_;
  }

 private:
  void Add(Verdict verdict, const std::string& check, const std::string& found,
           const std::string& remedy) {
    static constexpr const char* kNames[] = {"ok", "warn", "FAIL"};
    const std::string name = kNames[static_cast<int>(verdict)];
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) return;
    worst_ = std::max(worst_, verdict);
    if (json_) {
      JsonObject finding;
      finding.Add("check", check).Add("verdict", name).Add("found", found);
      if (!remedy.empty()) finding.Add("remedy", remedy);
      std::cout << (any_ ? ",\n " : "[") << finding.Text();
    } else {
      std::cout << name << std::string(6 - name.size(), ' ') << Escaped(check, false) << ": "
                << Escaped(found, false) << '\n';
      if (!remedy.empty()) std::cout << "      remedy: " << Escaped(remedy, false) << '\n';
    }
    std::cout << std::flush;
    any_ = true;
  }

  const bool json_;
  std::mutex mutex_;
  bool any_ = false;
  bool ended_ = false;
  Verdict worst_ = Verdict::kOk;
};

}  // namespace tavrel::tools

#endif
