// Directory servers that are broken, slow or hostile, as a whole join meets them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "Child.h"
#include "Interpose.h"
#include "LdapScript.h"
#include "LogCapture.h"
#include "Peer.h"
#include "ScratchKeytab.h"
#include "tavrel/KrbRealm.h"

namespace tavrel::tests {
namespace {

using ::testing::Le;

using Seconds = std::chrono::duration<double>;

LdapServer Plain(const Peer& peer) {
  return {"ldap://" + peer.Host(), vdi::LDAP_ENCRYPTION_NONE, ""};
}

std::string Replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
    text.replace(at, what.size(), with);
  return text;
}

// A join whose KDC does not exist: its directory part alone is looked at. The status, the error
// text and the records from level 2 up, with "{PEER}" for the first server. It runs in a process of
// its own, which has the time limit that an integrator is told to set, and which a broken pipe
// would end.
std::string Join(const std::list<LdapServer>& servers) {
  const std::string text = InChild([&] {
    setenv("LDAPTIMEOUT", "1", 1);
    std::signal(SIGPIPE, SIG_DFL);
    const KrbSettings settings("dns_lookup_kdc = false\ndns_lookup_realm = false");
    const StandIn named(calls::gethostname, [](char* name, std::size_t size) {
      std::snprintf(name, size, "appliance");
      return 0;
    });
    LogCapture log;
    KrbRealm realm("corp.example.com", servers, "Administrator", "Admin.Pass.1",
                   settings / "keytab");
    std::string error = "(untouched)";

    const int status = realm.Join(&error);

    std::string told = std::to_string(status) + ", \"" + error + "\"\n";
    for (const std::string& line : log.Notable())
      told += line + "\n";
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1 ? told + "a broken pipe is pending\n" : told;
  });
  const std::string& first = std::get<0>(servers.front());
  const std::size_t scheme = first.rfind('/');
  return Replaced(text, scheme == std::string::npos ? first : first.substr(scheme + 1), "{PEER}");
}

// How long `work` takes.
template <typename Work>
double TimeOf(Work work) {
  const auto began = std::chrono::steady_clock::now();
  work();
  return Seconds(std::chrono::steady_clock::now() - began).count();
}

// --- records of a join, block by block ---

constexpr char kJoined[] = "2 krb-realm Join: Joined to CORP.EXAMPLE.COM\n";
constexpr char kNoKdc[] =
    "4 krb-keytab ASAuthenticate: Error authenticating through password: Cannot find KDC for realm "
    "\"CORP.EXAMPLE.COM\"\n";
constexpr char kAfterPassword[] =
    "3, \"Unable to authenticate to CORP.EXAMPLE.COM KDC after setting password: Cannot find KDC "
    "for realm \"CORP.EXAMPLE.COM\"\"\n";
const std::string kAllDone = std::string(kAfterPassword) + kJoined + kNoKdc;

// What a join tells when a step fails for `reason`.
std::string BindFailed(const std::string& reason, const std::string& step = "bind") {
  return "3, \"Unable to connect to CORP.EXAMPLE.COM: " + reason + "\"\n" +
         "3 ldap Connect: LDAP " + step + " failed against ldap://{PEER}: " + reason + "\n" +
         "3 krb-realm Join: Unable to connect to CORP.EXAMPLE.COM: " + reason + "\n";
}
// `record` tells of the step, `text` opens the error text.
std::string AccountStepFailed(const std::string& record, const std::string& text,
                              const std::string& reason) {
  return "3, \"" + text + reason + "\"\n" + record + reason + "\n4 krb-realm Join: " + text +
         reason + "\n";
}
const std::string kNotFound = "Failed to get account object from host CORP.EXAMPLE.COM: ";
std::string SearchFailed(const std::string& reason) {
  return "3, \"" + kNotFound + reason + "\"\n" +
         "4 ldap-join GetAccountObject: LDAP search failed: " + reason + "\n" +
         "3 ldap-join GetAccountObject: Unable to find an account object on any available "
         "server\n" +
         "4 krb-realm Join: " + kNotFound + reason + "\n";
}
std::string AddFailed(const std::string& reason) {
  return AccountStepFailed("4 ldap-join AddAccountObject: LDAP add failed: ",
                           "Could not add host to CORP.EXAMPLE.COM: ", reason);
}
std::string FlagsFailed(const std::string& reason) {
  return AccountStepFailed("4 ldap-join SetProperties: LDAP modify failed: ",
                           "Could not set properties in CORP.EXAMPLE.COM: ", reason);
}
std::string PasswordFailed(const std::string& reason) {
  return "3, \"Unable to set machine password for CORP.EXAMPLE.COM: " + reason + "\"\n" + kJoined +
         "4 ldap-join SetPassword: LDAP modify failed: " + reason + "\n";
}

// --- what a peer does ---

const LdapAnswer kSilence = [](Connection& peer, const LdapRequest&) { peer.AwaitEnd(); };
const LdapAnswer kClose = [](Connection& peer, const LdapRequest&) { peer.Close(); };
const LdapAnswer kReset = [](Connection& peer, const LdapRequest&) { peer.Reset(); };
const LdapAnswer kAbsence = [](Connection& peer, const LdapRequest& request) {
  peer.Send(LdapResult(request, LDAP_NO_SUCH_OBJECT));
};

LdapAnswer Bytes(const std::string& bytes) {
  return [bytes](Connection& peer, const LdapRequest&) {
    peer.Send(bytes);
    peer.AwaitEnd();
  };
}

// An object with each of these flags.
LdapAnswer Found(const std::vector<std::vector<std::string>>& objects) {
  return [objects](Connection& peer, const LdapRequest& request) {
    std::string answer;
    for (const std::vector<std::string>& flags : objects)
      answer += LdapEntry(request, flags);
    peer.Send(answer + LdapResult(request, 0));
  };
}

// Answers the first modification, which is of the flags, and does that to the second.
LdapAnswer SecondTime(const LdapAnswer& answer) {
  return [answer, times = 0](Connection& peer, const LdapRequest& request) mutable {
    if (++times == 1) return peer.Send(LdapResult(request, 0));
    answer(peer, request);
  };
}

// Grants every modification, and keeps the content of the first one.
LdapAnswer Keep(std::string& content) {
  return [&content](Connection& peer, const LdapRequest& request) {
    if (content.empty()) content = request.content;
    peer.Send(LdapResult(request, 0));
  };
}

struct Case {
  const char* name;
  LdapScript script;
  std::string told;
  double most_seconds;
};

void Meet(const std::vector<Case>& cases) {
  for (const Case& scene : cases) {
    SCOPED_TRACE(scene.name);
    Peer peer([&](Connection& connection) { ServeLdap(connection, scene.script); });
    std::string told;

    const double seconds = TimeOf([&] { told = Join({Plain(peer)}); });

    EXPECT_EQ(told, scene.told);
    EXPECT_THAT(seconds, Le(scene.most_seconds + kBusy));
    EXPECT_EQ(peer.Connections(), 1);
  }
}

// --- the tests ---

TEST(LdapPeer, ThatBehavesLetsTheJoinReachItsEnd) {
  Meet({{"good", {}, kAllDone, 2}});
}

TEST(LdapPeer, ThatAcceptsAndNeverAnswersIsGivenUpAfterTheTimeLimit) {
  Meet({
      {"bind", {{kBind, kSilence}}, BindFailed("Timed out"), 2},
      {"add", {{kSearch, kAbsence}, {kAdd, kSilence}}, AddFailed("Timed out"), 2},
      {"flags", {{kModify, kSilence}}, FlagsFailed("Timed out"), 2},
      {"password", {{kModify, SecondTime(kSilence)}}, PasswordFailed("Timed out"), 2},
  });
}

TEST(LdapPeer, ThatNeverAnswersASearchIsGivenUpAfterFiveSecondsWhateverTheTimeLimit) {
  Meet({{"search", {{kSearch, kSilence}}, SearchFailed("Timed out"), 6}});
}

TEST(LdapPeer, ThatClosesBeforeItAnswersFailsThatStepAtOnce) {
  const char* const gone = "Can't contact LDAP server";
  for (const LdapAnswer& end : {kClose, kReset}) {
    Meet({
        {"bind", {{kBind, end}}, BindFailed(gone), 1},
        {"search", {{kSearch, end}}, SearchFailed(gone), 1},
        {"add", {{kSearch, kAbsence}, {kAdd, end}}, AddFailed(gone), 1},
        {"flags", {{kModify, end}}, FlagsFailed(gone), 1},
        {"password", {{kModify, SecondTime(end)}}, PasswordFailed(gone), 1},
    });
  }
}

// libldap takes the notice's result code for the answer and has no result to go with it.
TEST(LdapPeer, ThatGivesNoticeOfDisconnectionWithSuccessFailsTheNextStep) {
  const LdapAnswer notice = [](Connection& peer, const LdapRequest&) {
    constexpr int kUnsolicited = 0;
    constexpr unsigned char kExtendedResponse = 0x78;
    const std::string success("\x0a\x01\x00\x04\x00\x04\x00", 7);
    peer.Send(LdapMessage(kUnsolicited, kExtendedResponse,
                          success + "\x8a\x16" + "1.3.6.1.4.1.1466.20036"));
    peer.Close();
  };
  Meet({{"search", {{kSearch, notice}}, AddFailed("Can't contact LDAP server"), 2}});
}

TEST(LdapPeer, ThatRefersToAnotherServerIsNotFollowed) {
  Peer other([](Connection& connection) { ServeLdap(connection); });
  const LdapAnswer refer = [&](Connection& peer, const LdapRequest& request) {
    peer.Send(LdapResult(request, LDAP_REFERRAL, "ldap://" + other.Host() + "/cn=APPLIANCE"));
  };
  const LdapAnswer continued = [&](Connection& peer, const LdapRequest& request) {
    peer.Send(LdapReference(request, "ldap://" + other.Host() + "/cn=APPLIANCE") +
              LdapEntry(request, {"4096"}) + LdapResult(request, 0));
  };

  Meet({
      {"bind", {{kBind, refer}}, BindFailed("Referral"), 1},
      {"search", {{kSearch, refer}}, SearchFailed("Referral"), 1},
      {"add", {{kSearch, kAbsence}, {kAdd, refer}}, AddFailed("Referral"), 1},
      {"flags", {{kModify, refer}}, FlagsFailed("Referral"), 1},
      {"password", {{kModify, SecondTime(refer)}}, PasswordFailed("Referral"), 1},
      {"a continuation beside the entry", {{kSearch, continued}}, kAllDone, 2},
  });

  EXPECT_EQ(other.Connections(), 0);
}

TEST(LdapPeer, ThatSpeaksNoLdapIsATimeOutOrAFailureNeverACrash) {
  const std::string http = "HTTP/1.1 400 Bad Request\r\n\r\n";
  const std::string endless("\x30\x84\x7f\xff\xff\xff\x02\x01\x01", 9);  // says that 2 GiB follow
  const std::string indefinite("\x30\x80\x02\x01\x02\x61\x07\x0a\x01\x00\x04\x00\x04\x00\x00\x00",
                               16);
  const std::string nested = "\x30\x02\x30\x02";
  Meet({
      {"text", {{kBind, Bytes(http)}}, BindFailed("Timed out"), 2},
      {"a length that never comes", {{kBind, Bytes(endless)}}, BindFailed("Timed out"), 2},
      {"no length", {{kBind, Bytes(indefinite)}}, BindFailed("Can't contact LDAP server"), 2},
      {"half a message", {{kBind, Bytes(nested)}}, BindFailed("Decoding error"), 2},
      {"zeros",
       {{kBind, Bytes(std::string(4096, '\0'))}},
       BindFailed("Can't contact LDAP server"),
       2},
  });
}

// A truthful answer to the search that ends after each of its bytes, and then the connection does
// too.
TEST(LdapPeer, WhoseAnswerIsTruncatedAtAnyByteFailsTheSearch) {
  std::size_t complete = 1;
  std::map<std::string, int> told;
  for (std::size_t size = 0; size < complete; ++size) {
    const LdapAnswer truncated = [&](Connection& peer, const LdapRequest& request) {
      const std::string answer = LdapEntry(request, {"4096"}) + LdapResult(request, 0);
      complete = answer.size();
      peer.Send(answer.substr(0, size));
      peer.Close();
    };
    const LdapScript script = {{kSearch, truncated}};
    Peer peer([&](Connection& connection) { ServeLdap(connection, script); });

    ++told[Join({Plain(peer)})];
  }

  std::printf("LDAP answer truncated at each of %zu bytes\n", complete);
  EXPECT_THAT(told, testing::ElementsAre(testing::Pair(SearchFailed("Can't contact LDAP server"),
                                                       static_cast<int>(complete))));
}

// A well-formed message whose parts are not: each byte of a truthful answer is changed in turn.
TEST(LdapPeer, WhoseAnswerIsDamagedAtAnyByteIsSurvived) {
  std::size_t complete = 1;
  std::map<char, int> statuses;
  for (std::size_t at = 0; at < complete; ++at) {
    for (const int change : {0x01, 0x80, 0xff}) {
      const LdapAnswer damaged = [&](Connection& peer, const LdapRequest& request) {
        std::string answer = LdapEntry(request, {"4096"}) + LdapResult(request, 0);
        complete = answer.size();
        answer[at] = static_cast<char>(answer[at] ^ change);
        peer.Send(answer);
        peer.Close();
      };
      const LdapScript script = {{kSearch, damaged}};
      Peer peer([&](Connection& connection) { ServeLdap(connection, script); });

      const std::string told = Join({Plain(peer)});

      ++statuses[told.empty() ? '?' : told[0]];
      EXPECT_THAT(told, testing::StartsWith("3, \"")) << "byte " << at << " changed by " << change;
    }
  }
  std::printf("LDAP answer damaged in %zu ways\n", 3 * complete);
}

TEST(LdapPeer, ThatSendsTenThousandEntriesIsHeardToTheEndAndTheLastOneCounts) {
  std::vector<std::vector<std::string>> objects(10000, {"4098"});
  objects.back() = {"69632"};
  std::string received;
  const LdapScript script = {{kSearch, Found(objects)}, {kModify, Keep(received)}};
  Peer peer([&](Connection& connection) { ServeLdap(connection, script); });
  std::string told;

  const double seconds = TimeOf([&] { told = Join({Plain(peer)}); });

  std::printf("10,000 entries, twice: %.2f s\n", seconds);
  EXPECT_EQ(told, kAllDone);
  EXPECT_THAT(received, testing::EndsWith("69632"));
  EXPECT_THAT(seconds, Le(30 + kBusy));
}

// --- TLS ---

// Accepts StartTLS, or TLS from the start, and is then an ordinary directory.
void ServeWithTls(Connection& connection, const Certificate& certificate, bool from_the_start) {
  if (!from_the_start) connection.Send(LdapResult(Receive(connection), 0));
  if (connection.StartTls(certificate)) ServeLdap(connection);
}

TEST(TlsPeer, IsTrustedByItsAuthorityItsNameAndItsTime) {
  constexpr long kDay = 24 * 3600;
  const struct {
    const char* name;
    CertificateScene scene;
    bool trusted;
  } cases[] = {
      {"good", {}, true},
      {"expired", {"localhost", "127.0.0.1", 2 * kDay, -kDay}, false},
      {"expired a second ago", {"localhost", "127.0.0.1", 2 * kDay, -1}, false},
      {"not yet valid", {"localhost", "127.0.0.1", -kDay, 2 * kDay}, false},
      {"of another host", {"dc2.corp.example.com", "", kDay, kDay}, false},
  };
  for (const auto& [name, scene, trusted] : cases) {
    for (const bool from_the_start : {false, true}) {
      SCOPED_TRACE(std::string(name) + (from_the_start ? ", LDAPS" : ", StartTLS"));
      const Certificate certificate(scene);
      Peer peer(
          [&](Connection& connection) { ServeWithTls(connection, certificate, from_the_start); });
      const std::string host = peer.Host();
      const LdapServer verified =
          from_the_start
              ? LdapServer("ldaps://" + host, vdi::LDAP_ENCRYPTION_LDAPS, certificate.Authority())
              : LdapServer("ldap://" + host, vdi::LDAP_ENCRYPTION_STARTTLS,
                           certificate.Authority());
      const LdapServer unverified(std::get<0>(verified), std::get<1>(verified), "");

      const std::string told = Join({verified});
      const std::string told_without_authority = Join({unverified});

      const std::string step = from_the_start ? "bind" : "starttls";
      const std::string reason = from_the_start ? "Can't contact LDAP server" : "Connect error";
      const auto url = [&](const std::string& text) {
        return Replaced(text, "ldap://", from_the_start ? "ldaps://" : "ldap://");
      };
      EXPECT_EQ(told, trusted ? url(kAllDone) : url(BindFailed(reason, step)));
      EXPECT_EQ(told_without_authority, url(kAllDone));
    }
  }
}

TEST(TlsPeer, ThatEndsDuringTheHandshakeIsAFailedStep) {
  const struct {
    const char* name;
    std::function<void(Connection&)> serve;
    const char* reason;
  } cases[] = {
      {"no StartTLS",
       [](Connection& c) {
         c.Send(LdapResult(Receive(c), LDAP_PROTOCOL_ERROR));
         c.AwaitEnd();
       },
       "Protocol error"},
      {"closed instead of an answer", [](Connection& c) { Receive(c); },
       "Can't contact LDAP server"},
      {"closed before the handshake", [](Connection& c) { c.Send(LdapResult(Receive(c), 0)); },
       "Connect error"},
      {"closed in the handshake",
       [](Connection& c) {
         c.Send(LdapResult(Receive(c), 0));
         c.Receive(64);
       },
       "Connect error"},
      {"reset in the handshake",
       [](Connection& c) {
         c.Send(LdapResult(Receive(c), 0));
         c.Receive(64);
         c.Reset();
       },
       "Connect error"},
      {"text instead of a handshake",
       [](Connection& c) {
         c.Send(LdapResult(Receive(c), 0));
         c.Receive(64);
         c.Send("HTTP/1.1 400 Bad Request\r\n\r\n");
         c.AwaitEnd();
       },
       "Connect error"},
  };
  // Versions of the LDAP library do not agree whether a handshake that ends early has timed out.
  const StandIn agreeing(calls::ldap_start_tls_s, [](auto... arguments) {
    const int code = calls::ldap_start_tls_s.Real(arguments...);
    return code == LDAP_TIMEOUT ? LDAP_CONNECT_ERROR : code;
  });
  for (const auto& [name, serve, reason] : cases) {
    SCOPED_TRACE(name);
    Peer peer(serve);

    const std::string told = Join({{peer.Host(), vdi::LDAP_ENCRYPTION_STARTTLS, ""}});

    EXPECT_EQ(told, BindFailed(reason, "starttls"));
  }
}

// --- broken pipes ---

TEST(LdapPeer, ThatClosedBetweenTwoRequestsIsAFailedStep) {
  const LdapAnswer answer_and_reset = [](Connection& peer, const LdapRequest& request) {
    peer.Send(LdapResult(request, 0));
    peer.Reset();
  };
  const LdapAnswer find_and_reset = [](Connection& peer, const LdapRequest& request) {
    peer.Send(LdapEntry(request, {"4096"}) + LdapResult(request, 0));
    peer.Reset();
  };
  Meet({
      {"after the bind", {{kBind, answer_and_reset}}, SearchFailed("Can't contact LDAP server"), 1},
      {"after the search",
       {{kSearch, find_and_reset}},
       FlagsFailed("Can't contact LDAP server"),
       1},
  });
}

// What the host has blocked and not yet seen is the host's.
TEST(LdapPeer, ThatClosedLeavesTheHostItsOwnSignals) {
  const std::string told = InChild([] {
    sigset_t broken_pipe, pending;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
    raise(SIGPIPE);

    KrbRealm realm("corp.example.com", {{"ldap://127.0.0.1:1", vdi::LDAP_ENCRYPTION_NONE, ""}},
                   "Administrator", "Admin.Pass.1", "MEMORY:");
    realm.Join(nullptr);

    sigpending(&pending);
    return std::string(sigismember(&pending, SIGPIPE) == 1 ? "still pending" : "gone");
  });

  EXPECT_EQ(told, "still pending");
}

// --- several servers ---

}  // namespace
}  // namespace tavrel::tests
