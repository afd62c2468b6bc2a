#include "ReplayCache.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tavrel::plus {
namespace {

constexpr std::uint64_t kMagic = 0x3159414C50455254;  // "TREPLAY1"
constexpr std::size_t kRowSize = 16;
constexpr std::size_t kLeastCapacity = 1024;
constexpr std::size_t kMostCapacity = std::size_t{1} << 30U;
constexpr std::size_t kHeaderSize = 4096;

class File {
 public:
  explicit File(int descriptor) : descriptor_(descriptor) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  int Get() const { return descriptor_; }

 private:
  int descriptor_;
};

std::uint64_t MadeAt(std::uint64_t record) {
  return record >> 32U;
}

// SipHash-2-4 (Aumasson, Bernstein 2012): short, and nobody without the key can choose its result.
std::uint64_t KeyedDigest(const std::uint64_t (&key)[2], std::string_view bytes) {
  std::uint64_t a = key[0] ^ 0x736f6d6570736575U;
  std::uint64_t b = key[1] ^ 0x646f72616e646f6dU;
  std::uint64_t c = key[0] ^ 0x6c7967656e657261U;
  std::uint64_t d = key[1] ^ 0x7465646279746573U;
  const auto turn = [](std::uint64_t word, unsigned by) { return word << by | word >> (64U - by); };
  const auto rounds = [&](int count) {
    for (int i = 0; i < count; ++i) {
      a += b;
      c += d;
      b = turn(b, 13) ^ a;
      d = turn(d, 16) ^ c;
      a = turn(a, 32);
      c += b;
      a += d;
      b = turn(b, 17) ^ c;
      d = turn(d, 21) ^ a;
      c = turn(c, 32);
    }
  };
  std::uint64_t word = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    word |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << 8U * (i % 8U);
    if (i % 8 == 7) {
      d ^= word;
      rounds(2);
      a ^= word;
      word = 0;
    }
  }
  word |= std::uint64_t{bytes.size()} << 56U;
  d ^= word;
  rounds(2);
  a ^= word;
  c ^= 0xFF;
  rounds(4);
  return a ^ b ^ c ^ d;
}

std::size_t RoundUp(std::size_t capacity) {
  std::size_t records = kLeastCapacity;
  while (records < capacity && records < kMostCapacity) {
    records *= 2;
  }
  return records;
}

}  // namespace

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

struct ReplayCache::Header {
  std::uint64_t magic;
  std::uint64_t records;
  std::uint64_t key[2];  // of the digests, so that nobody can choose a row
  // The latest time that a record which may be missing was made at: what is not later is too old.
  std::atomic<std::uint64_t> horizon;
};

std::unique_ptr<ReplayCache> ReplayCache::Open(const std::string& path, std::size_t capacity,
                                               std::string& error) {
  const auto failed = [&](const std::string& what) {
    error = "replay file " + path + ": " + what;
    return nullptr;
  };
  const auto failed_call = [&] { return failed(std::strerror(errno)); };
  constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW;

  // A new file gets its name when it is whole, so that nobody sees less of it.
  if (access(path.c_str(), F_OK) != 0) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const File made(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (made.Get() < 0) return failed_call();
    Header header{};
    header.magic = kMagic;
    header.records = RoundUp(capacity);
    if (getrandom(header.key, sizeof header.key, 0) != ssize_t{sizeof header.key}) {
      return failed_call();
    }
    const auto size = static_cast<off_t>(kHeaderSize + header.records * sizeof(Record));
    if (const int code = posix_fallocate(made.Get(), 0, size); code != 0) {
      return failed(std::strerror(code));  // all of it now: a disk that fills up later is no matter
    }
    if (pwrite(made.Get(), &header, sizeof header, 0) != ssize_t{sizeof header}) {
      return failed_call();
    }
    const std::string self = "/proc/self/fd/" + std::to_string(made.Get());
    if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0 &&
        errno != EEXIST) {  // another process was first
      return failed_call();
    }
  }

  const File file(open(path.c_str(), kFlags));
  struct stat status {};
  if (file.Get() < 0 || fstat(file.Get(), &status) != 0) return failed_call();
  if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() ||
      (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return failed("not a file of this user's alone");
  }
  Header header{};
  const auto size = static_cast<std::size_t>(status.st_size);
  if (pread(file.Get(), &header, sizeof header, 0) != ssize_t{sizeof header} ||
      header.magic != kMagic ||
      header.records != RoundUp(static_cast<std::size_t>(header.records)) ||
      size != kHeaderSize + header.records * sizeof(Record)) {
    return failed("not a replay file");
  }
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
  if (memory == MAP_FAILED) return failed_call();
  return std::unique_ptr<ReplayCache>(
      new ReplayCache(memory, static_cast<std::size_t>(header.records)));
}

ReplayCache::ReplayCache(void* memory, std::size_t records)
    : header_(static_cast<Header*>(memory)),
      records_(reinterpret_cast<Record*>(static_cast<char*>(memory) + kHeaderSize)),
      count_(records) {}

ReplayCache::~ReplayCache() {
  munmap(header_, kHeaderSize + count_ * sizeof(Record));
}

ReplayCache::Verdict ReplayCache::Remember(std::string_view request, std::uint32_t made) {
  const std::uint64_t digest = KeyedDigest(header_->key, request);
  Record* const row = records_ + digest % (count_ / kRowSize) * kRowSize;
  const std::uint64_t record = std::uint64_t{made} << 32U | digest >> 32U;

  for (;;) {
    // Room is made by the record that was made first; an empty place is older than all.
    Record* room = row;
    std::uint64_t oldest = UINT64_MAX;
    for (Record* at = row; at != row + kRowSize; ++at) {
      const std::uint64_t word = at->load();
      if (word == record) return Verdict::kSeen;
      if (word < oldest) {
        room = at;
        oldest = word;
      }
    }
    if (MadeAt(oldest) >= made) return Verdict::kTooOld;

    // The horizon covers a record before that goes, and is looked at when the row has been: whoever
    // does not find a record finds the horizon.
    RaiseHorizon(MadeAt(oldest));
    if (made <= header_->horizon.load()) return Verdict::kTooOld;
    if (!room->compare_exchange_strong(oldest, record)) continue;

    // Two that did not see each other have written two records, and at least one of them sees the
    // other's now.
    for (Record* at = row; at != row + kRowSize; ++at) {
      if (at != room && at->load() == record) return Verdict::kSeen;
    }
    return made <= header_->horizon.load() ? Verdict::kTooOld : Verdict::kNew;
  }
}

void ReplayCache::RaiseHorizon(std::uint64_t made) {
  std::uint64_t horizon = header_->horizon.load();
  while (horizon < made) {
    if (header_->horizon.compare_exchange_weak(horizon, made)) break;
  }
}

}  // namespace tavrel::plus
