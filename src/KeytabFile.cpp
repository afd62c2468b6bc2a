#include "KeytabFile.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string_view>

namespace tavrel {
namespace {

// The format: its version in two bytes, then the entries. Before each stands its length in four
// bytes, most significant first, or in the old version in the machine's order; that of a hole is
// negative, and 0 ends the file before its end.
constexpr unsigned char kOldVersion[] = {0x05, 0x01};
constexpr unsigned char kVersion[] = {0x05, 0x02};
constexpr off_t kVersionSize = sizeof kVersion;
constexpr off_t kLengthSize = 4;

// An open file; closed, and its lock given up, when it is destroyed.
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
krb5_error_code Transferred(ssize_t count, off_t wanted) {
  if (count == wanted) return 0;
  return count == -1 ? errno : EIO;
}

// Removes the first entry or hole that reaches beyond the end, and with it all that follows.
krb5_error_code RemoveCutEntry(const File& file, off_t size, bool is_old, std::size_t readable) {
  for (off_t start = kVersionSize; start < size;) {
    off_t end = start + kLengthSize;
    if (end <= size) {
      std::uint32_t stored = 0;
      const ssize_t count = pread(file.descriptor, &stored, sizeof stored, start);
      if (const krb5_error_code code = Transferred(count, kLengthSize)) return code;

      const auto length = static_cast<std::int32_t>(is_old ? stored : ntohl(stored));
      if (length == 0) return 0;
      end += std::abs(std::int64_t{length});
      const bool is_readable = length > 0 && readable > 0;
      if (is_readable) --readable;
      if (is_readable && end > size) return 0;  // only what pads it is cut
    }
    if (end > size) return ftruncate(file.descriptor, start) == 0 ? 0 : errno;
    start = end;
  }
  return 0;
}

}  // namespace

krb5_error_code MendKeytabFile(krb5_context context, krb5_keytab keytab, std::size_t readable) {
  char name[PATH_MAX + sizeof "WRFILE:"];
  if (const krb5_error_code code = krb5_kt_get_name(context, keytab, name, sizeof name))
    return code;
  const char* path = name + std::string_view(name).find(':') + 1;
  const std::string_view kind(name, static_cast<std::size_t>(path - name));
  if (kind != "FILE:" && kind != "WRFILE:") return 0;

  const File file(path);
  if (file.descriptor == -1) return errno == ENOENT ? 0 : errno;
  // The lock that libkrb5 takes as well: another process may be appending.
  struct flock whole_file {};
  whole_file.l_type = F_WRLCK;
  if (fcntl(file.descriptor, F_OFD_SETLKW, &whole_file) == -1) return errno;

  const off_t size = lseek(file.descriptor, 0, SEEK_END);
  if (size == -1) return errno;
  if (size < kVersionSize) {
    return Transferred(pwrite(file.descriptor, kVersion, sizeof kVersion, 0), kVersionSize);
  }
  unsigned char version[sizeof kVersion];
  const ssize_t count = pread(file.descriptor, version, sizeof version, 0);
  if (const krb5_error_code code = Transferred(count, kVersionSize)) return code;
  const auto is = [&](const auto& known) { return std::equal(version, std::end(version), known); };
  if (!is(kVersion) && !is(kOldVersion)) return 0;
  return RemoveCutEntry(file, size, is(kOldVersion), readable);
}

}  // namespace tavrel
