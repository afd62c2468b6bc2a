// Keeps a peer that hangs up from ending the process.
#ifndef TAVREL_SRC_BROKENPIPE_H
#define TAVREL_SRC_BROKENPIPE_H

#include <cerrno>
#include <csignal>
#include <ctime>

namespace tavrel {

// While it lives, this thread's writes to connections that the peer has reset fail, and raise no
// signal: libldap does not ask for that, and SIGPIPE would end a host that does not handle it. It
// restores the signal mask and what was pending.
class BrokenPipeBlock {
 public:
  BrokenPipeBlock() {
    sigset_t pending;
    sigpending(&pending);
    is_the_hosts_ = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&broken_pipe_);
    sigaddset(&broken_pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe_, &before_);
  }
  BrokenPipeBlock(const BrokenPipeBlock&) = delete;
  BrokenPipeBlock& operator=(const BrokenPipeBlock&) = delete;
  ~BrokenPipeBlock() {
    const timespec at_once{};
    while (!is_the_hosts_ && sigtimedwait(&broken_pipe_, nullptr, &at_once) == -1 &&
           errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t broken_pipe_;
  sigset_t before_;
  bool is_the_hosts_;  // one was pending already, and stays
};

}  // namespace tavrel

#endif
