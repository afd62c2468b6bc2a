// Several ways to do the same, timed in turns: what slows this machine down for a moment slows all
// of them down.
#ifndef TAVREL_BENCH_RACE_H
#define TAVREL_BENCH_RACE_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tavrel::bench {

struct Lane {
  // `operation()` does it once.
  template <typename Operation>
  Lane(std::string name, Operation operation)
      : name(std::move(name)), run([operation](std::size_t count) {
          for (std::size_t i = 0; i < count; ++i)
            operation();
        }) {}

  // Makes ready, untimed, for a round of so many.
  Lane& Before(std::function<void(std::size_t)> action) {
    prepare = std::move(action);
    return *this;
  }

  std::string name;
  std::function<void(std::size_t)> run;
  std::function<void(std::size_t)> prepare;
};

// What is read: the processor time of this thread, which nobody else on the machine can lengthen by
// taking its turn, or the time that passes, for work that waits or is spread over threads.
enum class Watch { kThread, kWall };

// Runs rounds in which every lane does its operation `batch` times. Reports as counters, for each
// lane: `<name>_ns`, the median time of one operation; `<name>_allocs`, its heap allocations;
// `x_<name>`, how many times as long the first lane took as this one, and `x_<name>_<other>`, how
// many times as long this one took as another one before it: medians over the rounds.
void Race(benchmark::State& state, std::size_t batch, std::vector<Lane> lanes,
          Watch watch = Watch::kThread);

// What the bundled platform is doing with records: nothing, it is not called, while false.
extern bool use_platform_logger;

// "level3" when PLATFORM_LOG_LEVEL is 3 or not set.
std::string PlatformLevel();

// Heap allocations of this thread so far.
extern thread_local std::size_t allocations;

}  // namespace tavrel::bench

#endif
