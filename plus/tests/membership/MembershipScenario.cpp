#include "MembershipScenario.h"

#include "GssClient.h"
#include "tavrel/KrbError.h"

namespace tavrel::plus::tests {

using tavrel::tests::Lab;

MembershipScenario::MembershipScenario() {
  SetVariable("KRB5_CONFIG", Lab("KRB5_CONFIG_DEFAULT_ENCTYPES"));
}

std::string MembershipScenario::Value(const std::string& attribute) const {
  const auto attributes = directory.Read(account);
  const auto found = attributes.find(attribute);
  return found != attributes.end() ? found->second.at(0) : "";
}

std::vector<std::string> MembershipScenario::AesEntries(const std::vector<int>& versions) const {
  std::vector<std::string> entries;
  for (const int version : versions) {
    for (const char* type : {"18", "17"}) {
      entries.push_back(account + "$@CORP.EXAMPLE.COM version " + std::to_string(version) +
                        " enctype " + type);
    }
  }
  return entries;
}

void MembershipScenario::CountFailedLogons::LockAfter(const std::string& count) {
  ChangeDatabase("dn: " + Lab("BASE_DN") +
                 "\nchangetype: modify\nreplace: lockoutThreshold\nlockoutThreshold: " + count +
                 "\n");
}

std::string MembershipScenario::SignIn() const {
  KrbRealm realm = Realm();
  std::string error;
  if (realm.Join(&error) != kSuccess) return "join failed: " + error;
  const tavrel::tests::GssClient alice(Lab("USER") + "@" + Lab("REALM"), Lab("USER_PASSWORD"));
  std::vector<char> token = alice.Token(account + "$@CORP.EXAMPLE.COM");
  return realm.Authenticate(token.data(), static_cast<int>(token.size()));
}

}  // namespace tavrel::plus::tests
