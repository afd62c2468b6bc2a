#include "KnownTickets.h"

#include <new>
#include <utility>

namespace tavrel::plus {
namespace {

// What an entry takes besides its bytes and groups, as measured: the session key, those derived
// from it, and names.
constexpr std::size_t kEachTakes = 3500;

std::size_t GroupsOf(const OpenedTicket& opened) {
  if (!opened.authorization) return 0;
  const Authorization& user = *opened.authorization;
  return user.groups.capacity() + user.extra_sids.capacity() + user.resource_groups.capacity();
}

}  // namespace

const OpenedTicket* KnownTickets::Find(const std::shared_ptr<const KeyRing>& ring,
                                       std::string_view ticket) {
  if (ring_ != ring) {
    by_ticket_.clear();
    entries_.clear();
    used_ = 0;
    ring_ = ring;
  }
  const auto known = by_ticket_.find(ticket);
  if (known == by_ticket_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, known->second);
  return &known->second->opened;
}

void KnownTickets::Keep(const std::shared_ptr<const KeyRing>& ring, std::string_view ticket,
                        OpenedTicket opened) noexcept {
  const std::size_t size =
      kEachTakes + ticket.size() + opened.bytes.Size() + GroupsOf(opened) * sizeof(GroupMembership);
  if (ring != ring_ || size > memory_) return;
  Entries added;
  try {
    added.push_back({std::string(ticket), std::move(opened), size});
    by_ticket_.emplace(added.front().ticket, added.begin());
  } catch (const std::bad_alloc&) {
    return;
  }
  entries_.splice(entries_.begin(), added);
  for (used_ += size; used_ > memory_; entries_.pop_back()) {
    used_ -= entries_.back().size;
    by_ticket_.erase(entries_.back().ticket);
  }
}

}  // namespace tavrel::plus
