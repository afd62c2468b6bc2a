// The keys of a keytab, in memory.
#ifndef TAVREL_PLUS_SRC_KEYRING_H
#define TAVREL_PLUS_SRC_KEYRING_H

#include <krb5.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "KrbSupport.h"
#include "Secret.h"

namespace tavrel::plus {

// Which entries of a keytab count.
struct KeyFilter {
  std::string principal;  // with or without realm; empty: any
  std::string realm;      // empty: that of the principal, or of the first entry
};

// What a keytab held when it was read. It does not change.
class KeyRing {
 public:
  // So many keys of other versions than the one asked for are tried.
  static constexpr std::size_t kMostOtherVersions = 4;

  struct Key : Secret {
    using Secret::Secret;
    friend bool operator==(const Key& a, const Key& b) { return a.View() == b.View(); }
  };

  // Reads the keytab file `path`. Returns null, and the reason in `error`, when it cannot be read
  // to its end or has no key that counts.
  static std::shared_ptr<const KeyRing> Read(krb5_context context, const std::string& path,
                                             const KeyFilter& filter, std::string& error);

  const std::string& Realm() const { return realm_; }

  // The keys that may open a ticket which asks for `version` (none: it does not say) and `enctype`:
  // those of that version, then the newest few, since a keytab's versions can be others than the
  // directory's. Their cost does not depend on how many keys there are.
  std::vector<const Key*> Candidates(std::optional<std::uint32_t> version,
                                     std::int32_t enctype) const;
  bool operator==(const KeyRing& other) const;

 private:
  std::string realm_;
  // By enctype, then by version, the newest first. Each key once, whichever principals have it.
  std::map<std::int32_t, std::map<std::uint32_t, std::vector<Key>, std::greater<>>> keys_;
};

// A key as the library uses it; what it derives from one it keeps with it.
using KrbKey = std::unique_ptr<std::remove_pointer_t<krb5_key>, KrbFree<krb5_k_free_key>>;

// Keys of the ring that was used last, made ready. One thread at a time uses it.
class ReadyKeys {
 public:
  // Null when there is no memory. `key` is one of `ring` and of the type `enctype`.
  krb5_key Get(krb5_context context, const std::shared_ptr<const KeyRing>& ring,
               const KeyRing::Key& key, krb5_enctype enctype);

 private:
  std::shared_ptr<const KeyRing> ring_;  // has the keys that are pointed to
  std::map<const KeyRing::Key*, KrbKey> keys_;
};

// A key for the library, which only reads it.
krb5_keyblock Borrowed(std::string_view bytes, krb5_enctype enctype);

// The key ring of a file that others may replace at any time. For all threads.
class KeyStore {
 public:
  struct Rings {
    std::shared_ptr<const KeyRing> now;
    std::shared_ptr<const KeyRing> before;  // null but for a short while after a change
  };

  KeyStore(std::string path, KeyFilter filter)
      : path_(std::move(path)), filter_(std::move(filter)) {}

  // Reads the file for the first time; false, and the reason in `error`, when it has no keys.
  bool Open(krb5_context context, std::string& error);

  // The ring to use now, and the one before it as long as a replacement may be under way: whoever
  // writes a keytab in place may have written no more than its beginning so far. The file is looked
  // at every now and then, or at once when `missed` says that the last rings had no key for a
  // ticket. One that cannot be read, or has no keys, changes nothing. Reading waits for whoever has
  // locked the file; meanwhile the other threads get the rings of before.
  Rings Current(krb5_context context, bool missed = false) const;

 private:
  using Clock = std::chrono::steady_clock;

  struct FileIdentity {
    explicit FileIdentity(const std::string& path);
    bool operator==(const FileIdentity& other) const;
    // True when a change from now on shows: times of files have steps.
    bool Settled() const;

    struct stat status {};
    bool there = false;
  };

  void Look(krb5_context context, Clock::time_point now, bool due) const;

  const std::string path_;
  const KeyFilter filter_;

  mutable std::mutex looking_;  // of who looks at the file, and the following
  mutable Clock::time_point looked_;
  mutable std::optional<FileIdentity> file_;  // as it was when it was last read
  mutable bool settled_ = false;              // and is to be read again only when it changes

  mutable std::mutex lock_;  // of the following
  mutable Rings rings_;
  mutable Clock::time_point before_until_;
};

}  // namespace tavrel::plus

#endif
