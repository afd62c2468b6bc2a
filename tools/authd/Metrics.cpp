#include "authd/Metrics.h"

#include <algorithm>
#include <locale>
#include <sstream>

namespace tavrel::tools {

void Metrics::Count(std::string_view result, std::chrono::nanoseconds took) {
  const double seconds = std::chrono::duration<double>(took).count();
  const std::lock_guard<std::mutex> lock(mutex_);
  auto row = rows_.find(result);
  if (row == rows_.end()) row = rows_.emplace(result, Row()).first;
  ++row->second.count;
  row->second.seconds += seconds;
  const auto* const bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
  if (bound != kBounds.end()) {
    ++row->second.within[static_cast<std::size_t>(bound - kBounds.begin())];
  }
}

std::string Metrics::Text() const {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "# HELP tavrel_authd_request_seconds Requests by result, and the time they took.\n"
          "# TYPE tavrel_authd_request_seconds histogram\n";
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [result, row] : rows_) {
    const std::string label = "{result=\"" + result + "\"";
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < kBounds.size(); ++i) {
      sum += row.within[i];
      text << "tavrel_authd_request_seconds_bucket" << label << ",le=\"" << kBounds[i] << "\"} "
           << sum << '\n';
    }
    text << "tavrel_authd_request_seconds_bucket" << label << ",le=\"+Inf\"} " << row.count
         << "\ntavrel_authd_request_seconds_sum" << label << "} " << row.seconds
         << "\ntavrel_authd_request_seconds_count" << label << "} " << row.count << '\n';
  }
  return text.str();
}

}  // namespace tavrel::tools
