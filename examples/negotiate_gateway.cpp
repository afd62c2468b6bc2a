// The sign-in page of an appliance: HTTP with Negotiate (RFC 4559), and a session from then on.
//
//   negotiate_gateway ADDRESS PORT DOMAIN USER KEYTAB [LIFETIME [SESSIONS]]
//
// The administrator's password is read from standard input. A session ends after LIFETIME seconds
// (28800); SESSIONS (1000) are kept, the oldest makes room for a new one. Once it has joined, the
// program prints where it listens; SIGTERM and SIGINT end it. Who signed in is logged at level 2.
// Exit status: 0 when a signal ended it, 1 when it cannot listen, 64 when it is called in another
// way, otherwise that of the join.
//
// A client asks for a ticket for HTTP/ and the name in its address bar. Controllers take that for
// the HOST/ name which the join registers (sPNMappings); any other name of the appliance has to be
// added to the account's servicePrincipalName.
//
// This program speaks plain HTTP to be short. A real one must have TLS, and then also "Secure" in
// its cookie: whoever can read the connection has the cookie, and with it the session; whoever can
// hold a request back has a ticket that was not used yet; and nothing proves to the client that it
// talks to the appliance, as the answer carries no token.
#include <microhttpd.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <platform/logger.h>
#include <strings.h>
#include <sys/socket.h>
#include <tavrel/KrbError.h>
#include <tavrel/KrbRealm.h>
#include <tavrel/RandomString.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace {

using std::chrono::steady_clock;

constexpr unsigned int kWorkers = 4;
constexpr unsigned int kConnections = 256;
constexpr unsigned int kIdleSeconds = 10;

// What one connection may use. It holds the header of a request, which is large when the user is in
// many groups: 48,000 bytes, the default MaxTokenSize of Windows, are 64,000 characters. A header
// that does not fit gets status 431.
constexpr std::size_t kConnectionMemory = std::size_t{80} * 1024;

void Log(LogLevel level, const std::string& message, const char* function = __builtin_FUNCTION(),
         int line = __builtin_LINE()) {
  static const std::string logger = getLogger("gateway");
  platformlogger_log(function, line, "negotiate_gateway.cpp", level, logger.c_str(),
                     message.c_str());
}

// Who is signed in. A browser holds nothing but the random name of its session. May be used by any
// thread.
class Sessions {
 public:
  Sessions(std::chrono::seconds lifetime, std::size_t most) : lifetime_(lifetime), most_(most) {}

  // Returns the new session's name, empty when there is no randomness to make one.
  std::string Open(const std::string& user) {
    std::string name = tavrel::RandomString(32);  // 192 bits
    if (name.empty()) return name;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (sessions_.size() >= most_) {
      sessions_.erase(std::min_element(
          sessions_.begin(), sessions_.end(),
          [](const auto& a, const auto& b) { return a.second.end < b.second.end; }));
    }
    sessions_[name] = {user, steady_clock::now() + lifetime_};
    return name;
  }

  // Returns the user, empty when there is no such session any more.
  std::string UserOf(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = sessions_.find(name);
    if (found == sessions_.end()) return "";
    if (steady_clock::now() < found->second.end) return found->second.user;
    sessions_.erase(found);
    return "";
  }

  void Close(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    sessions_.erase(name);
  }

  std::chrono::seconds lifetime() const { return lifetime_; }

 private:
  struct Session {
    std::string user;
    steady_clock::time_point end;
  };

  const std::chrono::seconds lifetime_;
  const std::size_t most_;
  std::mutex mutex_;
  std::unordered_map<std::string, Session> sessions_;
};

struct Request {
  std::string_view method, path, authorization;
  std::string session, client;
};

struct Answer {
  unsigned int status;
  const char* title;
  std::string body;
  const char* header = nullptr;  // one more than every answer has
  std::string value{};
};

// Advice about Windows is what its documentation says, not tried here.
constexpr std::string_view kNoTicket = R"(
<p>Your browser sent no ticket. Check that</p>
<ul>
<li>this computer belongs to the domain, or has a ticket of it (<code>kinit</code>),</li>
<li>you are signed in to it with a domain account,</li>
<li>the browser counts this site to its intranet zone, or to the servers that it may sign in to;
Chromium on Linux has to be started anew once it has met such a site,</li>
<li>the address bar shows this site's full name, not a number.</li>
</ul>)";

constexpr std::string_view kNtlm = R"(
<p>Your browser offered NTLM, which is not accepted here, because it got no Kerberos ticket for this
site. Check that</p>
<ul>
<li>this computer belongs to the domain and reaches a domain controller,</li>
<li>the address bar shows this site's full name, not a number,</li>
<li>the browser counts this site to its intranet zone,</li>
<li>this site's name, with HTTP/ in front, is a <code>servicePrincipalName</code> of the appliance's
account and of no other,</li>
<li>the clock of this computer is right to five minutes.</li>
</ul>)";

constexpr std::string_view kRefused = R"(
<p>Your ticket was not accepted; the appliance's log says why. Check that</p>
<ul>
<li>the ticket was not used before: open this page anew, do not repeat a request,</li>
<li>the ticket is not older than the appliance's present key: sign out of this computer and in again
(<code>klist purge</code>, <code>kdestroy</code>),</li>
<li>the clocks of this computer and of the appliance are right to five minutes,</li>
<li>this site's name, with HTTP/ in front, is a <code>servicePrincipalName</code> of the appliance's
account and of no other.</li>
</ul>)";

std::string Escaped(std::string_view text) {
  std::string html;
  for (const char c : text) {
    switch (c) {
      case '&': html += "&amp;"; break;
      case '<': html += "&lt;"; break;
      case '>': html += "&gt;"; break;
      case '"': html += "&quot;"; break;
      case '\'': html += "&#39;"; break;
      default: html += c;
    }
  }
  return html;
}

std::string Page(const Answer& answer) {
  const std::string title = answer.title;
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<meta charset=\"utf-8\">\n<title>" + title +
         "</title>\n<h1>" + title + "</h1>" + answer.body + "\n</html>\n";
}

constexpr std::string_view kScheme = "Negotiate ";

bool IsNegotiate(std::string_view authorization) {
  return authorization.size() > kScheme.size() &&
         strncasecmp(authorization.data(), kScheme.data(), kScheme.size()) == 0;
}

// Returns what `base64` (RFC 4648, 4) stands for; empty when it is none.
std::string Decoded(std::string_view base64) {
  const std::size_t padding = base64.size() - (base64.find_last_not_of('=') + 1);
  std::string bytes(base64.size() / 4 * 3, '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                   reinterpret_cast<const unsigned char*>(base64.data()),
                                   static_cast<int>(base64.size()));
  if (size < 0 || padding > 2) return "";
  bytes.resize(static_cast<std::size_t>(size) - padding);
  return bytes;
}

// Bare or in SPNEGO, every NTLM message begins with this.
bool IsNtlm(std::string_view token) {
  using namespace std::string_view_literals;
  return token.find("NTLMSSP\0"sv) != std::string_view::npos;
}

class Gateway {
 public:
  // `realms` has joined ones, one for every worker, and outlives the gateway.
  Gateway(std::list<tavrel::KrbRealm>* realms, std::chrono::seconds lifetime, std::size_t sessions)
      : next_realm_(realms->begin()), sessions_(lifetime, sessions) {}

  Answer Serve(const Request& request) {
    if (request.path == "/sign-out") return SignOut(request);
    if (request.path != "/") return {MHD_HTTP_NOT_FOUND, "Not found", ""};
    if (request.method != "GET" && request.method != "HEAD") return WrongMethod("GET, HEAD");

    // The session comes first: the ticket of a browser that sends it again would be a replay.
    const std::string user = sessions_.UserOf(request.session);
    if (!user.empty()) return SignedIn(user);
    if (!IsNegotiate(request.authorization)) {
      return {MHD_HTTP_UNAUTHORIZED, "Sign in", std::string(kNoTicket), "WWW-Authenticate",
              "Negotiate"};
    }
    return SignIn(Decoded(request.authorization.substr(kScheme.size())), request.client);
  }

 private:
  Answer SignIn(std::string token, const std::string& client) {
    if (token.empty())
      return {MHD_HTTP_BAD_REQUEST, "Bad request", "\n<p>The token is not base64.</p>"};
    const std::string user = Realm().Authenticate(token.data(), static_cast<int>(token.size()));
    if (user.empty()) {
      // Not 401, upon which a browser would ask for a password.
      const bool ntlm = IsNtlm(token);
      Log(LOG_LEVEL_NOTICE, (ntlm ? "Refused NTLM of " : "Refused a ticket of ") + client);
      return {MHD_HTTP_FORBIDDEN, "Not signed in", std::string(ntlm ? kNtlm : kRefused)};
    }
    const std::string session = sessions_.Open(user);
    if (session.empty()) return {MHD_HTTP_INTERNAL_SERVER_ERROR, "No session", ""};
    Log(LOG_LEVEL_NOTICE, "Signed in " + user + " at " + client);
    Answer answer = SignedIn(user);
    SetCookie(answer, session, sessions_.lifetime());
    return answer;
  }

  Answer SignOut(const Request& request) {
    if (request.method != "POST") return WrongMethod("POST");  // no link or image signs a user out
    sessions_.Close(request.session);
    Answer answer = {MHD_HTTP_OK, "Signed out", "\n<p><a href=\"/\">Sign in again</a></p>"};
    SetCookie(answer, "", std::chrono::seconds(0));
    return answer;
  }

  static Answer SignedIn(const std::string& user) {
    return {MHD_HTTP_OK, "Signed in",
            "\n<p>You are <strong>" + Escaped(user) +
                "</strong>.</p>\n<form method=\"post\" action=\"/sign-out\"><button>Sign "
                "out</button></form>"};
  }

  static Answer WrongMethod(const char* allowed) {
    return {MHD_HTTP_METHOD_NOT_ALLOWED, "Method not allowed", "", "Allow", allowed};
  }

  static void SetCookie(Answer& answer, const std::string& value, std::chrono::seconds lifetime) {
    answer.header = "Set-Cookie";
    answer.value = "session=" + value + "; Max-Age=" + std::to_string(lifetime.count()) +
                   "; Path=/; HttpOnly; SameSite=Strict";
  }

  // A realm serves one call at a time: each worker keeps the one that it takes here first.
  tavrel::KrbRealm& Realm() {
    thread_local tavrel::KrbRealm* const mine = [this] {
      const std::lock_guard<std::mutex> lock(mutex_);
      return &*next_realm_++;
    }();
    return *mine;
  }

  std::mutex mutex_;
  std::list<tavrel::KrbRealm>::iterator next_realm_;
  Sessions sessions_;
};

std::string NumericAddress(const sockaddr* address) {
  const socklen_t size =
      address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  char text[NI_MAXHOST] = "";
  getnameinfo(address, size, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
  return text;
}

MHD_Result Send(MHD_Connection* connection, const Answer& answer) {
  std::string page = Page(answer);
  const std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)> response(
      MHD_create_response_from_buffer(page.size(), page.data(), MHD_RESPMEM_MUST_COPY),
      MHD_destroy_response);
  if (!response) return MHD_NO;
  MHD_add_response_header(response.get(), "Content-Type", "text/html; charset=utf-8");
  MHD_add_response_header(response.get(), "Cache-Control", "no-store");
  MHD_add_response_header(response.get(), "X-Content-Type-Options", "nosniff");
  MHD_add_response_header(response.get(), "Content-Security-Policy",
                          "default-src 'none'; form-action 'self'; frame-ancestors 'none'");
  if (answer.header != nullptr) {
    MHD_add_response_header(response.get(), answer.header, answer.value.c_str());
  }
  return MHD_queue_response(connection, answer.status, response.get());
}

// Called once when a request's header is there, with no `*state` yet, then for every piece of a
// body and once at its end. MHD_NO closes the connection.
MHD_Result Handle(void* gateway, MHD_Connection* connection, const char* path, const char* method,
                  const char* /*version*/, const char* /*body*/, std::size_t* size, void** state) {
  static int seen;
  if (std::exchange(*state, &seen) == nullptr) return MHD_YES;
  if (std::exchange(*size, 0) != 0) return MHD_YES;  // no page here takes a body
  const auto value = [&](MHD_ValueKind kind, const char* name) {
    const char* found = MHD_lookup_connection_value(connection, kind, name);
    return found != nullptr ? found : "";
  };
  try {
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    return Send(connection,
                static_cast<Gateway*>(gateway)->Serve(
                    {method, path, value(MHD_HEADER_KIND, "Authorization"),
                     value(MHD_COOKIE_KIND, "session"), NumericAddress(info->client_addr)}));
  } catch (const std::exception& error) {
    // The server is written in C: none may pass through it.
    Log(LOG_LEVEL_ERROR, error.what());
    return MHD_NO;
  }
}

// A socket that listens there; -1, with errno set, when there is none to have. Versions of
// libmicrohttpd differ in whether they tell why.
int Listen(const addrinfo& address) {
  const int listener = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener == -1) return -1;
  const int on = 1;
  if (setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
      bind(listener, address.ai_addr, address.ai_addrlen) == 0 &&
      listen(listener, SOMAXCONN) == 0) {
    return listener;
  }
  const int code = errno;
  close(listener);
  errno = code;
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int lifetime = argc > 6 ? std::atoi(argv[6]) : 28800;
  const int most = argc > 7 ? std::atoi(argv[7]) : 1000;
  if (argc < 6 || argc > 8 || lifetime < 1 || most < 1) {
    std::cerr << "usage: negotiate_gateway ADDRESS PORT DOMAIN USER KEYTAB [LIFETIME [SESSIONS]] "
                 "< PASSWORD\n";
    return 64;
  }
  // A page may be written to a connection that the browser has closed; a realm's own operations see
  // to theirs. The signals that end the program are waited for below; threads inherit that they are
  // blocked.
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  std::string password;
  std::getline(std::cin, password);
  std::list<tavrel::KrbRealm> realms;
  for (unsigned int i = 0; i < kWorkers; ++i) {
    // A realm accepts nobody before it has joined in this process. Only the first has work to do.
    std::string error;
    const int status = realms.emplace_back(argv[3], argv[4], password, argv[5]).Join(&error);
    if (status != tavrel::kSuccess || error.rfind("Unable to write Kerberos keytab", 0) == 0) {
      std::cerr << "join failed with status " << status << ": " << error << '\n';
      return status != tavrel::kSuccess ? status : tavrel::kFailure;
    }
  }
  Gateway gateway(&realms, std::chrono::seconds(lifetime), static_cast<std::size_t>(most));

  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* address = nullptr;
  if (const int code = getaddrinfo(argv[1], argv[2], &hints, &address); code != 0) {
    std::cerr << argv[1] << " port " << argv[2] << ": " << gai_strerror(code) << '\n';
    return 1;
  }
  const int listener = Listen(*address);
  const int code = errno;
  freeaddrinfo(address);
  if (listener == -1) {
    std::cerr << argv[1] << " port " << argv[2] << ": " << std::strerror(code) << '\n';
    return 1;
  }
  MHD_Daemon* const daemon = MHD_start_daemon(
      MHD_USE_AUTO_INTERNAL_THREAD, 0, nullptr, nullptr, Handle, &gateway, MHD_OPTION_LISTEN_SOCKET,
      listener, MHD_OPTION_THREAD_POOL_SIZE, kWorkers, MHD_OPTION_CONNECTION_LIMIT, kConnections,
      MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      kConnectionMemory, MHD_OPTION_END);
  if (daemon == nullptr) {
    std::cerr << argv[1] << " port " << argv[2] << ": libmicrohttpd does not start\n";
    return 1;
  }

  std::cout << "listening on " << argv[1] << " port " << argv[2] << std::endl;
  int signal = 0;
  sigwait(&ending, &signal);
  MHD_stop_daemon(daemon);
  return 0;
}
