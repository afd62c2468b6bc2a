// Requests at the daemon's gate. The input is lines: the Authorization header, the cookie, the
// host, the request's name, the client's address; and behind them text for what else reads a
// proxy's words. In the cookie a byte 0xC0 stands for one that is good for box.corp.example.com.
// Nobody is let in but by that one, as it is.
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "Expect.h"
#include "Records.h"
#include "Service.h"
#include "authd/Front.h"
#include "authd/Gate.h"
#include "authd/Log.h"
#include "authd/Squid.h"
#include "common/Text.h"

// In place of the daemon's own log, which would fill the screen.
namespace tavrel::tools {
JsonObject Record(std::string_view /*level*/, std::string_view /*event*/) {
  return {};
}
void Write(const JsonObject& record) {
  fuzz::Expect(record.Text().find('\n') == std::string::npos, "a record is one line");
}
void WriteFailure(std::string_view /*what*/, const std::exception& /*error*/) noexcept {}
}  // namespace tavrel::tools

namespace tavrel::fuzz {
namespace {

using namespace tools;

constexpr std::string_view kHost = "box.corp.example.com";

struct Scene {
  Scene() {
    std::string error;
    auto policy = Policy::Parse("allow everyone", "policy", &error);
    auto keys = SessionKeys::Parse(std::string(64, 'a'), "keys", &error);
    User alice;
    alice.name = "alice@CORP.EXAMPLE.COM";
    alice.signed_in = Now();
    Sessions sessions(std::move(*keys), std::chrono::hours(8), std::chrono::hours(8));
    cookie = sessions.Seal(alice, kHost, Now());
    gate = std::make_unique<Gate>(service.Make(), std::make_shared<const Rules>(Rules{
                                                      std::move(*policy), std::move(sessions)}));
  }

  plus::tests::Service service;
  std::string cookie;
  std::unique_ptr<Gate> gate;
  Metrics metrics;
};

std::string_view TakeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

void Try(std::string_view text) {
  static Scene scene;
  TheLog().Clear();
  const std::string_view authorization = TakeLine(text);
  std::string cookie;
  for (const char c : TakeLine(text)) {
    if (c == '\xC0') {
      cookie += scene.cookie;
    } else {
      cookie += c;
    }
  }
  const std::string host = HostOf(TakeLine(text));
  Question question;
  question.authorization = authorization;
  question.cookie = cookie;
  question.host = host;
  question.request = TakeLine(text);
  question.client = ForwardedFor(TakeLine(text), {});
  const bool good = cookie == scene.cookie && host == kHost;

  const Answer answer = scene.gate->Decide(question);

  Expect((answer.verdict == Answer::Verdict::kAllowed) == good, "the good cookie alone lets in");
  Expect(good == !answer.user.name.empty(), "nobody has a name otherwise");
  const std::string squid = AnswerSquid(text, scene.gate.get(), &scene.metrics);
  Expect(squid.rfind("ERR ", 0) == 0 || squid.rfind("BH ", 0) == 0, "Squid is told of nobody");
  Expect(squid.find('\n') == std::string::npos, "an answer is one line");
  std::string error;
  Policy::Parse(text, "policy", &error);
  SessionKeys::Parse(text, "keys", &error);
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tavrel::fuzz::Try({reinterpret_cast<const char*>(data), size});
  return 0;
}
