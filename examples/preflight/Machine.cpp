// Checks of this machine's own files and names.
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "Checks.h"
#include "Files.h"

namespace {

// Where a keytab file (version 2, as MIT krb5 documents the format) is broken; empty when it is
// whole. libkrb5 reads up to there without a word.
std::string Damage(const std::string& bytes) {
  std::size_t at = 2;
  while (at < bytes.size()) {
    const std::string where =
        " at byte " + std::to_string(at) + " of " + std::to_string(bytes.size());
    if (bytes.size() - at < 4) return "cut short" + where;
    std::uint32_t raw = 0;
    for (std::size_t i = 0; i < 4; ++i)
      raw = raw << 8 | static_cast<unsigned char>(bytes[at + i]);
    const auto length = static_cast<std::int64_t>(static_cast<std::int32_t>(raw));
    if (length == 0) {  // the end, for libkrb5, and it writes one itself
      if (bytes.find_first_not_of('\0', at) == std::string::npos) return "";
      return "zeros in place of an entry" + where;
    }
    const auto size = static_cast<std::uint64_t>(length < 0 ? -length : length);  // negative: hole
    if (size > bytes.size() - at - 4) return "cut short" + where;
    at += 4 + size;
  }
  return "";
}

}  // namespace

void CheckHostName(Subject& subject, Report& report) {
  const std::string machine = subject.join.GetMachineName();
  const std::string account = subject.join.GetAccountName();
  const std::string found = machine + ", account " + account + "$";
  if (machine.empty() || machine == "localhost") {
    report.Fail("host name", machine.empty() ? "none" : found, "name the machine: hostname NAME");
  } else if (subject.join.ShortenName(machine) != machine) {
    report.Warn("host name", found + ": longer than 15 characters, so it is shortened",
                "see that no other machine's name starts with " + machine.substr(0, 7) +
                    ", or give this one a shorter name");
  } else {
    report.Ok("host name", found);
  }
}

void CheckKeytabFile(Subject& subject, Report& report) {
  const std::string check = "keytab file " + subject.keytab;
  const auto path = KeytabPath(subject.keytab);
  if (!path || path->empty()) {
    report.Fail(check, "this is no file", "name a file");
    return;
  }
  struct stat status;
  if (lstat(path->c_str(), &status) != 0) {
    const std::string unusable =
        errno == ENOENT ? WhyUnusable(FolderOf(*path)) : std::strerror(errno);
    if (unusable.empty()) {
      report.Ok(check, "does not exist yet, and can be made");
    } else {
      report.Fail(check, "cannot be made: " + unusable,
                  "make the folder, and let this process write into it");
    }
    return;
  }
  if (!S_ISREG(status.st_mode)) {
    report.Fail(check, "is no ordinary file", "name an ordinary file");
    return;
  }
  char text[80];
  std::snprintf(text, sizeof text, "mode %04o, owner %u", status.st_mode & 07777u, status.st_uid);
  const std::string mode = text;
  if (faccessat(AT_FDCWD, path->c_str(), R_OK | W_OK, AT_EACCESS) != 0) {
    report.Fail(check, mode + ": " + std::strerror(errno),
                "let this process read and write it: it runs as user " + std::to_string(geteuid()));
    return;
  }
  subject.keytab_readable = status.st_size > 0;
  if ((status.st_mode & 077u) != 0) {
    report.Fail(check, mode + ": others than its owner have access to the machine's key",
                "chmod 600, and join with a new password if somebody may have read it");
    return;
  }
  std::ifstream file(*path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(file), {});
  constexpr char kAnew[] = "see that the disk is not full, remove the keytab, and join";
  const std::string damage = Damage(bytes);
  if (bytes.empty()) {
    report.Warn(check, "empty", kAnew);
  } else if (bytes.compare(0, 2, "\x05\x02") != 0) {
    report.Fail(check, "no keytab of version 2", "remove the keytab, and join");
  } else if (!damage.empty()) {
    report.Warn(check, damage + ": what follows is not read", kAnew);
  } else if (status.st_uid != geteuid()) {
    report.Warn(check, mode + ": not this process's user, " + std::to_string(geteuid()),
                "let the user who joins and authenticates own it");
  } else {
    report.Ok(check, mode);
  }
}
