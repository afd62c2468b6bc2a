#include "Race.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <random>

namespace tavrel::bench {
namespace {

// Seconds of processor time that this thread has used, or seconds that have passed.
double Now(Watch watch) {
  timespec now{};
  clock_gettime(watch == Watch::kThread ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

void Race(benchmark::State& state, std::size_t batch, std::vector<Lane> lanes, Watch watch) {
  // The first round fills caches; it also counts allocations, which are the same in every round.
  const auto count = static_cast<double>(batch);
  for (const Lane& lane : lanes) {
    if (lane.prepare) lane.prepare(batch);
    lane.run(batch);
    if (lane.prepare) lane.prepare(batch);
    const std::size_t before = allocations;
    lane.run(batch);
    state.counters[lane.name + "_allocs"] = static_cast<double>(allocations - before) / count;
  }

  std::vector<std::vector<double>> times(lanes.size());
  std::vector<std::size_t> order(lanes.size());
  std::iota(order.begin(), order.end(), 0);
  std::minstd_rand shuffler;  // the same turns in every run
  for (auto _ : state) {
    double round = 0;
    std::shuffle(order.begin(), order.end(), shuffler);  // nobody always runs behind the same one
    for (const std::size_t number : order) {
      const Lane& lane = lanes[number];
      if (lane.prepare) lane.prepare(batch);
      const double start = Now(watch);
      lane.run(batch);
      const double taken = Now(watch) - start;
      times[number].push_back(taken);
      round += taken;
    }
    state.SetIterationTime(round);
  }

  const auto ratio = [&times](std::size_t one, std::size_t other) {
    std::vector<double> ratios(times[one].size());
    std::transform(times[one].begin(), times[one].end(), times[other].begin(), ratios.begin(),
                   [](double ours, double theirs) { return ours / theirs; });
    return Median(std::move(ratios));
  };
  for (std::size_t i = 0; i < lanes.size(); ++i) {
    state.counters[lanes[i].name + "_ns"] = Median(times[i]) / count * 1e9;
    if (i > 0) state.counters["x_" + lanes[i].name] = ratio(0, i);
    for (std::size_t j = 1; j < i; ++j)
      state.counters["x_" + lanes[i].name + "_" + lanes[j].name] = ratio(i, j);
  }
}

std::string PlatformLevel() {
  const char* level = std::getenv("PLATFORM_LOG_LEVEL");
  return std::string("level") + (level != nullptr ? level : "3");
}

}  // namespace tavrel::bench
