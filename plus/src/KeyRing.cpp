#include "KeyRing.h"

#include <algorithm>
#include <ctime>
#include <type_traits>

#include "KrbSupport.h"

namespace tavrel::plus {
namespace {

using Keytab = std::unique_ptr<std::remove_pointer_t<krb5_keytab>, KrbFree<krb5_kt_close>>;
using OwnedPrincipal =
    std::unique_ptr<std::remove_pointer_t<krb5_principal>, KrbFree<krb5_free_principal>>;
using OwnedEntry = std::unique_ptr<krb5_keytab_entry, KrbFree<krb5_free_keytab_entry_contents>>;

constexpr std::chrono::milliseconds kLookEvery(100);
constexpr std::chrono::seconds kReplacementTakes(3);
constexpr std::time_t kTimesSettle = 2;  // seconds; no file system's times have longer steps

// An iteration over a keytab.
struct Walk {
  Walk(krb5_context context, krb5_keytab keytab) : context(context), keytab(keytab) {}
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;
  ~Walk() {
    if (started) krb5_kt_end_seq_get(context, keytab, &cursor);
  }

  krb5_context context;
  krb5_keytab keytab;
  krb5_kt_cursor cursor = nullptr;
  bool started = false;
};

bool Counts(krb5_context context, krb5_const_principal entry, krb5_const_principal wanted,
            const KeyFilter& filter) {
  if (!filter.realm.empty() && View(entry->realm) != filter.realm) return false;
  if (wanted == nullptr) return true;
  const bool any_realm = wanted->realm.length == 0;
  return any_realm ? krb5_principal_compare_any_realm(context, entry, wanted) != 0
                   : krb5_principal_compare(context, entry, wanted) != 0;
}

}  // namespace

std::shared_ptr<const KeyRing> KeyRing::Read(krb5_context context, const std::string& path,
                                             const KeyFilter& filter, std::string& error) {
  const auto failed = [&](krb5_error_code code) {
    if (code != 0) error = "keytab " + path + ": " + KrbMessage(context, code);
    return code != 0;
  };
  krb5_principal parsed = nullptr;
  if (!filter.principal.empty() &&
      failed(krb5_parse_name_flags(context, filter.principal.c_str(),
                                   KRB5_PRINCIPAL_PARSE_NO_DEF_REALM, &parsed))) {
    return nullptr;
  }
  const OwnedPrincipal wanted(parsed, {context});
  krb5_keytab handle = nullptr;
  if (failed(krb5_kt_resolve(context, ("FILE:" + path).c_str(), &handle))) return nullptr;
  const Keytab keytab(handle, {context});

  auto ring = std::make_shared<KeyRing>();
  Walk walk(context, handle);
  if (failed(krb5_kt_start_seq_get(context, handle, &walk.cursor))) return nullptr;
  walk.started = true;
  for (;;) {
    krb5_keytab_entry entry{};
    const krb5_error_code code = krb5_kt_next_entry(context, handle, &entry, &walk.cursor);
    if (code == KRB5_KT_END) break;
    if (failed(code)) return nullptr;
    const OwnedEntry owned(&entry, {context});
    if (!Counts(context, entry.principal, wanted.get(), filter)) continue;
    if (ring->realm_.empty()) ring->realm_ = View(entry.principal->realm);
    if (View(entry.principal->realm) != ring->realm_) continue;
    const std::string_view bytes(reinterpret_cast<const char*>(entry.key.contents),
                                 entry.key.length);
    std::vector<Key>& same = ring->keys_[entry.key.enctype][entry.vno];
    const auto is_known = [&](const Key& key) { return key.View() == bytes; };
    if (std::none_of(same.begin(), same.end(), is_known)) same.emplace_back(bytes);
  }
  if (ring->keys_.empty()) {
    error = "keytab " + path + ": no key that counts";
    return nullptr;
  }
  return ring;
}

std::vector<const KeyRing::Key*> KeyRing::Candidates(std::optional<std::uint32_t> version,
                                                     std::int32_t enctype) const {
  std::vector<const Key*> found;
  const auto of_type = keys_.find(enctype);
  if (of_type == keys_.end()) return found;
  const auto take = [&](const std::vector<Key>& keys) {
    for (const Key& key : keys) {
      found.push_back(&key);
    }
  };
  found.reserve(kMostOtherVersions + 1);
  if (version) {
    const auto of_version = of_type->second.find(*version);
    if (of_version != of_type->second.end()) take(of_version->second);
  }
  std::size_t others = 0;
  for (const auto& [number, keys] : of_type->second) {
    if (version == number) continue;
    if (others++ == kMostOtherVersions) break;
    take(keys);
  }
  return found;
}

bool KeyRing::operator==(const KeyRing& other) const {
  return realm_ == other.realm_ && keys_ == other.keys_;
}

krb5_key ReadyKeys::Get(krb5_context context, const std::shared_ptr<const KeyRing>& ring,
                        const KeyRing::Key& key, krb5_enctype enctype) {
  if (ring_ != ring) {
    keys_.clear();
    ring_ = ring;
  }
  const auto known = keys_.find(&key);
  if (known != keys_.end()) return known->second.get();
  const krb5_keyblock block = Borrowed(key.View(), enctype);
  krb5_key made = nullptr;
  if (krb5_k_create_key(context, &block, &made) != 0) return nullptr;
  return keys_.emplace(&key, KrbKey(made, {context})).first->second.get();
}

krb5_keyblock Borrowed(std::string_view bytes, krb5_enctype enctype) {
  krb5_keyblock key{};
  key.enctype = enctype;
  key.length = static_cast<unsigned>(bytes.size());
  key.contents = reinterpret_cast<krb5_octet*>(const_cast<char*>(bytes.data()));
  return key;
}

KeyStore::FileIdentity::FileIdentity(const std::string& path)
    : there(stat(path.c_str(), &status) == 0) {}

bool KeyStore::FileIdentity::operator==(const FileIdentity& other) const {
  const auto same_time = [](const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
  };
  return there == other.there && status.st_dev == other.status.st_dev &&
         status.st_ino == other.status.st_ino && status.st_size == other.status.st_size &&
         same_time(status.st_mtim, other.status.st_mtim) &&
         same_time(status.st_ctim, other.status.st_ctim);
}

bool KeyStore::FileIdentity::Settled() const {
  return status.st_ctim.tv_sec + kTimesSettle < std::time(nullptr);  // a time that nobody can set
}

bool KeyStore::Open(krb5_context context, std::string& error) {
  looked_ = Clock::now();
  file_.emplace(path_);
  settled_ = file_->Settled();
  rings_.now = KeyRing::Read(context, path_, filter_, error);
  return rings_.now != nullptr;
}

KeyStore::Rings KeyStore::Current(krb5_context context, bool missed) const {
  const Clock::time_point now = Clock::now();
  {
    const auto looking =
        missed ? std::unique_lock(looking_) : std::unique_lock(looking_, std::try_to_lock);
    const bool due = looking && now - looked_ >= kLookEvery;
    if (missed || due) Look(context, now, due);
  }
  const std::lock_guard<std::mutex> guard(lock_);
  if (rings_.before && now >= before_until_) rings_.before = nullptr;
  return rings_;
}

void KeyStore::Look(krb5_context context, Clock::time_point now, bool due) const {
  const FileIdentity file(path_);
  const bool unchanged = *file_ == file;
  if (due || !unchanged) looked_ = now;
  if (unchanged && (settled_ || !due)) return;
  file_ = file;
  settled_ = file.Settled();

  std::string error;
  auto ring = KeyRing::Read(context, path_, filter_, error);
  if (!ring) {
    settled_ = false;
    return;
  }
  if (*ring == *rings_.now) return;
  const std::lock_guard<std::mutex> guard(lock_);
  if (!rings_.before) {
    rings_.before = std::move(rings_.now);
    before_until_ = now + kReplacementTakes;
  }
  rings_.now = std::move(ring);
}

}  // namespace tavrel::plus
