#include "Ledger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

int first;
int second;

TEST(ALedger, IsContentWithWhatIsGivenBackOnce) {
  Ledger book;

  book.Take(Kind::kTicket, &first);
  book.Use(Kind::kTicket, &first, "use");
  book.Give(Kind::kTicket, &first, "free");

  EXPECT_THAT(book.Complaints(), IsEmpty());
}

TEST(ALedger, NamesWhatIsStillHeld) {
  Ledger book;

  book.Take(Kind::kTicket, &first);

  EXPECT_THAT(book.Complaints(), ElementsAre("a ticket was never given back, 1 times"));
}

TEST(ALedger, RefusesASecondRelease) {
  Ledger book;

  book.Take(Kind::kKey, &first);
  book.Give(Kind::kKey, &first, "free");
  book.Give(Kind::kKey, &first, "free");

  EXPECT_THAT(book.Complaints(), ElementsAre("free was given what is not a key, or no longer"));
}

TEST(ALedger, RefusesTheReleaseOfSomethingElse) {
  Ledger book;

  book.Take(Kind::kSalt, &first);
  book.Give(Kind::kKey, &first, "free");

  EXPECT_THAT(book.Complaints(), ElementsAre("free was given what is not a key, or no longer",
                                             "a salt was never given back, 1 times"));
}

TEST(ALedger, RefusesTheUseOfWhatWasGivenBack) {
  Ledger book;

  book.Take(Kind::kSession, &first);
  book.Give(Kind::kSession, &first, "unbind");
  book.Use(Kind::kSession, &first, "search");

  EXPECT_THAT(book.Complaints(),
              ElementsAre("search used what is not an LDAP session, or no longer"));
}

TEST(ALedger, CountsWhatIsHandedOutTwice) {
  Ledger book;

  book.Take(Kind::kErrorMessage, &first);
  book.Take(Kind::kErrorMessage, &first);
  book.Give(Kind::kErrorMessage, &first, "free");

  EXPECT_THAT(book.Complaints(), ElementsAre("an error message was never given back, 1 times"));
}

TEST(ALedger, GivesBackAChainWithItsHead) {
  Ledger book;

  book.Take(Kind::kBio, &first);
  book.Take(Kind::kBio, &second);
  book.Chain(&first, &second);
  book.Give(Kind::kBio, &first, "free");

  EXPECT_THAT(book.Complaints(), IsEmpty());
}

}  // namespace
}  // namespace tavrel::tests
