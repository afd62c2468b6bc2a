// Where an operation puts its reason for failing: the caller's text, or a scratch one when the
// caller gave none.
#ifndef TAVREL_SRC_REASON_H
#define TAVREL_SRC_REASON_H

#include <string>

namespace tavrel {

class Reason {
 public:
  explicit Reason(std::string* error) : text(error != nullptr ? *error : scratch_) {}
  Reason(const Reason&) = delete;
  Reason& operator=(const Reason&) = delete;

 private:
  std::string scratch_;

 public:
  std::string& text;
};

}  // namespace tavrel

#endif
