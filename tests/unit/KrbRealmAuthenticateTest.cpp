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
  std::string handed_over;
};

bool operator==(const Outcome& a, const Outcome& b) {
  return a.log == b.log && a.handed_over == b.handed_over;
}

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << testing::PrintToString(outcome.log) << ", handed over: " << outcome.handed_over;
}

// The records of a token of that length with these identifiers, and with `request` behind the last
// of them; empty when there is nothing to hand over.
Outcome Scanned(int length, const std::vector<int>& found_at, bool warned,
                const std::string& request) {
  const int start = 11 + (found_at.empty() ? 0 : found_at.back());
  const std::string first = request.substr(0, 1).c_str();  // a record ends at a NUL
  const std::string realm = " krb-realm Authenticate: ";
  Outcome outcome;
  outcome.log = {"1" + realm + "Auth request received of length " + std::to_string(length)};
  for (const int index : found_at)
    outcome.log.push_back("1" + realm + "Found KRB OID at index " + std::to_string(index));
  if (warned) outcome.log.push_back("3" + realm + "Not a KRB_AP_REQ");
  outcome.log.push_back("1" + realm + "Sending in at index " + std::to_string(start) +
                        ", first data byte " + first);
  if (!request.empty()) {
    outcome.handed_over = request;
    outcome.log.emplace_back(
        "4 krb-keytab APAuthenticate: Error reading AP request: Invalid message type");
  }
  return outcome;
}

// The rule, as slowly and plainly as it can be put. A byte that is not there is no byte of
// an identifier, and no byte is handed over from behind the end.
Outcome Expected(const Bytes& token) {
  const auto length = static_cast<int>(token.size());
  const auto byte = [&](int index) {
    return index < length ? static_cast<unsigned char>(token[static_cast<std::size_t>(index)]) : -1;
  };
  const int identifier[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02};
  std::vector<int> found_at;
  for (int i = 0; i <= length - 10 && found_at.size() < 2; ++i) {
    bool equal = true;
    for (int j = 0; j < 9; ++j)
      equal = equal && byte(i + j) == identifier[j];
    if (equal) found_at.push_back(i);
  }
  const int position = found_at.empty() ? 0 : found_at.back();
  const bool warned = byte(position + 9) != 1 || byte(position + 10) != 0;
  const auto start = std::min<std::size_t>(static_cast<std::size_t>(position) + 11, token.size());
  return Scanned(length, found_at, warned, {token.data() + start, token.size() - start});
}

class TheScan : public testing::Test {
 protected:
  Outcome Of(char* token, int length) {
    Outcome outcome;
    const StandIn reader(calls::krb5_rd_req,
                         [&](krb5_context, krb5_auth_context*, const krb5_data* request,
                             auto...) -> krb5_error_code {
                           outcome.handed_over.assign(request->data, request->length);
                           at_its_end_ = request->data + request->length == token + length;
                           return KRB5KRB_AP_ERR_MSG_TYPE;
                         });
    LogCapture log;
    EXPECT_EQ(realm_.Authenticate(token, length), "");
    outcome.log = log.Lines();
    EXPECT_TRUE(outcome.handed_over.empty() || at_its_end_) << "the request ends with the token";
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
  bool at_its_end_ = false;
};

TEST_F(TheScan, TakesWhatFollowsTheIdentifierThatCounts) {
  const std::string once = kKerberosOid + kApReqId + "n";
  struct Case {
    const char* what;
    std::string token;
    std::vector<int> found_at;
    bool warned;
    std::string handed_over;
  };
  const Case cases[] = {
      {"a bare token", "\x60\x0e\x06\x09" + once, {4}, false, "n"},
      {"the second counts, no third is looked for", once + once + once, {0, 12}, false, "n" + once},
      {"one at the very end is not found",
       "0123456789abc" + kKerberosOid,
       {},
       true,
       "bc" + kKerberosOid},
      {"of ten bytes, at the start", kKerberosOid + "\x01", {0}, true, ""},
      {"of ten bytes, later", "0" + kKerberosOid, {}, true, ""},
      {"no identifier, but the request's kind", "012345678" + kApReqId + "n", {}, false, "n"},
      {"nothing follows", kKerberosOid + kApReqId, {0}, false, ""},
  };
  for (const auto& [what, token, found_at, warned, handed_over] : cases) {
    const auto length = static_cast<int>(token.size());

    EXPECT_EQ(Of(fenced_.Back(AsBytes(token)), length),
              Scanned(length, found_at, warned, handed_over))
        << what;
  }
}

TEST(AToken, MayHaveItsIdentifierAtAnyOffset) {
  const KrbSettings settings;
  Joined realm;
  for (const std::size_t place : {256U, 300U, 65'536U}) {
    for (const bool is_second : {false, true}) {
      SCOPED_TRACE(std::to_string(place) + (is_second ? ", second" : ""));
      std::string text = is_second ? kKerberosOid : "";
      text.resize(place, 'x');
      ForgedTicket ticket;
      ticket.server = {"APPLIANCE$"};
      const Bytes request = ApReq(ticket);
      text += kKerberosOid + kApReqId + std::string(request.begin(), request.end());
      LogCapture log;

      const std::string user = realm.Authenticate(AsBytes(text));

      EXPECT_EQ(user, "CORP.EXAMPLE.COM\\alice");
      EXPECT_THAT(log.Lines(),
                  testing::IsSupersetOf(
                      {"1 krb-realm Authenticate: Found KRB OID at index " + std::to_string(place),
                       "1 krb-realm Authenticate: Sending in at index " +
                           std::to_string(place + 11) + ", first data byte n"}));
    }
  }
}

TEST_F(TheScan, OfNoBytesReadsNone) {
  for (const int length : {0, -1, -11, INT_MIN}) {
    const Outcome at_the_end = Of(fenced_.Back({}), length);
    const Outcome nowhere = Of(nullptr, length);

    EXPECT_EQ(at_the_end, Scanned(length, {}, true, ""));
    EXPECT_EQ(nowhere, Scanned(length, {}, true, ""));
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

  Lines expected;
  if (framed.warned) expected.emplace_back("3 krb-realm Authenticate: Not a KRB_AP_REQ");
  if (!framed.accepted) {
    expected.emplace_back(
        "4 krb-keytab APAuthenticate: Error reading AP request: Invalid message type");
  }
  EXPECT_EQ(user, framed.accepted ? "CORP.EXAMPLE.COM\\alice" : "");
  EXPECT_THAT(log.Notable(), ElementsAreArray(expected));
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
        Framed{"InABareToken", [](const Bytes& r) { return GssToken(r); }, false, true},
        Framed{"InASpnegoToken", [](const Bytes& r) { return Spnego(r, {kKerberosOid}); }, false,
               true},
        Framed{"OfferedUnderTheMicrosoftNameAlone",
               [](const Bytes& r) {
                 return Spnego(r, {kMicrosoftKerberosOid, kNtlmOid});
               },
               false, true},
        Framed{"OfferedUnderBothNames",
               [](const Bytes& r) {
                 return Spnego(r, {kMicrosoftKerberosOid, kKerberosOid, kNtlmOid});
               },
               false, true},
        // The second identifier then is the list's, not the token's.
        Framed{"OfferedTwice",
               [](const Bytes& r) {
                 return Spnego(r, {kKerberosOid, kKerberosOid});
               },
               true, false},
        Framed{"OfAnotherKind", [](const Bytes& r) { return Behind(kKerberosOid + "\x02\x01", r); },
               true, true},
        Framed{"OfAKindThatDiffersInItsFirstByte",
               [](const Bytes& r) { return Behind(kKerberosOid + std::string("\x03\x00", 2), r); },
               true, true},
        Framed{"OfAKindThatDiffersInItsSecondByte",
               [](const Bytes& r) { return Behind(kKerberosOid + "\x01\x01", r); }, true, true},
        Framed{"BehindNoIdentifier", [](const Bytes& r) { return Behind("eleven char", r); }, true,
               true},
        Framed{"AtTheStart", [](const Bytes& r) { return r; }, true, false}),
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
