#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "GroupedDigits.h"
#include "JoinerFixture.h"

namespace tavrel::tests {
namespace {

using AccountLookup = JoinerFixture;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::StartsWith;

// --- lookup on one session -----------------------------------------------------------------------

TEST_F(AccountLookup, SearchesTheAccountObjectItselfForAllItsAttributes) {
  Sessions({"dc1"});

  joiner.GetAccountObject(joiner.sessions.front(), &error);

  EXPECT_THAT(fake.Lines(), ElementsAre("ldap_search_ext_s 1 " + kDn +
                                            " scope 0 filter none attributes all, 5 s 0 us, "
                                            "limit 2",
                                        "ldap_msgfree"));
}

TEST_F(AccountLookup, CannotLookUpOnASessionWithoutAHandle) {
  Sessions({"-dc1"});
  for (std::string* const reason : {&error, static_cast<std::string*>(nullptr)}) {
    const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), reason);

    EXPECT_TRUE(account.failed);
    EXPECT_FALSE(account.exists);
    EXPECT_EQ(account.ldap, nullptr);
  }
  EXPECT_EQ(error, "Invalid LDAP context");
  EXPECT_THAT(fake.Lines(), IsEmpty());
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(AccountLookup, FindsAnAbsentAccountAbsentAndSaysNothing) {
  Sessions({"dc1"});
  for (const int code : {LDAP_NO_SUCH_OBJECT, LDAP_SUCCESS}) {  // or an answer without an object
    for (const bool has_result : {true, false}) {
      fake.answers[1] = {code, {}, has_result};

      const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), &error);

      EXPECT_FALSE(account.failed);
      EXPECT_FALSE(account.exists);
      EXPECT_EQ(account.ldap, fake.Handle(1));
    }
  }
  EXPECT_EQ(error, kEarlier);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(AccountLookup, TakesNoResultCodeForASmallerOne) {
  Sessions({"dc1"});
  for (const int code : {256, 256 + LDAP_NO_SUCH_OBJECT, 4096}) {
    fake.answers[1] = {code, {}, false};

    const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), &error);

    EXPECT_TRUE(account.failed) << code;
    EXPECT_EQ(error, ldap_err2string(code));
  }
}

TEST_F(AccountLookup, DoesNotLookAtWhatAFailedSearchFoundButReleasesIt) {
  Sessions({"dc1"});
  for (const int code : {LDAP_TIMEOUT, LDAP_SIZELIMIT_EXCEEDED, LDAP_REFERRAL,
                         LDAP_INSUFFICIENT_ACCESS, LDAP_NO_SUCH_ATTRIBUTE, LDAP_SERVER_DOWN}) {
    for (const bool has_result : {true, false}) {
      fake.answers[1] = {code, {FakeLdap::Entry({"4098"})}, has_result};
      log.Clear();

      const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), &error);

      const std::string text = ldap_err2string(code);
      EXPECT_TRUE(account.failed);
      EXPECT_FALSE(account.exists);
      EXPECT_EQ(account.ldap, fake.Handle(1));
      EXPECT_EQ(error, text);
      EXPECT_THAT(log.Notable(),
                  ElementsAre("4 ldap-join GetAccountObject: LDAP search failed: " + text));
    }
  }
  EXPECT_THAT(fake.Lines(), Each(testing::Not(StartsWith("ldap_first_entry"))));
  EXPECT_THAT(fake.Lines(), Contains("ldap_msgfree").Times(6));  // one for each result
}

TEST_F(AccountLookup, ReadsTheFlagsOfTheObjectAndReleasesWhatItRead) {
  Sessions({"dc1.corp.example.com"});
  fake.answers[1] = {LDAP_SUCCESS, {FakeLdap::Entry({"4098"})}};

  const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), &error);

  EXPECT_FALSE(account.failed);
  EXPECT_TRUE(account.exists);
  EXPECT_EQ(account.ldap, fake.Handle(1));
  EXPECT_EQ(account.user_account_control, 4098U);
  EXPECT_EQ(error, kEarlier);
  EXPECT_THAT(log.Notable(), IsEmpty());
  EXPECT_THAT(fake.Lines(),
              ElementsAre(StartsWith("ldap_search_ext_s 1 "), "ldap_first_entry 1",
                          "ldap_get_values_len 1 userAccountControl", "ldap_value_free_len",
                          "ldap_next_entry 1", "ldap_msgfree"));
}

TEST_F(AccountLookup, ReadsFlagsAsStoiDoes) {
  Sessions({"dc1"});
  const GroupedDigits digits;
  const std::pair<std::string, std::uint32_t> cases[] = {
      {"0", 0},
      {"69632", 69632},
      {"2147483647", 2147483647},
      {"-2147483648", 0x80000000},
      {"-1", 0xFFFFFFFF},
      {" \t\n+512", 512},
      {"512 and more", 512},
      {"0x1000", 0},  // decimal: ends at the x
      {"0000000000004096", 4096},
      {std::string("66\0"
                   "48",
                   5),
       66},  // ends at the NUL
  };

  for (const auto& [text, flags] : cases) {
    fake.answers[1] = {LDAP_SUCCESS, {FakeLdap::Entry({text})}};
    log.Clear();

    const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), &error);

    EXPECT_TRUE(account.exists);
    EXPECT_EQ(account.user_account_control, flags) << "of " << text;
    EXPECT_THAT(log.Lines(), ElementsAre("1 ldap-join GetAccountObject: Found user account control "
                                         "on dc1: " +
                                         std::to_string(flags)));
  }
}

TEST_F(AccountLookup, AssumesAWorkstationWithAWarningWhenThereIsNotOneValue) {
  Sessions({"dc1.corp.example.com"});
  const std::pair<FakeLdap::Entry, std::string> cases[] = {
      {std::nullopt, "Missing user account controls attribute on "},
      {FakeLdap::Entry(std::in_place), "Unable to find userAccountControl in object on "},
      {FakeLdap::Entry({"514", "512"}), "Multiple values found for userAccountControl on "},
      {FakeLdap::Entry({"x", "y", "z"}), "Multiple values found for userAccountControl on "},
  };

  for (const auto& [entry, warning] : cases) {
    fake.answers[1] = {LDAP_SUCCESS, {entry}};
    log.Clear();

    const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), &error);

    EXPECT_FALSE(account.failed);
    EXPECT_TRUE(account.exists);
    EXPECT_EQ(account.user_account_control, 4096U);
    EXPECT_EQ(account.ldap, fake.Handle(1));
    EXPECT_EQ(error, kEarlier);
    EXPECT_THAT(log.Notable(),
                ElementsAre("3 ldap-join GetAccountObject: " + warning + "dc1.corp.example.com"));
  }
}

TEST_F(AccountLookup, KeepsTheFlagsOfTheLastEntry) {
  Sessions({"dc1"});
  fake.answers[1] = {LDAP_SUCCESS, {FakeLdap::Entry({"514"}), FakeLdap::Entry({"512"})}};
  EXPECT_EQ(joiner.GetAccountObject(joiner.sessions.front(), &error).user_account_control, 512U);

  fake.answers[1] = {LDAP_SUCCESS, {FakeLdap::Entry({"514"}), std::nullopt}};
  const AccountObject account = joiner.GetAccountObject(joiner.sessions.front(), &error);

  EXPECT_TRUE(account.exists);
  EXPECT_EQ(account.user_account_control, 4096U);
}

TEST_F(AccountLookup, ThrowsWhenTheFlagsAreNoNumberAndReleasesWhatItRead) {
  Sessions({"dc1"});
  for (const char* text : {"", " ", "none", "-", "+-1", "x512", "\xFF"}) {
    fake.answers[1] = {LDAP_SUCCESS, {FakeLdap::Entry({text})}};
    try {
      joiner.GetAccountObject(joiner.sessions.front(), &error);
      ADD_FAILURE() << "'" << text << "' was taken for a number";
    } catch (const std::invalid_argument& exception) {
      EXPECT_STREQ(exception.what(), "stoi");
    }
  }
  EXPECT_EQ(error, kEarlier);
  EXPECT_THAT(log.Notable(), IsEmpty());
  EXPECT_THAT(fake.Lines(), Contains("ldap_msgfree").Times(7));
}

TEST_F(AccountLookup, ThrowsWhenTheFlagsAreBeyondASigned32BitNumber) {
  Sessions({"dc1"});
  for (const char* text : {"2147483648", "-2147483649", "4294967296", "99999999999999999999"}) {
    fake.answers[1] = {LDAP_SUCCESS, {FakeLdap::Entry({text})}};
    try {
      joiner.GetAccountObject(&error);
      ADD_FAILURE() << "'" << text << "' was taken for a 32-bit number";
    } catch (const std::out_of_range& exception) {
      EXPECT_STREQ(exception.what(), "stoi");
    }
  }
  EXPECT_EQ(error, kEarlier);
}

// --- lookup on all sessions ----------------------------------------------------------------------

TEST_F(AccountLookup, StopsAtTheFirstSessionThatAnswersEvenWithAnAbsence) {
  Sessions({"-dc0", "dc1", "dc2"});
  fake.answers[2] = {LDAP_NO_SUCH_OBJECT, {}};
  fake.answers[3] = {LDAP_SUCCESS, {FakeLdap::Entry({"4096"})}};

  const AccountObject account = joiner.GetAccountObject(&error);

  EXPECT_FALSE(account.failed);
  EXPECT_FALSE(account.exists);
  EXPECT_EQ(account.ldap, fake.Handle(2));
  EXPECT_EQ(error, kEarlier);
  EXPECT_THAT(StartingWith("ldap_search_ext_s", fake.Lines()),
              ElementsAre(StartsWith("ldap_search_ext_s 2 ")));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(AccountLookup, AsksTheNextSessionWhenASearchFailed) {
  Sessions({"dc1", "-dc2", "dc3", "dc4"});
  fake.answers[1] = {LDAP_SERVER_DOWN, {}, false};
  fake.answers[3] = {LDAP_SUCCESS, {FakeLdap::Entry({"514"})}};

  const AccountObject account = joiner.GetAccountObject(&error);

  EXPECT_FALSE(account.failed);
  EXPECT_TRUE(account.exists);
  EXPECT_EQ(account.ldap, fake.Handle(3));
  EXPECT_EQ(account.user_account_control, 514U);
  EXPECT_EQ(error, "Can't contact LDAP server");
  EXPECT_THAT(
      log.Lines(),
      ElementsAre("1 ldap-join GetAccountObject: Getting account object from dc1",
                  "4 ldap-join GetAccountObject: LDAP search failed: Can't contact LDAP server",
                  "1 ldap-join GetAccountObject: Getting account object from dc3",
                  "1 ldap-join GetAccountObject: Found user account control on dc3: 514",
                  "1 ldap-join GetAccountObject: Found account object from dc3"));
}

TEST_F(AccountLookup, FailsWithTheLastReasonWhenNoSessionAnswers) {
  Sessions({"dc1", "dc2"});
  fake.answers[1] = {LDAP_SERVER_DOWN, {}, false};
  fake.answers[2] = {LDAP_BUSY, {}};

  const AccountObject account = joiner.GetAccountObject(&error);

  EXPECT_TRUE(account.failed);
  EXPECT_FALSE(account.exists);
  EXPECT_EQ(error, "Server is busy");
  EXPECT_THAT(
      log.Notable(),
      ElementsAre("4 ldap-join GetAccountObject: LDAP search failed: Can't contact LDAP server",
                  "4 ldap-join GetAccountObject: LDAP search failed: Server is busy",
                  "3 ldap-join GetAccountObject: Unable to find an account object on any available "
                  "server"));
}

TEST_F(AccountLookup, OnlyWarnsWhenNoSessionIsConnected) {
  for (const int sessions : {0, 2}) {
    if (sessions > 0) Sessions({"-dc1", "-dc2"});
    log.Clear();

    const AccountObject account = joiner.GetAccountObject(&error);

    EXPECT_TRUE(account.failed);
    EXPECT_FALSE(account.exists);
    EXPECT_EQ(error, kEarlier);
    EXPECT_THAT(log.Notable(),
                ElementsAre("3 ldap-join GetAccountObject: Unable to find an account "
                            "object on any available server"));
    EXPECT_THAT(log.Records(), Each(Field(&LogRecord::file, "Join.cpp")));
  }
}

TEST_F(AccountLookup, LooksUpWhenTheCallerWantsNoReason) {
  Sessions({"dc1"});
  fake.answers[1] = {LDAP_BUSY, {}};

  EXPECT_TRUE(joiner.GetAccountObject(nullptr).failed);
}

static_assert(std::is_trivially_copyable_v<AccountObject>);

}  // namespace
}  // namespace tavrel::tests
