// The platform's logger, as the fuzz targets provide it: cheap enough to compare all that the
// library logs in every run.
#ifndef TAVREL_FUZZ_RECORDS_H
#define TAVREL_FUZZ_RECORDS_H

#include <string>
#include <string_view>

namespace tavrel::fuzz {

// Records, "level category function: text" each. As one text they end in a NUL, which none
// contains.
class Records {
 public:
  // `text` counts up to its first NUL: a record ends there.
  void Add(int level, std::string_view category, std::string_view function, std::string_view text);
  void Clear() { text_.clear(); }

  const std::string& Text() const { return text_; }

 private:
  std::string text_;
};

// What the library has logged since it was last cleared. The targets have one thread.
Records& TheLog();

}  // namespace tavrel::fuzz

#endif
