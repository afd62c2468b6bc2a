// Which keys count as current.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kKey[] = "0123456789abcdef";
constexpr char kOldKey[] = "fedcba9876543210";

// Entries made by hand, in an order that no keytab has to be in.
class KeytabMatcherTest : public testing::Test {
 protected:
  KeytabMatcherTest() { krb5_init_context(&context_); }
  ~KeytabMatcherTest() override { krb5_free_context(context_); }

  krb5_principal Principal(const std::string& name) const {
    return name == kMachine ? machine_.Get() : name == kOther ? other_.Get() : nullptr;
  }

  // `stored` as an entry, which points into it.
  krb5_keytab_entry Entry(StoredKey& stored) const {
    krb5_keytab_entry entry{};
    entry.principal = Principal(stored.principal);
    entry.vno = stored.vno;
    entry.key.enctype = stored.etype;
    entry.key.length = static_cast<unsigned int>(stored.key.size());
    entry.key.contents =
        stored.key.empty() ? nullptr : reinterpret_cast<krb5_octet*>(stored.key.data());
    return entry;
  }

  bool IsCurrent(StoredKey reference, std::vector<StoredKey> keytab) const {
    krb5_keytab_entry looked_for = Entry(reference);
    KeytabMatcher matcher(context_, &looked_for);
    for (StoredKey& stored : keytab)
      matcher.Process(Entry(stored));
    return matcher.IsKeyCurrent();
  }

  krb5_context context_ = nullptr;
  ParsedPrincipal machine_{kMachine};
  ParsedPrincipal other_{kOther};
};

struct Row {
  const char* what;
  std::vector<StoredKey> keytab;
  bool current;
};

TEST_F(KeytabMatcherTest, TakesAKeyAsCurrentUntilAHigherVersionComesWithoutIt) {
  const std::vector<Row> rows = {
      {"no entry", {}, false},
      {"the key", {{kMachine, 1, kKey}}, true},
      {"another key", {{kMachine, 1, kOldKey}}, false},
      {"the key of another principal", {{kOther, 1, kKey}}, false},
      {"the key of an entry without a principal", {{"none", 1, kKey}}, false},
      {"an old key, then the key", {{kMachine, 1, kOldKey}, {kMachine, 2, kKey}}, true},
      {"the key, then a newer one", {{kMachine, 1, kKey}, {kMachine, 2, kOldKey}}, false},
      {"the key in both versions", {{kMachine, 1, kKey}, {kMachine, 2, kKey}}, true},
      {"the key, then an older one", {{kMachine, 2, kKey}, {kMachine, 1, kOldKey}}, true},
      {"a new key, then the key in an older version",
       {{kMachine, 2, kOldKey}, {kMachine, 1, kKey}},
       false},
      {"an older version lowers what the next is measured by",
       {{kMachine, 5, kOldKey}, {kMachine, 2, kOldKey}, {kMachine, 3, kKey}},
       true},
      {"a lower version again and again",
       {{kMachine, 3, kOldKey}, {kMachine, 2, kKey}, {kMachine, 1, kKey}},
       false},
      {"a version between, after the key and an older one",
       {{kMachine, 3, kKey}, {kMachine, 1, kOldKey}, {kMachine, 2, kOldKey}},
       false},
      {"the same version twice, the key first",
       {{kMachine, 1, kKey}, {kMachine, 1, kOldKey}},
       true},
      {"the same version twice, the key last", {{kMachine, 1, kOldKey}, {kMachine, 1, kKey}}, true},
      {"the same version, another encryption type",
       {{kMachine, 1, kKey}, {kMachine, 1, "longer than that", ENCTYPE_AES128_CTS_HMAC_SHA1_96}},
       true},
      {"the key under another encryption type",
       {{kMachine, 1, kKey, ENCTYPE_AES128_CTS_HMAC_SHA1_96}},
       true},
      {"the beginning of the key", {{kMachine, 1, "0123456789abcde"}}, false},
      {"more than the key", {{kMachine, 1, "0123456789abcdef0"}}, false},
      {"no bytes", {{kMachine, 1, ""}}, false},
      {"a newer version of another principal", {{kMachine, 1, kKey}, {kOther, 2, kOldKey}}, true},
      {"another principal between does not touch the version",
       {{kMachine, 2, kOldKey}, {kOther, 1, kKey}, {kMachine, 1, kKey}},
       false},
      {"version 0", {{kMachine, 0, kKey}}, true},
      {"version 0, then 1", {{kMachine, 0, kKey}, {kMachine, 1, kOldKey}}, false},
      {"the largest version", {{kMachine, 1, kKey}, {kMachine, 0xffffffff, kOldKey}}, false},
      {"the largest version first", {{kMachine, 0xffffffff, kKey}, {kMachine, 1, kOldKey}}, true},
  };
  LogCapture log;

  for (const auto& [what, keytab, current] : rows)
    EXPECT_EQ(IsCurrent({kMachine, 9, kKey}, keytab), current) << what;

  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(KeytabMatcherTest, DoesNotCompareVersionAndEncryptionTypeOfWhatItLooksFor) {
  for (const krb5_kvno vno : {0u, 1u, 5u, 0xffffffffu}) {
    for (const krb5_enctype etype : {ENCTYPE_ARCFOUR_HMAC, ENCTYPE_AES256_CTS_HMAC_SHA1_96})
      EXPECT_TRUE(IsCurrent({kMachine, vno, kKey, etype}, {{kMachine, 5, kKey}}));
  }
}

TEST_F(KeytabMatcherTest, ComparesBytesThatAreNotText) {
  const std::string key("\0\1\0\2", 4);

  EXPECT_TRUE(IsCurrent({kMachine, 1, key}, {{kMachine, 1, key}}));
  EXPECT_FALSE(IsCurrent({kMachine, 1, key}, {{kMachine, 1, std::string("\0\1\0\3", 4)}}));
}

TEST_F(KeytabMatcherTest, AnswersAtAnyTime) {
  StoredKey stored{kMachine, 1, kKey};
  StoredKey newer{kMachine, 2, kOldKey};
  krb5_keytab_entry looked_for = Entry(stored);
  KeytabMatcher matcher(context_, &looked_for);

  const bool at_first = matcher.IsKeyCurrent();
  matcher.Process(Entry(stored));
  const bool with_the_key = matcher.IsKeyCurrent();
  matcher.Process(Entry(newer));
  const bool in_the_end = matcher.IsKeyCurrent();

  EXPECT_FALSE(at_first);
  EXPECT_TRUE(with_the_key);
  EXPECT_FALSE(in_the_end);
}

TEST_F(KeytabMatcherTest, DoesNotAskTheLibraryAboutAPrincipalThatIsNotThere) {
  StoredKey nobodys{"none", 1, kKey};
  StoredKey machines{kMachine, 1, kKey};
  krb5_keytab_entry looked_for = Entry(nobodys);
  KeytabMatcher matcher(context_, &looked_for);
  CallTrace trace;

  matcher.Process(Entry(machines));
  matcher.Process(Entry(nobodys));

  EXPECT_FALSE(matcher.IsKeyCurrent());
  EXPECT_THAT(trace.Names(), IsEmpty());
}

// The rule in its plainest form, one step after the other.
struct Rule {
  void Process(bool same_principal, std::uint32_t v, bool same_key) {
    if (!same_principal) return;
    bool compare = true;
    if (flag && v > s) {
      flag = false;
    } else if (v < s) {
      compare = false;
    }
    if (compare && same_key) flag = true;
    s = v;
  }
  bool flag = false;
  std::uint32_t s = 0;
};

TEST_F(KeytabMatcherTest, FollowsTheRuleForEveryKeytabOfUpToFourEntries) {
  constexpr std::array<std::uint32_t, 4> kVersions = {0, 1, 2, 0xffffffff};
  std::vector<StoredKey> symbols;
  for (const char* principal : {kMachine, kOther}) {
    for (const std::uint32_t vno : kVersions) {
      for (const char* key : {kKey, kOldKey, "0123"})
        symbols.push_back({principal, vno, key});
    }
  }
  StoredKey reference{kMachine, 1, kKey};
  krb5_keytab_entry looked_for = Entry(reference);
  std::vector<krb5_keytab_entry> entries;
  for (StoredKey& symbol : symbols)
    entries.push_back(Entry(symbol));
  const std::size_t n = symbols.size();
  int differences = 0;

  for (std::size_t keytab = 0; keytab < n * n * n * n; ++keytab) {
    KeytabMatcher matcher(context_, &looked_for);
    Rule rule;
    for (std::size_t rest = keytab, i = 0; i < 4; ++i, rest /= n) {
      const StoredKey& symbol = symbols[rest % n];
      matcher.Process(entries[rest % n]);
      rule.Process(symbol.principal == kMachine, symbol.vno, symbol.key == kKey);
      if (matcher.IsKeyCurrent() != rule.flag) ++differences;
    }
  }

  EXPECT_EQ(differences, 0);
}

}  // namespace
}  // namespace tavrel::tests
