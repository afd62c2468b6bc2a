// What other libraries lose is not to be taken for a leak of the library under test.
#ifndef TAVREL_TESTS_KNOWNLEAK_H
#define TAVREL_TESTS_KNOWNLEAK_H

// There when a leak sanitizer is.
extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace tavrel::tests {

// Memory that this thread obtains while it lives is not missed when it is never given back, if
// `known`.
class KnownLeak {
 public:
  explicit KnownLeak(bool known = true) : disabled_(known && __lsan_disable != nullptr) {
    if (disabled_) __lsan_disable();
  }
  KnownLeak(const KnownLeak&) = delete;
  KnownLeak& operator=(const KnownLeak&) = delete;
  ~KnownLeak() {
    if (disabled_) __lsan_enable();
  }

 private:
  const bool disabled_;
};

}  // namespace tavrel::tests

#endif
