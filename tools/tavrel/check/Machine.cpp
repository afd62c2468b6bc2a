// Checks of this machine's own files and names.
#include <fcntl.h>
#include <profile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "tavrel/Krb.h"
#include "tavrel/check/Checks.h"

namespace tavrel::tools {
namespace {

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsAllowed(const std::string& path, int mode) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

// Empty when this process can make files in `folder`, what is wrong otherwise.
std::string WhyUnusable(const std::string& folder) {
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) return folder + ": " + std::strerror(errno);
  if (!S_ISDIR(status.st_mode)) return folder + " is no folder";
  if (!IsAllowed(folder, W_OK | X_OK)) return folder + ": " + std::strerror(errno);
  return "";
}

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
    at += 4 + static_cast<std::size_t>(size);
  }
  return "";
}

// The replay cache that libkrb5 uses, in the order in which it looks (MIT krb5 1.18 and later).
std::string ReplayCacheName(krb5_context context) {
  if (const char* const name = std::getenv("KRB5RCACHENAME")) return name;
  if (const char* const type = std::getenv("KRB5RCACHETYPE")) return std::string(type) + ":";
  std::string name = "dfl:";
  profile_t profile = nullptr;
  if (krb5_get_profile(context, &profile) != 0) return name;
  char* configured = nullptr;
  if (profile_get_string(profile, "libdefaults", "default_rcache_name", nullptr,
                         "dfl:", &configured) == 0) {
    name = configured;
    profile_release_string(configured);
  }
  profile_release(profile);
  return name;
}

}  // namespace

void CheckHostName(Subject& subject, Findings& findings) {
  const std::string machine = subject.join.GetMachineName();
  const std::string found = machine + ", account " + subject.Account();
  const bool named = !subject.call.join && !subject.call.config->membership.account_name.empty();
  if (machine.empty() || machine == "localhost") {
    findings.Fail("host name", machine.empty() ? "none" : found, "name the machine: hostname NAME");
  } else if (subject.join.ShortenName(machine) != machine && !named) {
    findings.Warn("host name", found + ": longer than 15 characters, so it is shortened",
                  "see that no other machine's name starts with " + machine.substr(0, 7) +
                      ", or give this one a shorter name");
  } else {
    findings.Ok("host name", found);
  }
}

void CheckKeytabFile(Subject& subject, Findings& findings) {
  const std::string check = "keytab file " + subject.keytab();
  const std::string& path = subject.keytab();
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    const std::string unusable =
        errno == ENOENT ? WhyUnusable(FolderOf(path)) : std::strerror(errno);
    if (unusable.empty()) {
      findings.Ok(check, "does not exist yet, and can be made");
    } else {
      findings.Fail(check, "cannot be made: " + unusable,
                    "make the folder, and let this process write into it");
    }
    return;
  }
  if (!S_ISREG(status.st_mode)) {
    findings.Fail(check, "is no ordinary file", "name an ordinary file");
    return;
  }
  std::string mode = "mode ";
  for (unsigned shift = 12; shift != 0;) {
    shift -= 3;
    mode += static_cast<char>('0' + (status.st_mode >> shift & 7U));
  }
  mode += ", owner " + std::to_string(status.st_uid) + ", group " + std::to_string(status.st_gid);
  if (!IsAllowed(path, R_OK)) {
    findings.Fail(check, mode + ": " + std::strerror(errno),
                  "let this process read it: it runs as user " + std::to_string(geteuid()));
    return;
  }
  subject.keytab_readable = status.st_size > 0;
  if ((status.st_mode & 037U) != 0) {  // the group of a service without privileges may read it
    findings.Fail(check, mode + ": others than its owner and group can get at the machine's key",
                  "chmod 640, and have a new password set if somebody may have read it");
    return;
  }
  std::ifstream file(path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(file), {});
  constexpr char kAnew[] = "see that the disk is not full, remove the keytab, and join or enrol";
  const std::string damage = Damage(bytes);
  if (bytes.empty()) {
    findings.Warn(check, "empty", kAnew);
  } else if (bytes.compare(0, 2, "\x05\x02") != 0) {
    findings.Fail(check, "no keytab of version 2", "remove the keytab, and join or enrol");
  } else if (!damage.empty()) {
    findings.Warn(check, damage + ": what follows is not read", kAnew);
  } else if (!IsAllowed(path, W_OK) || status.st_uid != geteuid()) {
    findings.Warn(check, mode + ": not this process's user, " + std::to_string(geteuid()),
                  "users can be signed in; join, enrol and rotate as its owner");
  } else {
    findings.Ok(check, mode);
  }
}

void CheckReplayCache(Subject& /*subject*/, Findings& findings) {
  krb5_error_code code = 0;
  const Context context = MakeContext(&code);
  if (!context) return;
  const std::string name = ReplayCacheName(context.get());
  const std::string type = name.substr(0, name.find(':'));
  const std::string rest = name.substr(std::min(type.size() + 1, name.size()));
  const std::string remedy = "unset KRB5RCACHENAME, KRB5RCACHETYPE and default_rcache_name";
  std::string path;
  if (type == "none") {
    findings.Warn("replay cache", name + ": whoever copies a token can use it again", remedy);
    return;
  }
  if (type == "dfl") {
    const char* folder = std::getenv("KRB5RCACHEDIR");
    if (folder == nullptr) folder = std::getenv("TMPDIR");
    path = std::string(folder != nullptr ? folder : "/var/tmp") + "/krb5_" +
           std::to_string(geteuid()) + ".rcache2";
  } else if (type == "file2" && name != type) {
    path = rest;
  } else {
    findings.Fail("replay cache", name + ": unknown to libkrb5, so everybody is refused", remedy);
    return;
  }
  if (path.find("%{") != std::string::npos) {
    findings.Warn("replay cache",
                  path + ": not looked at, what stands for itself is not known here",
                  "see that this process can write into that folder");
    return;
  }
  struct stat status {};
  std::string why = WhyUnusable(FolderOf(path));
  if (why.empty() && lstat(path.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode))
      why = "is no ordinary file";
    else if (status.st_uid != geteuid())
      why = "belongs to user " + std::to_string(status.st_uid);
    else if (!IsAllowed(path, R_OK | W_OK))
      why = std::strerror(errno);
  }
  const bool of_others = stat(FolderOf(path).c_str(), &status) == 0 && (status.st_mode & 022U) != 0;
  if (why.empty() && !of_others) {
    findings.Ok("replay cache", path);
  } else if (why.empty()) {
    findings.Warn("replay cache",
                  path + ": whoever makes this file first in a folder of all blocks everybody",
                  "name a folder of mode 0700 of this process's user: KRB5RCACHEDIR");
  } else {
    findings.Fail("replay cache", path + ": " + why + ", so everybody is refused",
                  "name a folder that this process can write into: KRB5RCACHEDIR");
  }
}

}  // namespace tavrel::tools
