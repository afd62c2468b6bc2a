// Passwords and keys, in what operations tell and in the memory that they leave.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <krb5.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "LogCapture.h"
#include "MembershipScenario.h"
#include "ScratchFolder.h"

namespace tavrel::plus::tests {
namespace {

using tavrel::tests::Lab;

constexpr char kMask = 0x5A;
constexpr std::size_t kPart = 16;  // bytes: the beginning of freed memory may be overwritten
constexpr std::size_t kChunk = std::size_t{1} << 20U;

// A part of a secret, masked so that nothing of this program is what it looks for.
struct Part {
  std::string masked;
  std::string what;
  friend bool operator<(const Part& a, const Part& b) { return a.masked < b.masked; }
};
std::set<Part> parts;
std::array<std::vector<const Part*>, 256> by_first;  // by the first byte, unmasked

void RememberMasked(const std::string& what, const std::string& masked) {
  for (std::size_t at = 0; at < masked.size(); at += kPart) {
    const std::size_t last = masked.size() - std::min(kPart, masked.size());
    const auto [part, is_new] = parts.insert({masked.substr(std::min(at, last), kPart), what});
    if (is_new) by_first[static_cast<unsigned char>(part->masked[0] ^ kMask)].push_back(&*part);
  }
}

void Remember(const std::string& what, std::string_view secret) {
  std::string masked;
  for (const char c : secret)
    masked += static_cast<char>(c ^ kMask);
  RememberMasked(what, masked);
}

// What is in `bytes` of what is to be nowhere.
void Look(std::string_view bytes, std::set<std::string>& found) {
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    for (const Part* const part : by_first[static_cast<unsigned char>(bytes[at])]) {
      const std::string& masked = part->masked;
      const bool is_here = masked.size() <= bytes.size() - at &&
                           std::equal(masked.begin(), masked.end(), bytes.data() + at,
                                      [](char a, char b) { return a == (b ^ kMask); });
      if (is_here) found.insert(part->what);
    }
  }
}

// What is in the memory of this process, freed or not.
std::set<std::string> InMemory() {
  std::set<std::string> found;
  void* const own =
      mmap(nullptr, kChunk, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  std::ifstream maps("/proc/self/maps");
  std::size_t looked = 0;
  for (std::string line; std::getline(maps, line);) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    std::string rights;
    std::istringstream(line) >> std::hex >> begin >> dash >> end >> rights;
    if (rights.rfind("rw", 0) != 0) continue;
    for (std::uintptr_t at = begin; at < end; at += kChunk - kPart) {
      if (at == reinterpret_cast<std::uintptr_t>(own)) break;
      const ssize_t size =
          pread(memory, own, std::min<std::size_t>(kChunk, end - at), static_cast<off_t>(at));
      if (size <= 0) break;
      std::set<std::string> here;
      Look({static_cast<const char*>(own), static_cast<std::size_t>(size)}, here);
      for (const std::string& what : here)
        found.insert(what + " in " + line.substr(std::min<std::size_t>(line.size(), 73)));
      looked += static_cast<std::size_t>(size);
    }
  }
  close(memory);
  munmap(own, kChunk);
  EXPECT_GT(looked, std::size_t{1} << 20U);
  return found;
}

// Whatever is given back meanwhile is looked at: who gave back what.
bool watching = false;
std::set<std::string> given_back;

void LookAtBlock(const void* block, std::size_t size) {
  if (!watching || block == nullptr) return;
  watching = false;
  std::set<std::string> found;
  Look({static_cast<const char*>(block), size}, found);
  std::array<void*, 8> frames{};
  const int count = found.empty() ? 0 : backtrace(frames.data(), static_cast<int>(frames.size()));
  std::string who;
  for (int i = 2; i < count; ++i) {
    Dl_info info{};
    if (dladdr(frames[static_cast<std::size_t>(i)], &info) == 0) continue;
    const std::string path = info.dli_fname;
    who += (who.empty() ? " by " : ", for ") + path.substr(path.rfind('/') + 1);
  }
  for (const std::string& what : found)
    given_back.insert(what + who);
  watching = true;
}

// A password that this process has nowhere but for as long as it is used.
class Hidden {
 public:
  Hidden(const std::string& whose, char* password) : size_(std::strlen(password)) {
    Remember(whose, password);
    for (std::size_t i = 0; i < size_; ++i)
      masked_[i] = static_cast<char>(password[i] ^ kMask);
    explicit_bzero(password, size_);
  }
  Credentials As(const std::function<Credentials(std::string_view)>& make) const {
    std::array<char, 64> plain{};
    for (std::size_t i = 0; i < size_; ++i)
      plain[i] = static_cast<char>(masked_[i] ^ kMask);
    Credentials credentials = make({plain.data(), size_});
    explicit_bzero(plain.data(), plain.size());
    return credentials;
  }

 private:
  std::size_t size_;
  std::array<char, 64> masked_{};
};

}  // namespace
}  // namespace tavrel::plus::tests

extern "C" void __libc_free(void* block);
extern "C" void* __libc_realloc(void* block, std::size_t size);
extern "C" void free(void* block) {
  tavrel::plus::tests::LookAtBlock(block, malloc_usable_size(block));
  __libc_free(block);
}
extern "C" void* realloc(void* block, std::size_t size) {
  const std::size_t before = malloc_usable_size(block);
  void* const moved = __libc_realloc(block, size);
  if (block != nullptr && moved != block && moved != nullptr)
    tavrel::plus::tests::LookAtBlock(moved, std::min(before, size));
  return moved;
}

// A machine's new password, before it is anywhere else.
extern "C" int RAND_priv_bytes(unsigned char* bytes, int size) {
  using namespace tavrel::plus::tests;
  constexpr char kCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-";
  if (getrandom(bytes, static_cast<std::size_t>(size), 0) != size) return 0;
  std::string masked;
  for (int i = 0; i < size; ++i)
    masked += static_cast<char>(kCharacters[bytes[i] % 64] ^ kMask);
  RememberMasked("a machine's password", masked);
  std::string wide;
  for (const char c : masked)
    wide += {c, kMask};
  RememberMasked("a machine's password as the directory takes it", wide);
  return 1;
}

// Every key that is made of a password, and the password.
extern "C" krb5_error_code krb5_c_string_to_key_with_params(krb5_context context, krb5_enctype type,
                                                            const krb5_data* text,
                                                            const krb5_data* salt,
                                                            const krb5_data* parameters,
                                                            krb5_keyblock* key) {
  using namespace tavrel::plus::tests;
  static const auto real = reinterpret_cast<decltype(&krb5_c_string_to_key_with_params)>(
      dlsym(RTLD_NEXT, "krb5_c_string_to_key_with_params"));
  const krb5_error_code code = real(context, type, text, salt, parameters, key);
  if (code != 0) return code;
  const bool was_watching = std::exchange(watching, false);
  const std::size_t known = parts.size();
  Remember("a password", {text->data, text->length});
  EXPECT_EQ(parts.size(), known) << "a password that was not known before a key was made of it";
  Remember("a key", {reinterpret_cast<const char*>(key->contents), key->length});
  watching = was_watching;
  return 0;
}

namespace tavrel::plus::tests {
namespace {

TEST(Secrets, AreNeitherToldNorLeftInMemory) {
  const tavrel::tests::LogCapture log;
  const tavrel::tests::ScratchFolder folder;
  const Hidden administrator("the administrator's password", std::getenv("LAB_ADMIN_PASSWORD"));
  char mistyped[] = "Mistyped.Pass.1";
  const Hidden wrong("a wrong password", mistyped);
  const auto password = [](std::string_view text) {
    return Credentials::Password("Administrator", text);
  };
  MembershipOptions options;
  options.account_name = "SECRET";
  options.dns_name = "secret.corp.example.com";
  std::string told;
  const auto tell = [&](const Result& result) {
    told += result.text + "\n";
    return result;
  };
  watching = true;
  {
    Membership member(Lab("DOMAIN"), folder / "krb5.keytab", options);
    EXPECT_THAT(tell(member.Enrol(administrator.As(password), kLimit)), Changes());
    EXPECT_THAT(tell(member.Rotate(kLimit)), Changes());
    options.services = {"HTTP"};
    Membership other(Lab("DOMAIN"), folder / "krb5.keytab", options);
    EXPECT_THAT(tell(other.Enrol(wrong.As(password), kLimit)),
                Fails(Cause::kBadCredentials, Step::kSignIn));
    EXPECT_THAT(tell(member.Leave(administrator.As(password), Departure::kDelete, kLimit)),
                Changes());
    options.simple_bind = true;
    options.ca_file = Lab("CA");
    Membership simple(Lab("DOMAIN"), folder / "krb5.keytab", options);
    EXPECT_THAT(tell(simple.Enrol(wrong.As(password), kLimit)),
                Fails(Cause::kBadCredentials, Step::kBind));
    EXPECT_THAT(tell(simple.Enrol(administrator.As(password), kLimit)), Changes());
    EXPECT_THAT(tell(simple.Leave(administrator.As(password), Departure::kDelete, kLimit)),
                Changes());
    watching = false;
    const Credentials held = administrator.As(password);
    EXPECT_THAT(InMemory(), testing::Not(testing::IsEmpty()));
  }

  std::set<std::string> found;
  for (const std::string& line : log.Lines())
    told += line + "\n";
  Look(told, found);
  EXPECT_THAT(found, testing::IsEmpty());
  EXPECT_THAT(InMemory(), testing::IsEmpty());
  EXPECT_THAT(given_back, testing::IsEmpty());
  EXPECT_GT(parts.size(), 20U);
}

}  // namespace
}  // namespace tavrel::plus::tests
