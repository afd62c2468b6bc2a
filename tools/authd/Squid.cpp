#include "authd/Squid.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>
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
constexpr int kPause = 100;  // in milliseconds, before another try
// A helper takes three descriptors. What is left of the 8192 that the unit allows is HTTP's.
constexpr std::size_t kMostHelpers = 2048;

// Squid ends itself when it is not given a token to send to the client. This one stands for none.
constexpr std::string_view kNoReply = "AA==";

std::string Told(std::string_view verdict, std::string_view text) {
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

// Reads what a socket has, which may be nothing; false at the end of the input. Never waits: who
// lends a socket can make O_NONBLOCK mean nothing at any time.
bool Read(int from, std::string& buffer) {
  char chunk[kChunk];
  const ssize_t got = recv(from, chunk, sizeof chunk, MSG_DONTWAIT);
  if (got == -1 && (errno == EAGAIN || errno == EINTR)) return true;
  if (got <= 0) return false;
  buffer.append(chunk, static_cast<std::size_t>(got));
  return true;
}

// Sends an answer, without waiting: a Squid that does not take the answer to its own question is
// broken.
bool Send(int to, const std::string& answer) {
  const std::string line = answer + "\n";
  const ssize_t sent = send(to, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(line.size());
}

bool IsUnixStream(int descriptor) {
  int domain = 0;
  int type = 0;
  socklen_t size = sizeof(int);
  return getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
         getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && domain == AF_UNIX &&
         type == SOCK_STREAM;
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (descriptor_ != -1) close(descriptor_);
  }
  int Get() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ != -1; }

 private:
  int descriptor_;
};

// --- what a helper lends -------------------------------------------------------------------------

// What a helper has to know when its daemon is gone: a word that both share.
enum State : std::uint32_t {
  kLentAlone,  // the daemon has not taken over
  kIdle,       // all that was read is answered
  kBusy,       // there may be a question that was read and is not answered
  kOver,       // Squid asks no more
};
using SharedWord = std::atomic<std::uint32_t>;
static_assert(SharedWord::is_always_lock_free);
struct Unmap {
  void operator()(SharedWord* word) const { munmap(word, sizeof *word); }
};
using SharedState = std::unique_ptr<SharedWord, Unmap>;
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW;  // it stays as long as it is

SharedState Share(const Descriptor& memory) {
  void* const word =
      mmap(nullptr, sizeof(SharedWord), PROT_READ | PROT_WRITE, MAP_SHARED, memory.Get(), 0);
  return SharedState(word != MAP_FAILED ? static_cast<SharedWord*>(word) : nullptr);
}

constexpr std::size_t kLent = 3;  // input, output, and the shared word
struct Message {
  Message() {
    header.msg_iov = &content;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
  }
  char byte = 0;  // a message needs one
  iovec content{&byte, sizeof byte};
  alignas(cmsghdr) char control[CMSG_SPACE(kLent * sizeof(int))]{};
  msghdr header{};
};

bool Lend(const Descriptor& daemon, const std::array<int, kLent>& lent) {
  Message message;
  cmsghdr* const rights = CMSG_FIRSTHDR(&message.header);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof lent);
  std::memcpy(CMSG_DATA(rights), lent.data(), sizeof lent);
  return sendmsg(daemon.Get(), &message.header, MSG_NOSIGNAL) == 1;
}

// Fewer descriptors than kLent when it was another message.
std::vector<Descriptor> Borrow(const Descriptor& helper) {
  Message message;
  std::vector<Descriptor> lent;
  lent.reserve(kLent);
  if (recvmsg(helper.Get(), &message.header, MSG_CMSG_CLOEXEC) != 1) return lent;
  const cmsghdr* const rights = CMSG_FIRSTHDR(&message.header);
  if (rights == nullptr || rights->cmsg_type != SCM_RIGHTS) return lent;
  for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= rights->cmsg_len; at += sizeof(int)) {
    int one = -1;
    std::memcpy(&one, CMSG_DATA(rights) + at, sizeof one);
    lent.emplace_back(one);
  }
  return lent;
}

}  // namespace

std::string AnswerSquid(std::string_view line, Gate* gate, Metrics* metrics) {
  const auto begin = std::chrono::steady_clock::now();
  const std::vector<std::string_view> words = Words(line);
  if (words.size() < 2 || words.size() > 3 || (words[0] != "YR" && words[0] != "KK")) {
    return Told("BH", "not a request of the negotiate protocol");
  }
  Question question;
  const std::string authorization = "Negotiate " + std::string(words[1]);
  question.authorization = authorization;
  if (words.size() == 3) question.client = Address::Parse(words[2]);
  const Answer answer = gate->Decide(question);
  metrics->Count(answer.result, std::chrono::steady_clock::now() - begin);
  if (answer.verdict != Answer::Verdict::kAllowed) return Told("ERR", answer.reason);

  std::string reply = "OK token=";
  reply += answer.reply.empty() ? std::string(kNoReply) : ToBase64(answer.reply);
  reply += " user=\"" + answer.user.name + "\"";
  for (const plus::Sid& group : answer.user.groups)
    reply += " group=" + group.ToText();
  if (reply.size() <= kLongestAnswer) return reply;
  return Told("ERR", "the user is in more groups than Squid can be told of");
}

// --- the daemon ----------------------------------------------------------------------------------

struct SquidServer::Helper {
  std::uint64_t name = 0;
  Descriptor control{};          // ends with the helper
  Descriptor input{}, output{};  // none until the helper has lent them
  SharedState state{};
  std::string buffer{};
};

namespace {

// What epoll names an event by: a helper's name, and a bit for what of it.
constexpr std::uint64_t kFromSquid = 1;
constexpr std::uint64_t kName = 2;  // the least of a helper
constexpr std::uint64_t kWake = 0;
constexpr std::uint64_t kListener = 1;

}  // namespace

SquidServer::SquidServer(int listener, Gate* gate, Metrics* metrics)
    : listener_(listener),
      gate_(gate),
      metrics_(metrics),
      wake_(eventfd(0, EFD_CLOEXEC)),
      watched_(epoll_create1(EPOLL_CLOEXEC)) {
  Watch(wake_, kWake);
  Watch(listener_, kListener);
  thread_ = std::thread([this] { Run(); });
}

SquidServer::~SquidServer() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t wrote = write(wake_, &one, sizeof one);
  thread_.join();
  for (const int descriptor : {wake_, watched_, listener_})
    close(descriptor);
}

void SquidServer::Watch(int descriptor, std::uint64_t name) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = name;
  if (epoll_ctl(watched_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll");
  }
}

void SquidServer::Run() {
  std::array<epoll_event, 64> events{};
  for (bool ending = false; !ending;) {
    const int count = epoll_wait(watched_, events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      const std::uint64_t event = events[static_cast<std::size_t>(i)].data.u64;
      if (event == kWake) {
        ending = true;
      } else if (event == kListener) {
        Welcome();
      } else if (const auto found = helpers_.find(event & ~kFromSquid);
                 found != helpers_.end() && !Heard(*found->second, (event & kFromSquid) != 0)) {
        helpers_.erase(found);
      }
    }
  }
  helpers_.clear();
}

// No exception ends the thread: memory that is short costs one helper.
void SquidServer::Welcome() {
  Descriptor control(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!control) {
    poll(nullptr, 0, kPause);  // too many are open, and that one stays in the queue
    return;
  }
  if (helpers_.size() >= kMostHelpers) return;
  try {
    const std::uint64_t name = last_name_ += kName;
    Watch(control.Get(), name);
    auto helper = std::make_unique<Helper>();
    helper->control = std::move(control);
    helper->name = name;
    helpers_.emplace(name, std::move(helper));
  } catch (const std::exception& error) {
    WriteFailure("squid", error);
  }
}

bool SquidServer::Heard(Helper& helper, bool from_squid) const {
  try {
    if (from_squid) return Serve(helper);
    return !helper.input && TakeOver(helper);
  } catch (const std::exception& error) {
    WriteFailure("squid", error);
    return false;
  }
}

bool SquidServer::TakeOver(Helper& helper) const {
  std::vector<Descriptor> lent = Borrow(helper.control);
  if (lent.size() != kLent) return false;
  const int seals = fcntl(lent[2].Get(), F_GET_SEALS);
  struct stat status {};
  if (seals == -1 || (seals & kSeals) != kSeals || fstat(lent[2].Get(), &status) != 0 ||
      status.st_size != ssize_t{sizeof(SharedWord)} || !IsUnixStream(lent[0].Get()) ||
      !IsUnixStream(lent[1].Get())) {
    return false;
  }
  helper.state = Share(lent[2]);
  helper.input = std::move(lent[0]);
  helper.output = std::move(lent[1]);
  if (!helper.state) return false;
  Watch(helper.input.Get(), helper.name | kFromSquid);
  helper.state->store(kIdle);
  return true;
}

bool SquidServer::Serve(Helper& helper) const {
  helper.state->store(kBusy);
  if (!Read(helper.input.Get(), helper.buffer)) {
    helper.state->store(kOver);
    return false;
  }
  std::string line;
  while (TakeLine(helper.buffer, line)) {
    if (!Send(helper.output.Get(), AnswerSquid(line, gate_, metrics_))) return false;
  }
  if (helper.buffer.empty()) helper.state->store(kIdle);
  return helper.buffer.size() <= kLongestLine;
}

// --- the helper ----------------------------------------------------------------------------------

namespace {

Descriptor ConnectTo(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return Descriptor();
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  Descriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!client ||
      connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return Descriptor();
  }
  return client;
}

// Lends the daemon Squid's input and output, and returns when the daemon is gone. The last state
// that it left; nothing when it did not take them.
std::optional<std::uint32_t> LendUntilGone(const std::string& socket, int input, int output) {
  const Descriptor daemon = ConnectTo(socket);
  const Descriptor memory(memfd_create("tavrel-squid", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!daemon || !memory || ftruncate(memory.Get(), sizeof(SharedWord)) != 0 ||
      fcntl(memory.Get(), F_ADD_SEALS, kSeals) != 0) {
    return std::nullopt;
  }
  const SharedState state = Share(memory);
  if (!state || !Lend(daemon, {input, output, memory.Get()})) return std::nullopt;
  pollfd end{daemon.Get(), POLLIN, 0};
  while (poll(&end, 1, -1) == -1) {
  }
  const std::uint32_t left = state->load();
  return left != kLentAlone ? std::optional(left) : std::nullopt;
}

// Between sockets.
int Help(const std::string& socket, int input, int output) {
  std::string buffer;
  std::string line;
  for (;;) {
    pollfd asked{input, POLLIN, 0};
    poll(&asked, 1, -1);
    if (buffer.empty()) {
      const auto state = LendUntilGone(socket, input, output);
      if (state == kOver) return 0;
      if (state == kBusy) return 1;
      if (state) {
        poll(nullptr, 0, kPause);  // it ends, and may begin anew
        continue;
      }
    }
    if (!Read(input, buffer)) return 0;
    while (TakeLine(buffer, line)) {
      if (!Send(output, Told("BH", "tavrel-authd does not answer"))) return 1;
    }
    if (buffer.size() > kLongestLine) return 1;
  }
}

// Copies until the input ends, or nobody takes the output.
void Copy(int from, int to) {
  char chunk[kChunk];
  for (;;) {
    const ssize_t got = read(from, chunk, sizeof chunk);
    if (got == -1 && errno == EINTR) continue;
    if (got <= 0 || !WriteAll(to, {chunk, static_cast<std::size_t>(got)})) break;
  }
  shutdown(to, SHUT_WR);
}

}  // namespace

int RunSquidHelper(const std::string& socket) {
  if (IsUnixStream(STDIN_FILENO) && IsUnixStream(STDOUT_FILENO)) {
    return Help(socket, STDIN_FILENO, STDOUT_FILENO);
  }
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 1;
  const auto [ours, lent] = ends;
  std::thread(Copy, STDIN_FILENO, ours).detach();  // it ends with the process
  std::thread back(Copy, ours, STDOUT_FILENO);
  const int status = Help(socket, lent, lent);
  shutdown(lent, SHUT_RDWR);
  back.join();
  return status;
}

}  // namespace tavrel::tools
