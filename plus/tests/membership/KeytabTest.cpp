// Enrolling whatever has become of the keytab, and whoever else works on it.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "../../../tests/hostile/Child.h"
#include "MembershipScenario.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::Child;
using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAreArray;

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";

using MembersKeytab = MembershipScenario;

TEST_F(MembersKeytab, ThatIsLostIsWrittenAnew) {
  NameMachine("lostkeys");
  ASSERT_THAT(Enrol(), Changes());
  std::filesystem::remove(keytab);

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({2})));
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(MembersKeytab, ThatWasCutIsWrittenAnew) {
  NameMachine("cut");
  ASSERT_THAT(Enrol(), Changes());
  std::filesystem::resize_file(keytab, std::filesystem::file_size(keytab) - 20);

  EXPECT_THAT(Enrol(), Changes());

  EXPECT_THAT(Entries(), testing::Contains(AesEntries({2})[0]));
  EXPECT_THAT(Entries(), testing::Contains(AesEntries({2})[1]));
  EXPECT_EQ(SignIn(), kAlice);
}

TEST_F(MembersKeytab, ThatCannotBeReplacedIsNoticedBeforeAnythingIsChanged) {
  NameMachine("fixed");
  Scene("precreate FIXED");
  const std::string state = PasswordState();

  std::ofstream(keytab) << "no keytab";
  EXPECT_THAT(Enrol(), Fails(Cause::kKeytab, Step::kKeytab));
  std::filesystem::remove(keytab);
  std::filesystem::create_directory(keytab + ".new");  // where the next one would be made
  EXPECT_THAT(Enrol(), Fails(Cause::kKeytab, Step::kWrite));
  std::filesystem::remove(keytab + ".new");
  keytab = folder / "none/krb5.keytab";
  EXPECT_THAT(Enrol(), Fails(Cause::kKeytab, Step::kKeytab));

  EXPECT_EQ(PasswordState(), state);
}

TEST_F(MembersKeytab, IsWrittenOnceByTwoProcessesThatEnrolAtOnce) {
  NameMachine("twice");
  const auto enrol = [&](const Child::Pause& pause) {
    pause();
    const Result result = Enrol();
    return std::string(result ? "" : result.text) + (result.changed ? "changed" : "as before");
  };
  Child first(enrol);
  Child second(enrol);

  first.Resume();
  second.Resume();
  const std::string one = first.Result();
  const std::string other = second.Result();

  EXPECT_THAT(one + ", " + other, AnyOf("changed, as before", "as before, changed"));
  EXPECT_THAT(Entries(), ElementsAreArray(AesEntries({1})));
  EXPECT_EQ(SignIn(), kAlice);
}

}  // namespace
}  // namespace tavrel::plus::tests
