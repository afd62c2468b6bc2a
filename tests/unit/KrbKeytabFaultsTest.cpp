// Each library call of each operation fails in turn. Whatever fails, nothing that was obtained
// stays behind, and nothing is given back twice.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "ForgedRequest.h"
#include "Interpose.h"
#include "ScratchKeytab.h"
#include "tavrel/KrbError.h"

namespace tavrel::tests {
namespace {

// Which call fails, counted from 1, and what is held.
struct Account {
  explicit Account(int nth) : nth(nth) {}

  bool Due() { return ++calls == nth; }

  const int nth;
  int calls = 0;
  std::map<std::string, int> held;
};

template <auto& function>
using For = StandIn<std::remove_reference_t<decltype(function)>>;

// A function that may fail, and does nothing else to the account.
template <auto& function>
struct Acting : For<function> {
  explicit Acting(Account& account)
      : For<function>(function, [&account](auto... arguments) -> krb5_error_code {
          return account.Due() ? KRB5_KT_IOERR : function.Real(arguments...);
        }) {}
};

// A function that obtains a `kind`, unless it fails.
template <auto& function>
struct Obtaining : For<function> {
  Obtaining(Account& account, const char* kind)
      : For<function>(function, [&account, kind](auto... arguments) -> krb5_error_code {
          if (account.Due()) return KRB5_KT_IOERR;
          const krb5_error_code code = function.Real(arguments...);
          if (code == 0) ++account.held[kind];
          return code;
        }) {}
};

// The function that gives a `kind` back, even when it says that it failed.
template <auto& function, bool may_fail = false>
struct Releasing : For<function> {
  Releasing(Account& account, const char* kind)
      : For<function>(function, [&account, kind](auto... arguments) {
          --account.held[kind];
          if constexpr (may_fail) {
            const krb5_error_code code = function.Real(arguments...);
            return account.Due() ? KRB5_KT_IOERR : code;
          } else {
            return function.Real(arguments...);
          }
        }) {}
};

// A KDC that issues a ticket.
template <auto& function>
struct Issuing : For<function> {
  explicit Issuing(Account& account)
      : For<function>(function, [&account](krb5_context context, krb5_creds* creds, auto...) {
          if (account.Due()) return krb5_error_code{KRB5_KT_IOERR};
          ++account.held["creds"];
          *creds = {};
          creds->times.authtime = static_cast<krb5_timestamp>(std::time(nullptr));
          return krb5_parse_name(context, kMachine, &creds->client);
        }) {}
};

// Texts are always there.
struct Telling : For<calls::krb5_get_error_message> {
  explicit Telling(Account& account)
      : For<calls::krb5_get_error_message>(
            calls::krb5_get_error_message, [&account](krb5_context context, krb5_error_code code) {
              ++account.held["text"];
              return calls::krb5_get_error_message.Real(context, code);
            }) {}
};

// Lets the call with the number `nth` fail while it lives.
struct Faults {
  explicit Faults(int nth) : account(nth) {}

  Account account;
  const Obtaining<calls::krb5_kt_start_seq_get> cursor{account, "cursor"};
  const Releasing<calls::krb5_kt_end_seq_get, true> free_cursor{account, "cursor"};
  const Obtaining<calls::krb5_kt_next_entry> entry{account, "entry"};
  const Releasing<calls::krb5_free_keytab_entry_contents> free_entry{account, "entry"};
  const Obtaining<calls::krb5_principal2salt> salt{account, "salt"};
  const Releasing<calls::krb5_free_data_contents> free_salt{account, "salt"};
  const Obtaining<calls::krb5_c_string_to_key> key{account, "key"};
  const Releasing<calls::krb5_free_keyblock_contents> free_key{account, "key"};
  const Obtaining<calls::krb5_auth_con_init> auth{account, "auth context"};
  const Releasing<calls::krb5_auth_con_free> free_auth{account, "auth context"};
  const Obtaining<calls::krb5_rd_req> ticket{account, "ticket"};
  const Releasing<calls::krb5_free_ticket> free_ticket{account, "ticket"};
  const Issuing<calls::krb5_get_init_creds_keytab> by_keytab{account};
  const Issuing<calls::krb5_get_init_creds_password> by_password{account};
  const Releasing<calls::krb5_free_cred_contents> free_creds{account, "creds"};
  const Telling text{account};
  const Releasing<calls::krb5_free_error_message> free_text{account, "text"};
  const Acting<calls::krb5_kt_have_content> content{account};
  const Acting<calls::krb5_kt_add_entry> add{account};
  const Acting<calls::krb5_kt_remove_entry> remove{account};
};

// A machine with two keys among others' entries, on which an operation runs again and again, each
// time with the next call failing, until none is left. `check` is told whether one failed. Returns
// how many did.
class EveryCall : public testing::Test {
 protected:
  int FailsInTurn(const std::function<void(ScratchKeytab&)>& act,
                  const std::function<void(ScratchKeytab&, bool failed)>& check) {
    for (int nth = 1;; ++nth) {
      ScratchKeytab scratch;
      scratch.Add({kOther, 1});
      scratch.Add({kMachine, 1, Rc4Key("first")});
      scratch.Add({kMachine, 2, Rc4Key("second")});
      bool fired = false;
      {
        const Faults faults(nth);
        act(scratch);
        fired = faults.account.calls >= nth;
        for (const auto& [kind, count] : faults.account.held)
          EXPECT_EQ(count, 0) << kind << ", call " << nth << " failed";
      }
      SCOPED_TRACE("call " + std::to_string(nth) + " failed");
      check(scratch, fired);
      if (!fired) return nth - 1;
    }
  }
};

bool Holds(const ScratchKeytab& scratch, const std::string& password) {
  for (const std::string& entry : scratch.Entries()) {
    if (entry.find(" 23 " + Hex(Rc4Key(password))) != std::string::npos) return true;
  }
  return false;
}

TEST_F(EveryCall, OfWritingAKeyMayFail) {
  bool written = false;
  std::string error;

  const int failures = FailsInTurn(
      [&](ScratchKeytab& scratch) {
        error.clear();
        written = scratch.keytab.WriteKey("third", &error);
      },
      [&](ScratchKeytab& scratch, bool) {
        EXPECT_EQ(written, Holds(scratch, "third"));
        EXPECT_EQ(scratch.Entries().size(), written ? 4u : 3u);
        EXPECT_EQ(error, written ? "" : "Error writing to key table");
      });

  EXPECT_EQ(failures, 15);  // salt, key and entry, and six a walk
}

TEST_F(EveryCall, OfWritingTheCurrentKeyMayFail) {
  bool written = false;

  FailsInTurn([&](ScratchKeytab& scratch) { written = scratch.keytab.WriteKey("second", nullptr); },
              [&](ScratchKeytab& scratch, bool failed) {
                EXPECT_TRUE(Holds(scratch, "second"));
                EXPECT_TRUE(failed || written);
                EXPECT_TRUE(failed || scratch.Entries().size() == 3);
              });
}

TEST_F(EveryCall, OfClearingKeysMayFail) {
  bool cleared = false;

  const int failures =
      FailsInTurn([&](ScratchKeytab& scratch) { cleared = scratch.keytab.ClearKeys(nullptr); },
                  [&](ScratchKeytab& scratch, bool failed) {
                    EXPECT_EQ(scratch.Entries().front(), ScratchKeytab::Text({kOther, 1}));
                    EXPECT_TRUE(failed || cleared);
                    EXPECT_TRUE(failed || scratch.Entries().size() == 1);
                  });

  EXPECT_EQ(failures, 8);  // six for the walk, and two removals
}

TEST_F(EveryCall, OfTheQueriesMayFail) {
  bool has_key = false;
  std::uint32_t next = 0;

  FailsInTurn(
      [&](ScratchKeytab& scratch) {
        has_key = scratch.keytab.HasKey();
        next = scratch.keytab.GetNextClientVno();
        scratch.keytab.Print();
      },
      [&](ScratchKeytab&, bool failed) {
        EXPECT_GE(next, 1u);
        EXPECT_LE(next, 3u);
        EXPECT_TRUE(failed || has_key);
        EXPECT_TRUE(failed || next == 3);
      });
}

TEST_F(EveryCall, OfAskingForATicketMayFail) {
  int by_keytab = 0;
  int by_password = 0;

  const int failures = FailsInTurn(
      [&](ScratchKeytab& scratch) {
        by_keytab = scratch.keytab.ASAuthenticate(nullptr);
        by_password = scratch.keytab.ASAuthenticate("Secret.1", nullptr);
      },
      [&](ScratchKeytab&, bool failed) {
        EXPECT_EQ(by_keytab + by_password, failed ? kFailure : kSuccess);
      });

  EXPECT_EQ(failures, 3);
}

TEST_F(EveryCall, OfVerifyingARequestMayFail) {
  ForgedTicket ticket;
  ticket.password = "second";
  std::string user;

  const int failures = FailsInTurn(
      [&](ScratchKeytab& scratch) {
        std::vector<char> request = ApReq(ticket);
        user = scratch.keytab.APAuthenticate(request.data(), static_cast<int>(request.size()));
      },
      [&](ScratchKeytab&, bool failed) {
        EXPECT_EQ(user, failed ? "" : "CORP.EXAMPLE.COM\\alice");
      });

  EXPECT_EQ(failures, 2);
}

}  // namespace
}  // namespace tavrel::tests
