// Squid's negotiate helper protocol: in the daemon, and the helper that Squid starts.
#ifndef TAVREL_TOOLS_AUTHD_SQUID_H
#define TAVREL_TOOLS_AUTHD_SQUID_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "authd/Gate.h"
#include "authd/Metrics.h"

namespace tavrel::tools {

// The answer to one line of Squid's, without its newline: `YR TOKEN`, and behind the token the
// client's address where key_extras sends it.
std::string AnswerSquid(std::string_view line, Gate* gate, Metrics* metrics);

// Serves helpers, two thousand at most, on one thread. It is for processes of this machine; none of
// them can hold it up.
class SquidServer {
 public:
  // Takes over `listener`, a Unix socket.
  SquidServer(int listener, Gate* gate, Metrics* metrics);
  SquidServer(const SquidServer&) = delete;
  SquidServer& operator=(const SquidServer&) = delete;
  // Answers what has been asked, and ends.
  ~SquidServer();

 private:
  struct Helper;

  void Run();
  void Watch(int descriptor, std::uint64_t name) const;
  void Welcome();
  bool Heard(Helper& helper, bool from_squid) const;  // false when the helper is to go
  bool TakeOver(Helper& helper) const;
  bool Serve(Helper& helper) const;

  const int listener_;
  Gate* const gate_;
  Metrics* const metrics_;
  const int wake_;
  const int watched_;  // of epoll
  std::map<std::uint64_t, std::unique_ptr<Helper>> helpers_;
  std::uint64_t last_name_ = 0;
  std::thread thread_;
};

// The helper. It lends its standard input and output to the daemon at `socket`, which then reads
// Squid's lines and answers them itself, and waits until the input ends. Pipes are not lent: what
// comes and goes there is copied. When the daemon goes away it lends again, and answers with BH
// until there is one. A daemon that is killed between a question and its answer ends this helper,
// since nobody else knows that there was a question. Returns the exit status.
int RunSquidHelper(const std::string& socket);

}  // namespace tavrel::tools

#endif
