#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "Directory.h"
#include "LogCapture.h"
#include "ScratchFolder.h"
#include "tavrel/Ldap.h"

namespace tavrel::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using vdi::LDAP_ENCRYPTION_LDAPS;
using vdi::LDAP_ENCRYPTION_NONE;
using vdi::LDAP_ENCRYPTION_STARTTLS;

const std::string kDc1 = "dc1.corp.example.com";
const std::string kDc2 = "dc2.corp.example.com";  // its certificate has expired
const std::string kRenamed = "renamed.corp.example.com";
const std::string kDead = "dead.corp.example.com";

struct Server {
  std::string host;
  vdi::Ldap_encryption encryption;
  std::string cert_file;  // among the servers' files; empty for none
};

void PrintTo(const Server& server, std::ostream* out) {
  *out << server.host << " with encryption " << server.encryption << " and certificates '"
       << server.cert_file << "'";
}

Ldap Session(const Server& server) {
  return {server.host, server.encryption,
          server.cert_file.empty() ? "" : ServerFile(server.cert_file)};
}

// --- servers that accept -------------------------------------------------------------------------

struct Accepting {
  Server server;
  bool protected_by_tls;
};

void PrintTo(const Accepting& accepting, std::ostream* out) {
  PrintTo(accepting.server, out);
}

class ServerAccepts : public testing::TestWithParam<Accepting> {};

TEST_P(ServerAccepts, ABindOverTheTransportChosen) {
  const Accepting& accepting = GetParam();
  Ldap session = Session(accepting.server);
  LogCapture log;
  std::string error;

  const bool connected = session.Connect(kAdmin, kAdminPassword, &error);

  ASSERT_TRUE(connected) << error;
  EXPECT_EQ(error, "");
  EXPECT_EQ(ldap_tls_inplace(session.handle) != 0, accepting.protected_by_tls);
  EXPECT_THAT(log.Notable(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Servers, ServerAccepts,
    testing::Values(Accepting{{"ldap://" + kDc1, LDAP_ENCRYPTION_NONE, ""}, false},
                    Accepting{{"ldap://" + kDc1, LDAP_ENCRYPTION_STARTTLS, "ca.pem"}, true},
                    Accepting{{"ldap://" + kDc1, LDAP_ENCRYPTION_STARTTLS, ""}, true},
                    // TLS options alone protect nothing.
                    Accepting{{"ldap://" + kDc1, LDAP_ENCRYPTION_LDAPS, "ca.pem"}, false},
                    Accepting{{"ldaps://" + kDc1, LDAP_ENCRYPTION_LDAPS, "ca.pem"}, true},
                    Accepting{{"ldaps://" + kDc1 + ":636", LDAP_ENCRYPTION_LDAPS, ""}, true},
                    // A host without a scheme gets StartTLS whatever was asked for.
                    Accepting{{kDc1, LDAP_ENCRYPTION_NONE, "ca.pem"}, true},
                    Accepting{{kDc1, LDAP_ENCRYPTION_LDAPS, ""}, true},
                    Accepting{{kDc1 + ":389", LDAP_ENCRYPTION_STARTTLS, "ca.pem"}, true},
                    // Without an authority nobody looks at the certificate.
                    Accepting{{kDc2, LDAP_ENCRYPTION_STARTTLS, ""}, true},
                    Accepting{{"ldaps://" + kDc2, LDAP_ENCRYPTION_LDAPS, ""}, true},
                    Accepting{{kRenamed, LDAP_ENCRYPTION_STARTTLS, ""}, true},
                    Accepting{{"ldaps://" + kRenamed, LDAP_ENCRYPTION_LDAPS, ""}, true}));

// --- servers that do not -------------------------------------------------------------------------

struct Refusing {
  const char* name;
  Server server;
  std::string step;
  std::string error;
};

void PrintTo(const Refusing& refusing, std::ostream* out) {
  PrintTo(refusing.server, out);
}

class ServerIsRefused : public testing::TestWithParam<Refusing> {};

TEST_P(ServerIsRefused, WithTheReason) {
  const auto& [name, server, step, reason] = GetParam();
  const bool has_scheme = server.host.rfind("ldap", 0) == 0;
  Ldap session = Session(server);
  LogCapture log;
  std::string error;

  const bool connected = session.Connect(kAdmin, kAdminPassword, &error);

  EXPECT_FALSE(connected);
  EXPECT_EQ(error, reason);
  EXPECT_THAT(log.Notable(),
              ElementsAre("3 ldap Connect: LDAP " + step + " failed against " +
                          (has_scheme ? "" : "ldap://") + server.host + ": " + reason));
}

constexpr char kNoContact[] = "Can't contact LDAP server";
constexpr char kNoTls[] = "Connect error";
const std::string kStartTls = "LDAP starttls failed against ldap://";
const std::string kBind = "LDAP bind failed against ";

Refusing StartTls(const char* name, const std::string& host, const std::string& cert_file,
                  const std::string& error) {
  return {name, {host, LDAP_ENCRYPTION_NONE, cert_file}, "starttls", error};
}
Refusing Bind(const char* name, const std::string& url, const std::string& cert_file,
              const std::string& error = kNoContact) {
  const bool ldaps = url.rfind("ldaps", 0) == 0;
  return {
      name, {url, ldaps ? LDAP_ENCRYPTION_LDAPS : LDAP_ENCRYPTION_NONE, cert_file}, "bind", error};
}

INSTANTIATE_TEST_SUITE_P(
    , ServerIsRefused,
    testing::Values(StartTls("StartTlsOfAnotherAuthority", kDc1, "wrong-ca.pem", kNoTls),
                    StartTls("StartTlsExpired", kDc2, "ca.pem", kNoTls),
                    StartTls("StartTlsOfAnotherName", kRenamed, "ca.pem", kNoTls),
                    Bind("LdapsOfAnotherAuthority", "ldaps://" + kDc1, "wrong-ca.pem"),
                    Bind("LdapsExpired", "ldaps://" + kDc2, "ca.pem"),
                    Bind("LdapsOfAnotherName", "ldaps://" + kRenamed, "ca.pem"),
                    // Without options the library's own stand: to verify, and to trust nobody.
                    Refusing{"LdapsWithoutOptions",
                             {"ldaps://" + kDc1, LDAP_ENCRYPTION_NONE, "ca.pem"},
                             "bind",
                             kNoContact},
                    StartTls("StartTlsOnARefusedPort", kDead, "", kNoContact),
                    Bind("BindOnARefusedPort", "ldap://" + kDead, ""),
                    Bind("LdapsOnARefusedPort", "ldaps://" + kDead, ""),
                    StartTls("StartTlsWithAnUnknownName", "nobody.corp.example.com", "",
                             kNoContact),
                    Bind("BindWithAnUnknownName", "ldap://nobody.corp.example.com", ""),
                    // Upper case makes no scheme.
                    Refusing{"UpperCaseScheme",
                             {"LDAP://" + kDc1, LDAP_ENCRYPTION_NONE, ""},
                             "init",
                             "Bad parameter to an ldap routine"},
                    Refusing{"StartTlsWithinLdaps",
                             {"ldaps://" + kDc1, LDAP_ENCRYPTION_STARTTLS, "ca.pem"},
                             "starttls",
                             "Operations error"},
                    // This server takes passwords over TLS alone.
                    Bind("BindWithoutTls", "ldap://" + kDc2, "", "Confidentiality required")),
    [](const auto& info) { return std::string(info.param.name); });

// Some versions of the LDAP library refuse a file without authorities, others read it and then
// refuse every server.
TEST(LdapConnection, TrustsNobodyWithAFileOfNoAuthorities) {
  const std::string file = ServerFile("ldap.conf");
  LDAP* handle = nullptr;
  ASSERT_EQ(ldap_initialize(&handle, ("ldap://" + kDc1).c_str()), LDAP_SUCCESS);
  ldap_set_option(handle, LDAP_OPT_X_TLS_CACERTFILE, file.c_str());
  const int client = 0;
  const int code = ldap_set_option(handle, LDAP_OPT_X_TLS_NEWCTX, &client);
  ldap_unbind_ext(handle, nullptr, nullptr);
  const std::string step =
      code == LDAP_SUCCESS ? kStartTls : "LDAP new tls context failed against ldap://";
  const std::string reason = code == LDAP_SUCCESS ? kNoTls : ldap_err2string(code);
  Ldap session = Session({kDc1, LDAP_ENCRYPTION_STARTTLS, "ldap.conf"});
  LogCapture log;
  std::string error;

  const bool connected = session.Connect(kAdmin, kAdminPassword, &error);

  EXPECT_FALSE(connected);
  EXPECT_EQ(error, reason);
  EXPECT_THAT(log.Notable(), ElementsAre("3 ldap Connect: " + step + kDc1 + ": " + reason));
}

// libldap reads its file once in a process, so this takes one for each.
class LdapConf : public testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(, LdapConf, testing::Values("never", "allow"),
                         [](const auto& test) { return std::string(test.param); });

TEST_P(LdapConf, CanSwitchOffTheVerificationThatAFileOfAuthoritiesAsksFor) {
  constexpr char kInside[] = "TAVREL_TESTS_INSIDE";
  if (std::getenv(kInside) == nullptr) {
    const ScratchFolder folder;
    std::ofstream(folder / "ldap.conf") << "TLS_REQCERT " << GetParam() << "\n";
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    const std::string command = std::string(kInside) + "=1 LDAPCONF='" + (folder / "ldap.conf") +
                                "' '" + program + "' --gtest_filter='" + test.test_suite_name() +
                                "." + test.name() + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return;
  }
  Ldap session = Session({kDc1, LDAP_ENCRYPTION_STARTTLS, "wrong-ca.pem"});

  const bool connected = session.Connect(kAdmin, kAdminPassword, nullptr);

  EXPECT_TRUE(connected);
}

// --- user and password ---------------------------------------------------------------------------

TEST(LdapConnection, LeavesTheServerToJudgeNameAndPassword) {
  struct Case {
    std::string user, password, error;
  };
  const Case cases[] = {
      {kReader, kReaderPassword, ""},
      {"Reader", kReaderPassword, "Invalid DN syntax"},
      {kReader, "", "Server is unwilling to perform"},
      {"", "", ""},  // anonymous
      {kReader, std::string(kReaderPassword) + '\0', "Invalid credentials"},
  };

  for (const Case& the : cases) {
    Ldap session = Session({kDc1, LDAP_ENCRYPTION_STARTTLS, "ca.pem"});
    std::string error;

    const bool connected = session.Connect(the.user, the.password, &error);

    EXPECT_EQ(connected, the.error.empty()) << "as '" << the.user << "'";
    EXPECT_EQ(error, the.error);
  }
}

// --- silence -------------------------------------------------------------------------------------

// A port of this machine where connections are accepted and nothing is ever answered.
class SilentServer {
 public:
  SilentServer() : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_, generic, size) != 0 || listen(socket_, 8) != 0 ||
        getsockname(socket_, generic, &size) != 0)
      throw std::runtime_error("cannot listen");
    address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  SilentServer(const SilentServer&) = delete;
  SilentServer& operator=(const SilentServer&) = delete;
  ~SilentServer() { close(socket_); }

  const std::string& Address() const { return address_; }

 private:
  int socket_;
  std::string address_;
};

// with-slapd's ldap.conf says 5 seconds.
TEST(LdapConnection, WaitsForASilentServerAsLongAsLdapConfSays) {
  const SilentServer server;
  const std::pair<std::string, std::string> cases[] = {
      {server.Address(), kStartTls + server.Address()},
      {"ldap://" + server.Address(), kBind + "ldap://" + server.Address()},
  };

  for (const auto& [host, record] : cases) {
    Ldap session(host, LDAP_ENCRYPTION_NONE, "");
    LogCapture log;
    std::string error;
    const auto start = std::chrono::steady_clock::now();

    const bool connected = session.Connect(kAdmin, kAdminPassword, &error);

    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(connected);
    EXPECT_EQ(error, "Timed out");
    EXPECT_GT(waited.count(), 4);
    EXPECT_LT(waited.count(), 60);
    EXPECT_THAT(log.Notable(), ElementsAre("3 ldap Connect: " + record + ": Timed out"));
  }
}

// --- several sessions ----------------------------------------------------------------------------

TEST(LdapConnection, HasTlsOptionsOfItsOwn) {
  struct Case {
    std::string cert_file;
    bool accepted;
  };
  std::list<Ldap> sessions;

  for (const Case& the : std::vector<Case>{{"ca.pem", true},
                                           {"wrong-ca.pem", false},
                                           {"", true},
                                           {"wrong-ca.pem", false},
                                           {"ca.pem", true}}) {
    Ldap session = Session({kDc1, LDAP_ENCRYPTION_STARTTLS, the.cert_file});
    EXPECT_EQ(session.Connect(kAdmin, kAdminPassword, nullptr), the.accepted)
        << "with '" << the.cert_file << "'";
    sessions.push_back(session);
  }
}

}  // namespace
}  // namespace tavrel::tests
