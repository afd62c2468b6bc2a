#include "tavrel/plus/Identity.h"

#include <algorithm>
#include <string_view>

namespace tavrel::plus {
namespace {

// A part of a name as Kerberos writes it (krb5_unparse_name).
std::string Quoted(std::string_view part, bool is_realm) {
  std::string text;
  for (const char c : part) {
    switch (c) {
      case '\n': text += "\\n"; break;
      case '\t': text += "\\t"; break;
      case '\b': text += "\\b"; break;
      case '\0': text += "\\0"; break;
      case '/': text += is_realm ? "/" : "\\/"; break;
      case '@':
      case '\\': text += '\\'; [[fallthrough]];
      default: text += c;
    }
  }
  return text;
}

bool Contains(const std::vector<GroupMembership>& groups, const Sid& sid) {
  return std::any_of(groups.begin(), groups.end(), [&](const GroupMembership& group) {
    return group.Grants() && group.sid == sid;
  });
}

}  // namespace

std::string Principal::Text() const {
  std::string text;
  for (const std::string& component : components) {
    if (&component != &components.front()) text += '/';
    text += Quoted(component, false);
  }
  return text + "@" + Quoted(realm, true);
}

bool Authorization::IsMemberOf(const Sid& sid) const {
  return sid == user || Contains(groups, sid) || Contains(extra_sids, sid) ||
         Contains(resource_groups, sid);
}

std::string Identity::RealmAndName() const {
  return client.realm + "\\" + (client.components.empty() ? "" : client.components.back());
}

bool Identity::IsMemberOf(const Sid& sid) const {
  return authorization && authorization->IsMemberOf(sid);
}

bool Identity::IsOfDomain(const Sid& domain) const {
  return authorization && client.realm == service.realm && authorization->user.IsIn(domain);
}

}  // namespace tavrel::plus
