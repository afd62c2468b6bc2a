// Every call that an acceptor makes into another library fails once, and from then on; so does
// every allocation. Nobody is accepted who should not be, nobody as less than they are, nothing is
// left behind, and the next user is accepted.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "../../../tests/faults/Injector.h"
#include "Service.h"

// There when a leak sanitizer is.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace tavrel::plus::tests {
namespace {

namespace der = tavrel::tests::der;
using tavrel::tests::Der;
using tavrel::tests::Forget;
using tavrel::tests::Injected;
using tavrel::tests::Mode;
using tavrel::tests::Plan;
using tavrel::tests::TheInjected;
using tavrel::tests::Window;

constexpr char kChannel[] = "tls-server-end-point:ours";

std::size_t Descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::string Certificate() {
  EVP_PKEY* const key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  X509* const certificate = X509_new();
  X509_set_pubkey(certificate, key);
  X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
  X509_sign(certificate, key, EVP_sha256());
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(certificate, &bytes);
  std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  OPENSSL_free(bytes);
  X509_free(certificate);
  EVP_PKEY_free(key);
  return text;
}

// alice, bound to the channel, who wants a reply, by way of a realm.
ForgedToken Right() {
  static const tavrel::tests::ForgedTicket ticket = [] {
    tavrel::tests::ForgedTicket made = Ticket();
    made.client_realm = "SUB.EAST.CORP.EXAMPLE.COM";
    made.gss_checksum = GssChecksum(kChannel);
    made.options = AP_OPTS_MUTUAL_REQUIRED;
    return WithPac(made, PartsOf({}));
  }();
  ForgedToken token(ticket);
  token.of_ticket[4] = TypedField(1, "EAST.CORP.EXAMPLE.COM");
  return token;
}

// alice again, by one ticket for all tokens.
tavrel::tests::ForgedTicket OneTicket() {
  static const tavrel::tests::ForgedTicket ticket = [] {
    tavrel::tests::ForgedTicket made = Ticket();
    made.gss_checksum = GssChecksum(kChannel);
    made.options = AP_OPTS_MUTUAL_REQUIRED;
    return tavrel::tests::Issued(WithPac(made, PartsOf({})));
  }();
  return ticket;
}

// Of whoever has that ticket and not its key.
std::string Stolen() {
  tavrel::tests::ForgedTicket ticket = OneTicket();
  ticket.session.assign(ticket.session.size(), 'x');
  return Token(ticket);
}

// What nobody accepts, whatever fails.
std::vector<std::string> Forged() {
  static const std::string by_another = [] {
    tavrel::tests::ForgedTicket ticket = Right().ticket;
    ticket.password = "Another.1";
    return WithPac(ticket, PartsOf({})).authorization_data;
  }();
  std::vector<ForgedToken> tokens(6, Right());
  tokens[0].of_ticket[10] = by_another;
  tokens[1].of_ticket[4] = TypedField(1, "EVIL.COM");
  tokens[2].of_authenticator[2] = der::PrincipalName({"bob"});
  tokens[3].of_ticket[7] = der::Time(1000000000);
  tokens[4].of_authenticator[3] = TypedField(0x8003, GssChecksum("another"));
  tokens[5].session_enctype = ENCTYPE_AES128_CTS_HMAC_SHA1_96;
  std::vector<std::string> bytes;
  bytes.reserve(tokens.size() + 1);
  for (const ForgedToken& token : tokens)
    bytes.push_back(token.Bytes());
  bytes.push_back(Stolen());
  return bytes;
}

class AcceptorFaults : public testing::Test {
 protected:
  AcceptorFaults() { service.options.require_pac = false; }

  void Check(const Acceptance& result, const char* client = "alice@SUB.EAST.CORP.EXAMPLE.COM") {
    if (!result) {
      EXPECT_NE(result.refusal->reason, RefusalReason::kChannelBindingWrong)
          << "it is the right one";
      return;
    }
    ++accepted;
    EXPECT_EQ(result.identity->client.Text(), client);
    EXPECT_TRUE(result.identity->channel_bound);
    EXPECT_FALSE(result.reply.empty());
    ASSERT_TRUE(result.identity->authorization) << "the PAC was dropped";
    EXPECT_EQ(result.identity->authorization->groups.size(), 2U);
    EXPECT_EQ(result.identity->authorization->upn, "alice@corp.example.com");
  }

  // One life of an acceptor in which `plan` is carried out.
  Injected Run(const Plan& plan) {
    const std::string right = Right().Bytes();
    const std::vector<std::string> forged = Forged();
    const std::string of_one_ticket[] = {Token(OneTicket()), Token(OneTicket())};
    const std::string fresh = Right().Bytes();
    std::filesystem::remove(service.options.replay_file);
    std::unique_ptr<Acceptor> acceptor;
    std::string error;
    bool no_memory = false;
    Forget();
    {
      const Window window(plan);
      try {
        acceptor = Acceptor::Make(service.options, &error);
        if (acceptor) {
          Check(acceptor->Accept(right, kChannel));
          const Acceptance again = acceptor->Accept(right, kChannel);
          EXPECT_TRUE(accepted == 0 || !again) << "accepted twice";
          for (const std::string& token : of_one_ticket)
            Check(acceptor->Accept(token, kChannel), "alice@CORP.EXAMPLE.COM");
          for (const std::string& token : forged)
            EXPECT_FALSE(acceptor->Accept(token, kChannel));
        }
        const std::string name = TlsServerEndPoint(certificate);
        EXPECT_TRUE(name.empty() || name.size() == sizeof kChannel - 1 - 4 + 32) << name;
      } catch (const std::bad_alloc&) {
        no_memory = true;
      }
    }
    const Injected injected = TheInjected();
    EXPECT_FALSE(TlsServerEndPoint(certificate).empty());
    EXPECT_TRUE(acceptor || no_memory || !error.empty()) << "a refusal without a reason";
    if (acceptor) {
      Check(acceptor->Accept(fresh, kChannel));
      EXPECT_FALSE(acceptor->Accept(Stolen(), kChannel));
      Check(acceptor->Accept(Token(OneTicket()), kChannel), "alice@CORP.EXAMPLE.COM");
    }
    const auto after = service.Make();
    accepted = 0;
    Check(after->Accept(Right().Bytes(), kChannel));
    EXPECT_EQ(accepted, 1) << "the next user";
    accepted = 0;
    return injected;
  }

  Service service;
  const std::string certificate = Certificate();
  int accepted = 0;
};

TEST_F(AcceptorFaults, LetNobodyIn) {
  Run({});
  const std::size_t descriptors = Descriptors();
  int fired = 0;
  for (const Mode mode : {Mode::kOneCall, Mode::kAllLaterCalls, Mode::kCallThenNoMemory,
                          Mode::kOneAllocation, Mode::kAllLaterAllocations}) {
    for (int nth = 1;; ++nth) {
      const Injected injected = Run({mode, nth});
      if (injected.fired == 0) break;
      ++fired;
      const std::size_t failures = injected.first ? injected.first->row->failures.size() : 1;
      for (std::size_t failure = 1; failure < failures; ++failure)
        fired += Run({mode, nth, failure}).fired != 0 ? 1 : 0;
      ASSERT_FALSE(HasFailure()) << (injected.first ? injected.first->call : "allocation") << ", "
                                 << nth << " of mode " << static_cast<int>(mode);
    }
  }
  std::printf("%d faults\n", fired);
  EXPECT_GT(fired, 500);
  EXPECT_EQ(Descriptors(), descriptors);
  if (__lsan_do_recoverable_leak_check != nullptr) {
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
  }
}

}  // namespace
}  // namespace tavrel::plus::tests
