// A directory server's replies. What a peer sends lies ready, and the connection is closed behind
// it; the clock stands still, and a wait fails at once, so that an input always ends the same way.
// The first byte of the input chooses: 0 makes the rest of it the bytes sent; anything else makes
// it a script of messages.
#include <openldap.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>

#include "Expect.h"
#include "ForgedRequest.h"
#include "Interpose.h"
#include "KnownLeak.h"
#include "Records.h"
#include "Script.h"
#include "tavrel/DiscoveryService.h"
#include "tavrel/Join.h"

namespace tavrel::fuzz {
namespace {

using tests::Der;
using tests::StandIn;
namespace calls = tests::calls;

constexpr char kFlags[] = "userAccountControl";

// The messages of a script. Bound, found, done: what they say of the account is known.
class Peer {
 public:
  explicit Peer(Script& script) {
    while (!script.Done() && sent_.size() < 60000)
      Send(script);
  }

  const std::string& Sent() const { return sent_; }

  // Whether the messages are one answer to a bind, then to a search, as they should be, up to and
  // including the search's result.
  bool Answers() const { return stage_ == kSearched; }
  bool Bound() const { return bind_code_ == 0; }

  // The values of the flags in each entry.
  const std::vector<std::vector<std::string>>& Entries() const { return entries_; }
  int SearchCode() const { return search_code_; }

 private:
  enum Stage { kNothing, kBindAnswered, kSearched, kSpoilt };

  // Those of the standard, and some that take more than one byte.
  static int Code(Script& script) {
    static constexpr int kLarge[] = {128, 255, 256, 4096, 32768, 65535, 65536, 0x7fffffff};
    const unsigned byte = script.Byte();
    return byte < 128 ? static_cast<int>(byte) : kLarge[byte % std::size(kLarge)];
  }
  static std::string Result(unsigned char kind, int code, const std::string& more = "") {
    std::string number = tests::der::Integer(code);
    number[0] = 0x0a;  // ENUMERATED
    return Der(kind, number + Der(0x04, "") + Der(0x04, "") + more);
  }
  void Message(unsigned id, const std::string& operation) {
    sent_ += Der(0x30, tests::der::Integer(id) + operation);
  }
  // Messages behind the result of the search are for other requests.
  void Advance(Stage from, Stage to) {
    if (stage_ != kSearched) stage_ = stage_ == from ? to : kSpoilt;
  }
  void Spoil() {
    if (stage_ != kSearched) stage_ = kSpoilt;
  }

  void Send(Script& script) {
    switch (script.Below(10)) {
      case 0: {
        const int code = Code(script);
        if (stage_ == kNothing) bind_code_ = code;
        Advance(kNothing, kBindAnswered);
        Message(1, Result(0x61, code));
        break;
      }
      case 1: SendEntry(script); break;
      case 2: {
        const int code = Code(script);
        if (stage_ == kBindAnswered) search_code_ = code;
        Advance(kBindAnswered, kSearched);
        Message(2, Result(0x65, code));
        break;
      }
      case 3: Advance(kBindAnswered, kBindAnswered); break;  // nothing, which spoils nothing
      case 4:                                                // for what follows the search
        Spoil();
        next_ = next_ % 8 + 1;
        Message(2 + next_,
                Result(static_cast<unsigned char>(next_ % 2 != 0 ? 0x67 : 0x69), Code(script)));
        break;
      case 5:
        Spoil();
        Message(2, Der(0x73, Der(0x04, script.Text())));
        break;
      case 6:
        Spoil();
        Message(0, Result(0x78, Code(script), Der(0x8a, "1.3.6.1.4.1.1466.20036")));
        break;
      case 7: {
        Spoil();
        const unsigned id = script.Byte();
        const unsigned kind = script.Byte();
        Message(id, Der(static_cast<unsigned char>(kind), script.Text()));
        break;
      }
      case 8:
        Spoil();
        sent_ += script.Text();
        break;
      default:  // the last bytes are never sent
        stage_ = kSpoilt;
        sent_.resize(sent_.size() - std::min<std::size_t>(script.Byte(), sent_.size()));
    }
  }

  void SendEntry(Script& script) {
    static constexpr const char* kNames[] = {kFlags, "useraccountcontrol", "cn", "",
                                             "userAccountControl;x"};
    std::optional<std::vector<std::string>> flags;
    std::string attributes;
    for (unsigned left = script.Below(4); left > 0; --left) {
      const char* const name = kNames[script.Below(std::size(kNames))];
      std::vector<std::string> values;
      std::string set;
      for (unsigned more = script.Below(4); more > 0; --more) {
        values.push_back(script.Text());
        set += Der(0x04, values.back());
      }
      attributes += Der(0x30, Der(0x04, name) + Der(0x31, set));
      if (!flags && strcasecmp(name, kFlags) == 0) flags = values;
    }
    Advance(kBindAnswered, kBindAnswered);
    if (stage_ == kBindAnswered) entries_.push_back(flags.value_or(std::vector<std::string>()));
    Message(2, Der(0x64, Der(0x04, "cn=X") + Der(0x30, attributes)));
  }

  std::string sent_;
  Stage stage_ = kNothing;
  int bind_code_ = 0;
  int search_code_ = 0;
  unsigned next_ = 0;
  std::vector<std::vector<std::string>> entries_;
};

// What must come of a search.
struct Outcome {
  bool failed = false;
  bool exists = false;
  std::uint32_t flags = 4096;
  bool invalid = false;  // throws std::invalid_argument
  bool out_of_range = false;
  Records records;
};

void Convert(const std::string& value, Outcome& outcome) {
  std::size_t at = 0;
  const auto at_any_of = [&](const char* characters) {
    return at < value.size() && value[at] != '\0' && std::strchr(characters, value[at]) != nullptr;
  };
  while (at_any_of(" \t\n\v\f\r"))
    ++at;
  const bool negative = at_any_of("-");
  if (at_any_of("+-")) ++at;
  if (!at_any_of("0123456789")) {
    outcome.invalid = true;
    return;
  }
  std::int64_t number = 0;
  for (; at_any_of("0123456789"); ++at)
    number = std::min<std::int64_t>(number * 10 + (value[at] - '0'), INT64_C(1) << 40);
  if (negative) number = -number;
  outcome.out_of_range = number < INT_MIN || number > INT_MAX;
  outcome.flags = static_cast<std::uint32_t>(number);
}

Outcome Reference(const Peer& peer) {
  Outcome outcome;
  const auto record = [&](int level, const std::string& function, const std::string& text) {
    outcome.records.Add(level, "ldap-join", function, text);
  };
  record(1, "GetAccountObject", "Getting account object from ldap://peer");
  const int code = peer.SearchCode();
  if (code != 0 && code != 32) {
    record(4, "GetAccountObject", std::string("LDAP search failed: ") + ldap_err2string(code));
    record(3, "GetAccountObject", "Unable to find an account object on any available server");
    outcome.failed = true;
    return outcome;
  }
  for (const std::vector<std::string>& values : peer.Entries()) {
    if (code == 32) break;
    outcome.exists = true;
    outcome.flags = 4096;
    if (values.empty()) {  // libldap takes an attribute without values for one not there
      record(3, "GetAccountObject", "Missing user account controls attribute on ldap://peer");
    } else if (values.size() > 1) {
      record(3, "GetAccountObject", "Multiple values found for userAccountControl on ldap://peer");
    } else {
      Convert(values[0], outcome);
      if (outcome.invalid || outcome.out_of_range) return outcome;
      record(1, "GetAccountObject",
             "Found user account control on ldap://peer: " + std::to_string(outcome.flags));
    }
  }
  record(1, "GetAccountObject", "Found account object from ldap://peer");
  return outcome;
}

// The connection to a peer that has already sent all that it will.
class Connection {
 public:
  explicit Connection(const std::string& sent) : sent_(sent) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    if (peer_ != -1) close(peer_);
  }

  int Open(LDAP** handle) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) Broken("a socket pair");
    peer_ = ends[0];
    ExpectEqual(send(peer_, sent_.data(), sent_.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
                static_cast<ssize_t>(sent_.size()), "all that the peer sends lies ready");
    shutdown(peer_, SHUT_WR);
    // Nobody is there when libldap wants to connect again.
    return ldap_init_fd(ends[1], LDAP_PROTO_TCP, "ldapi://%2Fnonexistent", handle);
  }

 private:
  const std::string& sent_;
  int peer_ = -1;
};

struct NoDiscovery : DiscoveryService {
  std::list<std::string> GetLDAPHosts(const std::string&) const override { return {}; }
};

// A call that libldap may lose memory in: a request whose answer it does not understand, a notice
// of disconnection that it reads.
template <typename Call>
auto MayLose(Call& call) {
  return [&call](auto... arguments) {
    const tests::KnownLeak lost;
    return call.Real(arguments...);
  };
}

// What libldap hands out, in place of its functions that do: all of it is given back by the end,
// each once.
class Ledger {
 public:
  explicit Ledger(Connection& connection)
      : initialize_(calls::ldap_initialize,
                    [&, this](LDAP** handle, const char* url) {
                      ExpectEqual(std::string_view(url), "ldap://peer",
                                  "the server is connected to");
                      const int code = connection.Open(handle);
                      handles_ += code == LDAP_SUCCESS;
                      return code;
                    }),
        unbind_(calls::ldap_unbind_ext,
                [this](auto... arguments) {
                  --handles_;
                  return calls::ldap_unbind_ext.Real(arguments...);
                }),
        bind_(calls::ldap_sasl_bind_s, MayLose(calls::ldap_sasl_bind_s)),
        search_(calls::ldap_search_ext_s,
                [this](LDAP* handle, const char* base, int scope, const char* filter, char** names,
                       int types_only, LDAPControl** server, LDAPControl** client, timeval* limit,
                       int most, LDAPMessage** found) {
                  const int code = MayLose(calls::ldap_search_ext_s)(handle, base, scope, filter,
                                                                     names, types_only, server,
                                                                     client, limit, most, found);
                  messages_ += *found != nullptr;
                  return code;
                }),
        free_message_(calls::ldap_msgfree,
                      [this](LDAPMessage* message) {
                        messages_ -= message != nullptr;
                        return calls::ldap_msgfree.Real(message);
                      }),
        values_of_(calls::ldap_get_values_len,
                   [this](auto... arguments) {
                     berval** const found = calls::ldap_get_values_len.Real(arguments...);
                     values_ += found != nullptr;
                     return found;
                   }),
        free_values_(calls::ldap_value_free_len,
                     [this](berval** found) {
                       values_ -= found != nullptr;
                       calls::ldap_value_free_len.Real(found);
                     }),
        add_(calls::ldap_add_ext_s, MayLose(calls::ldap_add_ext_s)),
        modify_(calls::ldap_modify_ext_s, MayLose(calls::ldap_modify_ext_s)) {}

  void CheckAllIsGivenBack() const {
    ExpectEqual(handles_, 0, "every connection is closed once");
    ExpectEqual(messages_, 0, "every result is freed once");
    ExpectEqual(values_, 0, "every list of values is freed once");
  }

 private:
  int handles_ = 0;
  int messages_ = 0;
  int values_ = 0;
  const decltype(StandIn(calls::ldap_initialize, nullptr)) initialize_;
  const decltype(StandIn(calls::ldap_unbind_ext, nullptr)) unbind_;
  const decltype(StandIn(calls::ldap_sasl_bind_s, nullptr)) bind_;
  const decltype(StandIn(calls::ldap_search_ext_s, nullptr)) search_;
  const decltype(StandIn(calls::ldap_msgfree, nullptr)) free_message_;
  const decltype(StandIn(calls::ldap_get_values_len, nullptr)) values_of_;
  const decltype(StandIn(calls::ldap_value_free_len, nullptr)) free_values_;
  const decltype(StandIn(calls::ldap_add_ext_s, nullptr)) add_;
  const decltype(StandIn(calls::ldap_modify_ext_s, nullptr)) modify_;
};

void Join(const Peer& peer) {
  static const JoinParameters params(
      "corp.example.com", {{"ldap://peer", vdi::LDAP_ENCRYPTION_NONE, ""}}, "admin", "secret");
  static const NoDiscovery discovery;
  Joiner joiner(&params, &discovery);
  std::string error;

  const bool connected = joiner.Connect(&error);
  if (peer.Answers()) ExpectEqual(connected, peer.Bound(), "the bind's result is the connection's");
  ExpectEqual(joiner.sessions.size(), 1u, "every server tried has a session");
  ExpectEqual(joiner.sessions.front().handle != nullptr, connected, "a session bound has a handle");

  TheLog().Clear();
  Outcome outcome;
  AccountObject account;
  try {
    account = joiner.GetAccountObject(&error);
  } catch (const std::invalid_argument&) {
    outcome.invalid = true;
  } catch (const std::out_of_range&) {
    outcome.out_of_range = true;
  }
  const bool answered = !outcome.invalid && !outcome.out_of_range;
  if (answered) {
    Expect(!(account.failed && account.exists), "what failed does not exist");
    ExpectEqual(account.ldap == nullptr, account.failed, "the session that answered is known");
    if (!account.exists) ExpectEqual(account.user_account_control, 4096u, "flags need an account");
  }
  if (peer.Answers() && connected) {
    const Outcome expected = Reference(peer);
    ExpectEqual(TheLog().Text(), expected.records.Text(), "records of a lookup");
    ExpectEqual(outcome.invalid, expected.invalid, "flags that are no number throw");
    ExpectEqual(outcome.out_of_range, expected.out_of_range, "flags beyond 32 bits throw");
    if (answered) {
      ExpectEqual(account.failed, expected.failed, "a search may fail");
      ExpectEqual(account.exists, expected.exists, "an account is there when it was found");
      if (account.exists) {
        ExpectEqual(account.user_account_control, expected.flags, "the flags are the entry's");
      }
    }
  }

  // Whatever is left is the answer to these.
  error.clear();
  const AccountObject added = joiner.AddAccountObject(account, &error);
  Expect(added.exists != added.failed, "an account is added or not");
  ExpectEqual(error.empty(), added.exists, "a failed add has a reason");
  error.clear();
  const bool enabled = joiner.SetProperties(account, &error);
  ExpectEqual(error.empty(), enabled, "flags that cannot be set have a reason");
  error.clear();
  const bool password_set = joiner.SetPassword(account, &error);
  ExpectEqual(error.empty(), password_set, "a password that cannot be set has a reason");
  Expect(TheLog().Text().find(params.GetMachinePassword()) == std::string::npos,
         "no record has a secret");
}

}  // namespace
}  // namespace tavrel::fuzz

// What lies ready is all that ever comes. libldap alone asks these two.
extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout) {
  const auto ready = static_cast<int>(syscall(SYS_poll, descriptors, count, 0));
  if (ready != 0 || timeout == 0) return ready;
  errno = ETIMEDOUT;
  return -1;
}
extern "C" int gettimeofday(timeval* __restrict now, void* __restrict) noexcept {
  *now = {1700000000, 0};
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrel::fuzz;
  Script script(data, size);
  const bool raw = script.Byte() == 0;
  const std::string bytes = raw ? script.Rest().substr(0, 60000) : "";
  const Peer peer(script);
  Connection connection(raw ? bytes : peer.Sent());
  const Ledger ledger(connection);

  Join(peer);

  ledger.CheckAllIsGivenBack();
  return 0;
}
