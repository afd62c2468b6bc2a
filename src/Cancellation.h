// Keeps pthread_cancel() from ending a thread inside the library.
#ifndef TAVREL_SRC_CANCELLATION_H
#define TAVREL_SRC_CANCELLATION_H

#include <pthread.h>

namespace tavrel {

// Postpones this thread's cancellation while it lives: libldap and libkrb5 are not made for it, and
// a thread that ended inside them would hold their locks for ever.
class CancellationBlock {
 public:
  CancellationBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  CancellationBlock(const CancellationBlock&) = delete;
  CancellationBlock& operator=(const CancellationBlock&) = delete;
  ~CancellationBlock() { pthread_setcancelstate(before_, nullptr); }

 private:
  int before_;
};

}  // namespace tavrel

#endif
