#include "authd/Squid.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <vector>

#include "authd/Log.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

// A token of 64 KB in base64, and what stands around it.
constexpr std::size_t kLongestLine = 96UL * 1024;
// Squid ends a helper whose answer is longer than its buffer of 32 KB.
constexpr std::size_t kLongestAnswer = 32000;
constexpr std::size_t kChunk = 16384;

// Squid ends itself when it is not given a token to send to the client. This one stands for none.
constexpr std::string_view kNoReply = "AA==";

std::string Message(std::string_view verdict, std::string_view text) {
  std::string clean;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\') continue;
    clean += c;
  }
  return std::string(verdict) + " message=\"" + clean + "\"";
}

bool WriteAll(int to, std::string_view text) {
  while (!text.empty()) {
    const ssize_t wrote = write(to, text.data(), text.size());
    if (wrote == -1 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(wrote));
  }
  return true;
}

// Takes the first line off `buffer`, without its newline; false when it has none.
bool TakeLine(std::string& buffer, std::string& line) {
  const std::size_t end = buffer.find('\n');
  if (end == std::string::npos) return false;
  line = buffer.substr(0, end);
  buffer.erase(0, end + 1);
  return true;
}

bool Read(int from, std::string& buffer) {
  char chunk[kChunk];
  ssize_t got = 0;
  do {
    got = read(from, chunk, sizeof chunk);
  } while (got == -1 && errno == EINTR);
  if (got <= 0) return false;
  buffer.append(chunk, static_cast<std::size_t>(got));
  return true;
}

}  // namespace

std::string AnswerSquid(std::string_view line, Gate* gate, Metrics* metrics) {
  const auto begin = std::chrono::steady_clock::now();
  const std::vector<std::string_view> words = Words(line);
  if (words.size() < 2 || words.size() > 3 || (words[0] != "YR" && words[0] != "KK")) {
    return Message("BH", "not a request of the negotiate protocol");
  }
  Question question;
  const std::string authorization = "Negotiate " + std::string(words[1]);
  question.authorization = authorization;
  if (words.size() == 3) question.client = Address::Parse(words[2]);
  const Answer answer = gate->Decide(question);
  metrics->Count(answer.result, std::chrono::steady_clock::now() - begin);
  if (answer.verdict != Answer::Verdict::kAllowed) return Message("ERR", answer.reason);

  std::string reply = "OK token=";
  reply += answer.reply.empty() ? std::string(kNoReply) : ToBase64(answer.reply);
  reply += " user=\"" + answer.user.name + "\"";
  for (const plus::Sid& group : answer.user.groups)
    reply += " group=" + group.ToText();
  if (reply.size() <= kLongestAnswer) return reply;
  return Message("ERR", "the user is in more groups than Squid can be told of");
}

// --- the daemon ----------------------------------------------------------------------------------

SquidServer::SquidServer(int listener, Gate* gate, Metrics* metrics)
    : listener_(listener),
      gate_(gate),
      metrics_(metrics),
      wake_(eventfd(0, EFD_CLOEXEC)),
      thread_([this] { Run(); }) {}

SquidServer::~SquidServer() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t wrote = write(wake_, &one, sizeof one);
  thread_.join();
  close(wake_);
  close(listener_);
}

void SquidServer::Run() {
  std::list<Helper> helpers;
  std::vector<pollfd> polled;
  do {
    polled.assign({{wake_, POLLIN, 0}, {listener_, POLLIN, 0}});
    for (const Helper& helper : helpers)
      polled.push_back({helper.socket, POLLIN, 0});
    if (poll(polled.data(), polled.size(), -1) == -1) continue;
    auto helper = helpers.begin();
    for (std::size_t i = 2; i < polled.size(); ++i) {
      if (polled[i].revents != 0 && !Serve(*helper)) {
        close(helper->socket);
        helper = helpers.erase(helper);
      } else {
        ++helper;
      }
    }
    if ((polled[1].revents & POLLIN) != 0) {
      const int socket = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (socket != -1) helpers.push_back({socket, ""});
    }
  } while ((polled[0].revents & POLLIN) == 0);
  for (const Helper& helper : helpers)
    close(helper.socket);
}

bool SquidServer::Serve(Helper& helper) const {
  if (!Read(helper.socket, helper.buffer)) return false;
  std::string line;
  while (TakeLine(helper.buffer, line)) {
    // A helper that does not take an answer of its own question has a full socket: it is broken.
    if (!WriteAll(helper.socket, AnswerSquid(line, gate_, metrics_) + "\n")) return false;
  }
  return helper.buffer.size() <= kLongestLine;
}

// --- the helper ----------------------------------------------------------------------------------

namespace {

int ConnectTo(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return -1;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (client == -1) return -1;
  if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return client;
  }
  close(client);
  return -1;
}

// Asks on a connection that may have ended since it was last used.
bool Ask(int& daemon, const std::string& question, std::string& answer) {
  std::string buffer;
  if (daemon != -1 && WriteAll(daemon, question)) {
    while (Read(daemon, buffer)) {
      if (TakeLine(buffer, answer)) return true;
    }
  }
  if (daemon != -1) close(daemon);
  daemon = -1;
  return false;
}

}  // namespace

int RunSquidHelper(const std::string& socket) {
  int daemon = ConnectTo(socket);
  std::string buffer;
  std::string line;
  for (;;) {
    while (TakeLine(buffer, line)) {
      std::string answer;
      line += '\n';
      // A token that was taken to a daemon that then ended is not asked about twice: it could count
      // as a replay. Nothing was taken where there was no connection.
      if (daemon == -1) daemon = ConnectTo(socket);
      if (!Ask(daemon, line, answer)) answer = Message("BH", "tavrel-authd does not answer");
      if (!WriteAll(STDOUT_FILENO, answer + "\n")) return 1;
    }
    if (buffer.size() > kLongestLine) return 1;
    if (!Read(STDIN_FILENO, buffer)) break;
  }
  if (daemon != -1) close(daemon);
  return 0;
}

}  // namespace tavrel::tools
