#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <random>
#include <system_error>

#include "ForgedRequest.h"
#include "Interpose.h"
#include "KrbSettings.h"
#include "LogCapture.h"
#include "tavrel/KrbKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAreArray;

using Lines = std::vector<std::string>;
using Bytes = std::vector<char>;

const std::string kMachine = "APPLIANCE$@CORP.EXAMPLE.COM";
const std::string kApReqId("\x01\x00", 2);

Bytes AsBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

// A realm that has joined: it has its principal, and the key of the forged tickets.
class Joined : public KrbRealm {
 public:
  Joined() : KrbRealm("corp.example.com", "Admin", "Admin.Pass.1", "MEMORY:authenticate") {
    krb_context.SetClientPrincipal(kMachine);
    Keytab(&krb_context).WriteKey(ForgedTicket().password, nullptr);
  }

  using KrbRealm::Authenticate;
  std::string Authenticate(Bytes token) {
    return Authenticate(token.data(), static_cast<int>(token.size()));
  }
};

// --- what the scan does --------------------------------------------------------------------------

// Memory between two pages that cannot be read. Not even a write is allowed once it is sealed.
class Fenced {
 public:
  Fenced() : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    void* const memory = mmap(nullptr, 3 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category());
    first_ = static_cast<char*>(memory);
    Allow(PROT_READ | PROT_WRITE);
  }
  Fenced(const Fenced&) = delete;
  Fenced& operator=(const Fenced&) = delete;
  ~Fenced() { munmap(first_, 3 * page_); }

  // The bytes where the memory begins, and where it ends.
  char* Front(const Bytes& bytes) { return Place(first_ + page_, bytes); }
  char* Back(const Bytes& bytes) { return Place(first_ + 2 * page_ - bytes.size(), bytes); }

 private:
  void Allow(int protection) { mprotect(first_ + page_, page_, protection); }

  char* Place(char* where, const Bytes& bytes) {
    Allow(PROT_READ | PROT_WRITE);
    std::copy(bytes.begin(), bytes.end(), where);
    Allow(PROT_READ);
    return where;
  }

  std::size_t page_;
  char* first_;
};

// What a token leads to: the records, and what of it is handed over to be read, if anything.
struct Outcome {
  Lines log;
  std::string handed_over = "nothing";
};

bool operator==(const Outcome& a, const Outcome& b) {
  return a.log == b.log && a.handed_over == b.handed_over;
}

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << testing::PrintToString(outcome.log) << ", handed over: " << outcome.handed_over;
}

std::string HandedOver(std::size_t start, std::size_t count) {
  return std::to_string(count) + " bytes from " + std::to_string(start);
}

// The rule, as slowly and plainly as it can be put. A byte that is not there is no byte of
// an identifier, and no byte is handed over from behind the end.
Outcome Expected(const Bytes& token) {
  const auto length = static_cast<int>(token.size());
  const auto byte = [&](int index) {
    return index < length ? static_cast<unsigned char>(token[static_cast<std::size_t>(index)]) : -1;
  };
  const int identifier[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02};
  Outcome outcome;
  const auto record = [&](const std::string& text) { outcome.log.push_back(text); };

  record("1 krb-realm Authenticate: Auth request received of length " + std::to_string(length));
  int position = 0;
  int matches = 0;
  for (int i = 0; i <= length - 10 && matches < 2; ++i) {
    bool equal = true;
    for (int j = 0; j < 9; ++j)
      equal = equal && byte(i + j) == identifier[j];
    if (!equal) continue;
    record("1 krb-realm Authenticate: Found KRB OID at index " + std::to_string(i));
    position = i;
    ++matches;
  }
  if (byte(position + 9) != 1 || byte(position + 10) != 0) {
    record("3 krb-realm Authenticate: Not a KRB_AP_REQ");
  }
  const int start = position + 11;
  std::string first;
  if (byte(start) > 0) first = static_cast<char>(byte(start));  // a record ends at a NUL
  record("1 krb-realm Authenticate: Sending in at index " + std::to_string(start) +
         ", first data byte " + first);
  if (start < length) {
    outcome.handed_over =
        HandedOver(static_cast<std::size_t>(start), static_cast<std::size_t>(length - start));
    record("4 krb-keytab APAuthenticate: Error reading AP request: Invalid message type");
  }
  return outcome;
}

class TheScan : public testing::Test {
 protected:
  Outcome Of(char* token, int length) {
    Outcome outcome;
    const StandIn reader(calls::krb5_rd_req,
                         [&](krb5_context, krb5_auth_context*, const krb5_data* request,
                             auto...) -> krb5_error_code {
                           outcome.handed_over = HandedOver(
                               static_cast<std::size_t>(request->data - token), request->length);
                           return KRB5KRB_AP_ERR_MSG_TYPE;
                         });
    LogCapture log;
    EXPECT_EQ(realm_.Authenticate(token, length), "");
    outcome.log = log.Lines();
    return outcome;
  }

  // Wherever the token lies, nothing around it is read, and nothing written at all.
  void Check(const Bytes& token) {
    const Outcome expected = Expected(token);
    const auto length = static_cast<int>(token.size());
    ASSERT_EQ(Of(fenced_.Back(token), length), expected) << testing::PrintToString(token);
    ASSERT_EQ(Of(fenced_.Front(token), length), expected) << testing::PrintToString(token);
  }

  const KrbSettings settings_;
  Joined realm_;
  Fenced fenced_;
};

TEST_F(TheScan, TakesWhatFollowsTheIdentifierOfABareToken) {
  const Outcome outcome =
      Of(fenced_.Back(AsBytes("\x60\x0e\x06\x09" + kKerberosOid + kApReqId + "n")), 16);

  EXPECT_EQ(outcome,
            (Outcome{{"1 krb-realm Authenticate: Auth request received of length 16",
                      "1 krb-realm Authenticate: Found KRB OID at index 4",
                      "1 krb-realm Authenticate: Sending in at index 15, first data byte n",
                      "4 krb-keytab APAuthenticate: Error reading AP request: Invalid message "
                      "type"},
                     "1 bytes from 15"}));
}

TEST_F(TheScan, TakesWhatFollowsTheSecondIdentifierAndLooksForNoThird) {
  const std::string once = kKerberosOid + kApReqId + "n";

  const Outcome outcome = Of(fenced_.Back(AsBytes(once + once + once)), 36);

  EXPECT_EQ(outcome,
            (Outcome{{"1 krb-realm Authenticate: Auth request received of length 36",
                      "1 krb-realm Authenticate: Found KRB OID at index 0",
                      "1 krb-realm Authenticate: Found KRB OID at index 12",
                      "1 krb-realm Authenticate: Sending in at index 23, first data byte n",
                      "4 krb-keytab APAuthenticate: Error reading AP request: Invalid message "
                      "type"},
                     "13 bytes from 23"}));
}

TEST_F(TheScan, DoesNotFindAnIdentifierAtTheVeryEnd) {
  const Outcome outcome = Of(fenced_.Back(AsBytes("0123456789abc" + kKerberosOid)), 22);

  EXPECT_EQ(outcome,
            (Outcome{{"1 krb-realm Authenticate: Auth request received of length 22",
                      "3 krb-realm Authenticate: Not a KRB_AP_REQ",
                      "1 krb-realm Authenticate: Sending in at index 11, first data byte b",
                      "4 krb-keytab APAuthenticate: Error reading AP request: Invalid message "
                      "type"},
                     "11 bytes from 11"}));
}

TEST_F(TheScan, LooksAtTheStartAloneOfATokenOfTenBytes) {
  const Outcome found = Of(fenced_.Back(AsBytes(kKerberosOid + "\x01")), 10);
  const Outcome late = Of(fenced_.Back(AsBytes("0" + kKerberosOid)), 10);

  EXPECT_EQ(found,
            (Outcome{{"1 krb-realm Authenticate: Auth request received of length 10",
                      "1 krb-realm Authenticate: Found KRB OID at index 0",
                      "3 krb-realm Authenticate: Not a KRB_AP_REQ",
                      "1 krb-realm Authenticate: Sending in at index 11, first data byte "}}));
  EXPECT_EQ(late,
            (Outcome{{"1 krb-realm Authenticate: Auth request received of length 10",
                      "3 krb-realm Authenticate: Not a KRB_AP_REQ",
                      "1 krb-realm Authenticate: Sending in at index 11, first data byte "}}));
}

TEST_F(TheScan, OfATokenWithoutAnIdentifierStillLooksForTheRequestsKind) {
  const Outcome outcome = Of(fenced_.Back(AsBytes("012345678" + kApReqId + "n")), 12);

  EXPECT_EQ(outcome,
            (Outcome{{"1 krb-realm Authenticate: Auth request received of length 12",
                      "1 krb-realm Authenticate: Sending in at index 11, first data byte n",
                      "4 krb-keytab APAuthenticate: Error reading AP request: Invalid message "
                      "type"},
                     "1 bytes from 11"}));
}

TEST_F(TheScan, HandsNothingOverWhenNothingFollows) {
  const Outcome outcome = Of(fenced_.Back(AsBytes(kKerberosOid + kApReqId)), 11);

  EXPECT_EQ(outcome,
            (Outcome{{"1 krb-realm Authenticate: Auth request received of length 11",
                      "1 krb-realm Authenticate: Found KRB OID at index 0",
                      "1 krb-realm Authenticate: Sending in at index 11, first data byte "}}));
}

TEST_F(TheScan, OfNoBytesReadsNone) {
  const Lines records = {"3 krb-realm Authenticate: Not a KRB_AP_REQ",
                         "1 krb-realm Authenticate: Sending in at index 11, first data byte "};

  for (const int length : {0, -1, -11, INT_MIN}) {
    Lines log = {"1 krb-realm Authenticate: Auth request received of length " +
                 std::to_string(length)};
    log.insert(log.end(), records.begin(), records.end());

    const Outcome at_the_end = Of(fenced_.Back({}), length);
    const Outcome nowhere = Of(nullptr, length);

    EXPECT_EQ(at_the_end, Outcome{log});
    EXPECT_EQ(nowhere, Outcome{log});
  }
}

TEST_F(TheScan, IsTheSameForEveryLengthOfEveryKindOfToken) {
  const std::string longest(32, 'x');
  const std::string kinds[] = {longest,
                               kKerberosOid + kApReqId + longest,
                               kKerberosOid + kKerberosOid + kApReqId + longest,
                               "x" + kKerberosOid + "xy" + longest,
                               kMicrosoftKerberosOid + kKerberosOid + kApReqId + longest,
                               std::string(32, '\0'),
                               std::string(9, 'x') + kApReqId + longest};

  for (const std::string& kind : kinds) {
    for (std::size_t length = 0; length <= 32; ++length)
      Check(AsBytes(kind.substr(0, length)));
  }
}

TEST_F(TheScan, IsTheSameForTokensOfAnyPieces) {
  std::mt19937 random(20240229);
  const auto below = [&](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
  };
  const auto noise = [&](std::size_t count) {
    std::string bytes(count, '\0');
    for (char& byte : bytes)
      byte = static_cast<char>(below(256));
    return bytes;
  };
  const auto piece = [&]() -> std::string {
    switch (below(8)) {
      case 0:
      case 1: return kKerberosOid;
      case 2: return kKerberosOid + kApReqId;
      case 3: return kMicrosoftKerberosOid;
      case 4: return kKerberosOid.substr(0, below(9));
      case 5: return kKerberosOid.substr(below(9));
      case 6: return kApReqId;
      default: return noise(below(30));
    }
  };

  for (int i = 0; i < 20000; ++i) {
    std::string token;
    for (std::size_t pieces = below(7); pieces > 0; --pieces)
      token += piece();
    Check(AsBytes(token));
    if (HasFatalFailure()) break;
  }
}

// --- what is accepted ----------------------------------------------------------------------------

ForgedTicket ForTheMachine() {
  ForgedTicket ticket;
  ticket.server = {"APPLIANCE$"};
  return ticket;
}

struct Framed {
  const char* name;
  Bytes (*frame)(const Bytes& request);
  std::vector<int> found_at;  // the identifiers that are found
  bool warned;
  bool accepted;
};

void PrintTo(const Framed& framed, std::ostream* out) {
  *out << framed.name;
}

class AFramedRequest : public testing::TestWithParam<Framed> {};

TEST_P(AFramedRequest, IsFoundByTheIdentifierBeforeIt) {
  const Framed& framed = GetParam();
  const KrbSettings settings;
  Joined realm;
  Bytes token = framed.frame(ApReq(ForTheMachine()));
  LogCapture log;

  const std::string user = realm.Authenticate(token);

  const int start = 11 + (framed.found_at.empty() ? 0 : framed.found_at.back());
  Lines expected = {"1 krb-realm Authenticate: Auth request received of length " +
                    std::to_string(token.size())};
  for (const int index : framed.found_at) {
    expected.push_back("1 krb-realm Authenticate: Found KRB OID at index " + std::to_string(index));
  }
  if (framed.warned) expected.push_back("3 krb-realm Authenticate: Not a KRB_AP_REQ");
  expected.push_back("1 krb-realm Authenticate: Sending in at index " + std::to_string(start) +
                     ", first data byte " + token[static_cast<std::size_t>(start)]);
  expected.push_back(
      framed.accepted
          ? "1 krb-keytab APAuthenticate: AP request (0): CORP.EXAMPLE.COM\\alice"
          : "4 krb-keytab APAuthenticate: Error reading AP request: Invalid message type");
  EXPECT_EQ(user, framed.accepted ? "CORP.EXAMPLE.COM\\alice" : "");
  EXPECT_THAT(log.Lines(), ElementsAreArray(expected));
}

Bytes Spnego(const Bytes& request, const std::vector<std::string>& mechanisms) {
  return SpnegoToken(GssToken(request), mechanisms);
}

Bytes Behind(const std::string& text, const Bytes& request) {
  return AsBytes(text + std::string(request.begin(), request.end()));
}

INSTANTIATE_TEST_SUITE_P(
    , AFramedRequest,
    testing::Values(
        Framed{"InABareToken", [](const Bytes& r) { return GssToken(r); }, {6}, false, true},
        Framed{"InASpnegoToken",
               [](const Bytes& r) { return Spnego(r, {kKerberosOid}); },
               {26, 49},
               false,
               true},
        Framed{"OfferedUnderTheMicrosoftNameAlone",
               [](const Bytes& r) {
                 return Spnego(r, {kMicrosoftKerberosOid, kNtlmOid});
               },
               {61},
               false,
               true},
        Framed{"OfferedUnderBothNames",
               [](const Bytes& r) {
                 return Spnego(r, {kMicrosoftKerberosOid, kKerberosOid, kNtlmOid});
               },
               {37, 72},
               false,
               true},
        // The second identifier then is the list's, not the token's.
        Framed{"OfferedTwice",
               [](const Bytes& r) {
                 return Spnego(r, {kKerberosOid, kKerberosOid});
               },
               {26, 37},
               true,
               false},
        Framed{"OfAnotherKind",
               [](const Bytes& r) { return Behind(kKerberosOid + "\x02\x01", r); },
               {0},
               true,
               true},
        Framed{"OfAKindThatDiffersInItsFirstByte",
               [](const Bytes& r) { return Behind(kKerberosOid + std::string("\x03\x00", 2), r); },
               {0},
               true,
               true},
        Framed{"OfAKindThatDiffersInItsSecondByte",
               [](const Bytes& r) { return Behind(kKerberosOid + "\x01\x01", r); },
               {0},
               true,
               true},
        Framed{"BehindNoIdentifier",
               [](const Bytes& r) { return Behind("eleven char", r); },
               {},
               true,
               true},
        Framed{"AtTheStart", [](const Bytes& r) { return r; }, {}, true, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ATokenAccepted, IsNotWrittenTo) {
  const KrbSettings settings;
  Joined realm;
  Fenced fenced;
  const Bytes token = GssToken(ApReq(ForTheMachine()));

  const std::string user = realm.Authenticate(fenced.Back(token), static_cast<int>(token.size()));

  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
}

TEST(ATokenAccepted, CarriesTheUsersRealmAsTheTicketDoes) {
  const KrbSettings settings;
  Joined realm;
  ForgedTicket ticket = ForTheMachine();
  ticket.client_realm = "Partner.Example.org";
  ticket.client = {"Carol"};

  const std::string user = realm.Authenticate(GssToken(ApReq(ticket)));

  EXPECT_EQ(user, "Partner.Example.org\\Carol");
}

}  // namespace
}  // namespace tavrel::tests
