// A keytab file with every operation on it. The input is the file.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <random>
#include <utility>

#include "Expect.h"
#include "ForgedRequest.h"
#include "Interpose.h"
#include "KnownLeak.h"
#include "KrbSettings.h"
#include "Records.h"
#include "tavrel/KrbContext.h"
#include "tavrel/KrbError.h"
#include "tavrel/KrbKeytab.h"

namespace tavrel::fuzz {
namespace {

using tests::StandIn;
namespace calls = tests::calls;
using Names = std::vector<std::string>;

constexpr char kRealm[] = "CORP.EXAMPLE.COM";
constexpr char kMachine[] = "APPLIANCE$";
constexpr char kPassword[] = "Secret.1";  // whose key sealed the request below
constexpr char kNewPassword[] = "Secret.2";

struct Entry {
  std::string realm;
  Names names;
  std::uint32_t vno = 0;
  std::int32_t timestamp = 0;
  int etype = 0;
  std::string key;
  bool whole = true;  // the file holds all of the key

  bool IsMachines() const { return realm == kRealm && names == Names{kMachine}; }
  bool operator==(const Entry& other) const {
    return realm == other.realm && names == other.names && vno == other.vno &&
           timestamp == other.timestamp && etype == other.etype && whole == other.whole &&
           (!whole || key == other.key);
  }
};
std::string Show(const Entry& entry) {
  std::string text = "realm " + fuzz::Show(entry.realm) + " names";
  for (const std::string& name : entry.names)
    text += " " + fuzz::Show(name);
  return text + " vno " + std::to_string(entry.vno) + " at " + std::to_string(entry.timestamp) +
         " etype " + std::to_string(entry.etype) + " key " + fuzz::Show(entry.key);
}
void ExpectEntries(const std::vector<Entry>& is, const std::vector<Entry>& expected,
                   const char* rule) {
  if (is == expected) return;
  std::string values = "\n  is:";
  for (const Entry& entry : is)
    values += "\n    " + Show(entry);
  values += "\n  expected:";
  for (const Entry& entry : expected)
    values += "\n    " + Show(entry);
  Broken(rule, values);
}

// A keytab file as libkrb5 walks it.
struct Contents {
  bool opens = false;
  std::vector<Entry> entries;
  // Nothing in it overlaps, is cut off, or lies behind what ends the walk.
  bool sound = false;
  std::uint32_t most_names = 0;  // that an entry claims to have
};

class Reader {
 public:
  explicit Reader(std::string_view file) : file_(file) {}

  Contents Read() {
    Contents contents;
    const auto version = file_.substr(0, 2);
    native_ = version == "\x05\x01";
    if (!native_ && version != "\x05\x02") return contents;
    contents.opens = true;
    at_ = 2;
    for (;;) {
      if (at_ == file_.size()) {
        contents.sound = true;
        break;
      }
      std::uint32_t bits = 0;
      if (!Number(4, bits)) break;
      const auto size = static_cast<std::int32_t>(bits);
      if (size < 0) {  // a hole
        if (size == INT32_MIN) break;
        at_ += static_cast<std::size_t>(-std::int64_t{size});
        if (at_ > file_.size()) break;
        continue;
      }
      if (size == 0) {  // the end
        contents.sound = at_ == file_.size();
        break;
      }
      const std::size_t start = at_;
      Entry entry;
      const std::size_t next = start + static_cast<std::size_t>(size);
      // Where the next one starts is reckoned in 32 bits.
      const bool is_read = One(next, entry);
      contents.most_names = std::max(contents.most_names, names_);
      if (!is_read || next > INT32_MAX) break;
      contents.entries.push_back(entry);
      if (!entry.whole || at_ > next || next > file_.size()) {
        at_ = next;
        overlaps_ = true;  // the walk may go on
        continue;
      }
      at_ = next;
    }
    // Of an entry that libkrb5 writes in the native byte order, the last bytes are not written.
    contents.sound = contents.sound && !overlaps_ && !native_;
    return contents;
  }

 private:
  bool Number(std::size_t size, std::uint32_t& number) {
    if (at_ >= file_.size() || file_.size() - at_ < size) return false;
    number = 0;
    for (std::size_t i = 0; i < size; ++i) {
      const auto byte = static_cast<unsigned char>(file_[at_ + (native_ ? size - 1 - i : i)]);
      number = number << 8 | byte;
    }
    at_ += size;
    return true;
  }
  bool Positive(std::uint32_t& number) {
    return Number(2, number) && number != 0 && number < 0x8000;
  }
  bool Text(std::string& text) {
    std::uint32_t size = 0;
    if (!Positive(size) || at_ > file_.size() || file_.size() - at_ < size) return false;
    text = file_.substr(at_, size);
    at_ += size;
    return true;
  }

  bool One(std::size_t end, Entry& entry) {
    const std::size_t start = at_;
    std::uint32_t count = 0;
    std::uint32_t number = 0;
    if (!Number(2, count)) return false;
    if (native_) count = (count - 1) & 0xffff;  // which counts the realm
    if (count == 0 || count >= 0x8000) return false;
    names_ = count;
    if (!Text(entry.realm)) return false;
    for (; count > 0; --count) {
      if (!Text(entry.names.emplace_back())) return false;
    }
    if (!native_ && !Number(4, number)) return false;  // the type of the name
    if (!Number(4, number)) return false;
    entry.timestamp = static_cast<std::int32_t>(number);
    if (!Number(1, entry.vno) || !Number(2, number)) return false;
    entry.etype = static_cast<std::int16_t>(number);
    std::uint32_t length = 0;
    if (!Positive(length) || at_ >= file_.size()) return false;
    entry.key = file_.substr(at_, length);
    entry.whole = entry.key.size() == length;
    at_ += entry.key.size();
    entry.key.resize(length);
    if (at_ - start + 4 <= end - start) {
      if (!Number(4, number)) return false;
      if (number != 0) entry.vno = number;
    }
    return true;
  }

  std::string_view file_;
  std::size_t at_ = 0;
  bool native_ = false;
  bool overlaps_ = false;
  std::uint32_t names_ = 0;  // of the entry read last
};

// A file may claim entries of gigabytes, which are then written over with zeros: while it lives, a
// file cannot grow as large.
class SmallFiles {
 public:
  static constexpr std::size_t kRoom = 1 << 16;

  SmallFiles() {
    getrlimit(RLIMIT_FSIZE, &earlier_);
    const rlimit limit = {kRoom, earlier_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  SmallFiles(const SmallFiles&) = delete;
  SmallFiles& operator=(const SmallFiles&) = delete;
  ~SmallFiles() { setrlimit(RLIMIT_FSIZE, &earlier_); }

 private:
  rlimit earlier_{};
};

// Everything that lives as long as the process.
class World {
 public:
  World() {
    std::signal(SIGXFSZ, SIG_IGN);
    krb.SetClientPrincipal(std::string(kMachine) + "@" + kRealm);
    krb.SetKeytab("/proc/self/fd/" + std::to_string(file));
    old_key = KeyOf(kPassword);
    new_key = KeyOf(kNewPassword);
    tests::ForgedTicket ticket;
    ticket.password = kPassword;
    request = tests::ApReq(ticket);
  }

  void Put(std::string_view bytes) const {
    Expect(ftruncate(file, 0) == 0 &&
               pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
           "the file can be written");
  }
  std::string Get() const {
    struct stat status {};
    fstat(file, &status);
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    Expect(pread(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
           "the file can be read");
    return bytes;
  }

  tests::KrbSettings settings{tests::kTolerateSkew};
  KrbContext krb;
  const int file = memfd_create("keytab", MFD_CLOEXEC);
  std::string old_key;
  std::string new_key;
  std::vector<char> request;

 private:
  std::string KeyOf(std::string password) {
    const krb5_data data = {0, static_cast<unsigned>(password.size()), password.data()};
    krb5_keyblock key{};
    krb5_c_string_to_key(krb.context, ENCTYPE_ARCFOUR_HMAC, &data, &data, &key);
    const std::string bytes(reinterpret_cast<const char*>(key.contents), key.length);
    krb5_free_keyblock_contents(krb.context, &key);
    return bytes;
  }
};
World& TheWorld() {
  static World world;
  return world;
}

Contents Read(std::string_view file) {
  return Reader(file).Read();
}

bool HasMachine(const Contents& contents) {
  for (const Entry& entry : contents.entries) {
    if (entry.IsMachines()) return true;
  }
  return false;
}

std::uint32_t NextVno(const Contents& contents) {
  std::uint32_t highest = 0;
  for (const Entry& entry : contents.entries) {
    if (entry.IsMachines() && entry.vno > highest) highest = entry.vno;
  }
  return highest == UINT32_MAX ? highest : highest + 1;
}

// None when it depends on a key that the file does not hold.
std::optional<bool> IsCurrent(const Contents& contents, const std::string& key) {
  bool current = false;
  std::uint32_t last = 0;
  for (const Entry& entry : contents.entries) {
    if (!entry.IsMachines()) continue;
    if (current && entry.vno > last) {
      current = false;
    } else if (entry.vno < last) {
      last = entry.vno;
      continue;
    }
    if (!entry.whole) return std::nullopt;
    if (entry.key == key) current = true;
    last = entry.vno;
  }
  return current;
}

// ---- What only reads

class Visitor : public KeytabAccumulator {
 public:
  void Process(const krb5_keytab_entry& read) override {
    Entry entry;
    entry.realm.assign(read.principal->realm.data, read.principal->realm.length);
    for (krb5_int32 i = 0; i < read.principal->length; ++i)
      entry.names.emplace_back(read.principal->data[i].data, read.principal->data[i].length);
    entry.vno = read.vno;
    entry.timestamp = read.timestamp;
    entry.etype = read.key.enctype;
    entry.key.assign(reinterpret_cast<const char*>(read.key.contents), read.key.length);
    const std::size_t index = entries.size();
    if (index < expected->entries.size()) entry.whole = expected->entries[index].whole;
    entries.push_back(entry);
  }

  const Contents* expected = nullptr;
  std::vector<Entry> entries;
};

void CheckQueries(Keytab& keytab, const Contents& contents, const char* where) {
  Visitor visitor;
  visitor.expected = &contents;
  ExpectEqual(keytab.Iterate(visitor) == 0, contents.opens, where);
  ExpectEntries(visitor.entries, contents.entries, where);

  Records& log = TheLog();
  log.Clear();
  ExpectEqual(keytab.HasKey(), HasMachine(contents), "the machine has a key");
  ExpectEqual(log.Text().empty(), contents.opens, "only a failed start is told");
  log.Clear();
  ExpectEqual(keytab.GetNextClientVno(), NextVno(contents), "the next version");
  ExpectEqual(log.Text(), "", "the next version leaves no record");
  ExpectEqual(keytab.Print() == 0, contents.opens, "the keytab can be printed");
  Records records;
  for (const Entry& entry : contents.entries) {
    records.Add(1, "krb-keytab", "Process",
                "Key: " + entry.names[0] + "@" + entry.realm + " version " +
                    std::to_string(entry.vno) + " at " + std::to_string(entry.timestamp));
  }
  ExpectEqual(log.Text(), records.Text(), "every entry is printed");
}

void CheckInitialTicket(Keytab& keytab, const Contents& contents) {
  const StandIn exchange(calls::krb5_get_init_creds_keytab,
                         [](krb5_context context, krb5_creds* creds, krb5_principal client,
                            auto...) -> krb5_error_code {
                           creds->times.starttime = static_cast<krb5_timestamp>(std::time(nullptr));
                           krb5_copy_principal(context, client, &creds->server);
                           return krb5_copy_principal(context, client, &creds->client);
                         });
  std::string error;

  const int status = keytab.ASAuthenticate(&error);

  const bool content = !contents.entries.empty();
  ExpectEqual(status, int{content ? kSuccess : kFailure}, "a keytab with entries is tried");
  ExpectEqual(error, content ? "" : "Keytab file not created yet.", "one without is told");
}

bool SameToHmac(std::string a, std::string b) {
  const std::size_t size = std::max(a.size(), b.size());
  a.resize(size, '\0');
  b.resize(size, '\0');
  return a == b && size <= 64;  // longer ones are hashed first
}

void CheckRequest(Keytab& keytab, const Contents& contents) {
  World& world = TheWorld();
  std::vector<char> request = world.request;

  const std::string user = keytab.APAuthenticate(request.data(), static_cast<int>(request.size()));

  // The first that opens the ticket decides; a key that is cut off may be anything. To HMAC, zeros
  // behind a key are none (RFC 2104, 2).
  for (const Entry& entry : contents.entries) {
    if (!entry.whole) return;
    if (entry.etype != ENCTYPE_ARCFOUR_HMAC || !SameToHmac(entry.key, world.old_key)) continue;
    ExpectEqual(user, entry.IsMachines() ? "CORP.EXAMPLE.COM\\alice" : "",
                "the owner of the key that opens a ticket decides");
    return;
  }
  ExpectEqual(user, "", "without the key nobody is accepted");
}

// ---- What writes

// Whatever is wrong with a file: a key that could be read still can be, and none can that nobody
// wrote.
void CheckKeys(const Contents& before, const Contents& after, std::string_view file,
               std::string_view new_file) {
  const auto broken = [&](const char* rule, const Entry& entry) {
    Broken(rule, "\n  " + Show(entry) + "\n  before: " + fuzz::Show(file) +
                     "\n  after:  " + fuzz::Show(new_file));
  };
  std::vector<Entry> added = after.entries;
  for (const Entry& entry : before.entries) {
    if (!entry.whole) continue;
    const auto found = std::find(added.begin(), added.end(), entry);
    if (found == added.end()) broken("a key that could be read is lost", entry);
    added.erase(found);
  }
  int written = 0;
  for (const Entry& entry : added) {
    if (!entry.whole) continue;
    if (entry.IsMachines() && entry.key == TheWorld().new_key && ++written == 1) continue;
    broken("a key appears that nobody wrote", entry);
  }
}

void CheckWriting(Keytab& keytab, const std::string& file) {
  World& world = TheWorld();
  const Contents before = Read(file);
  const std::optional<bool> current = IsCurrent(before, world.new_key);
  std::string error;
  Records expected;
  TheLog().Clear();

  const bool written = keytab.WriteKey(kNewPassword, &error);

  const std::string new_file = world.Get();
  if (current && *current) Expect(written, "a key that is current need not be written");
  if (written && current && !*current)
    Expect(new_file != file, "a key that is not current is written");
  if (!written && new_file.size() == SmallFiles::kRoom) {
    Expect(Read(new_file).entries == before.entries, "where room ends, what was readable still is");
  } else if ((current && *current) || !written) {
    ExpectEqual(new_file, file, "a key that is current, or cannot be written, changes nothing");
  }
  if (!written) {
    expected.Add(4, "krb-keytab", "WriteKey", "Error adding key to keytab: " + error);
  }
  ExpectEqual(TheLog().Text(), expected.Text(), "what cannot be written is told");
  if (!written || new_file == file) return;

  const Contents after = Read(new_file);
  CheckQueries(keytab, after, "the walk after a key was written");
  CheckKeys(before, after, file, new_file);
  if (!before.sound) return;
  if (!after.sound) Broken("a sound keytab stays sound", "\n  " + fuzz::Show(new_file));
  std::vector<Entry> others;
  int added = 0;
  for (const Entry& entry : after.entries) {
    const bool is_it = entry.IsMachines() && entry.key == world.new_key &&
                       entry.etype == ENCTYPE_ARCFOUR_HMAC && entry.vno == NextVno(before);
    const std::size_t index = others.size();
    if (is_it && added == 0 && !(index < before.entries.size() && before.entries[index] == entry)) {
      ++added;
    } else {
      others.push_back(entry);
    }
  }
  ExpectEqual(added, 1, "one key is written");
  ExpectEntries(others, before.entries, "the keys that were there stay");

  const bool again = keytab.WriteKey(kNewPassword, &error);

  Expect(again, "a key that was written can be written again");
  if (IsCurrent(after, world.new_key).value_or(false)) {
    ExpectEqual(world.Get(), new_file, "a key that was written is not written again");
  }
}

void CheckClearing(Keytab& keytab, const std::string& file) {
  World& world = TheWorld();
  const Contents before = Read(file);
  TheLog().Clear();

  const bool cleared = keytab.ClearKeys(nullptr);

  const std::string new_file = world.Get();
  const Contents after = Read(new_file);
  ExpectEqual(TheLog().Text().empty(), cleared, "a failure is told");
  if (!HasMachine(before)) {
    ExpectEqual(cleared, before.opens, "where there is nothing to clear it is done");
    ExpectEqual(new_file, file, "where there is nothing to clear nothing changes");
  }
  CheckQueries(keytab, after, "the walk after clearing");
  if (!before.sound) return;
  Expect(cleared, "a sound keytab can be cleared");
  std::vector<Entry> others;
  for (const Entry& entry : before.entries) {
    if (!entry.IsMachines()) others.push_back(entry);
  }
  ExpectEntries(after.entries, others, "the keys of others stay");
}

}  // namespace
}  // namespace tavrel::fuzz

// libkrb5 waits for the disk after every change, which takes a hundred times as long as all else.
extern "C" int fsync(int) {
  return 0;
}

#ifdef TAVREL_FUZZ  // a replay takes its inputs as they are
namespace tavrel::fuzz {
namespace {

std::int32_t LengthAt(const std::string& file, std::size_t at) {
  std::uint32_t length = 0;
  for (std::size_t i = 0; i < 4; ++i)
    length = length << 8 | static_cast<unsigned char>(file[at + i]);
  return static_cast<std::int32_t>(length);
}
void PutLength(std::string& file, std::size_t at, std::uint32_t length) {
  for (std::size_t i = 0; i < 4; ++i)
    file[at + i] = static_cast<char>(length >> (24 - 8 * i));
}

// An entry with an RC4 key, its length included.
std::string Packed(std::string_view name, std::uint8_t vno, std::string_view key) {
  const auto counted = [](std::string_view text) {
    return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())}.append(
        text);
  };
  std::string entry(4, '\0');
  entry.append(1, '\0').append(1, '\1').append(counted(kRealm)).append(counted(name));
  entry.append(3, '\0').append(1, '\1');                    // a principal
  entry.append(4, '\7').append(1, static_cast<char>(vno));  // its time, and version
  entry.append(1, '\0').append(1, static_cast<char>(ENCTYPE_ARCFOUR_HMAC)).append(counted(key));
  PutLength(entry, 0, static_cast<std::uint32_t>(entry.size() - 4));
  return entry;
}

}  // namespace
}  // namespace tavrel::fuzz

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

// Every other time a keytab grows by an entry, or a length in it is damaged: bytes changed at
// random seldom are a length.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned seed) {
  using namespace tavrel::fuzz;
  std::minstd_rand random(seed);
  const auto below = [&](std::size_t limit) { return random() % limit; };
  std::string file(reinterpret_cast<const char*>(data), size);
  std::vector<std::size_t> lengths;  // where they stand
  for (std::size_t at = 2; at + 4 <= size;) {
    lengths.push_back(at);
    at += 4 + static_cast<std::size_t>(std::abs(std::int64_t{LengthAt(file, at)}));
  }
  const std::size_t what = below(6);
  if (what < 3 || lengths.empty()) return LLVMFuzzerMutate(data, size, most);
  if (what == 3) {
    std::string key(below(4) == 0 ? below(40) : 16, '\0');
    for (char& c : key)
      c = static_cast<char>('a' + below(26));
    file += Packed(below(2) == 0 ? kMachine : "OTHER$", static_cast<std::uint8_t>(below(4)), key);
  } else {
    const std::size_t at = lengths[below(lengths.size())];
    const std::int64_t length = LengthAt(file, at);
    const auto some = static_cast<std::int64_t>(below(100));
    const std::int64_t others[] = {length - some % 30,
                                   length + some,
                                   -some,
                                   some,
                                   static_cast<std::int64_t>(file.size()) - some,
                                   INT32_MAX - some};
    PutLength(file, at, static_cast<std::uint32_t>(others[below(std::size(others))]));
  }
  if (file.size() > most) return LLVMFuzzerMutate(data, size, most);
  file.copy(reinterpret_cast<char*>(data), file.size());
  return file.size();
}
#endif

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrel::fuzz;
  const std::string file(reinterpret_cast<const char*>(data), size);
  World& world = TheWorld();
  tavrel::Keytab keytab(&world.krb);
  const Contents contents = Read(file);
#ifdef TAVREL_FUZZ
  // libkrb5 makes room for all names before it reads the first. As many as do not fit into the file
  // end the walk like a few too many do, and take a hundred times as long.
  if (contents.most_names > 300) return 0;
#endif
  // libkrb5 does not free the realm of an entry that is cut off.
  const tavrel::tests::KnownLeak entries(!contents.sound);

  world.Put(file);
  CheckQueries(keytab, contents, "the walk");
  CheckInitialTicket(keytab, contents);
  CheckRequest(keytab, contents);
  ExpectEqual(world.Get(), file, "what only reads changes nothing");

  const SmallFiles limit;
  CheckWriting(keytab, file);

  world.Put(file);
  CheckClearing(keytab, file);
  return 0;
}
