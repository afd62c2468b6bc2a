// How the parts of this library tell each other what went wrong.
#ifndef TAVREL_PLUS_SRC_FAILURE_H
#define TAVREL_PLUS_SRC_FAILURE_H

#include <string>
#include <utility>

#include "tavrel/plus/Membership.h"

namespace tavrel::plus {

// A failure that has not been placed yet; false when there is none.
struct [[nodiscard]] Failure {
  Failure() = default;
  Failure(Cause cause, std::string text) : cause(cause), text(std::move(text)) {}

  explicit operator bool() const { return cause != Cause::kNone; }

  Cause cause = Cause::kNone;
  std::string text;
};

}  // namespace tavrel::plus

#endif
