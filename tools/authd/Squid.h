// Squid's negotiate helper protocol: in the daemon, and the helper that Squid starts.
#ifndef TAVREL_TOOLS_AUTHD_SQUID_H
#define TAVREL_TOOLS_AUTHD_SQUID_H

#include <atomic>
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

// Serves any number of helpers, on one thread. It is for processes of this machine.
class SquidServer {
 public:
  // Takes over `listener`, a Unix socket.
  SquidServer(int listener, Gate* gate, Metrics* metrics);
  SquidServer(const SquidServer&) = delete;
  SquidServer& operator=(const SquidServer&) = delete;
  // Answers what has been asked, and ends.
  ~SquidServer();

 private:
  struct Helper {
    int socket;
    std::string buffer;
  };
  void Run();
  bool Serve(Helper& helper) const;  // false when the connection is over

  const int listener_;
  Gate* const gate_;
  Metrics* const metrics_;
  int wake_ = -1;
  std::thread thread_;
};

// The helper: passes lines from standard input to the daemon at `socket` and its answers to
// standard output, until standard input ends. A daemon that is away, or goes away, is connected to
// again; until it is back each line is answered with BH. Returns the exit status.
int RunSquidHelper(const std::string& socket);

}  // namespace tavrel::tools

#endif
