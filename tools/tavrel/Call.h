// What the subcommands that work on this machine's membership have in common: their command line,
// how they wait, and what they say at the end.
#ifndef TAVREL_TOOLS_TAVREL_CALL_H
#define TAVREL_TOOLS_TAVREL_CALL_H

#include <openssl/crypto.h>
#include <tavrel/Ldap.h>
#include <tavrel/plus/Membership.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "tavrel/Command.h"
#include "tavrel/Config.h"
#include "tavrel/Printer.h"

namespace tavrel::tools {

constexpr int kFailed = 1;
constexpr int kNotNow = 75;      // trying again later may help
constexpr int kNotAllowed = 77;  // the credentials are wrong, or not allowed to do it
constexpr int kWrongConfig = 78;

// A secret, wiped when it is let go.
struct Secret {
  std::string text;
  Secret() = default;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { OPENSSL_cleanse(text.data(), text.size()); }
};

struct Call {
  const char* name;
  bool json = false;
  bool due = false;     // rotate
  bool remove = false;  // leave
  bool join = false;    // check
  std::list<LdapServer> servers;
  int attempts = 5;
  std::string config_file = "/etc/tavrel/tavrel.conf";
  std::string user, password_file, cache;
  bool use_cache = false, one_time = false;
  std::optional<Config> config;

  // Reads a command line of the options with these letters. 0, or the exit status; the complaint is
  // on standard error then.
  int Read(int argc, char** argv, std::string_view usage, std::string_view letters);
  // The first line of the password file, or of standard input; asked for without echo on a
  // terminal. False when there is none.
  bool ReadPassword(Secret& password) const;
  // Nothing when the password cannot be read.
  std::optional<plus::Credentials> Credentials() const;

  int Complain(std::string_view what, int status) const {
    std::cerr << "tavrel " << name << ": " << what << '\n';
    return status;
  }
  int NoPassword() const { return Complain("there is no password to read", kUsage); }
};

// What to do about a failure; empty when nobody knows.
std::string_view Remedy(plus::Cause cause);

// The cause as a command names it.
inline std::string_view Name(plus::Cause cause) {
  return cause == plus::Cause::kNone ? "done" : plus::ToText(cause);
}

// Says where and why an operation ended, and what to do; returns the exit status.
int Conclude(const plus::Result& result, Printer& printer);

// Runs what may take long, and says so after a second to whoever looks at a terminal. Nothing when
// it has not returned within `limit`. It then goes on, and nothing can stop it: returning from
// main() would destroy static objects that it still uses, so the process has to end with
// std::_Exit().
template <typename Work>
auto Patiently(const Call& call, std::chrono::seconds limit, Work work)
    -> std::optional<decltype(work())> {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  std::packaged_task<decltype(work())()> task(std::move(work));
  auto result = task.get_future();
  std::thread thread(std::move(task));
  if (isatty(STDERR_FILENO) == 1 &&
      result.wait_for(std::chrono::seconds(1)) != std::future_status::ready) {
    std::cerr << "tavrel " << call.name << ": at work, " << limit.count() << " s at most\n";
  }
  if (result.wait_for(limit) != std::future_status::ready) {
    thread.detach();
    return std::nullopt;
  }
  thread.join();
  return result.get();
}

}  // namespace tavrel::tools

#endif
