#include "authd/Policy.h"

#include <algorithm>
#include <utility>

#include "common/Settings.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

std::string Quoted(std::string_view text) {
  return "'" + std::string(text) + "'";
}

std::string_view RealmOf(const User& user) {
  const std::string_view name = user.name;
  return name.substr(name.find('@') + 1);
}

}  // namespace

std::optional<Policy> Policy::Parse(std::string_view text, const std::string& file,
                                    std::string* error) {
  Policy policy;
  const auto take = [&](std::string_view content, int number) {
    return policy.TakeLine(Words(content), number);
  };
  if (!ReadLines(text, file, take, error)) return std::nullopt;
  return policy;
}

std::string Policy::TakeLine(const std::vector<std::string_view>& words, int line) {
  if (words[0] == "revoke") {
    const std::size_t before = words.size() - 2;  // where the word of that name has to stand
    const bool everyone = words.size() == 4 && words[1] == "everyone";
    const bool user = words.size() == 5 && words[1] == "user";
    if ((!everyone && !user) || words[before] != "before") {
      return "`revoke` takes `everyone before TIME` or `user NAME before TIME`";
    }
    const auto time = ParseTime(words.back());
    if (!time) return Quoted(words.back()) + " is no time like 2026-11-22T01:00:00Z";
    Revocation revocation{*time, std::nullopt};
    if (user) {
      std::string wrong = TakeCondition("user", words[2], revocation.user.emplace());
      if (!wrong.empty()) return wrong;
    }
    revocations_.push_back(std::move(revocation));
    return "";
  }
  if (words[0] != "allow" && words[0] != "deny") {
    return Quoted(words[0]) + " is none of `allow`, `deny`, `revoke`";
  }
  Rule rule{line, words[0] == "allow", {}};
  if (words.size() == 2 && words[1] == "everyone") {
    rules_.push_back(std::move(rule));
    return "";
  }
  if (words.size() < 3 || words.size() % 2 == 0) {
    return "behind `" + std::string(words[0]) +
           "` there are `everyone`, or pairs of a condition and its value";
  }
  for (std::size_t i = 1; i < words.size(); i += 2) {
    std::string wrong = TakeCondition(words[i], words[i + 1], rule.conditions.emplace_back());
    if (!wrong.empty()) return wrong;
  }
  rules_.push_back(std::move(rule));
  return "";
}

std::string Policy::TakeCondition(std::string_view kind, std::string_view value,
                                  Condition& condition) {
  using Kind = Condition::Kind;
  condition.text = value;
  condition.sid = plus::Sid::FromText(value);
  if (kind == "user") {
    condition.kind = condition.sid ? Kind::kUserSid : Kind::kUserName;
    const std::size_t at = value.find('@');
    if (!condition.sid && (at == 0 || at == std::string_view::npos || at + 1 == value.size() ||
                           value.find('@', at + 1) != std::string_view::npos)) {
      return Quoted(value) + " is neither a SID nor a name like alice@CORP.EXAMPLE.COM";
    }
    return "";
  }
  if (kind == "realm") {
    condition.kind = Kind::kRealm;
    return value.find('@') == std::string_view::npos
               ? ""
               : Quoted(value) + " is no realm like CORP.EXAMPLE.COM";
  }
  if (kind == "group") {
    condition.kind = Kind::kGroup;
    return condition.sid ? "" : Quoted(value) + " is no SID like S-1-5-21-1-2-3-513";
  }
  if (kind == "service") {
    condition.kind = Kind::kService;
    return value.find('/') != std::string_view::npos
               ? ""
               : Quoted(value) + " is no service name like HTTP/box.corp.example.com";
  }
  if (kind == "network") {
    condition.kind = Kind::kNetwork;
    condition.network = Network::Parse(value);
    return condition.network ? "" : Quoted(value) + " is no network like 10.0.0.0/8";
  }
  return Quoted(kind) + " is none of `user`, `realm`, `group`, `service`, `network`";
}

bool Policy::Holds(const Condition& condition, const User& user,
                   const std::optional<Address>& client, bool unknown) {
  using Kind = Condition::Kind;
  switch (condition.kind) {
    case Kind::kUserName: return SameText(condition.text, user.name);
    case Kind::kUserSid: return user.sid ? *user.sid == *condition.sid : unknown;
    case Kind::kRealm: return SameText(condition.text, RealmOf(user));
    case Kind::kGroup:
      if (!user.sid && user.groups.empty()) return unknown;
      return std::find(user.groups.begin(), user.groups.end(), *condition.sid) != user.groups.end();
    case Kind::kService: return SameText(condition.text, user.service);
    case Kind::kNetwork: return client ? condition.network->Contains(*client) : unknown;
  }
  return unknown;
}

Policy::Verdict Policy::Decide(const User& user, const std::optional<Address>& client) const {
  for (const Rule& rule : rules_) {
    const bool fits = std::all_of(
        rule.conditions.begin(), rule.conditions.end(),
        [&](const Condition& condition) { return Holds(condition, user, client, !rule.allow); });
    if (fits) return {rule.allow, rule.line};
  }
  return {false, 0};
}

bool Policy::Revoked(const User& user) const {
  return std::any_of(revocations_.begin(), revocations_.end(), [&](const Revocation& revocation) {
    return user.signed_in < revocation.before &&
           (!revocation.user || Holds(*revocation.user, user, std::nullopt, true));
  });
}

}  // namespace tavrel::tools
