// What leaks inside a C library, and cannot be kept from it, is not looked for.
#ifndef TAVREL_FUZZ_LEAKS_H
#define TAVREL_FUZZ_LEAKS_H

extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace tavrel::fuzz {

// While it lives, what this thread allocates may leak.
class MayLeak {
 public:
  explicit MayLeak(bool may) : may_(may && __lsan_disable != nullptr) {
    if (may_) __lsan_disable();
  }
  MayLeak(const MayLeak&) = delete;
  MayLeak& operator=(const MayLeak&) = delete;
  ~MayLeak() {
    if (may_) __lsan_enable();
  }

 private:
  bool may_;
};

}  // namespace tavrel::fuzz

#endif
