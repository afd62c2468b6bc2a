#include "Controller.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <openssl/rand.h>
#include <resolv.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <system_error>

namespace tavrel::plus {
namespace {

constexpr int kLargestAnswer = 65535;  // the largest DNS message there is
constexpr int kTargetOffset = 6;       // behind priority, weight and port (RFC 2782)

// The resolver's settings of this thread, with a patience that half of what is left suffices for;
// as before when it goes. A name server on a slow network is given up to five seconds, and then
// ten, as resolvers do it; one second is the least that they know.
class ImpatientResolver {
 public:
  explicit ImpatientResolver(const Deadline& deadline)
      : is_ready_(InitOnce()), retrans_(_res.retrans), retry_(_res.retry), nscount_(_res.nscount) {
    constexpr int kMostPatient = 5;
    // All servers are asked for so long, and then all of them together for twice that.
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(deadline.Left());
    const auto patience = static_cast<int>((left / 2).count()) / (_res.nscount + 2);
    _res.retrans = std::clamp(patience, 1, kMostPatient);
    _res.retry = patience >= 1 ? 2 : 1;
    // Where there is no time for all, the first have it; the others stay behind them.
    timely_ = std::max(1, static_cast<int>(left.count()));
    if (timely_ < nscount_) _res.nscount = timely_;
  }
  ImpatientResolver(const ImpatientResolver&) = delete;
  ImpatientResolver& operator=(const ImpatientResolver&) = delete;
  ~ImpatientResolver() {
    _res.retrans = retrans_;
    _res.retry = retry_;
    if (timely_ < nscount_) _res.nscount = nscount_;
  }
  bool IsReady() const { return is_ready_; }

 private:
  static bool InitOnce() { return (_res.options & RES_INIT) != 0 || res_init() == 0; }

  bool is_ready_;
  int retrans_;
  int retry_;
  int nscount_;
  int timely_ = 0;
};

// Asks once more, as long as there is time, when nothing came: a name server that is busy may
// answer yet. One that refuses at once is not asked again.
template <typename Ask>
bool Patiently(const Deadline& deadline, const Ask& ask) {
  for (;;) {
    const auto before = deadline.Left();
    const ImpatientResolver resolver(deadline);
    if (!resolver.IsReady()) return false;
    const bool came = ask();
    if (came || before - deadline.Left() < std::chrono::seconds(1) || deadline.HasPassed()) {
      return true;
    }
  }
}

bool IsNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.';
}

bool IsHostName(std::string_view name) {
  return !name.empty() && name.size() < NS_MAXDNAME && name.front() != '.' &&
         std::all_of(name.begin(), name.end(), IsNameCharacter);
}

std::uint32_t Random(std::uint32_t most) {
  std::uint32_t number = 0;
  RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof number);  // 0 serves as well
  const std::uint64_t scaled = std::uint64_t{number} * (std::uint64_t{most} + 1);
  return static_cast<std::uint32_t>(scaled >> 32U);
}

// Appends what an answer names. What cannot be read, or is no host's name, is passed over.
void ReadAnswer(const unsigned char* answer, int length, std::vector<ServiceRecord>& records) {
  ns_msg message;
  if (ns_initparse(answer, length, &message) == -1) return;
  for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
    ns_rr record;
    if (ns_parserr(&message, ns_s_an, i, &record) != 0) return;
    if (ns_rr_type(record) != ns_t_srv || ns_rr_rdlen(record) <= kTargetOffset) continue;
    const unsigned char* const data = ns_rr_rdata(record);
    char target[NS_MAXDNAME];
    const int used = ns_name_uncompress(ns_msg_base(message), ns_msg_end(message),
                                        data + kTargetOffset, target, sizeof target);
    if (used == -1 || used > ns_rr_rdlen(record) - kTargetOffset || !IsHostName(target)) continue;
    records.push_back({static_cast<std::uint16_t>(ns_get16(data)),
                       static_cast<std::uint16_t>(ns_get16(data + 2)),
                       {target, static_cast<std::uint16_t>(ns_get16(data + 4))}});
  }
}

// Asks for one service; nothing found is no failure.
Failure Ask(const std::string& question, const Deadline& deadline,
            std::vector<Controller>& controllers) {
  const std::unique_ptr<unsigned char[]> answer(new unsigned char[kLargestAnswer]);
  int length = 0;
  if (!Patiently(deadline, [&] {
        length = res_query(question.c_str(), ns_c_in, ns_t_srv, answer.get(), kLargestAnswer);
        return length >= 0 || h_errno != TRY_AGAIN;
      })) {
    return {Cause::kLibrary, "The resolver cannot be set up"};
  }
  if (length < 0) {
    if (h_errno == HOST_NOT_FOUND || h_errno == NO_DATA) return {};
    return {h_errno == TRY_AGAIN ? Cause::kTimedOut : Cause::kNoController,
            question + ": " + hstrerror(h_errno)};
  }

  std::vector<ServiceRecord> records;
  ReadAnswer(answer.get(), std::min(length, kLargestAnswer), records);
  Arrange(records, Random);
  for (ServiceRecord& record : records) {
    const auto is_same = [&](const Controller& other) {
      return strcasecmp(other.name.c_str(), record.controller.name.c_str()) == 0 &&
             other.port == record.controller.port;
    };
    if (std::none_of(controllers.begin(), controllers.end(), is_same)) {
      controllers.push_back(std::move(record.controller));
    }
  }
  return {};
}

}  // namespace

bool ParseController(std::string_view text, Controller& controller) {
  const std::size_t colon = text.rfind(':');
  if (colon != std::string_view::npos) {
    const std::string_view digits = text.substr(colon + 1);
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, controller.port);
    if (error != std::errc() || stop != end || controller.port == 0) return false;
    text = text.substr(0, colon);
  }
  if (!text.empty() && text.back() == '.') text.remove_suffix(1);
  controller.name = text;
  return IsHostName(text);
}

void Arrange(std::vector<ServiceRecord>& records,
             const std::function<std::uint32_t(std::uint32_t)>& random) {
  // Those without a weight come first among equals, so that they are drawn hardly ever, not never.
  std::stable_sort(records.begin(), records.end(),
                   [](const ServiceRecord& a, const ServiceRecord& b) {
                     if (a.priority != b.priority) return a.priority < b.priority;
                     return a.weight == 0 && b.weight != 0;
                   });
  for (auto next = records.begin(); next != records.end(); ++next) {
    std::uint32_t sum = 0;
    auto last = next;
    for (; last != records.end() && last->priority == next->priority; ++last)
      sum += last->weight;
    std::uint32_t drawn = random(sum);
    auto chosen = next;
    while (chosen + 1 != last && drawn > chosen->weight) {
      drawn -= chosen->weight;
      ++chosen;
    }
    std::rotate(next, chosen, chosen + 1);
  }
}

Failure FindControllers(const std::string& domain, const std::string& site,
                        const Deadline& deadline, std::vector<Controller>& controllers) {
  const std::string all = "dc._msdcs." + domain;
  if (!site.empty()) {
    if (Failure failure = Ask("_ldap._tcp." + site + "._sites." + all, deadline, controllers)) {
      return failure;
    }
  }
  if (Failure failure = Ask("_ldap._tcp." + all, deadline, controllers);
      failure && controllers.empty()) {
    return failure;
  }
  if (controllers.empty()) return {Cause::kNoController, "DNS names no controller of " + domain};
  return {};
}

Failure Resolve(const std::string& name, const Deadline& deadline,
                std::vector<Address>& addresses) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  int code = 0;
  if (!Patiently(deadline, [&] {
        // The "." keeps the search list away: the name is complete.
        code = getaddrinfo((name + '.').c_str(), nullptr, &hints, &found);
        if (code == EAI_NONAME) code = getaddrinfo(name.c_str(), nullptr, &hints, &found);
        return code != EAI_AGAIN;
      })) {
    return {Cause::kLibrary, "The resolver cannot be set up"};
  }
  if (code != 0) return {Cause::kUnreachable, name + ": " + gai_strerror(code)};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, freeaddrinfo);
  for (const addrinfo* info = found; info != nullptr; info = info->ai_next) {
    Address address;
    if (info->ai_addrlen > sizeof address.storage) continue;
    std::memcpy(&address.storage, info->ai_addr, info->ai_addrlen);
    address.size = info->ai_addrlen;
    addresses.push_back(address);
  }
  return {};
}

Failure ConnectionFailure(int error) {
  return {error == ETIMEDOUT ? Cause::kTimedOut : Cause::kUnreachable,
          std::generic_category().message(error)};
}

}  // namespace tavrel::plus
