// A controller in front of the lab's own, which falls silent when it is told to.
#ifndef TAVREL_PLUS_TESTS_RELAY_H
#define TAVREL_PLUS_TESTS_RELAY_H

#include <atomic>
#include <thread>
#include <vector>

namespace tavrel::plus::tests {

// Listens on these ports of 127.0.0.1 and hands everything on to the controller, until it has
// handed on so many messages of its clients; after that it takes connections and whatever comes,
// and says nothing.
class Relay {
 public:
  Relay(std::vector<int> ports, int messages);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay();

  // Whether a client has met the silence.
  bool FellSilent() const { return fell_silent_; }

 private:
  struct Pair {
    int client;
    int server;
  };
  void Run();
  bool Pass(int from, int to, bool is_message);

  std::vector<int> ports_;
  int left_;
  std::vector<int> listening_;
  std::vector<Pair> pairs_;
  int wake_[2] = {-1, -1};
  std::atomic<bool> fell_silent_{false};
  std::thread thread_;
};

}  // namespace tavrel::plus::tests

#endif
