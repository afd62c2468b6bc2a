// Remembers which requests were accepted, so that none is accepted twice.
#ifndef TAVREL_PLUS_SRC_REPLAYCACHE_H
#define TAVREL_PLUS_SRC_REPLAYCACHE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tavrel::plus {

// A file in memory that all processes share which open it. What it promises: of any number of calls
// with one request, in all threads of all these processes, one at most is told kNew, as long as the
// file lives: neither a clock that is set, here or at the client, nor a process that ends at any
// instruction makes a request new again. A power failure forgets what the kernel has not yet
// written.
//
// Its size is fixed. A record makes room for a newer one when its row is full, and from then on
// every request that was made no later than the forgotten one counts as too old. With room for a
// few times as many requests as are acceptable at a time, nobody notices; a flood of valid requests
// refuses clients whose clocks are behind, and never lets one in twice.
//
// There are no locks: a record is one word, and is written at once or not at all.
class ReplayCache {
 public:
  enum class Verdict { kNew, kSeen, kTooOld };

  // Opens the file `path`, or makes it with room for at least `capacity` records. Returns null, and
  // the reason in `error`, when it cannot, or when the file is not this user's alone.
  static std::unique_ptr<ReplayCache> Open(const std::string& path, std::size_t capacity,
                                           std::string& error);

  ReplayCache(const ReplayCache&) = delete;
  ReplayCache& operator=(const ReplayCache&) = delete;
  ~ReplayCache();

  // Decides on a request, whose bytes nobody can change, and remembers it. It was made at `made` by
  // the client's clock, in seconds since 1970.
  Verdict Remember(std::string_view request, std::uint32_t made);

 private:
  struct Header;
  using Record = std::atomic<std::uint64_t>;  // when it was made, and a digest; 0: none

  ReplayCache(void* memory, std::size_t records);
  void RaiseHorizon(std::uint64_t made);

  Header* header_;
  Record* records_;
  std::size_t count_;  // of records; what the file says of it is not believed twice
};

}  // namespace tavrel::plus

#endif
