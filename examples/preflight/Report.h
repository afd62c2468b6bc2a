// What the checks found.
#ifndef EXAMPLES_PREFLIGHT_REPORT_H
#define EXAMPLES_PREFLIGHT_REPORT_H

#include <algorithm>
#include <mutex>
#include <string>

enum class Verdict { kOk, kWarn, kFail };

// Writes each finding to standard output as soon as it is there: as text, or as an element of one
// JSON array. May be used by any number of threads.
class Report {
 public:
  explicit Report(bool json) : json_(json) {}

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
  Verdict End();

 private:
  void Add(Verdict verdict, const std::string& check, const std::string& found,
           const std::string& remedy);

  const bool json_;
  std::mutex mutex_;
  bool any_ = false;
  bool ended_ = false;
  Verdict worst_ = Verdict::kOk;
};

#endif
