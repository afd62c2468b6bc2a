// Decides on requests: by the session a client has, or by its token, and then by the policy.
#ifndef TAVREL_TOOLS_AUTHD_GATE_H
#define TAVREL_TOOLS_AUTHD_GATE_H

#include <tavrel/plus/Acceptor.h>

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "authd/Policy.h"
#include "authd/Session.h"
#include "authd/User.h"
#include "common/Address.h"

namespace tavrel::tools {

struct Question {
  std::string_view authorization;  // the header's value
  std::string_view cookie;         // the session's
  std::string_view host;           // that the client asked; a session is good for it alone
  std::optional<Address> client;
  // Names a request of the client's, given by a proxy that lets no client choose it; empty when
  // there is none.
  std::string_view request;
};

struct Answer {
  enum class Verdict { kAllowed, kSignIn, kForbidden } verdict = Verdict::kSignIn;
  std::string result;  // one of a fixed set of words, for metrics
  std::string reason;  // for people; empty when allowed
  User user;           // unless kSignIn
  std::string reply;   // token for the client
  std::string cookie;  // a new session, empty when there is none to set
};

// What can be exchanged while requests run. Immutable.
struct Rules {
  Policy policy;
  std::optional<Sessions> sessions;
};

// May be used by any thread. Logs every token it decides on, and everybody whom it forbids to pass.
class Gate {
 public:
  Gate(std::unique_ptr<const plus::Acceptor> acceptor, std::shared_ptr<const Rules> rules)
      : acceptor_(std::move(acceptor)), rules_(std::move(rules)) {}

  Answer Decide(const Question& question);

  // Requests that have begun keep the rules they have.
  void SetRules(std::shared_ptr<const Rules> rules);

 private:
  std::shared_ptr<const Rules> CurrentRules() const;
  static Answer Judge(const Rules& rules, Answer answer, const Question& question);
  Answer SignIn(const Rules& rules, const std::string& token, const Question& question) const;

  const std::unique_ptr<const plus::Acceptor> acceptor_;
  mutable std::mutex rules_mutex_;
  std::shared_ptr<const Rules> rules_;

  // Answers to tokens that were let in a moment ago. A proxy that handles one request of a client
  // in several steps asks for each of them, with the same token.
  class Repeats {
   public:
    std::optional<Answer> Find(const std::string& key, std::int64_t now);
    void Keep(const std::string& key, const Answer& answer, std::int64_t now);

   private:
    struct Kept {
      std::string key;
      Answer answer;
      std::int64_t until;
    };
    std::mutex mutex_;
    std::list<Kept> kept_;                                                    // oldest first
    std::unordered_map<std::string_view, std::list<Kept>::iterator> by_key_;  // whose keys it views
  };
  Repeats repeats_;
};

}  // namespace tavrel::tools

#endif
