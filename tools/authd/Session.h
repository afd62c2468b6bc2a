// Sessions that only the client keeps: a sealed cookie says who signed in.
#ifndef TAVREL_TOOLS_AUTHD_SESSION_H
#define TAVREL_TOOLS_AUTHD_SESSION_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authd/User.h"

namespace tavrel::tools {

// The keys that cookies are sealed with, newest first. Wiped when they are let go.
class SessionKeys {
 public:
  static constexpr std::size_t kKeySize = 32;

  // Reads lines of the form `KEY [from TIME]`: 64 hexadecimal digits, and the time (UTC,
  // 2026-11-22T01:00:00Z) from which cookies are sealed with it; they are opened with it before.
  // At least one line, and no key twice. Nothing, with `FILE:LINE: WHAT` in `*error`, for anything
  // else.
  static std::optional<SessionKeys> Parse(std::string_view text, const std::string& file,
                                          std::string* error);

  // The text of a file with a new random key, used from `from` on, in front of the `keep` newest
  // keys of `text`, which may be empty. Nothing as Parse().
  static std::optional<std::string> WithNewKey(std::string_view text, const std::string& file,
                                               std::int64_t from, std::size_t keep,
                                               std::string* error);

  SessionKeys() = default;
  SessionKeys(SessionKeys&&) = default;
  SessionKeys& operator=(SessionKeys&&) = default;
  SessionKeys(const SessionKeys&) = delete;
  SessionKeys& operator=(const SessionKeys&) = delete;
  ~SessionKeys();

  struct Key {
    std::string id;  // of four bytes, says in a cookie which key sealed it
    std::string bytes;
    std::int64_t from = 0;
  };

  // The newest key whose time has come; the oldest when none has.
  const Key& ForSealing(std::int64_t now) const;
  // Null when there is none of that id.
  const Key* Find(std::string_view id) const;

 private:
  std::vector<Key> keys_;
};

// Seals and opens cookies (AES-256-GCM). Immutable, so any number of threads may use one.
class Sessions {
 public:
  // What a cookie may take, its name and attributes included, so that every browser keeps it.
  static constexpr std::size_t kLongestCookie = 3800;

  Sessions(SessionKeys keys, std::chrono::seconds lifetime, std::chrono::seconds idle)
      : keys_(std::move(keys)), lifetime_(lifetime.count()), idle_(idle.count()) {}

  // A cookie's value that says who signed in, good for `host` alone. Empty when it would be longer
  // than kLongestCookie (a user of more than some 650 groups), or libcrypto fails.
  std::string Seal(const User& user, std::string_view host, std::int64_t now) const;

  struct Opened {
    User user;
    bool renew;  // an eighth of the idle time has passed: the client should get a new one
  };
  // Nothing when the cookie was not sealed for `host` by one of the keys, when the lifetime since
  // the sign-in or the idle time since it was sealed is over, or when it comes from the future.
  std::optional<Opened> Open(std::string_view cookie, std::string_view host,
                             std::int64_t now) const;

 private:
  SessionKeys keys_;
  std::int64_t lifetime_, idle_;  // seconds
};

}  // namespace tavrel::tools

#endif
