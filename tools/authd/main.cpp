// tavrel-authd: signs users in for proxies, by their Kerberos tickets. tavrel-authd(8) describes
// it.
#include <fcntl.h>
#include <getopt.h>
#include <openssl/crypto.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "authd/Config.h"
#include "authd/Front.h"
#include "authd/Gate.h"
#include "authd/Http.h"
#include "authd/Log.h"
#include "authd/Metrics.h"
#include "authd/Squid.h"
#include "authd/Systemd.h"
#include "common/Text.h"

namespace tavrel::tools {
namespace {

constexpr int kUsage = 64;
constexpr int kConfig = 78;
constexpr char kDefaultConfig[] = "/etc/tavrel/authd.conf";
constexpr char kDefaultSquidSocket[] = "/run/tavrel/squid.sock";
constexpr std::size_t kLargestFile = std::size_t{1024} * 1024;
constexpr std::size_t kOldKeys = 2;
constexpr std::int64_t kDefaultDelay = 600;
constexpr std::chrono::seconds kDrain{10};

int Complain(const std::string& what, int status) {
  std::cerr << "tavrel-authd: " << what << '\n';
  return status;
}

std::shared_ptr<const Rules> ReadRules(const Config& config, std::string* error) {
  const auto policy_text = ReadFile(config.policy, kLargestFile, error);
  if (!policy_text) return nullptr;
  auto policy = Policy::Parse(*policy_text, config.policy, error);
  if (!policy) return nullptr;
  std::optional<Sessions> sessions;
  if (!config.session_keys.empty()) {
    auto keys_text = ReadFile(config.session_keys, kLargestFile, error);
    if (!keys_text) return nullptr;
    auto keys = SessionKeys::Parse(*keys_text, config.session_keys, error);
    const std::size_t size = keys_text->size();
    OPENSSL_cleanse(keys_text->data(), size);
    if (!keys) return nullptr;
    sessions.emplace(std::move(*keys), config.session_lifetime, config.session_idle);
  }
  return std::make_shared<const Rules>(Rules{std::move(*policy), std::move(sessions)});
}

// What changes when a file is written or replaced.
std::string Stamp(const std::string& path) {
  struct stat status {};
  if (path.empty() || stat(path.c_str(), &status) != 0) return "";
  return std::to_string(status.st_ino) + ":" + std::to_string(status.st_size) + ":" +
         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

HttpAnswer ServeStatus(const HttpRequest& request, const Metrics& metrics) {
  HttpAnswer answer;
  answer.headers.emplace_back("Content-Type", "text/plain; version=0.0.4; charset=utf-8");
  if (request.path() == "/healthz") {
    answer.body = "ok\n";
  } else if (request.path() == "/metrics") {
    answer.body = metrics.Text();
  } else {
    answer.status = HttpStatus::kNotFound;
  }
  return answer;
}

// The socket that the service manager has opened, or one that is opened here; -1 without a place.
int Obtain(const std::map<std::string, int>& passed, const char* name, const std::string& where,
           std::string* error) {
  const auto found = passed.find(name);
  if (found != passed.end()) return found->second;
  return where.empty() ? -1 : Listen(where, error);
}

// Exchanges the rules unless a file is wrong.
void Reload(const Config& config, Gate& gate) {
  std::string error;
  const auto rules = ReadRules(config, &error);
  if (rules == nullptr) {
    Write(Record("error", "not-reloaded").Add("reason", error));
    Notify("STATUS=old rules kept: " + error);
    return;
  }
  gate.SetRules(rules);
  Write(Record("info", "reloaded"));
  Notify("STATUS=");
}

// Returns when the daemon is to end. Until then it reads anew what has changed, and ends
// connections whose time is over.
void WatchUntilTerm(const Config& config, const sigset_t& signals, Gate& gate,
                    std::initializer_list<HttpServer*> servers) {
  std::string stamp = Stamp(config.session_keys);
  const timespec second = {1, 0};
  for (;;) {
    const int signal = sigtimedwait(&signals, nullptr, &second);
    if (signal == SIGTERM || signal == SIGINT) return;
    for (HttpServer* server : servers) {
      if (server != nullptr) server->EndOverdue();
    }
    std::string changed = Stamp(config.session_keys);
    if (signal != SIGHUP && changed == stamp) continue;
    stamp = std::move(changed);
    Reload(config, gate);
  }
}

int Serve(const std::string& config_file, bool check_only) {
  prctl(PR_SET_DUMPABLE, 0);  // a core file would have the keys in it
  std::string error;
  const auto text = ReadFile(config_file, kLargestFile, &error);
  if (!text) return Complain(error, kConfig);
  const auto config = Config::Parse(*text, config_file, &error);
  if (!config) return Complain(error, kConfig);
  const auto rules = ReadRules(*config, &error);
  if (rules == nullptr) return Complain(error, kConfig);
  plus::AcceptorOptions options = config->acceptor;
  // The replay file would belong to whoever checks.
  if (check_only) options.replay_protection = false;
  auto acceptor = plus::Acceptor::Make(options, &error);
  if (acceptor == nullptr) return Complain(error, kConfig);
  if (check_only) return 0;

  // Threads inherit what is blocked; the signals are waited for below.
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const auto passed = PassedSockets({"http", "status", "squid"}, &error);
  const int http = Obtain(passed, "http", config->listen, &error);
  const int status = Obtain(passed, "status", config->status_listen, &error);
  const int squid = Obtain(passed, "squid", config->squid_listen, &error);
  if (!error.empty()) return Complain(error, 1);
  if (http == -1 && squid == -1) {
    return Complain(config_file + ": neither 'listen' nor 'squid_listen'", kConfig);
  }

  Metrics metrics;
  Gate gate(std::move(acceptor), rules);
  const Front front(config->front, &gate, &metrics);
  std::unique_ptr<HttpServer> front_server;
  std::unique_ptr<HttpServer> status_server;
  std::unique_ptr<SquidServer> squid_server;
  if (http != -1) {
    front_server = std::make_unique<HttpServer>(
        http, config->limits, [&](const HttpRequest& request) { return front.Serve(request); });
  }
  if (status != -1) {
    status_server = std::make_unique<HttpServer>(
        status, config->limits,
        [&](const HttpRequest& request) { return ServeStatus(request, metrics); });
  }
  if (squid != -1) squid_server = std::make_unique<SquidServer>(squid, &gate, &metrics);
  Write(Record("info", "ready"));
  Notify("READY=1");
  WatchUntilTerm(*config, signals, gate, {front_server.get(), status_server.get()});

  Notify("STOPPING=1");
  Write(Record("info", "ending"));
  if (front_server) front_server->Drain(kDrain);
  squid_server.reset();
  Write(Record("info", "ended"));
  return 0;
}

// Writes the file anew beside the old one, which it takes the owner of, and replaces that.
int AddKey(const std::string& path, std::int64_t delay) {
  std::string error;
  struct stat old {};
  const bool exists = stat(path.c_str(), &old) == 0;
  std::string text;
  if (exists) {
    const auto contents = ReadFile(path, kLargestFile, &error);
    if (!contents) return Complain(error, 1);
    text = *contents;
  }
  const auto added = SessionKeys::WithNewKey(text, path, Now() + delay, kOldKeys, &error);
  if (!added) return Complain(error, 1);
  const std::string fresh = path + ".new";
  unlink(fresh.c_str());
  const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  bool done = file != -1;
  done = done && write(file, added->data(), added->size()) == static_cast<ssize_t>(added->size());
  done = done && (!exists || (fchown(file, old.st_uid, old.st_gid) == 0 &&
                              fchmod(file, old.st_mode & 0640U) == 0));
  done = done && fsync(file) == 0;
  const int code = errno;
  if (file != -1) close(file);
  if (done && rename(fresh.c_str(), path.c_str()) == 0) return 0;
  const std::string why = std::strerror(done ? errno : code);
  if (file != -1) unlink(fresh.c_str());
  return Complain(path + ": " + why, 1);
}

int Usage() {
  std::cerr << "usage: tavrel-authd [--config FILE] [--check]\n"
               "       tavrel-authd --squid [SOCKET]\n"
               "       tavrel-authd --add-key FILE [--delay TIME]\n";
  return kUsage;
}

int Run(int argc, char** argv) {
  static const option kLong[] = {
      {"config", required_argument, nullptr, 'c'}, {"check", no_argument, nullptr, 'k'},
      {"squid", no_argument, nullptr, 's'},        {"add-key", required_argument, nullptr, 'a'},
      {"delay", required_argument, nullptr, 'd'},  {nullptr, 0, nullptr, 0}};
  std::string config = kDefaultConfig;
  std::string key_file;
  bool check = false;
  bool squid = false;
  std::int64_t delay = kDefaultDelay;
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kLong, nullptr)) != -1;) {
    switch (letter) {
      case 'c': config = optarg; break;
      case 'k': check = true; break;
      case 's': squid = true; break;
      case 'a': key_file = optarg; break;
      case 'd': {
        const auto duration = ParseDuration(optarg);
        if (!duration) return Usage();
        delay = duration->count();
        break;
      }
      default: return Usage();
    }
  }
  if (squid && argc - optind <= 1) {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    return RunSquidHelper(optind < argc ? argv[optind] : kDefaultSquidSocket);
  }
  if (optind != argc || squid) return Usage();
  return key_file.empty() ? Serve(config, check) : AddKey(key_file, delay);
}

}  // namespace
}  // namespace tavrel::tools

int main(int argc, char** argv) {
  try {
    return tavrel::tools::Run(argc, argv);
  } catch (const std::exception& error) {
    return tavrel::tools::Complain(error.what(), 1);
  }
}
