// Controllers that are silent, or that are none.

#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gssapi/gssapi_ext.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "../../../tests/attacks/Attack.h"
#include "ForgedRequest.h"
#include "GssClient.h"
#include "MembershipScenario.h"
#include "Relay.h"
#include "tavrel/KrbError.h"

namespace tavrel::plus::tests {
namespace {

using namespace std::chrono_literals;
using tavrel::tests::Connection;
using tavrel::tests::FalseController;
using tavrel::tests::kBusy;
using tavrel::tests::Lab;
using tavrel::tests::LdapRequest;
using tavrel::tests::Peer;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kRelay[] = "relay.corp.example.com";
constexpr char kDc1[] = "dc1.corp.example.com";

// A port of 127.0.0.1 that a firewall drops: of a listener whose queue is full, Linux drops what
// comes.
class DroppedPort {
 public:
  explicit DroppedPort(int port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<std::uint16_t>(port));
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto* const address = reinterpret_cast<const sockaddr*>(&name);
    if (bind(listening_, address, sizeof name) != 0 || listen(listening_, 0) != 0 ||
        connect(waiting_, address, sizeof name) != 0) {
      throw std::runtime_error("no port " + std::to_string(port));
    }
  }
  DroppedPort(const DroppedPort&) = delete;
  DroppedPort& operator=(const DroppedPort&) = delete;
  ~DroppedPort() {
    close(waiting_);
    close(listening_);
  }

 private:
  int listening_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int waiting_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

class HostileController : public MembershipScenario {
 public:
  HostileController() {
    Scene(std::string("dns add ") + kRelay + " A 127.0.0.1");
    ChangeDatabase(OfDc1("add"));
  }
  ~HostileController() override {
    Scene(std::string("dns delete ") + kRelay);
    ChangeDatabase(OfDc1("delete"));
  }
  static std::string OfDc1(const std::string& what) {
    return "dn: CN=DC1,OU=Domain Controllers," + Lab("BASE_DN") + "\nchangetype: modify\n" + what +
           ": servicePrincipalName\nservicePrincipalName: ldap/" + kRelay + "\n";
  }

  // The controller's side of the mechanism with its own key, up to the offer of these layers.
  static void OfferLayers(Connection& connection, char layers) {
    const std::string keytab = Lab("DIR") + "/private/secrets.keytab";
    gss_key_value_element_desc element{"keytab", keytab.c_str()};
    const gss_key_value_set_desc store{1, &element};
    OM_uint32 minor = 0;
    gss_cred_id_t own = GSS_C_NO_CREDENTIAL;
    gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_ACCEPT,
                          &store, &own, nullptr, nullptr);
    gss_ctx_id_t context = GSS_C_NO_CONTEXT;
    LdapRequest request = Receive(connection);
    std::string token = TokenIn(request);
    gss_buffer_desc input{token.size(), token.data()};
    gss_buffer_desc output{0, nullptr};
    EXPECT_EQ(gss_accept_sec_context(&minor, &context, own, &input, GSS_C_NO_CHANNEL_BINDINGS,
                                     nullptr, nullptr, &output, nullptr, nullptr, nullptr),
              GSS_S_COMPLETE);
    Continue(connection, request, output);
    request = Receive(connection);
    char offer[] = {layers, 0, 16, 0};
    input = {sizeof offer, offer};
    gss_wrap(&minor, context, 0, GSS_C_QOP_DEFAULT, &input, nullptr, &output);
    Continue(connection, request, output);
    connection.AwaitEnd();
    gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
    gss_release_cred(&minor, &own);
  }
  // What a request to bind has behind the mechanism's name: an octet string.
  static std::string TokenIn(const LdapRequest& request) {
    const std::size_t at = request.content.find("GSSAPI") + 6;
    const auto size = static_cast<unsigned char>(request.content.at(at + 1));
    return request.content.substr(at + 2 + (size >= 0x80 ? size & 0x7FU : 0));
  }
  // Answers that the bind goes on, with a token, which it releases.
  static void Continue(Connection& connection, const LdapRequest& request, gss_buffer_desc& token) {
    using tavrel::tests::Der;
    const std::string bytes(static_cast<const char*>(token.value), token.length);
    connection.Send(tavrel::tests::LdapMessage(
        request.id, 0x61, Der(0x0a, "\x0e") + Der(0x04, "") + Der(0x04, "") + Der(0x87, bytes)));
    OM_uint32 minor = 0;
    gss_release_buffer(&minor, &token);
  }

  // How long `operation` takes, in seconds.
  template <typename Operation>
  static double Seconds(Result& result, const Operation& operation) {
    const auto began = std::chrono::steady_clock::now();
    result = operation();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  }

  // Twice as long as a controller may need for `operation`, on a machine as busy as this one is
  // now.
  template <typename Operation>
  static std::chrono::milliseconds Ample(const Operation& operation) {
    Result result;
    const double took = Seconds(result, operation);
    EXPECT_THAT(result, Changes());
    return std::chrono::milliseconds(static_cast<int>(std::max(6.0, 10 * took) * 1000));
  }
};

TEST_F(HostileController, IsLeftForTheNextWhereverItFallsSilent) {
  NameMachine("ample");
  const auto limit = Ample([&] { return Enrol(); });
  options.controllers = {kRelay, kDc1};
  bool was_left = true;
  for (int messages = 0; was_left; ++messages) {
    NameMachine("step" + std::to_string(messages));
    keytab = folder / ("step" + std::to_string(messages));
    const Relay relay({88, 389, 464}, messages);
    Result result;

    const double took = Seconds(result, [&] { return Member().Enrol(Administrator(), limit); });

    was_left = result.controller == kDc1;
    EXPECT_THAT(result, Changes()) << messages;
    EXPECT_TRUE(relay.FellSilent() || !was_left) << messages;
    EXPECT_LT(took, std::chrono::duration<double>(limit).count() + 1 + kBusy) << messages;
    ASSERT_LT(messages, 40);
  }
}

// Not a hostile one: the nearest, by the site's records, and as good as any when it has gone.
TEST_F(HostileController, OfTheSiteIsAskedFirst) {
  NameMachine("sited");
  const std::string record = "_ldap._tcp.Branch._sites.dc._msdcs." + Lab("DOMAIN");
  Scene("dns add " + record + " SRV 0 100 389 " + kRelay + ".");
  options.site = "Branch";
  {
    const Relay branch({88, 389, 464}, 1000);
    EXPECT_EQ(Enrol().controller, kRelay);
  }

  EXPECT_EQ(Enrol().controller, kDc1);
  options.site = "Elsewhere";
  EXPECT_EQ(Enrol().controller, kDc1);
  Scene("dns delete " + record);
}

// By default a machine may change its password, for which the directory wants the old one, and not
// set it.
TEST_F(HostileController, WithoutAPasswordServiceSetsItByLdapWhereTheMachineMay) {
  NameMachine("fallback");
  ASSERT_THAT(Enrol(), Changes());
  options.controllers = {kRelay};
  const Relay refuses({88, 389}, 1000);

  const Result refused = Member().Rotate(kLimit);

  EXPECT_THAT(refused, Fails(Cause::kUnreachable, Step::kPassword));
  EXPECT_THAT(refused.text, HasSubstr("; Insufficient access"));
  EXPECT_THAT(Entries(), testing::ElementsAreArray(AesEntries({1})));

  tavrel::tests::Shell(
      "samba-tool dsacl set -H ldap://$LAB_DC_NAME -U $LAB_ADMIN%$LAB_ADMIN_PASSWORD --objectdn='" +
      Dn() + "' --sddl='(OA;;CR;00299570-246d-11d0-a768-00aa006e0529;;PS)' >/dev/null");
  const auto limit = Ample([&] { return Member().Rotate(kLimit); });

  EXPECT_THAT(Entries(), testing::ElementsAreArray(AesEntries({2, 1})));

  const DroppedPort password_service(464);
  EXPECT_THAT(Member().Rotate(limit), Changes());

  EXPECT_THAT(Entries(), testing::ElementsAreArray(AesEntries({3, 2, 1})));
  options.controllers.clear();
  EXPECT_EQ(SignIn(), "CORP.EXAMPLE.COM\\alice");
}

// Though the keytab's versions are ahead of the directory's.
TEST_F(HostileController, WithoutAPasswordServiceCostsNoWorkingKey) {
  NameMachine("ahead");
  ASSERT_THAT(Enrol(), Changes());
  const auto keys = tavrel::tests::ReadKeytab("FILE:" + keytab);
  std::filesystem::remove(keytab);
  for (auto key : keys) {
    key.vno = 9;
    tavrel::tests::AppendKey("FILE:" + keytab, key);
  }
  options.encryption_types = EncryptionTypes::kAesAndRc4;
  options.controllers = {kRelay};
  const Relay refuses({88, 389}, 1000);

  EXPECT_THAT(Member().Enrol(Credentials::Machine(), kLimit),
              Fails(Cause::kUnreachable, Step::kPassword));

  EXPECT_THAT(Entries(), testing::ElementsAreArray(AesEntries({1})));
  EXPECT_THAT(Enrol(), Changes());
}

TEST_F(HostileController, CostsARotationNothingButTime) {
  NameMachine("rotating");
  ASSERT_THAT(Enrol(), Changes());
  const auto limit = Ample([&] { return Member().Rotate(kLimit); });
  options.controllers = {kRelay, kDc1};
  tavrel::tests::JoinedRealm realm(*this);
  const tavrel::tests::GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  alice.Token(account + "$@CORP.EXAMPLE.COM");
  bool was_left = true;
  for (int messages = 0; was_left; ++messages) {
    const Relay relay({88, 389, 464}, messages);

    const Result result = Member().Rotate(limit);

    was_left = result.controller == kDc1;
    EXPECT_THAT(result, Changes()) << messages;
    EXPECT_TRUE(relay.FellSilent() || !was_left) << messages;
    std::vector<char> token = alice.Token(account + "$@CORP.EXAMPLE.COM");
    EXPECT_EQ(realm.Authenticate(token.data(), static_cast<int>(token.size())),
              "CORP.EXAMPLE.COM\\alice")
        << messages;
    ASSERT_LT(messages, 40);
  }
  EXPECT_EQ(SignIn(), "CORP.EXAMPLE.COM\\alice");
}

TEST_F(HostileController, ThatIsTheOnlyOneEndsTheOperationAtItsDeadline) {
  NameMachine("alone");
  options.controllers = {kRelay};
  for (const int messages : {0, 3, 6}) {
    const Relay relay({88, 389, 464}, messages);
    Result result;

    const double took = Seconds(result, [&] { return Member().Enrol(Administrator(), 1s); });

    EXPECT_EQ(result.cause, Cause::kTimedOut) << testing::PrintToString(result);
    EXPECT_GE(took, 1);
    EXPECT_LT(took, 2 + kBusy);
  }
}

// Three are given four seconds: each has one, and the first another.
TEST_F(HostileController, IsNotWaitedForWhereNameServersAreSilent) {
  NameMachine("unnamed");
  const std::string settings = tavrel::tests::FileBytes("/etc/resolv.conf");
  std::atomic<int> asked{0};
  const tavrel::tests::UdpPeer silent(
      [&](const std::string&) {
        ++asked;
        return std::string();
      },
      53);
  const std::string server = "nameserver 127.0.0.1\n";
  std::ofstream("/etc/resolv.conf") << server << server << server;
  Result result;
  double took = 0;

  std::thread([&] {  // whose resolver begins with these settings
    took = Seconds(result, [&] { return Member().Enrol(Administrator(), 4s); });
  })
      .join();
  std::ofstream("/etc/resolv.conf") << settings;

  EXPECT_THAT(result, Fails(Cause::kTimedOut, Step::kDiscovery));
  EXPECT_LT(took, 5 + kBusy);
  EXPECT_LE(asked, 4);
}

TEST_F(HostileController, ThatIsSilentInTheTlsHandshakeIsLeft) {
  NameMachine("tls");
  options.simple_bind = true;
  options.ca_file = Lab("CA");
  Peer silent([](Connection& connection) {
    connection.Receive(31);  // the request for StartTLS
    connection.Send(std::string("\x30\x0C\x02\x01\x01\x78\x07\x0A\x01\x00\x04\x00\x04\x00", 14));
    connection.AwaitEnd();
  });
  options.controllers = {silent.Host()};
  Result result;

  const double took = Seconds(result, [&] { return Member().Enrol(Administrator(), 1s); });

  EXPECT_THAT(result, Fails(Cause::kTimedOut, Step::kBind));
  EXPECT_LT(took, 2 + kBusy);
  options.controllers.push_back(kDc1);
  EXPECT_THAT(Member().Enrol(Administrator(), 20s), Changes());
}

// The attack that the core documents: DNS still names a controller that was taken out of service,
// and its address is anybody's to add. Here its Kerberos is the real one, handed through.
TEST_F(HostileController, GetsNothingByTheNameOfOneThatIsGone) {
  NameMachine("asked");
  const FalseController false_controller;
  const Relay kerberos({88}, 1000);
  const std::string stale = std::to_string(false_controller.Port());
  Scene("dns add gone.corp.example.com A 127.0.0.1");
  options.controllers = {"gone.corp.example.com:" + stale};

  EXPECT_THAT(Enrol(), Fails(Cause::kNotTrusted, Step::kBind));  // the domain knows no such service
  options.controllers = {kRelay + (":" + stale)};
  EXPECT_THAT(Enrol(), Fails(Cause::kNotTrusted, Step::kBind));  // nor does it have that one's key
  options.simple_bind = true;
  options.ca_file = Lab("CA");
  EXPECT_THAT(Enrol(), Fails(Cause::kNotTrusted, Step::kBind));  // nor its certificate
  options.simple_bind = false;
  options.controllers.push_back(kDc1);
  EXPECT_THAT(Enrol(), Changes());

  EXPECT_THAT(false_controller.Binds(), Not(HasSubstr(password)));
  Scene("dns delete gone.corp.example.com");
}

// Whoever answers at a controller's address, before the connection is sealed.
TEST_F(HostileController, SendsNobodyElsewhere) {
  NameMachine("referred");
  Peer elsewhere([](Connection& connection) { connection.AwaitEnd(); });
  const Relay kerberos({88}, 1000);
  Peer lying([&](Connection& connection) {
    ServeLdap(connection,
              {{tavrel::tests::kBind, [&](Connection& to, const LdapRequest& request) {
                  to.Send(LdapResult(request, LDAP_REFERRAL, "ldap://" + elsewhere.Host()));
                }}});
  });
  options.controllers = {kRelay + (':' + std::to_string(lying.Port()))};

  EXPECT_THAT(Enrol(), Fails(Cause::kNotTrusted, Step::kBind));
  options.controllers.push_back(kDc1);
  EXPECT_THAT(Enrol(), Changes());

  EXPECT_EQ(elsewhere.Connections(), 0);
}

// It has the controller's key, and offers what RFC 4752 allows beside sealing.
TEST_F(HostileController, IsNotTrustedUnlessItSeals) {
  NameMachine("downgraded");
  const Relay kerberos({88}, 1000);
  for (const char layers : {'\x01', '\x02', '\x03'}) {
    Peer weak([&](Connection& connection) { OfferLayers(connection, layers); });
    options.controllers = {kRelay + (':' + std::to_string(weak.Port()))};

    const Result result = Enrol();

    EXPECT_THAT(result, Fails(Cause::kNotTrusted, Step::kBind));
    EXPECT_THAT(result.text, HasSubstr("seal"));
  }
}

// RFC 4513, 5.1.2: without a password, a server lets everybody in as nobody.
TEST_F(HostileController, IsNotAskedWithoutAPassword) {
  NameMachine("nobody");
  options.simple_bind = true;
  options.ca_file = Lab("CA");
  password.clear();

  const Result result = Enrol();

  EXPECT_THAT(result, Fails(Cause::kBadCredentials, Step::kBind));
  EXPECT_EQ(result.text, "There is no password");  // our own words
}

TEST_F(HostileController, IsNotTrustedWithTheCertificateOfAnother) {
  NameMachine("named");
  Scene("dns add alias.corp.example.com A " + Lab("DC_IP"));
  options.simple_bind = true;
  options.ca_file = Lab("CA");
  options.controllers = {"alias.corp.example.com"};

  EXPECT_THAT(Enrol(), Fails(Cause::kNotTrusted, Step::kBind));
  options.controllers = {kDc1};
  EXPECT_THAT(Enrol(), Changes());
  options.ca_file = Lab("WRONG_CA");
  EXPECT_THAT(Enrol(), Fails(Cause::kNotTrusted, Step::kBind));
  options.ca_file = folder / "none";
  EXPECT_THAT(Enrol(), Fails(Cause::kNotTrusted, Step::kBind));
  Scene("dns delete alias.corp.example.com");
}

TEST_F(HostileController, WhoseKdcTalksNonsenseIsLeft) {
  NameMachine("nonsense");
  const std::vector<std::pair<std::string, Cause>> answers = {
      {std::string("\x00\x00\x00\x04spam", 8), Cause::kProtocol},
      {std::string("\x7F\xFF\xFF\xFFspam", 8), Cause::kProtocol},
      {std::string("\x00\x00\x00\x08spam", 8), Cause::kUnreachable}};  // and closes
  Peer directory([](Connection& connection) { connection.AwaitEnd(); });
  for (const auto& [answer, cause] : answers) {
    const std::string& bytes = answer;
    Peer kdc(
        [&](Connection& connection) {
          connection.Receive(4);
          connection.Send(bytes);
        },
        88);
    options.controllers = {kRelay + (':' + std::to_string(directory.Port()))};

    const Result result = Enrol();

    // A machine that is enrolled by now is asked for its keys first.
    EXPECT_THAT(result.step, AnyOf(Step::kSignIn, Step::kProof));
    EXPECT_THAT(result.cause, AnyOf(cause, Cause::kUnreachable)) << testing::PrintToString(result);
    options.controllers.push_back(kDc1);
    EXPECT_TRUE(Enrol());
  }
}

// A KDC's answer to a request without proof: make a key like this (RFC 4120, 5.9.1 and 5.2.7.5), or
// another reason to refuse it.
std::string AskingForAKey(char type, const std::string& salt, const std::string& parameters,
                          char reason = 25) {
  const auto tlv = [](unsigned char tag, const std::string& content) {
    const std::size_t size = content.size();
    std::string text(1, static_cast<char>(tag));
    text += '\x83';
    for (const unsigned shift : {16U, 8U, 0U})
      text += static_cast<char>(size >> shift & 0xFFU);
    return text + content;
  };
  const auto number = [&](char value) { return tlv(0x02, std::string(1, value)); };
  const std::string name =
      tlv(0x30, tlv(0xA0, number(2)) +
                    tlv(0xA1, tlv(0x30, tlv(0x1B, "krbtgt") + tlv(0x1B, "CORP.EXAMPLE.COM"))));
  const std::string way = tlv(0x30, tlv(0xA0, number(type)) + tlv(0xA1, tlv(0x1B, salt)) +
                                        tlv(0xA2, tlv(0x04, parameters)));
  const std::string hint = tlv(0x30, tlv(0xA1, number(19)) + tlv(0xA2, tlv(0x04, tlv(0x30, way))));
  const std::string error =
      tlv(0x7E, tlv(0x30, tlv(0xA0, number(5)) + tlv(0xA1, number(30)) +
                              tlv(0xA4, tlv(0x18, "20300101000000Z")) + tlv(0xA5, number(0)) +
                              tlv(0xA6, number(reason)) + tlv(0xA9, tlv(0x1B, "CORP.EXAMPLE.COM")) +
                              tlv(0xAA, name) + tlv(0xAC, tlv(0x04, tlv(0x30, hint)))));
  return std::string(1, '\0') + tlv(0, error).substr(2, 3) + error;
}

TEST_F(HostileController, WhoseKdcAsksForTooMuchWorkIsLeft) {
  NameMachine("worker");
  const struct {
    const char* what;
    std::string answer;
    Cause cause;
  } answers[] = {
      {"another type", AskingForAKey(23, "salt", ""), Cause::kNoEncryptionType},
      {"a huge salt", AskingForAKey(18, std::string(500'000, 's'), ""), Cause::kProtocol},
      {"2^24 rounds", AskingForAKey(18, "salt", {"\x01\0\0\0", 4}), Cause::kProtocol},
      {"2^32 rounds", AskingForAKey(18, "salt", {"\0\0\0\0", 4}), Cause::kProtocol},
      {"one round", AskingForAKey(18, "salt", {"\0\0\0\x01", 4}), Cause::kProtocol},
      {"no number", AskingForAKey(18, "salt", "many!"), Cause::kProtocol},
      {"to come again", AskingForAKey(18, "salt", "", 29), Cause::kUnreachable},
      {"something else", AskingForAKey(18, "salt", "", 60), Cause::kRefused},
  };
  Peer directory([](Connection& connection) { connection.AwaitEnd(); });
  options.controllers = {kRelay + (':' + std::to_string(directory.Port()))};
  for (const auto& row : answers) {
    SCOPED_TRACE(row.what);
    Peer kdc(
        [&](Connection& connection) {
          connection.Receive(4);
          connection.Send(row.answer);
          connection.AwaitEnd();
        },
        88);
    rusage before{};
    getrusage(RUSAGE_SELF, &before);

    const Result result = Enrol();

    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_THAT(result, Fails(row.cause, Step::kSignIn));
    EXPECT_LE(after.ru_utime.tv_sec - before.ru_utime.tv_sec, 1);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 16 << 10);  // KiB
  }
}

}  // namespace
}  // namespace tavrel::plus::tests
