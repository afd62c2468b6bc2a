// What a proxy's sub-request says, and how it is answered.
#ifndef TAVREL_TOOLS_AUTHD_FRONT_H
#define TAVREL_TOOLS_AUTHD_FRONT_H

#include <chrono>
#include <string>
#include <vector>

#include "authd/Gate.h"
#include "authd/Http.h"
#include "authd/Metrics.h"
#include "common/Address.h"

namespace tavrel::tools {

struct FrontSettings {
  // Whose X-Forwarded-For and request header are believed; a process of this machine, on a Unix
  // socket, always is.
  std::vector<Network> trusted_proxies;
  // In which proxies name a request; empty: they do not.
  std::string request_header;
  bool secure_cookie = true;
  std::chrono::seconds session_lifetime{0};

  // With the prefix a browser takes the cookie over TLS alone, and from no other host of the
  // domain.
  const char* cookie_name() const { return secure_cookie ? "__Host-tavrel" : "tavrel"; }
};

// Answers 200, 401 or 403 to whatever is asked.
class Front {
 public:
  Front(FrontSettings settings, Gate* gate, Metrics* metrics)
      : settings_(std::move(settings)), gate_(gate), metrics_(metrics) {}

  HttpAnswer Serve(const HttpRequest& request) const;

 private:
  bool IsTrusted(const std::optional<Address>& peer) const;
  std::optional<Address> Client(const HttpRequest& request) const;
  std::string SetCookie(const std::string& value) const;

  const FrontSettings settings_;
  Gate* const gate_;
  Metrics* const metrics_;
};

// The host of a `Host` header: in lower case, without the port.
std::string HostOf(std::string_view header);

// The client's address of X-Forwarded-For: the last one that is not of a trusted proxy; the first
// when all are. Nothing when one that was looked at is no address.
std::optional<Address> ForwardedFor(std::string_view header, const std::vector<Network>& trusted);

}  // namespace tavrel::tools

#endif
