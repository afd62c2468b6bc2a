// Until when an operation may take.
#ifndef TAVREL_PLUS_SRC_DEADLINE_H
#define TAVREL_PLUS_SRC_DEADLINE_H

#include <sys/time.h>

#include <algorithm>
#include <chrono>

namespace tavrel::plus {

// A moment on a clock that nobody sets.
class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds limit)
      : at_(Clock::now() + std::clamp(limit, std::chrono::milliseconds::zero(), kLongest)) {}

  // What is left, rounded up to whole milliseconds; 0 when the moment has passed.
  std::chrono::milliseconds Left() const {
    return std::max(std::chrono::milliseconds::zero(),
                    std::chrono::ceil<std::chrono::milliseconds>(at_ - Clock::now()));
  }
  bool HasPassed() const { return Clock::now() >= at_; }

  // What is left, as libldap takes it: never 0, which would mean not to wait, or for ever.
  timeval LeftForLdap() const {
    const auto left = std::max(Left(), std::chrono::milliseconds(1));
    return {static_cast<time_t>(left.count() / 1000),
            static_cast<suseconds_t>(left.count() % 1000 * 1000)};
  }

  // The end of an equal part of what is left, when `parts` have to share it.
  Deadline Share(std::size_t parts) const {
    return Deadline(Left() / static_cast<std::chrono::milliseconds::rep>(parts));
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24);

  Clock::time_point at_;
};

}  // namespace tavrel::plus

#endif
