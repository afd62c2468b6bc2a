// Waits for work that has no time limit of its own.
#ifndef EXAMPLES_DEADLINE_H
#define EXAMPLES_DEADLINE_H

#include <chrono>
#include <future>
#include <optional>
#include <thread>
#include <utility>

// Runs `work` on a thread of its own, and returns its result; nothing when it has not returned
// within `limit`. It then goes on, and nothing can stop it: the caller must not return from main(),
// which would destroy static objects that the work still uses, but has to end the process with
// std::_Exit().
template <typename Work>
auto FinishWithin(std::chrono::seconds limit, Work work) -> std::optional<decltype(work())> {
  std::packaged_task<decltype(work())()> task(std::move(work));
  auto result = task.get_future();
  std::thread thread(std::move(task));
  if (result.wait_for(limit) != std::future_status::ready) {
    thread.detach();
    return std::nullopt;
  }
  thread.join();
  return result.get();
}

#endif
