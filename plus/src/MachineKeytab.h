// The machine's keytab: a file that is read and replaced as a whole.
#ifndef TAVREL_PLUS_SRC_MACHINEKEYTAB_H
#define TAVREL_PLUS_SRC_MACHINEKEYTAB_H

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Deadline.h"
#include "Failure.h"
#include "Secret.h"

namespace tavrel::plus {

// One key in a keytab.
struct KeytabKey {
  std::string realm;
  std::vector<std::string> components;
  std::uint32_t name_type = 1;  // KRB5_NT_PRINCIPAL
  std::uint32_t version = 0;
  std::uint32_t written = 0;  // when, in seconds since 1970; 0 as long as it may not be in force
  std::int32_t type = 0;
  Secret key;

  KeytabKey Copy() const;
};

// The same key of the same principal and version, whenever it was written.
bool operator==(const KeytabKey& a, const KeytabKey& b);

// Reads the entries of `bytes`, a file of format version 5.2. False when it is none. An entry that
// was cut off, or makes no sense, is left out with all that follows.
bool ParseKeytab(std::string_view bytes, std::vector<KeytabKey>& keys);
Secret FormatKeytab(const std::vector<KeytabKey>& keys);

// The machine's keytab. While it is held no other operation of this library is at work on it;
// programs that read it are not held up.
class MachineKeytab {
 public:
  explicit MachineKeytab(std::string path) : path_(std::move(path)) {}
  MachineKeytab(const MachineKeytab&) = delete;
  MachineKeytab& operator=(const MachineKeytab&) = delete;
  ~MachineKeytab();

  // Waits for other operations, and reads the file; makes an empty one where there is none.
  Failure Hold(const Deadline& deadline);

  // Reads the file without holding it. One that is not there has no keys.
  Failure Read(const Deadline& deadline);

  // Every key, in the order of the file.
  const std::vector<KeytabKey>& Keys() const { return keys_; }

  // Makes room for `count` keys more beside the file, so that a folder or a disk without any is
  // noticed before it matters.
  Failure Reserve(std::size_t count);

  // Puts `keys` in place of all that is there. The file is then the new one or, after a failure,
  // the old one; its owner, group and mode stay. Waits for a writer that has libkrb5's lock; keys
  // that one has added since the file was read stay too.
  Failure Replace(std::vector<KeytabKey> keys, const Deadline& deadline);

 private:
  Failure Create() const;
  Failure Load(int file, const Deadline& deadline, std::vector<KeytabKey>& keys);
  bool WriteNew(const std::vector<KeytabKey>& keys) const;
  Failure OpenNew();
  void DropNew();

  std::string path_;
  std::string new_path_;
  int held_ = -1;  // the file at `path_`, with the lock
  int new_ = -1;   // the one that is to replace it
  struct stat status_ {};
  std::vector<KeytabKey> keys_;
};

}  // namespace tavrel::plus

#endif
