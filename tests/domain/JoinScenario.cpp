#include "JoinScenario.h"

#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "tavrel/KrbError.h"

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

}  // namespace

JoinScenario::JoinScenario() : host_name_(HostName()) {}

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
  for (const StoredKey& stored : ReadKeytab("FILE:" + keytab))
    secrets.insert(secrets.end(), {stored.key, Hex(stored.key)});
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

JoinedRealm::JoinedRealm(JoinScenario& scene)
    : KrbRealm(scene.domain, scene.servers, scene.user, scene.password, scene.keytab) {
  if (scene.Join(*this).status != kSuccess) throw std::runtime_error("no realm joined");
}

JoinedRealm::JoinedRealm(JoinScenario& scene, const std::string& host)
    : JoinedRealm((scene.NameMachine(host), scene)) {}

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
  std::string notable;
  for (const std::string& line : log_.Notable())
    notable += line + "\n";
  for (const std::string& line : log_.Lines())
    written_ += line + "\n";
  log_.Clear();
  return notable;
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
  AppendKey("FILE:" + keytab, {name + "$@" + Lab("REALM"), 1, Rc4Key(key_password)});
}

std::string JoinScenario::PasswordState() const {
  return "set at " + directory.Value(account, "pwdLastSet") + ", version " +
         directory.Value(account, "msDS-KeyVersionNumber");
}

std::vector<std::string> JoinScenario::Entries() const {
  std::vector<std::string> entries;
  for (const StoredKey& stored : ReadKeytab("FILE:" + keytab)) {
    entries.push_back(stored.principal + " version " + std::to_string(stored.vno) + " enctype " +
                      std::to_string(stored.etype));
  }
  return entries;
}

void JoinScenario::AddKerberosSettings(const std::string& lines) {
  const std::string path = folder / "krb5.conf";
  const std::string earlier = FileBytes(std::getenv("KRB5_CONFIG"));
  std::ofstream(path) << earlier << lines << "\n";
  SetVariable("KRB5_CONFIG", path);
}

bool JoinScenario::HasOtherClock() {
  return std::getenv(kClockVariable) != nullptr;
}

bool JoinScenario::InProcessWithClock(const std::string& offset) {
  if (HasOtherClock()) return true;
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
