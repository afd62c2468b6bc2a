#include "JoinScenario.h"

#include <krb5.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>

namespace tavrel::tests {
namespace {

constexpr char kClockVariable[] = "TAVREL_TESTS_CLOCK";

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

void SetHostName(const std::string& name) {
  if (sethostname(name.data(), name.size()) != 0) throw std::runtime_error("no host name");
}

std::string Replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
    text.replace(at, what.size(), with);
  return text;
}

void RunCommand(const std::string& command) {
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

// A keytab as libkrb5 itself opens it.
class KeytabFile {
 public:
  explicit KeytabFile(const std::string& path) {
    if (krb5_init_context(&context) != 0) throw std::runtime_error("no context");
    if (krb5_kt_resolve(context, ("FILE:" + path).c_str(), &keytab) != 0) {
      krb5_free_context(context);
      throw std::runtime_error("no keytab");
    }
  }
  KeytabFile(const KeytabFile&) = delete;
  KeytabFile& operator=(const KeytabFile&) = delete;
  ~KeytabFile() {
    krb5_kt_close(context, keytab);
    krb5_free_context(context);
  }

  // Calls `visit` for every entry; for none when the file cannot be read.
  template <typename Visit>
  void ForEach(Visit visit) const {
    krb5_kt_cursor cursor = nullptr;
    if (krb5_kt_start_seq_get(context, keytab, &cursor) != 0) return;
    krb5_keytab_entry entry;
    while (krb5_kt_next_entry(context, keytab, &entry, &cursor) == 0) {
      visit(entry);
      krb5_free_keytab_entry_contents(context, &entry);
    }
    krb5_kt_end_seq_get(context, keytab, &cursor);
  }

  krb5_context context = nullptr;
  krb5_keytab keytab = nullptr;
};

}  // namespace

JoinScenario::JoinScenario() : began_(std::time(nullptr)), host_name_(HostName()) {}

void JoinScenario::TearDown() {
  while (!variables_.empty())
    variables_.pop_back();  // the latest first: each restores what it replaced
  SetHostName(host_name_);
  for (const std::string& name : accounts_)
    directory.Delete(name);

  TakeLog();
  std::vector<std::string> secrets = {
      password,
      Lab("ADMIN_PASSWORD"),
      Lab("USER_PASSWORD"),
      kEarlierPassword,
      kChangedPassword,
      Parameters().GetMachinePassword(),
      JoinParameters(Lab("REALM"), {}, "", "").GetMachinePassword()};
  KeytabFile(keytab).ForEach([&](const krb5_keytab_entry& entry) {
    const std::string key(reinterpret_cast<const char*>(entry.key.contents), entry.key.length);
    secrets.insert(secrets.end(), {key, Hex(key)});
  });
  for (const std::string& secret : secrets) {
    if (secret.empty()) continue;
    EXPECT_EQ(written_.find(secret), std::string::npos) << "a secret was told";
  }
}

void JoinScenario::NameMachine(const std::string& host, const std::string& account_name) {
  SetHostName(host);
  account = account_name;
  if (account.empty()) {
    for (const char c : host)
      account += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  accounts_.insert(account);
}

Outcome JoinScenario::Run(const Operation& operation) {
  TakeLog();
  std::string error = kUntouched;
  const int status = operation(&error);
  written_ += error;
  return {status, error, TakeLog()};
}

Outcome JoinScenario::RunWithoutError(const Operation& operation) {
  TakeLog();
  const int status = operation(nullptr);
  return {status, "", TakeLog()};
}

Outcome JoinScenario::Join(KrbRealm& realm) {
  return Run([&](std::string* error) { return realm.Join(error); });
}

Outcome JoinScenario::TestJoin(KrbRealm& realm) {
  return Run([&](std::string* error) { return realm.TestJoin(domain, user, password, error); });
}

std::string JoinScenario::TakeLog() {
  static constexpr std::string_view kEntry = "1 krb-keytab Process: Key: ";
  static constexpr std::string_view kAt = " at ";
  std::string lines;
  for (std::string line : log_.Lines()) {
    if (line.compare(0, kEntry.size(), kEntry) == 0) {
      const std::size_t number = line.rfind(kAt) + kAt.size();
      const long written = std::stol(line.substr(number));
      // libkrb5's clock is the KDC's, as far as it knows it: it may be a second off.
      const bool now = written >= began_ - 1 && written <= std::time(nullptr) + 1;
      if (now) line.replace(number, std::string::npos, "{TIME}");
    }
    lines += line + "\n";
  }
  log_.Clear();
  written_ += lines;
  return lines;
}

std::string JoinScenario::Log(const std::vector<std::string_view>& blocks) const {
  std::string text;
  for (const std::string_view block : blocks)
    text += block;
  const bool is_url = dc.find("://") != std::string::npos;
  text = Replaced(text, "{KEYTAB}", keytab);
  text = Replaced(text, "{URL}", is_url ? dc : "ldap://" + dc);
  return Replaced(Replaced(text, "{DC}", dc), "{NAME}", account);
}

void JoinScenario::Scene(const std::string& arguments) {
  RunCommand("scene " + arguments);
}

void JoinScenario::ChangeDatabase(const std::string& ldif) {
  RunCommand("ldbmodify --configfile=\"$LAB_SMB_CONF\" -H \"$LAB_SAM_LDB\" >/dev/null <<'END'\n" +
             ldif + "END");
}

void JoinScenario::JoinedEarlier() {
  directory.Add(account, kEarlierPassword);
  AddKey(account, kEarlierPassword);
}

void JoinScenario::PasswordChangedByOthers() {
  Scene("password '" + account + "$' " + kChangedPassword);
}

void JoinScenario::AddKey(const std::string& name, const std::string& key_password) const {
  const KeytabFile file(keytab);
  const ParsedPrincipal principal(name + "$@" + Lab("REALM"));
  std::string key = Rc4Key(key_password);
  krb5_keytab_entry entry{};
  entry.principal = principal.Get();
  entry.vno = 1;
  entry.key.enctype = ENCTYPE_ARCFOUR_HMAC;
  entry.key.length = static_cast<unsigned>(key.size());
  entry.key.contents = reinterpret_cast<krb5_octet*>(key.data());
  if (krb5_kt_add_entry(file.context, file.keytab, &entry) != 0) throw std::runtime_error("no key");
}

std::string JoinScenario::PasswordState() const {
  return "set at " + directory.Value(account, "pwdLastSet") + ", version " +
         directory.Value(account, "msDS-KeyVersionNumber");
}

std::vector<std::string> JoinScenario::Entries() const {
  const KeytabFile file(keytab);
  std::vector<std::string> entries;
  file.ForEach([&](const krb5_keytab_entry& entry) {
    char* name = nullptr;
    if (krb5_unparse_name(file.context, entry.principal, &name) != 0) return;
    entries.push_back(std::string(name) + " version " + std::to_string(entry.vno) + " enctype " +
                      std::to_string(entry.key.enctype));
    krb5_free_unparsed_name(file.context, name);
  });
  return entries;
}

void JoinScenario::AddKerberosSettings(const std::string& lines) {
  const std::string path = folder / "krb5.conf";
  const std::string earlier = FileBytes(std::getenv("KRB5_CONFIG"));
  std::ofstream(path) << earlier << lines << "\n";
  SetVariable("KRB5_CONFIG", path);
}

bool JoinScenario::InProcessWithClock(const std::string& offset) {
  if (std::getenv(kClockVariable) != nullptr) return true;
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  char program[PATH_MAX] = {};
  if (readlink("/proc/self/exe", program, sizeof program - 1) == -1) return false;
  const std::string command = std::string("ASAN_OPTIONS=$ASAN_OPTIONS:verify_asan_link_order=0 ") +
                              kClockVariable + "=1 scene clock " + offset + " '" + program +
                              "' --gtest_filter='" + test.test_suite_name() + "." + test.name() +
                              "' 2>&1";
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  char part[4096];
  while (const std::size_t size = std::fread(part, 1, sizeof part, pipe))
    output.append(part, size);
  const bool passed = pclose(pipe) == 0 && output.find("[  PASSED  ] 1 test.") != std::string::npos;
  EXPECT_TRUE(passed) << output;
  return false;
}

}  // namespace tavrel::tests
