#include "KeytabFile.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace tavrel {
namespace {

// The format: its version in two bytes, then the entries, each behind its length in four bytes. A
// negative length is a hole; 0 ends the file early. Numbers have their most significant byte first;
// in the old version they have the machine's byte order.
constexpr std::uint16_t kOldVersion = 0x0501;
constexpr std::uint16_t kVersion = 0x0502;
constexpr unsigned char kVersionBytes[] = {0x05, 0x02};
constexpr std::int64_t kVersionSize = sizeof kVersionBytes;
constexpr std::int64_t kLengthSize = 4;

// An open file. Destroying it closes it, and gives up its lock.
struct File {
  explicit File(const char* path) : descriptor(open(path, O_RDWR | O_CLOEXEC)) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (descriptor != -1) close(descriptor);
  }

  const int descriptor;
};

// The result of a transfer of `wanted` bytes.
krb5_error_code Transferred(ssize_t count, std::int64_t wanted) {
  if (count == wanted) return 0;
  return count == -1 ? errno : EIO;
}

// Takes the lock that libkrb5 also takes, since another process may be appending. Where there are
// no locks of open files, it takes one of the process.
krb5_error_code Lock(const File& file) {
  struct flock whole_file {};
  whole_file.l_type = F_WRLCK;
  if (fcntl(file.descriptor, F_OFD_SETLKW, &whole_file) == 0) return 0;
  if (errno == EINVAL && fcntl(file.descriptor, F_SETLKW, &whole_file) == 0) return 0;
  return errno;
}

// Removes what is left of an entry or a hole, and with it all that follows.
krb5_error_code Cut(const File& file, std::int64_t start) {
  return ftruncate(file.descriptor, static_cast<off_t>(start)) == 0 ? 0 : errno;
}

std::uint16_t HostOrder(std::uint16_t number) {
  return ntohs(number);
}
std::uint32_t HostOrder(std::uint32_t number) {
  return ntohl(number);
}

// Reads the numbers of a file, from its start to its end, a block at a time.
class Numbers {
 public:
  Numbers(const File& file, std::int64_t size) : file_(file), size_(size) {}

  // False when the file ends first, or when it cannot be read; Error() is then not 0. `at` is never
  // before that of an earlier call.
  template <typename Number>
  bool Read(std::int64_t at, Number& number) {
    constexpr auto kWidth = static_cast<std::int64_t>(sizeof number);
    if (at + kWidth > size_) return false;
    if (at + kWidth > last_) {
      first_ = at;
      last_ = std::min(at + static_cast<std::int64_t>(block_.size()), size_);
      const auto wanted = static_cast<std::size_t>(last_ - first_);
      error_ = Transferred(pread(file_.descriptor, block_.data(), wanted, static_cast<off_t>(at)),
                           last_ - first_);
      if (error_ != 0) return false;
    }
    std::memcpy(&number, block_.data() + (at - first_), sizeof number);
    if (!in_machine_order) number = HostOrder(number);
    return true;
  }

  krb5_error_code Error() const { return error_; }

  bool in_machine_order = false;

 private:
  const File& file_;
  const std::int64_t size_;
  // Not an array: knowing its size, the compiler would call __pread_chk() instead of pread().
  std::vector<unsigned char> block_ = std::vector<unsigned char>(4096);
  std::int64_t first_ = 0;  // of the file's bytes in the block
  std::int64_t last_ = 0;
  krb5_error_code error_ = 0;
};

// Where the fields end that libkrb5 reads of the entry whose length is at `start`. That may be
// beyond the end of the file; kUnreadable when libkrb5 reads no entry. It heeds the length only for
// the last field.
constexpr std::int64_t kUnreadable = INT64_MAX;
std::int64_t EndOfFields(Numbers& numbers, std::int64_t start, std::int64_t length) {
  const auto is_none = [](std::uint16_t count) { return count == 0 || count > INT16_MAX; };
  std::int64_t at = start + kLengthSize;
  std::uint16_t texts = 0;  // of the principal's name, and the realm
  if (!numbers.Read(at, texts)) return kUnreadable;
  if (numbers.in_machine_order) --texts;  // it is counted too
  if (is_none(texts)) return kUnreadable;

  at += 2;
  std::uint16_t size = 0;
  for (int left = texts + 1; left > 0; --left) {
    if (!numbers.Read(at, size) || is_none(size)) return kUnreadable;
    at += 2 + size;
  }
  if (!numbers.in_machine_order) at += 4;  // the type of the name
  at += 4 + 1 + 2;                         // when it was written, key version, encryption type
  if (!numbers.Read(at, size) || is_none(size)) return kUnreadable;
  at += 2 + size;  // the key
  const bool has_long_version = at + 4 <= start + kLengthSize + length;
  return has_long_version ? at + 4 : at;
}

krb5_error_code MendEntries(const File& file, std::int64_t size, Numbers& numbers) {
  for (std::int64_t start = kVersionSize; start < size;) {
    std::uint32_t stored = 0;
    if (!numbers.Read(start, stored))
      return numbers.Error() != 0 ? numbers.Error() : Cut(file, start);
    const auto length = static_cast<std::int32_t>(stored);
    if (length == 0) return 0;
    const std::int64_t end = start + kLengthSize + std::abs(std::int64_t{length});
    if (length > 0) {
      const std::int64_t used = EndOfFields(numbers, start, length);
      if (numbers.Error() != 0) return numbers.Error();
      const bool is_whole = used <= std::min(end, size);
      if (is_whole && end > size && end <= INT32_MAX) return 0;  // only its padding is missing
      if (is_whole ? end > size : end <= size) return KRB5_KT_FORMAT;
    }
    if (end > size) return Cut(file, start);
    start = end;
  }
  return 0;
}

}  // namespace

krb5_error_code MendKeytabFile(krb5_context context, krb5_keytab keytab) {
  char name[PATH_MAX + sizeof "FILE:"];
  const krb5_error_code named = krb5_kt_get_name(context, keytab, name, sizeof name);
  if (named == KRB5_KT_NAME_TOOLONG) return 0;  // paths are shorter
  if (named != 0) return named;
  const char* path = name + std::string_view(name).find(':') + 1;
  const std::string_view kind(name, static_cast<std::size_t>(path - name));
  if (kind != "FILE:") return 0;  // that is what libkrb5 calls a WRFILE too

  const File file(path);
  if (file.descriptor == -1) return errno == ENOENT ? 0 : errno;
  if (const krb5_error_code code = Lock(file)) return code;

  const std::int64_t size = lseek(file.descriptor, 0, SEEK_END);
  if (size == -1) return errno;
  if (size < kVersionSize) {
    return Transferred(pwrite(file.descriptor, kVersionBytes, sizeof kVersionBytes, 0),
                       kVersionSize);
  }
  Numbers numbers(file, size);
  std::uint16_t version = 0;
  if (!numbers.Read(0, version)) return numbers.Error();
  numbers.in_machine_order = version == kOldVersion;
  if (version != kVersion && version != kOldVersion) return 0;
  return MendEntries(file, size, numbers);
}

}  // namespace tavrel
