#include "MachineKeytab.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <system_error>

namespace tavrel::plus {
namespace {

constexpr std::string_view kVersion("\x05\x02");
constexpr off_t kLargestFile = 1 << 24;
constexpr std::size_t kRoomForAKey = 1024;
constexpr timespec kPause = {0, 20'000'000};  // between two looks at a lock

Failure FileFailure(const std::string& path, int error) {
  return {Cause::kKeytab, path + ": " + std::generic_category().message(error)};
}

// Takes numbers and strings off the front. Behind one that is not there, nothing is there.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  std::uint32_t Number(std::size_t size) {
    std::uint32_t number = 0;
    for (const char c : Bytes(size))
      number = number << 8U | static_cast<unsigned char>(c);
    return number;
  }
  std::string_view Bytes(std::size_t size) {
    if (size > bytes_.size()) is_whole_ = false;
    if (!is_whole_) return {};
    const std::string_view taken = bytes_.substr(0, size);
    bytes_.remove_prefix(size);
    return taken;
  }
  std::string Counted() { return std::string(Bytes(Number(2))); }
  std::size_t Left() const { return is_whole_ ? bytes_.size() : 0; }
  bool IsWhole() const { return is_whole_; }

 private:
  std::string_view bytes_;
  bool is_whole_ = true;
};

bool ParseKey(std::string_view bytes, KeytabKey& key) {
  Reader reader(bytes);
  const std::uint32_t count = reader.Number(2);
  key.realm = reader.Counted();
  for (std::uint32_t i = 0; i < count && reader.IsWhole(); ++i)
    key.components.push_back(reader.Counted());
  key.name_type = reader.Number(4);
  key.written = reader.Number(4);
  key.version = reader.Number(1);
  key.type = static_cast<std::int16_t>(reader.Number(2));
  key.key = Secret(reader.Bytes(reader.Number(2)));
  const bool is_whole = reader.IsWhole();
  // The version in full, where there is room for it; 0 there means that it was never written.
  if (reader.Left() >= 4) {
    if (const std::uint32_t version = reader.Number(4)) key.version = version;
  }
  return is_whole;
}

// Puts numbers and strings into a buffer that is large enough.
class Writer {
 public:
  explicit Writer(char* next) : next_(next) {}

  void Number(std::uint32_t number, std::size_t size) {
    while (size-- > 0)
      *next_++ = static_cast<char>(number >> 8U * size & 0xFFU);
  }
  void Bytes(std::string_view bytes) { next_ = std::copy(bytes.begin(), bytes.end(), next_); }
  void Counted(std::string_view bytes) {
    Number(static_cast<std::uint32_t>(bytes.size()), 2);
    Bytes(bytes);
  }

 private:
  char* next_;
};

std::size_t SizeOf(const KeytabKey& key) {
  std::size_t size = 2 + 2 + key.realm.size() + 4 + 4 + 1 + 2 + 2 + key.key.Size() + 4;
  for (const std::string& component : key.components)
    size += 2 + component.size();
  return size;
}

bool WriteAll(int file, std::string_view bytes) {
  off_t at = 0;
  while (!bytes.empty()) {
    const ssize_t count = pwrite(file, bytes.data(), bytes.size(), at);
    if (count == -1 && errno == EINTR) continue;
    if (count == 0) errno = EIO;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
    at += count;
  }
  return true;
}

// Asks for a lock until it is given or the time is over.
template <typename Ask>
Failure AwaitLock(const std::string& path, const Deadline& deadline, const Ask& ask) {
  while (ask() == -1) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EACCES) return FileFailure(path, errno);
    if (deadline.HasPassed()) return {Cause::kBusy, path + ": another process works on it"};
    nanosleep(&kPause, nullptr);
  }
  return {};
}

// The file itself, where a link leads to it: the link stays.
std::string WithoutLinks(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                         std::free);
  return real ? real.get() : path;
}

}  // namespace

bool operator==(const KeytabKey& a, const KeytabKey& b) {
  return a.realm == b.realm && a.components == b.components && a.version == b.version &&
         a.type == b.type && a.key.View() == b.key.View();
}

KeytabKey KeytabKey::Copy() const {
  KeytabKey copy;
  copy.realm = realm;
  copy.components = components;
  copy.name_type = name_type;
  copy.version = version;
  copy.written = written;
  copy.type = type;
  copy.key = key.Copy();
  return copy;
}

bool ParseKeytab(std::string_view bytes, std::vector<KeytabKey>& keys) {
  if (bytes.substr(0, kVersion.size()) != kVersion) return false;
  Reader reader(bytes.substr(kVersion.size()));
  while (reader.Left() > 0) {
    const auto size = static_cast<std::int32_t>(reader.Number(4));
    if (size == 0) break;
    const std::string_view entry =
        reader.Bytes(static_cast<std::size_t>(std::abs(std::int64_t{size})));
    if (!reader.IsWhole()) break;
    if (size < 0) continue;  // a hole
    KeytabKey key;
    if (!ParseKey(entry, key)) break;
    keys.push_back(std::move(key));
  }
  return true;
}

Secret FormatKeytab(const std::vector<KeytabKey>& keys) {
  std::size_t size = kVersion.size();
  for (const KeytabKey& key : keys)
    size += 4 + SizeOf(key);
  Secret bytes(size);
  Writer writer(bytes.Data());
  writer.Bytes(kVersion);
  for (const KeytabKey& key : keys) {
    writer.Number(static_cast<std::uint32_t>(SizeOf(key)), 4);
    writer.Number(static_cast<std::uint32_t>(key.components.size()), 2);
    writer.Counted(key.realm);
    for (const std::string& component : key.components)
      writer.Counted(component);
    writer.Number(key.name_type, 4);
    writer.Number(key.written, 4);
    writer.Number(key.version & 0xFFU, 1);
    writer.Number(static_cast<std::uint32_t>(key.type), 2);
    writer.Counted(key.key.View());
    writer.Number(key.version, 4);
  }
  return bytes;
}

MachineKeytab::~MachineKeytab() {
  DropNew();
  if (held_ != -1) close(held_);
}

void MachineKeytab::DropNew() {
  if (new_ == -1) return;
  unlink(new_path_.c_str());
  close(new_);
  new_ = -1;
}

// Makes an empty keytab, at the end of a link as well. One that somebody else has made meanwhile is
// as good, and so is one without a byte, which is what an end in the middle leaves.
Failure MachineKeytab::Create() const {
  const int file = open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (file == -1) return FileFailure(path_, errno);
  Failure failure;
  struct stat made {};
  if (fstat(file, &made) == -1 || (made.st_size == 0 && !WriteAll(file, kVersion))) {
    failure = FileFailure(path_, errno);
  }
  close(file);
  return failure;
}

Failure MachineKeytab::Hold(const Deadline& deadline) {
  if (path_.empty()) return {Cause::kBadArgument, "The keytab has no path"};
  const std::string given = path_;
  for (bool is_made = false;;) {
    path_ = WithoutLinks(given);
    new_path_ = path_ + ".new";
    held_ = open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (held_ == -1 && errno == ENOENT && !is_made) {
      if (Failure failure = Create()) return failure;
      is_made = true;
      continue;
    }
    if (held_ == -1) return FileFailure(path_, errno);
    // libkrb5 locks with fcntl(), which this does not meet: readers go on. The lock belongs to the
    // file, so one that was replaced meanwhile is let go.
    if (Failure failure =
            AwaitLock(path_, deadline, [&] { return flock(held_, LOCK_EX | LOCK_NB); })) {
      return failure;
    }
    struct stat here {};
    if (fstat(held_, &status_) == -1) return FileFailure(path_, errno);
    if (stat(path_.c_str(), &here) == 0 && here.st_dev == status_.st_dev &&
        here.st_ino == status_.st_ino) {
      return Load(held_, deadline, keys_);
    }
    close(held_);
    held_ = -1;
  }
}

Failure MachineKeytab::Read(const Deadline& deadline) {
  const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (file == -1) return errno == ENOENT ? Failure() : FileFailure(path_, errno);
  Failure failure = Load(file, deadline, keys_);
  close(file);
  return failure;
}

// Reads `file`, which `status_` describes from here on.
Failure MachineKeytab::Load(int file, const Deadline& deadline, std::vector<KeytabKey>& keys) {
  // A writer that uses libkrb5 has its lock while the file is half an entry longer.
  struct flock lock {};
  lock.l_type = F_RDLCK;
  if (Failure failure =
          AwaitLock(path_, deadline, [&] { return fcntl(file, F_OFD_SETLK, &lock); })) {
    return failure;
  }
  ssize_t count = fstat(file, &status_);
  const bool is_fit = S_ISREG(status_.st_mode) && status_.st_size <= kLargestFile;
  Secret bytes(count == 0 && is_fit ? static_cast<std::size_t>(status_.st_size) : 0);
  std::size_t read = 0;
  while (read < bytes.Size() && (count = pread(file, bytes.Data() + read, bytes.Size() - read,
                                               static_cast<off_t>(read))) > 0) {
    read += static_cast<std::size_t>(count);
  }
  const int error = errno;
  lock.l_type = F_UNLCK;
  fcntl(file, F_OFD_SETLK, &lock);
  // A file that ends before its size was cut meanwhile; to take it so would lose keys.
  if (count == -1 || read < bytes.Size()) return FileFailure(path_, count == -1 ? error : EIO);

  const std::string_view content = bytes.View().substr(0, read);
  keys.clear();
  if (!is_fit || (content.size() >= kVersion.size() && !ParseKeytab(content, keys))) {
    return {Cause::kKeytab, path_ + ": no keytab of format version 5.2"};
  }
  return {};
}

Failure MachineKeytab::OpenNew() {
  // Whoever holds the keytab may use the name; what lies there was left by one that was ended.
  unlink(new_path_.c_str());
  new_ = open(new_path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
              S_IRUSR | S_IWUSR);
  if (new_ == -1) return FileFailure(new_path_, errno);
  if (fchown(new_, status_.st_uid, status_.st_gid) == -1 ||
      fchmod(new_, status_.st_mode & 07777U) == -1 || flock(new_, LOCK_EX | LOCK_NB) == -1) {
    Failure failure = FileFailure(new_path_, errno);
    DropNew();
    return failure;
  }
  return {};
}

Failure MachineKeytab::Reserve(std::size_t count) {
  if (Failure failure = OpenNew()) return failure;
  const std::size_t size = FormatKeytab(keys_).Size() + count * kRoomForAKey;
  if (const int error = posix_fallocate(new_, 0, static_cast<off_t>(size))) {
    DropNew();
    return FileFailure(new_path_, error);
  }
  return {};
}

bool MachineKeytab::WriteNew(const std::vector<KeytabKey>& keys) const {
  const Secret bytes = FormatKeytab(keys);
  return WriteAll(new_, bytes.View()) && ftruncate(new_, static_cast<off_t>(bytes.Size())) == 0 &&
         fsync(new_) == 0;
}

Failure MachineKeytab::Replace(std::vector<KeytabKey> keys, const Deadline& deadline) {
  if (new_ == -1) {
    if (Failure failure = OpenNew()) return failure;
  }
  if (!WriteNew(keys)) {
    Failure failure = FileFailure(new_path_, errno);
    DropNew();
    return failure;
  }

  const auto is_unchanged = [&] {
    struct stat now {};
    return fstat(held_, &now) == 0 && now.st_size == status_.st_size &&
           now.st_mtim.tv_sec == status_.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == status_.st_mtim.tv_nsec;
  };
  struct flock exclusive {};
  exclusive.l_type = F_WRLCK;
  const auto lock = [&] { return fcntl(held_, F_OFD_SETLK, &exclusive); };
  Failure failure = AwaitLock(path_, deadline, lock);
  while (!failure && !is_unchanged()) {
    std::vector<KeytabKey> now;
    failure = Load(held_, deadline, now);  // which gives the lock up
    for (KeytabKey& key : now) {
      const auto is_key = [&](const KeytabKey& known) { return known == key; };
      if (std::any_of(keys_.begin(), keys_.end(), is_key)) continue;
      keys.push_back(key.Copy());
      keys_.push_back(std::move(key));
    }
    if (!failure && !WriteNew(keys)) failure = FileFailure(new_path_, errno);
    if (!failure) failure = AwaitLock(path_, deadline, lock);
  }
  if (!failure && rename(new_path_.c_str(), path_.c_str()) == -1) {
    failure = FileFailure(path_, errno);
  }
  if (failure) {
    exclusive.l_type = F_UNLCK;
    fcntl(held_, F_OFD_SETLK, &exclusive);
    DropNew();
    return failure;
  }
  // Survives a loss of power as well; what is visible is right already.
  const std::string folder = path_.substr(0, path_.rfind('/') + 1);
  const int descriptor = open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor != -1) {
    fsync(descriptor);
    close(descriptor);
  }
  close(held_);
  held_ = std::exchange(new_, -1);
  fstat(held_, &status_);
  keys_ = std::move(keys);
  return {};
}

}  // namespace tavrel::plus
