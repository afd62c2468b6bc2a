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

constexpr char kService[] = "HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM";

constexpr char kAlice[] = "CORP.EXAMPLE.COM\\alice";
constexpr char kAliceSeen[] =
    "1 krb-keytab APAuthenticate: AP request (0): CORP.EXAMPLE.COM\\alice";
constexpr char kBadTime[] =
    "2 krb-keytab APAuthenticate: Invalid timestamp for AP request for user: "
    "CORP.EXAMPLE.COM\\alice";
constexpr char kBadServer[] =
    "2 krb-keytab APAuthenticate: Invalid server principal for AP request for user "
    "CORP.EXAMPLE.COM\\alice";
const std::vector<std::string> kServiceDump = {
    "1 krb-keytab PrintPrincipal: AP request server principal: HTTP@CORP.EXAMPLE.COM",
    "1 krb-keytab PrintPrincipal: AP request server principal: "
    "appliance.corp.example.com@CORP.EXAMPLE.COM",
    "1 krb-keytab PrintPrincipal: Joined server principal: APPLIANCE$@CORP.EXAMPLE.COM"};
const std::string kUnread = "4 krb-keytab APAuthenticate: Error reading AP request: ";

constexpr char kNoKeyFound[] =
    "Request ticket server HTTP/appliance.corp.example.com@CORP.EXAMPLE.COM not found in keytab "
    "(ticket kvno 1)";

std::vector<std::string> Then(std::vector<std::string> lines,
                              const std::vector<std::string>& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

// A keytab file that holds the machine's key, and a ticket that is sealed with it.
class ARequest : public testing::Test {
 protected:
  explicit ARequest(const std::string& libdefaults = kTolerateSkew) : scratch("FILE", libdefaults) {
    scratch.Add({kMachine, 1, Rc4Key(ticket.password)});
  }

  std::string Present(std::vector<char> request) {
    return scratch.keytab.APAuthenticate(request.data(), static_cast<int>(request.size()));
  }
  std::string Present() { return Present(ApReq(ticket)); }

  // The same when the library's own check sees another time than libkrb5.
  std::string PresentAt(std::time_t now) {
    const StandIn clock(calls::time, [=](std::time_t*) { return now; });
    return Present();
  }

  // Puts an entry with the machine's key before the machine's own.
  void FindsFirst(const std::string& principal) {
    std::filesystem::remove(scratch.Path());
    scratch.Add({principal, 1, Rc4Key(ticket.password)});
    scratch.Add({kMachine, 1, Rc4Key(ticket.password)});
  }

  ForgedTicket ticket;
  ScratchKeytab scratch;
};

TEST_F(ARequest, ForTheMachineNamesTheUser) {
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, kAlice);
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_auth_con_init", "krb5_rd_req", "time", "krb5_principal_compare",
                          "krb5_free_ticket", "krb5_auth_con_free"));
  EXPECT_THAT(log.Lines(), ElementsAre(kAliceSeen));
  EXPECT_EQ(log.Records()[0].file, "KrbKeytab.cpp");
}

TEST_F(ARequest, IsTriedWithEveryKeyOfTheMachine) {
  ticket.password = "the next one";
  ticket.kvno = 7;
  scratch.Add({kMachine, 2, Rc4Key(ticket.password)});
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, kAlice);
  EXPECT_THAT(log.Lines(), ElementsAre(kAliceSeen));
}

TEST_F(ARequest, ForAnyNameOfTheServiceIsAcceptedWhenTheMachinesKeyOpensIt) {
  for (const std::vector<std::string>& server :
       {std::vector<std::string>{"HTTP", "appliance"}, {"APPLIANCE$"}, {"cifs", "a", "b"}}) {
    ticket.server = server;

    EXPECT_EQ(Present(), kAlice) << server[0];
  }
}

TEST_F(ARequest, OfAClientWithAnInstanceNamesTheInstance) {
  ticket.client = {"bob", "admin"};
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\admin");
  EXPECT_THAT(log.Lines(),
              ElementsAre("1 krb-keytab APAuthenticate: AP request (0): CORP.EXAMPLE.COM\\bob",
                          "1 krb-keytab APAuthenticate: AP request (1): CORP.EXAMPLE.COM\\admin"));
}

TEST_F(ARequest, OfAClientWithElevenComponentsNumbersThemInDecimal) {
  ticket.client = std::vector<std::string>(11, "x");
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "CORP.EXAMPLE.COM\\x");
  ASSERT_EQ(log.Lines().size(), 11u);
  EXPECT_EQ(log.Lines()[10], "1 krb-keytab APAuthenticate: AP request (10): CORP.EXAMPLE.COM\\x");
}

TEST_F(ARequest, OfAClientWithoutANameNamesNobody) {
  ticket.client = {};
  LogCapture log;
  CallTrace trace;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_auth_con_init", "krb5_rd_req", "time", "krb5_principal_compare",
                          "krb5_free_ticket", "krb5_auth_con_free"));
  EXPECT_THAT(log.Lines(), IsEmpty());
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

TEST_F(ARequest, MayComeFromAnotherRealmThanTheMachines) {
  ticket.client_realm = "PARTNER.EXAMPLE.ORG";

  EXPECT_EQ(Present(), "PARTNER.EXAMPLE.ORG\\alice");
}

TEST_F(ARequest, IsJudgedByTheTimesOfItsTicket) {
  const std::time_t start = ticket.starttime;
  const std::time_t end = ticket.endtime;
  for (const auto& [now, valid] :
       {std::pair(start - 301, false), std::pair(start - 300, true), std::pair(start, true),
        std::pair(end, true), std::pair(end + 300, true), std::pair(end + 301, false)}) {
    LogCapture log;

    const std::string user = PresentAt(now);

    EXPECT_EQ(user, valid ? kAlice : "") << now - start;
    EXPECT_THAT(log.Lines(),
                ElementsAreArray(valid ? std::vector<std::string>{kAliceSeen}
                                       : std::vector<std::string>{kAliceSeen, kBadTime}))
        << now - start;
  }
}

TEST_F(ARequest, WithATicketThatEndedMoreThan300SecondsAgoIsRefused) {
  ticket.authtime -= 7200;
  ticket.starttime = ticket.authtime;
  ticket.endtime = static_cast<krb5_timestamp>(std::time(nullptr)) - 310;
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_auth_con_init", "krb5_rd_req", "time", "krb5_principal_compare",
                          "krb5_free_ticket", "krb5_auth_con_free"));
  EXPECT_THAT(log.Lines(), ElementsAre(kAliceSeen, kBadTime));
}

TEST_F(ARequest, WithATicketOfTheFutureIsRefused) {
  ticket.starttime = ticket.authtime + 3600;
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kAliceSeen, kBadTime));
}

TEST_F(ARequest, WithATicketThatEndsBeforeItStartsIsRefused) {
  ticket.starttime = ticket.authtime + 100;
  ticket.endtime = ticket.authtime + 99;
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kAliceSeen, kBadTime));
}

TEST_F(ARequest, WithATicketWithoutAStartTimeIsJudgedByWhenItsClientSignedIn) {
  ticket.starttime = 0;
  EXPECT_EQ(Present(), kAlice);

  ticket.authtime += 3600;
  EXPECT_EQ(Present(), "");
}

TEST_F(ARequest, WhoseTimesAreBadNamesTheInstanceInTheRecord) {
  ticket.client = {"bob", "admin"};
  ticket.starttime = ticket.authtime + 3600;
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(),
              ElementsAre("1 krb-keytab APAuthenticate: AP request (0): CORP.EXAMPLE.COM\\bob",
                          "1 krb-keytab APAuthenticate: AP request (1): CORP.EXAMPLE.COM\\admin",
                          "2 krb-keytab APAuthenticate: Invalid timestamp for AP request for user: "
                          "CORP.EXAMPLE.COM\\admin"));
}

TEST_F(ARequest, ForAnotherPrincipalWithTheSameKeyIsRefused) {
  FindsFirst(kService);
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_auth_con_init", "krb5_rd_req", "time", "krb5_principal_compare",
                          "krb5_free_ticket", "krb5_auth_con_free"));
  EXPECT_THAT(log.Lines(), ElementsAreArray(Then({kAliceSeen, kBadServer}, kServiceDump)));
}

TEST_F(ARequest, ForThisMachineInAnotherCaseOrRealmIsForAnother) {
  for (const char* name : {"appliance$@CORP.EXAMPLE.COM", "APPLIANCE$@corp.example.com"}) {
    FindsFirst(name);
    LogCapture log;

    const std::string user = Present();

    EXPECT_EQ(user, "");
    EXPECT_THAT(log.Lines(),
                ElementsAre(kAliceSeen, kBadServer,
                            "1 krb-keytab PrintPrincipal: AP request server principal: " +
                                std::string(name),
                            kServiceDump[2]));
  }
}

TEST_F(ARequest, ThatIsRefusedForTwoReasonsNamesBoth) {
  FindsFirst(kService);
  ticket.starttime = ticket.authtime + 3600;
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(),
              ElementsAreArray(Then({kAliceSeen, kBadTime, kBadServer}, kServiceDump)));
}

TEST_F(ARequest, ToARealmWithoutAPrincipalIsRefused) {
  scratch.krb.ReleaseClientPrincipal();
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_auth_con_init", "krb5_rd_req", "time",
                                         "krb5_free_ticket", "krb5_auth_con_free"));
  EXPECT_THAT(log.Lines(), ElementsAre(kAliceSeen, kBadServer,
                                       "1 krb-keytab PrintPrincipal: AP request server principal: "
                                       "APPLIANCE$@CORP.EXAMPLE.COM"));
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
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + "Key table name malformed"));
}

TEST_F(ARequest, WithoutAContextIsRefused) {
  const std::vector<char> request = ApReq(ticket);
  scratch.krb.ReleaseKeytab();
  scratch.krb.ReleaseClientPrincipal();
  scratch.krb.ReleaseContext();
  LogCapture log;
  CallTrace trace;

  const std::string user = Present(request);

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(), ElementsAre("krb5_get_error_message", "krb5_free_error_message"));
  EXPECT_THAT(log.Lines(),
              ElementsAre("4 krb-keytab APAuthenticate: Error initializing auth context: Bad magic "
                          "number for krb5_context structure"));
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
  EXPECT_THAT(log.Lines(), ElementsAre("4 krb-keytab APAuthenticate: Error initializing auth "
                                       "context: Cannot allocate memory"));
}

TEST_F(ARequest, IsHandedToTheLibraryAsItIs) {
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
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + "Message stream modified"));
}

TEST_F(ARequest, ThatIsGarbageIsRefusedWithoutDumps) {
  LogCapture log;
  CallTrace trace;

  const std::string user = Present({'g', 'a', 'r', 'b', 'a', 'g', 'e'});

  EXPECT_EQ(user, "");
  EXPECT_THAT(trace.Names(),
              ElementsAre("krb5_auth_con_init", "krb5_rd_req", "krb5_get_error_message",
                          "krb5_free_error_message", "krb5_auth_con_free"));
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + "Invalid message type"));
}

TEST_F(ARequest, ThatIsCutOffAnywhereIsRefused) {
  const std::vector<char> request = ApReq(ticket);
  for (std::size_t length = 0; length < request.size(); ++length) {
    LogCapture log;

    const std::string user = Present({request.data(), request.data() + length});

    EXPECT_EQ(user, "") << length;
    ASSERT_EQ(log.Lines().size(), 1u) << length;
    EXPECT_THAT(log.Lines()[0], testing::StartsWith(kUnread)) << length;
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

    const std::string user = scratch.keytab.APAuthenticate(request.data(), length);
    const std::string from_nowhere = scratch.keytab.APAuthenticate(nullptr, length);

    EXPECT_EQ(user, "");
    EXPECT_EQ(from_nowhere, "");
    EXPECT_THAT(log.Lines(),
                ElementsAre(kUnread + "Invalid message type", kUnread + "Invalid message type"));
  }
  EXPECT_THAT(lengths, ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(ARequest, SealedWithAnotherKeyIsRefused) {
  ticket.password = "another";
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + kNoKeyFound));
}

TEST_F(ARequest, OfAnEncryptionTypeWithoutAKeyIsRefused) {
  ticket.etype = ENCTYPE_AES256_CTS_HMAC_SHA1_96;
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + kNoKeyFound));
}

TEST_F(ARequest, ToAMachineWithoutAKeytabFileIsRefused) {
  std::filesystem::remove(scratch.Path());
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(),
              ElementsAre(kUnread + "Key table file '" + scratch.Path() + "' not found"));
}

TEST_F(ARequest, PresentedTwiceIsAReplay) {
  const ScopedVariable cache("KRB5RCACHENAME", "file2:" + scratch.settings / "replays");
  const std::vector<char> request = ApReq(ticket);
  LogCapture log;

  const std::string first = Present(request);
  const std::string second = Present(request);

  EXPECT_EQ(first, kAlice);
  EXPECT_EQ(second, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kAliceSeen, kUnread + "Request is a replay"));
}

// The Kerberos library's own tolerance, as it is by default.
class ARequestByDefault : public ARequest {
 protected:
  ARequestByDefault() : ARequest("") {}
};

TEST_F(ARequestByDefault, FromAClockThatIsTooFarOffIsRefusedByTheLibrary) {
  ticket.sent_at = ticket.authtime - 400;
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + "Clock skew too great"));
}

TEST_F(ARequestByDefault, WithAnExpiredTicketIsRefusedByTheLibrary) {
  ticket.authtime -= 7200;
  ticket.starttime = ticket.authtime;
  ticket.endtime = ticket.authtime + 3600;
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + "Ticket expired"));
}

TEST_F(ARequestByDefault, WithATicketThatEndedJustNowIsAccepted) {
  ticket.authtime -= 7200;
  ticket.starttime = ticket.authtime;
  ticket.endtime = static_cast<krb5_timestamp>(std::time(nullptr)) - 200;

  EXPECT_EQ(Present(), kAlice);
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
  EXPECT_THAT(log.Lines(), ElementsAre(kUnread + "Request is a replay", kAliceSeen));
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
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(ARequestWithoutADecryptedPart, IsStillRefusedForAnotherPrincipal) {
  FindsFirst(kService);
  LogCapture log;

  const std::string user = Present();

  EXPECT_EQ(user, "");
  EXPECT_THAT(log.Lines(),
              ElementsAreArray(Then({"2 krb-keytab APAuthenticate: Invalid server principal for AP "
                                     "request for user "},
                                    kServiceDump)));
}

}  // namespace
}  // namespace tavrel::tests
