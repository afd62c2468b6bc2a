// A host process whose numbers do not look like the library's.
#ifndef TAVREL_TESTS_GROUPEDDIGITS_H
#define TAVREL_TESTS_GROUPEDDIGITS_H

#include <locale>
#include <string>

namespace tavrel::tests {

// Makes streams write 4096 as "4'0'9'6" while it lives.
class GroupedDigits {
 public:
  GroupedDigits()
      : previous_(std::locale::global(std::locale(std::locale::classic(), new Grouping))) {}
  GroupedDigits(const GroupedDigits&) = delete;
  GroupedDigits& operator=(const GroupedDigits&) = delete;
  ~GroupedDigits() { std::locale::global(previous_); }

 private:
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '\''; }
    std::string do_grouping() const override { return "\1"; }
  };

  std::locale previous_;
};

}  // namespace tavrel::tests

#endif
