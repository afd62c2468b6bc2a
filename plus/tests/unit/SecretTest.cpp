#include "Secret.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

namespace tavrel::plus::tests {
namespace {

std::string last_freed;  // what the last array was that a Secret gave back
bool watching = false;

}  // namespace
}  // namespace tavrel::plus::tests

void* operator new[](std::size_t size) {
  if (void* const block = std::malloc(size)) return block;
  throw std::bad_alloc();
}
void operator delete[](void* block) noexcept {
  using namespace tavrel::plus::tests;
  if (watching) last_freed.assign(static_cast<const char*>(block), std::strlen("Machine.Pass.1"));
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  operator delete[](block);
}

namespace tavrel::plus::tests {
namespace {

TEST(Secret, IsWipedBeforeItsMemoryIsGivenBack) {
  last_freed.reserve(64);
  {
    const Secret secret(std::string_view("Machine.Pass.1"));
    EXPECT_EQ(secret.View(), "Machine.Pass.1");
    watching = true;
  }
  watching = false;

  EXPECT_EQ(last_freed, std::string(std::strlen("Machine.Pass.1"), '\0'));
}

TEST(Secret, MovesAndLeavesNothingBehind) {
  Secret first(std::string_view("one"));

  Secret second = std::move(first);

  EXPECT_EQ(second.View(), "one");
  EXPECT_TRUE(first.Empty());  // NOLINT(bugprone-use-after-move): it is as good as new
  EXPECT_EQ(second.Copy().View(), "one");
  first = Secret(std::string_view("other"));
  EXPECT_EQ(first.Size(), 5U);
}

}  // namespace
}  // namespace tavrel::plus::tests
