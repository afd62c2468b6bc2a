#include "authd/Front.h"

#include <algorithm>
#include <utility>

#include "common/Json.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

bool Contains(const std::vector<Network>& networks, const Address& address) {
  return std::any_of(networks.begin(), networks.end(),
                     [&](const Network& network) { return network.Contains(address); });
}

// What a header may hold: a reason can have a cleaned name of a peer's in it.
std::string Printable(std::string_view text) {
  return Escaped(text, false);
}

std::vector<std::string> Texts(const std::vector<plus::Sid>& sids) {
  std::vector<std::string> texts;
  texts.reserve(sids.size());
  for (const plus::Sid& sid : sids)
    texts.push_back(sid.ToText());
  return texts;
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts)
    joined += (joined.empty() ? "" : ",") + text;
  return joined;
}

std::string Described(const Answer& answer, const std::vector<std::string>& groups) {
  JsonObject identity;
  identity.Add("user", answer.user.name);
  if (answer.user.sid) identity.Add("sid", answer.user.sid->ToText());
  identity.Add("groups", groups)
      .Add("service", answer.user.service)
      .Add("signed_in", FormatTime(answer.user.signed_in));
  return identity.Text();
}

}  // namespace

std::string HostOf(std::string_view header) {
  const std::size_t colon = header.rfind(':');
  if (colon != std::string_view::npos && header.find(']', colon) == std::string_view::npos) {
    header = header.substr(0, colon);
  }
  return Lower(Trimmed(header));
}

std::optional<Address> ForwardedFor(std::string_view header, const std::vector<Network>& trusted) {
  for (;;) {
    const std::size_t comma = header.rfind(',');
    const std::string_view last =
        comma == std::string_view::npos ? header : header.substr(comma + 1);
    const auto address = Address::Parse(Trimmed(last));
    if (!address || comma == std::string_view::npos || !Contains(trusted, *address)) return address;
    header = header.substr(0, comma);
  }
}

bool Front::IsTrusted(const std::optional<Address>& peer) const {
  return !peer || Contains(settings_.trusted_proxies, *peer);
}

std::optional<Address> Front::Client(const HttpRequest& request) const {
  const auto& peer = request.peer();
  if (!IsTrusted(peer)) return peer;
  // The proxy's own address is not the client's.
  return ForwardedFor(request.AllValues("X-Forwarded-For"), settings_.trusted_proxies);
}

std::string Front::SetCookie(const std::string& value) const {
  return std::string(settings_.cookie_name()) + "=" + value +
         "; Max-Age=" + std::to_string(settings_.session_lifetime.count()) +
         "; Path=/; HttpOnly; SameSite=Lax" + (settings_.secure_cookie ? "; Secure" : "");
}

HttpAnswer Front::Serve(const HttpRequest& request) const {
  const auto begin = std::chrono::steady_clock::now();
  const std::string host = HostOf(request.Value("Host"));
  Question question;
  question.authorization = request.Value("Authorization");
  question.cookie = request.Cookie(settings_.cookie_name());
  question.host = host;
  question.client = Client(request);
  if (!settings_.request_header.empty() && IsTrusted(request.peer())) {
    question.request = request.Value(settings_.request_header);
  }
  const Answer answer = gate_->Decide(question);

  HttpAnswer http;
  http.headers.emplace_back("Cache-Control", "no-store");
  switch (answer.verdict) {
    case Answer::Verdict::kAllowed: {
      const std::vector<std::string> groups = Texts(answer.user.groups);
      http.headers.emplace_back("X-Remote-User", answer.user.name);
      http.headers.emplace_back("X-Remote-Groups", Joined(groups));
      if (!answer.reply.empty()) {
        http.headers.emplace_back("WWW-Authenticate", "Negotiate " + ToBase64(answer.reply));
      }
      if (!answer.cookie.empty()) {
        http.headers.emplace_back("Set-Cookie", SetCookie(answer.cookie));
      }
      // Without a body unless it was asked for: nginx ends a connection whose answer has one.
      const std::string_view wanted = request.Parameter("identity");
      if (wanted == "json") {
        http.headers.emplace_back("Content-Type", "application/json");
        http.body = Described(answer, groups) + "\n";
      } else if (wanted == "header") {
        http.headers.emplace_back("X-Remote-Identity", ToBase64(Described(answer, groups)));
      }
      break;
    }
    case Answer::Verdict::kSignIn:
      http.status = HttpStatus::kUnauthorized;
      http.headers.emplace_back("WWW-Authenticate", "Negotiate");
      http.headers.emplace_back("X-Tavrel-Reason", Printable(answer.reason));
      break;
    case Answer::Verdict::kForbidden:
      http.status = HttpStatus::kForbidden;
      http.headers.emplace_back("X-Tavrel-Reason", Printable(answer.reason));
      break;
  }
  metrics_->Count(answer.result, std::chrono::steady_clock::now() - begin);
  return http;
}

}  // namespace tavrel::tools
