#include "Course.h"

#include <filesystem>
#include <set>
#include <sstream>

#include "KrbSettings.h"
#include "Ledger.h"
#include "LogCapture.h"
#include "ScratchKeytab.h"
#include "tavrel/Join.h"

namespace tavrel::tests {
namespace {

constexpr char kUntouched[] = "untouched";

const KrbSettings& Settings() {
  static const KrbSettings settings(kTolerateSkew);
  return settings;
}

// A domain's name that was not used before: the machine password of a domain is made only once.
std::string NextDomain() {
  static int number = 0;
  std::ostringstream name;
  name << "d" << 1000000 + ++number << ".example.com";
  return name.str();
}

std::string Upper(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

// A text without what differs from run to run.
std::string Normal(const World& world, std::string text) {
  text = Replaced(std::move(text), world.keytab, "<keytab>");
  text = Replaced(std::move(text), world.far_side.domain, "<domain>");
  text = Replaced(std::move(text), world.domain, "<given>");
  for (const char* ends_with_number : {"1 krb-keytab Process: Key: ",  // its time
                                       "1 krb-realm Authenticate: Auth request received"}) {
    if (text.rfind(ends_with_number, 0) == 0) text.resize(text.rfind(' '));
  }
  return text;
}

struct Snapshot {
  explicit Snapshot(const std::string& path)
      : exists(std::filesystem::exists(path)), bytes(FileBytes(path)), entries(ReadKeytab(path)) {}

  bool exists;
  std::string bytes;
  std::vector<StoredKey> entries;
};

// What became of a keytab: see Scenario, or else what is wrong with it.
std::string KeytabChange(const World& world, const Snapshot& before, const Snapshot& after,
                         const std::string& new_key) {
  if (after.exists == before.exists && after.bytes == before.bytes) return kUnchanged;
  if (world.keytab_is_damaged && after.entries == before.entries) return kMended;
  std::vector<StoredKey> left = before.entries;
  for (auto own = left.begin(); own != left.end() && left != after.entries;)
    own = own->principal == world.principal ? left.erase(own) : own + 1;
  if (left == after.entries && left != before.entries) return kRemoved;

  std::vector<StoredKey> kept = after.entries;
  if (kept.empty()) return "changed, and without a key";
  const StoredKey added = kept.back();
  kept.pop_back();
  if (kept != before.entries) return "not what it was, and one key";
  if (added.principal != world.principal) return "one key of " + added.principal + " more";
  if (added.key != Rc4Key(new_key)) return "one key more, but not the password's";
  return kOneMore;
}

void CheckSecrets(const World& world, const std::vector<std::string>& texts, Course& course) {
  std::vector<std::string> secrets = world.secrets;
  for (const auto& [dn, account] : world.far_side.accounts)
    secrets.push_back(account.password);
  secrets.push_back(JoinParameters(world.domain, {}, "", "").GetMachinePassword());
  std::set<std::string> forms;
  for (const std::string& secret : secrets) {
    if (secret.empty()) continue;
    const std::string key = Rc4Key(secret);
    forms.insert({secret, key, Hex(key), Upper(Hex(key))});
  }
  for (const std::string& text : texts) {
    for (const std::string& form : forms) {
      if (text.find(form) != std::string::npos) course.wrong.push_back("a secret is told: " + text);
    }
  }
}

void CheckNames(const World& world, Course& course) {
  // Without a host name the machine has an empty one, which no directory has.
  const std::string nameless = "cn=" + world.dn.substr(world.dn.find(','));
  for (const std::string& name : world.far_side.names_seen) {
    if (name != world.dn && name != world.principal && name != nameless &&
        name != "$@" + world.far_side.domain) {
      course.wrong.push_back("the machine went by the name of " + name);
    }
  }
}

}  // namespace

std::string Replaced(std::string text, const std::string& what, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
    text.replace(at, what.size(), by);
  return text;
}

Course RunOnce(const Scenario& scenario, const Plan& plan, bool with_error) {
  Course course;
  Forget();
  Ledger book;
  ledger = &book;
  {
    const std::unique_ptr<Case> subject = scenario.make();
    const World& world = subject->world;
    const Snapshot before(world.keytab);
    LogCapture log;

    std::string error = kUntouched;
    try {
      const Window window(plan);
      course.result = subject->Act(with_error ? &error : nullptr);
    } catch (const std::bad_alloc&) {
      course.result = kBadAlloc;
    } catch (const std::exception& other) {
      course.result = std::string("exception: ") + other.what();
    }

    course.first = TheInjected().first;
    course.fired = TheInjected().fired;
    std::vector<std::string> texts = {error};
    course.result = Normal(world, course.result);
    course.error = Normal(world, error);
    for (const std::string& line : log.Lines()) {
      texts.push_back(line);
      course.lines.push_back(Normal(world, line));
    }
    course.keytab = KeytabChange(world, before, Snapshot(world.keytab), subject->Password());
    if (course.keytab != kUnchanged && course.keytab != kMended &&
        course.keytab != scenario.keytab &&
        !(course.keytab == kOneMore && !subject->Password().empty())) {
      course.wrong.push_back("the keytab is " + course.keytab);
    }

    log.Clear();
    try {
      const std::string again = subject->Again();
      if (!again.empty()) course.wrong.push_back("once more: " + again);
    } catch (const std::exception& other) {
      course.wrong.push_back(std::string("once more: exception: ") + other.what());
    }
    for (const std::string& line : log.Lines())
      texts.push_back(line);
    CheckSecrets(world, texts, course);
    CheckNames(world, course);
  }
  ledger = nullptr;
  for (const std::string& complaint : book.Complaints())
    course.wrong.push_back(complaint);
  return course;
}

World::World() : domain(NextDomain()), far_side(Upper(domain)), keytab(Settings() / domain) {
  far_side.administrator = "Administrator@" + far_side.domain;
  far_side.administrator_password = "Adm1n.of.the.domain";
  tavrel::tests::far_side = &far_side;
  secrets = {far_side.administrator_password};
  const JoinParameters names(domain, {}, "", "");
  account = names.GetAccountName();
  dn = names.GetMachineDN();
  principal = account + "$@" + far_side.domain;
}

World::~World() {
  tavrel::tests::far_side = nullptr;
  std::filesystem::remove(keytab);
}

}  // namespace tavrel::tests
