// Processes that do something that this one could not survive, or must not have done itself.
#ifndef TAVREL_TESTS_HOSTILE_CHILD_H
#define TAVREL_TESTS_HOSTILE_CHILD_H

#include <sys/types.h>

#include <functional>
#include <shared_mutex>
#include <string>

namespace tavrel::tests {

// A thread that works beside a test holds this shared: no child is made meanwhile. The address
// sanitizer's allocator does not survive a fork in the middle of an allocation.
std::shared_mutex& NoFork();

// What `work` returns in a child process; "ended with status S" or "ended by signal S" when it does
// not return.
std::string InChild(const std::function<std::string()>& work);

// A child process that works on its own. It is ended with the object if it has not ended before.
class Child {
 public:
  // Returns as soon as `work`, in the child, has called the function that it is handed; that then
  // waits for Resume().
  using Pause = std::function<void()>;
  explicit Child(const std::function<std::string(const Pause&)>& work);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  void Resume();

  // Waits for the end; as InChild().
  std::string Result();

 private:
  pid_t id_ = -1;
  int result_ = -1;
  int paused_ = -1;
  int resume_ = -1;
};

// Runs `work` in a child process that is killed before the system call number `nth` that it makes
// there (the first is 1), of those that `counts` (all, when it is empty). Returns false when it
// ended before it made so many; `*number` is then left alone, and else gets the number of the
// system call.
bool KilledBefore(int nth, const std::function<void()>& work, long* number,
                  const std::function<bool(long number)>& counts = {});

}  // namespace tavrel::tests

#endif
