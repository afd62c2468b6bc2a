#include "tavrel/plus/Membership.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "ScratchFolder.h"

namespace tavrel::plus::tests {
namespace {

constexpr std::chrono::seconds kLimit(10);

TEST(Membership, AsksNobodyWhenAControllerHasNoName) {
  const tavrel::tests::ScratchFolder folder;
  MembershipOptions options;
  options.controllers = {"dc1.corp.example.com", "[::1]"};
  Membership member("corp.example.com", folder / "krb5.keytab", options);

  const Result result = member.Enrol(Credentials::Machine(), kLimit);

  EXPECT_EQ(result.cause, Cause::kBadArgument);
  EXPECT_EQ(result.step, Step::kArguments);
  EXPECT_EQ(result.text, "No name of a controller: [::1]");
  EXPECT_FALSE(std::filesystem::exists(folder / "krb5.keytab"));
}

TEST(Membership, DoesNotLeaveWhenItsKeysCannotBeRemoved) {
  const tavrel::tests::ScratchFolder folder;
  std::filesystem::create_symlink("krb5.keytab", folder / "krb5.keytab");
  Membership member("corp.example.com", folder / "krb5.keytab");

  const Result result = member.Leave(Credentials::Machine(), Departure::kDelete, kLimit);

  EXPECT_EQ(result.cause, Cause::kKeytab);
  EXPECT_EQ(result.step, Step::kKeytab);
}

}  // namespace
}  // namespace tavrel::plus::tests
