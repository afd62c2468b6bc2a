#include "authd/Gate.h"

#include <openssl/evp.h>

#include <algorithm>
#include <utility>

#include "authd/Log.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

constexpr std::string_view kScheme = "Negotiate";
constexpr std::size_t kLongestToken = 65536;
constexpr std::size_t kLongestName = 256;
constexpr std::int64_t kRepeatSeconds = 10;
constexpr std::size_t kMostRepeats = 4096;

// The text behind the scheme; nothing when the header has another scheme, or none.
std::optional<std::string_view> NegotiateToken(std::string_view authorization) {
  authorization = Trimmed(authorization);
  if (!SameText(authorization.substr(0, kScheme.size()), kScheme)) return std::nullopt;
  authorization.remove_prefix(kScheme.size());
  if (authorization.empty() || authorization.front() != ' ') return std::nullopt;
  return Trimmed(authorization);
}

// A name with any of these could be taken for another one by whoever reads it.
bool IsPlain(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName &&
         std::none_of(name.begin(), name.end(), [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte < ' ' || byte == 0x7F || c == '@' || c == '/' || c == '\\' || c == '"' ||
                  c == ',';
         });
}

// Nothing when the name is not plain, which leaves `user` without one.
bool Describe(const plus::Identity& identity, std::int64_t now, User& user) {
  const auto& authorization = identity.authorization;
  user.signed_in = now;
  const auto& service = identity.service.components;
  for (const std::string& component : service) {
    user.service += (user.service.empty() ? "" : "/") + component;
  }
  // The account's own name: what a client calls itself can be any of several names.
  std::string name;
  if (authorization) {
    name = authorization->logon_name;
  } else if (identity.client.components.size() == 1) {
    name = identity.client.components.front();
  }
  if (!IsPlain(name) || !IsPlain(identity.client.realm)) return false;
  user.name = name + "@" + identity.client.realm;
  if (!authorization) return true;
  user.sid = authorization->user;
  for (const auto* list :
       {&authorization->groups, &authorization->extra_sids, &authorization->resource_groups}) {
    for (const plus::GroupMembership& group : *list) {
      if (group.Grants()) user.groups.push_back(group.sid);
    }
  }
  return true;
}

// Looked up once, since that takes as long as the digest; each time, if it failed then.
const EVP_MD* Sha256() {
  static const EVP_MD* const kDigest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return kDigest != nullptr ? kDigest : EVP_sha256();
}

std::string Digest(std::string_view text) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), reinterpret_cast<unsigned char*>(digest.data()), &size,
                 Sha256(), nullptr) != 1) {
    return "";
  }
  digest.resize(size);
  return digest;
}

// Length in front of each part, so that no two lists of parts make the same key.
std::string RepeatKey(const Question& question, std::string_view token) {
  const std::string_view client = question.client ? question.client->bytes() : "";
  std::string parts;
  parts.reserve(token.size() + 512);
  for (const std::string_view part : {question.request, token, question.host, client}) {
    parts += std::to_string(part.size()) + ":";
    parts += part;
  }
  return Digest(parts);
}

void LogAnswer(const Answer& answer, const Question& question) {
  const bool allowed = answer.verdict == Answer::Verdict::kAllowed;
  JsonObject record = Record(allowed ? "info" : "warning", allowed ? "signed-in" : "refused");
  record.Add("result", answer.result);
  if (!answer.user.name.empty()) record.Add("user", answer.user.name);
  if (!answer.reason.empty()) record.Add("reason", answer.reason);
  if (question.client) record.Add("client", question.client->Text());
  if (!question.host.empty()) record.Add("host", question.host.substr(0, kLongestName));
  if (!question.request.empty()) record.Add("request", question.request.substr(0, kLongestName));
  Write(record);
}

}  // namespace

std::optional<Answer> Gate::Repeats::Find(const std::string& key, std::int64_t now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = by_key_.find(key);
  if (found == by_key_.end() || found->second->until < now) return std::nullopt;
  return found->second->answer;
}

void Gate::Repeats::Keep(const std::string& key, const Answer& answer, std::int64_t now) {
  const std::lock_guard<std::mutex> lock(mutex_);
  while (!kept_.empty() && (kept_.front().until < now || kept_.size() >= kMostRepeats)) {
    by_key_.erase(kept_.front().key);
    kept_.pop_front();
  }
  if (by_key_.count(key) != 0) return;
  kept_.push_back({key, answer, now + kRepeatSeconds});
  by_key_[kept_.back().key] = std::prev(kept_.end());
}

void Gate::SetRules(std::shared_ptr<const Rules> rules) {
  const std::lock_guard<std::mutex> lock(rules_mutex_);
  rules_ = std::move(rules);
}

std::shared_ptr<const Rules> Gate::CurrentRules() const {
  const std::lock_guard<std::mutex> lock(rules_mutex_);
  return rules_;
}

Answer Gate::Decide(const Question& question) {
  const std::shared_ptr<const Rules> rules = CurrentRules();
  const std::int64_t now = Now();
  // The session comes first: the token of a client that sends it again would be a replay.
  if (rules->sessions && !question.cookie.empty()) {
    auto opened = rules->sessions->Open(question.cookie, question.host, now);
    if (opened && !rules->policy.Revoked(opened->user)) {
      Answer answer;
      answer.result = "session";
      answer.user = std::move(opened->user);
      answer = Judge(*rules, std::move(answer), question);
      if (answer.verdict != Answer::Verdict::kAllowed) {
        LogAnswer(answer, question);
      } else if (opened->renew) {
        answer.cookie = rules->sessions->Seal(answer.user, question.host, now);
      }
      return answer;
    }
  }

  const auto text = NegotiateToken(question.authorization);
  if (!text) {
    Answer answer;
    answer.result = "no-token";
    answer.reason = "sign in with a Kerberos ticket";
    return answer;
  }
  const auto token = FromBase64(text->substr(0, kLongestToken * 2));
  const std::string repeat_key =
      token && !question.request.empty() ? RepeatKey(question, *token) : "";
  if (!repeat_key.empty()) {
    if (auto kept = repeats_.Find(repeat_key, now)) {
      kept->result = "repeated";
      return Judge(*rules, std::move(*kept), question);
    }
  }
  Answer answer;
  if (!token || token->size() > kLongestToken) {
    answer.result = token ? "token-too-large" : "not-base64";
    answer.reason = token ? "the token is larger than 64 KB" : "the token is not base64";
  } else {
    answer = SignIn(*rules, *token, question);
  }
  if (answer.verdict == Answer::Verdict::kAllowed && !repeat_key.empty()) {
    repeats_.Keep(repeat_key, answer, now);
  }
  LogAnswer(answer, question);
  return answer;
}

Answer Gate::SignIn(const Rules& rules, const std::string& token, const Question& question) const {
  const std::int64_t now = Now();
  plus::Acceptance acceptance = acceptor_->Accept(token);
  Answer answer;
  if (!acceptance.identity) {
    answer.result = Name(acceptance.refusal->reason);
    answer.reason = acceptance.refusal->text;
    return answer;
  }
  answer.result = "signed-in";
  answer.reply = std::move(acceptance.reply);
  if (!Describe(*acceptance.identity, now, answer.user)) {
    answer.verdict = Answer::Verdict::kForbidden;
    answer.result = "name";
    answer.reason = "the user's name is that of a service, or has characters that no account has";
    return answer;
  }
  answer = Judge(rules, std::move(answer), question);
  if (answer.verdict == Answer::Verdict::kAllowed && rules.sessions && !question.host.empty()) {
    answer.cookie = rules.sessions->Seal(answer.user, question.host, now);
  }
  return answer;
}

Answer Gate::Judge(const Rules& rules, Answer answer, const Question& question) {
  const Policy::Verdict verdict = rules.policy.Decide(answer.user, question.client);
  answer.verdict = verdict.allowed ? Answer::Verdict::kAllowed : Answer::Verdict::kForbidden;
  if (verdict.allowed) return answer;
  answer.result = "denied";
  answer.cookie.clear();
  answer.reason = verdict.line == 0 ? "no rule of the policy allows " + answer.user.name
                                    : "line " + std::to_string(verdict.line) +
                                          " of the policy denies " + answer.user.name;
  return answer;
}

}  // namespace tavrel::tools
