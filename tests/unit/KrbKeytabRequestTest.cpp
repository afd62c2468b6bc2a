// Verifying service requests: Keytab::APAuthenticate.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "ForgedRequest.h"
#include "Interpose.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Lines = std::vector<std::string>;

constexpr char kService[] = "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM";

const std::string kNobody;
const std::string kAlice = "CORP.EXAMPLE.COM\\alice";
const std::string kBadTime =
    "2 krb-keytab APAuthenticate: Invalid timestamp for AP request for user: ";
const std::string kBadServer =
    "2 krb-keytab APAuthenticate: Invalid server principal for AP request for user ";
const std::string kUnread = "4 krb-keytab APAuthenticate: Error reading AP request: ";
const std::string kNoKeyFound =
    "Request ticket server HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM not found in keytab "
    "(ticket kvno 1)";

// The library calls for a request that can be read, and for one that cannot.
const Lines kRead = {"krb5_auth_con_init",     "krb5_rd_req",      "time",
                     "krb5_principal_compare", "krb5_free_ticket", "krb5_auth_con_free"};
const Lines kRefused = {"krb5_auth_con_init", "krb5_rd_req", "krb5_get_error_message",
                        "krb5_free_error_message", "krb5_auth_con_free"};

// A keytab file that holds the machine's key, and a ticket that is sealed with it.
struct Scene {
  explicit Scene(const std::string& libdefaults = kTolerateSkew) : scratch("FILE", libdefaults) {
    scratch.Add({kMachine, 1, Rc4Key(ticket.password)});
  }

  std::string Present(std::vector<char> request) {
    return scratch.keytab.APAuthenticate(request.data(), static_cast<int>(request.size()));
  }
  std::string Present() { return Present(ApReq(ticket)); }

  // Puts an entry with the machine's key before the machine's own.
  void FindsFirst(const std::string& principal) {
    std::filesystem::remove(scratch.Path());
    scratch.Add({principal, 1, Rc4Key(ticket.password)});
    scratch.Add({kMachine, 1, Rc4Key(ticket.password)});
  }

  // A ticket of an hour that ended that many seconds ago.
  void Ended(krb5_timestamp seconds) {
    ticket.endtime = ticket.authtime - seconds;
    ticket.authtime = ticket.starttime = ticket.endtime - 3600;
  }

  ForgedTicket ticket;
  ScratchKeytab scratch;
};

struct Row {
  const char* name;
  void (*arrange)(Scene& scene);
  std::string user;
  Lines records;
  Lines calls = kRead;
  const char* libdefaults = kTolerateSkew;

  friend void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }
};

class EveryRequest : public testing::TestWithParam<Row> {};

TEST_P(EveryRequest, IsAcceptedOrRefusedForItsReason) {
  const Row& row = GetParam();
  Scene scene(row.libdefaults);
  row.arrange(scene);
  const std::vector<char> request = ApReq(scene.ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = scene.Present(request);

  EXPECT_EQ(user, row.user);
  EXPECT_THAT(log.Notable(), ElementsAreArray(row.records));
  EXPECT_THAT(trace.Names(), ElementsAreArray(row.calls));
}

INSTANTIATE_TEST_SUITE_P(
    Accepted, EveryRequest,
    testing::Values(
        Row{"ForTheMachine", [](Scene&) {}, kAlice, {}},
        Row{"WithAnyKeyOfTheMachine",
            [](Scene& scene) {
              scene.ticket.password = "the next one";
              scene.ticket.kvno = 7;
              scene.scratch.Add({kMachine, 2, Rc4Key(scene.ticket.password)});
            },
            kAlice,
            {}},
        // Any name of the service will do when the machine's key opens it.
        Row{"ForAService",
            [](Scene& scene) {
              scene.ticket.server = {"HTTP", "appliance"};
            },
            kAlice,
            {}},
        Row{"ForAServiceOfThreeNames",
            [](Scene& scene) {
              scene.ticket.server = {"cifs", "a", "b"};
            },
            kAlice,
            {}},
        Row{"OfAnInstanceNamesTheInstance",
            [](Scene& scene) {
              scene.ticket.client = {"bob", "admin"};
            },
            "CORP.EXAMPLE.COM\\admin",
            {}},
        Row{"OfAClientWithoutANameNamesNobody",
            [](Scene& scene) { scene.ticket.client = {}; },
            kNobody,
            {}},
        Row{"WithoutAStartTime", [](Scene& scene) { scene.ticket.starttime = 0; }, kAlice, {}},
        Row{"ThatEndedJustNow", [](Scene& scene) { scene.Ended(200); }, kAlice, {}, kRead, ""}),
    [](const auto& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Refused, EveryRequest,
    testing::Values(
        Row{"ThatEndedMoreThan300SecondsAgo",
            [](Scene& scene) { scene.Ended(310); },
            kNobody,
            {kBadTime + kAlice}},
        Row{"OfTheFuture",
            [](Scene& scene) { scene.ticket.starttime += 3600; },
            kNobody,
            {kBadTime + kAlice}},
        Row{"OfTheFutureWithoutAStartTime",
            [](Scene& scene) {
              scene.ticket.starttime = 0;
              scene.ticket.authtime += 3600;
            },
            kNobody,
            {kBadTime + kAlice}},
        Row{"ThatEndsBeforeItStarts",
            [](Scene& scene) {
              scene.ticket.starttime += 100;
              scene.ticket.endtime = scene.ticket.starttime - 1;
            },
            kNobody,
            {kBadTime + kAlice}},
        Row{"OfAnInstanceOfTheFuture",
            [](Scene& scene) {
              scene.ticket.client = {"bob", "admin"};
              scene.ticket.starttime += 3600;
            },
            kNobody,
            {kBadTime + "CORP.EXAMPLE.COM\\admin"}},
        Row{"ForAnotherPrincipalWithTheSameKey",
            [](Scene& scene) { scene.FindsFirst(kService); },
            kNobody,
            {kBadServer + kAlice}},
        Row{"ForThisMachineInAnotherCase",
            [](Scene& scene) { scene.FindsFirst("appliance$@CORP.EXAMPLE.COM"); },
            kNobody,
            {kBadServer + kAlice}},
        Row{"ForThisMachineInAnotherRealm",
            [](Scene& scene) { scene.FindsFirst("APPLIANCE$@corp.example.com"); },
            kNobody,
            {kBadServer + kAlice}},
        Row{"ByARealmWithoutAPrincipal",
            [](Scene& scene) { scene.scratch.krb.ReleaseClientPrincipal(); },
            kNobody,
            {kBadServer + kAlice},
            {"krb5_auth_con_init", "krb5_rd_req", "time", "krb5_free_ticket",
             "krb5_auth_con_free"}},
        Row{"WithoutAContext",
            [](Scene& scene) {
              scene.scratch.krb.ReleaseKeytab();
              scene.scratch.krb.ReleaseClientPrincipal();
              scene.scratch.krb.ReleaseContext();
            },
            kNobody,
            {"4 krb-keytab APAuthenticate: Error initializing auth context: Bad magic number for "
             "krb5_context structure"},
            {"krb5_get_error_message", "krb5_free_error_message"}},
        Row{"SealedWithAnotherKey",
            [](Scene& scene) { scene.ticket.password = "another"; },
            kNobody,
            {kUnread + kNoKeyFound},
            kRefused},
        Row{"OfAnEncryptionTypeWithoutAKey",
            [](Scene& scene) { scene.ticket.etype = ENCTYPE_AES256_CTS_HMAC_SHA1_96; },
            kNobody,
            {kUnread + kNoKeyFound},
            kRefused},
        // The Kerberos library's own tolerance, as it is by default.
        Row{"FromAClockThatIsTooFarOff",
            [](Scene& scene) { scene.ticket.sent_at = scene.ticket.authtime - 400; },
            kNobody,
            {kUnread + "Clock skew too great"},
            kRefused,
            ""},
        Row{"ThatExpired",
            [](Scene& scene) { scene.Ended(3600); },
            kNobody,
            {kUnread + "Ticket expired"},
            kRefused,
            ""}),
    [](const auto& info) { return info.param.name; });

// A request of its own scene, for what a row cannot say.
class ARequest : public testing::Test, public Scene {};

TEST_F(ARequest, ThatIsRefusedForTwoReasonsNamesBoth) {
  FindsFirst(kService);
  ticket.client = std::vector<std::string>(11, "x");
  ticket.starttime += 3600;
  const std::string x = "CORP.EXAMPLE.COM\\x";
  Lines records;
  for (int i = 0; i < 11; ++i)
    records.push_back("1 krb-keytab APAuthenticate: AP request (" + std::to_string(i) + "): " + x);
  const std::string dump = "1 krb-keytab PrintPrincipal: ";
  for (const std::string& record :
       {kBadTime + x, kBadServer + x, dump + "AP request server principal: HTTP@CORP.EXAMPLE.COM",
        dump + "AP request server principal: appliance.corp.example.com@CORP.EXAMPLE.COM",
        dump + "Joined server principal: APPLIANCE$@CORP.EXAMPLE.COM"}) {
    records.push_back(record);
  }
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAreArray(records));
  EXPECT_EQ(log.Records()[0].file, "KrbKeytab.cpp");
}

TEST_F(ARequest, MayComeFromAnotherRealmThanTheMachines) {
  ticket.client_realm = "PARTNER.EXAMPLE.ORG";

  EXPECT_EQ(Present(), "PARTNER.EXAMPLE.ORG\\alice");
}

TEST_F(ARequest, NamesTheClientAsTheTicketWritesIt) {
  const std::pair<std::string, std::string> clients[] = {
      {"Users.Example.Com", "Alice"}, {"corp.example.com", "alice@mail.example.com"},
      {"R", "CORP\\alice"},           {"R", "a b/c"},
      {"R", "\xc3\xa4\xff%s"},        {"R", ""},
      {"R", std::string(300, 'x')},   {"R", std::string("al\0ice", 6)},
  };
  for (const auto& [realm, name] : clients) {
    ticket.client_realm = realm;
    ticket.client = {name};

    EXPECT_EQ(Present(), realm + "\\" + name);
  }
}

TEST_F(ARequest, IsJudgedByTheTimesOfItsTicket) {
  const std::time_t start = ticket.starttime;
  const std::time_t end = ticket.endtime;
  for (const auto& [now, valid] :
       {std::pair(start - 301, false), std::pair(start - 300, true), std::pair(start, true),
        std::pair(end, true), std::pair(end + 300, true), std::pair(end + 301, false)}) {
    // The library's own check sees another time than libkrb5.
    const StandIn clock(calls::time, [now = now](std::time_t*) { return now; });

    EXPECT_EQ(Present(), valid ? kAlice : "") << now - start;
  }
}

TEST_F(ARequest, WithoutAKeytabIsRefusedThoughTheDefaultKeytabWouldDo) {
  const ScopedVariable by_default("KRB5_KTNAME", "FILE:" + scratch.Path());
  scratch.krb.ReleaseKeytab();
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_auth_con_init", "krb5_get_error_message",
                                         "krb5_free_error_message", "krb5_auth_con_free"));
  EXPECT_THAT(log.Notable(), ElementsAre(kUnread + "Key table name malformed"));
}

TEST_F(ARequest, WithoutAKeytabFileIsRefused) {
  std::filesystem::remove(scratch.Path());
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Notable(),
              ElementsAre(kUnread + "Key table file '" + scratch.Path() + "' not found"));
}

TEST_F(ARequest, IsRefusedWhenTheAuthContextCannotBeMade) {
  const StandIn broken(calls::krb5_auth_con_init,
                       [](auto...) -> krb5_error_code { return ENOMEM; });
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_auth_con_init", "krb5_get_error_message",
                                         "krb5_free_error_message"));
  EXPECT_THAT(log.Notable(), ElementsAre("4 krb-keytab APAuthenticate: Error initializing auth "
                                         "context: Cannot allocate memory"));
}

TEST_F(ARequest, IsPassedToTheLibraryUnchanged) {
  std::vector<char> request = {'A', '\0', 'B'};
  int asked = 0;
  const StandIn read(calls::krb5_rd_req,
                     [&](krb5_context context, krb5_auth_context* auth, const krb5_data* data,
                         krb5_const_principal server, krb5_keytab keytab, krb5_flags* options,
                         krb5_ticket** decoded) -> krb5_error_code {
                       ++asked;
                       EXPECT_EQ(context, scratch.krb.context);
                       EXPECT_NE(*auth, nullptr);
                       EXPECT_EQ(data->data, request.data());
                       EXPECT_EQ(data->length, 3u);
                       EXPECT_EQ(server, nullptr);
                       EXPECT_EQ(keytab, scratch.krb.keytab);
                       EXPECT_EQ(options, nullptr);
                       EXPECT_EQ(*decoded, nullptr);
                       return KRB5KRB_AP_ERR_MODIFIED;
                     });
  LogCapture log;

  const std::string user = scratch.keytab.APAuthenticate(request.data(), 3);

  EXPECT_EQ(asked, 1);
  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Notable(), ElementsAre(kUnread + "Message stream modified"));
}

TEST_F(ARequest, ThatIsCutOffAnywhereIsRefused) {
  const std::vector<char> request = ApReq(ticket);
  for (std::size_t length = 0; length < request.size(); ++length) {
    LogCapture log;

    const std::string user = Present({request.data(), request.data() + length});

    EXPECT_EQ(user, "") << length;
    EXPECT_THAT(log.Notable(), ElementsAre(testing::StartsWith(kUnread))) << length;
  }
}

TEST_F(ARequest, OfALengthBelowOneIsTakenForNoBytesAtAll) {
  std::vector<unsigned int> lengths;
  const StandIn read(
      calls::krb5_rd_req, [&](krb5_context context, krb5_auth_context* auth, const krb5_data* data,
                              krb5_const_principal server, krb5_keytab keytab, krb5_flags* options,
                              krb5_ticket** decoded) {
        lengths.push_back(data->length);
        return calls::krb5_rd_req.Real(context, auth, data, server, keytab, options, decoded);
      });
  std::vector<char> request = ApReq(ticket);
  for (const int length : {0, -1, std::numeric_limits<int>::min()}) {
    LogCapture log;
    CallTrace trace;

    const std::string user = scratch.keytab.APAuthenticate(request.data(), length);
    const std::string from_nowhere = scratch.keytab.APAuthenticate(nullptr, length);

    EXPECT_EQ(user, "");
    EXPECT_EQ(from_nowhere, "");
    EXPECT_THAT(log.Notable(),
                ElementsAre(kUnread + "Invalid message type", kUnread + "Invalid message type"));
  }
  EXPECT_THAT(lengths, ElementsAre(0, 0, 0, 0, 0, 0));
}

// libkrb5 has no text of its own for that, and would give the one that it kept from before.
TEST_F(ARequest, ToAMachineWhoseKeytabCannotBeReadIsNotRefusedForAnEarlierReason) {
  std::filesystem::remove(scratch.Path());
  Present();
  std::filesystem::create_symlink(scratch.Path(), scratch.Path());
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + "Service key not available"));
}

TEST_F(ARequest, PresentedTwiceIsAReplay) {
  const ScopedVariable cache("KRB5RCACHENAME", "file2:" + scratch.settings / "replays");
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;

  const std::string first = Present(request);
  const std::string second = Present(request);

  EXPECT_EQ(first, kAlice);
  EXPECT_EQ(second, "");
  EXPECT_THAT(log.Notable(), ElementsAre(kUnread + "Request is a replay"));
}

// A ticket that libkrb5 hands over in a state in which it never does.
TEST_F(ARequest, ThatTheLibraryRefusesButDecodesIsJudgedByItsTicket) {
  const StandIn read(calls::krb5_rd_req, [](auto... arguments) -> krb5_error_code {
    const krb5_error_code code = calls::krb5_rd_req.Real(arguments...);
    return code == 0 ? KRB5KRB_AP_ERR_REPEAT : code;
  });
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, kAlice);
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_auth_con_init", "krb5_rd_req", "krb5_get_error_message",
                          "krb5_free_error_message", "time", "krb5_principal_compare",
                          "krb5_free_ticket", "krb5_auth_con_free"));
  EXPECT_THAT(log.Notable(), ElementsAre(kUnread + "Request is a replay"));
}

class ARequestWithoutADecryptedPart : public ARequest {
 private:
  krb5_enc_tkt_part* part_ = nullptr;
  const StandIn<decltype(calls::krb5_rd_req)> read_{
      calls::krb5_rd_req, [this](krb5_context context, krb5_auth_context* auth,
                                 const krb5_data* data, krb5_const_principal server,
                                 krb5_keytab keytab, krb5_flags* options, krb5_ticket** decoded) {
        const krb5_error_code code =
            calls::krb5_rd_req.Real(context, auth, data, server, keytab, options, decoded);
        if (code == 0) part_ = std::exchange((*decoded)->enc_part2, nullptr);
        return code;
      }};
  const StandIn<decltype(calls::krb5_free_ticket)> free_{
      calls::krb5_free_ticket, [this](krb5_context context, krb5_ticket* decoded) {
        decoded->enc_part2 = part_;
        calls::krb5_free_ticket.Real(context, decoded);
      }};
};

TEST_F(ARequestWithoutADecryptedPart, NamesNobody) {
  ticket.starttime = ticket.authtime + 3600;
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_auth_con_init", "krb5_rd_req", "krb5_principal_compare",
                          "krb5_free_ticket", "krb5_auth_con_free"));
  EXPECT_THAT(log.Notable(), IsEmpty());
}

TEST_F(ARequestWithoutADecryptedPart, IsStillRefusedForAnotherPrincipal) {
  FindsFirst(kService);
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Notable(), ElementsAre(kBadServer));
}

}  // namespace
}  // namespace tavrel::tests
