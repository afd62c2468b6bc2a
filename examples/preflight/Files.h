// Paths, and whether they can be used.
#ifndef EXAMPLES_PREFLIGHT_FILES_H
#define EXAMPLES_PREFLIGHT_FILES_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

// The path in a keytab's name as libkrb5 reads it: what is in front of a colon is a type, except
// after a slash. Nothing when the type is no file's.
inline std::optional<std::string> KeytabPath(const std::string& name) {
  const std::size_t colon = name.find(':');
  if (colon == std::string::npos || name.front() == '/') return name;
  const std::string type = name.substr(0, colon);
  if (type != "FILE" && type != "WRFILE") return std::nullopt;
  return name.substr(colon + 1);
}

inline std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Empty when this process can make files in `folder`, what is wrong otherwise.
inline std::string WhyUnusable(const std::string& folder) {
  struct stat status;
  if (stat(folder.c_str(), &status) != 0) return folder + ": " + std::strerror(errno);
  if (!S_ISDIR(status.st_mode)) return folder + " is no folder";
  if (faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
    return folder + ": " + std::strerror(errno);
  }
  return "";
}

#endif
