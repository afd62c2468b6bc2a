// What the daemon counts, for Prometheus.
#ifndef TAVREL_TOOLS_AUTHD_METRICS_H
#define TAVREL_TOOLS_AUTHD_METRICS_H

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace tavrel::tools {

// May be used by any thread.
class Metrics {
 public:
  // `result` is one of a fixed set of words, never what a client sent.
  void Count(std::string_view result, std::chrono::nanoseconds took);

  // Prometheus' text format, version 0.0.4.
  std::string Text() const;

 private:
  static constexpr std::array kBounds = {0.0001, 0.0002, 0.0005, 0.001, 0.002,
                                         0.005,  0.01,   0.1,    1.0};  // seconds, ascending
  struct Row {
    std::uint64_t count = 0;
    double seconds = 0;
    std::array<std::uint64_t, kBounds.size()> within{};  // each bound, counted once
  };

  mutable std::mutex mutex_;
  std::map<std::string, Row, std::less<>> rows_;
};

}  // namespace tavrel::tools

#endif
