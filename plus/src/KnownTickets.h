// Tickets whose owners have signed in, opened: a client makes many tokens of one ticket.
#ifndef TAVREL_PLUS_SRC_KNOWNTICKETS_H
#define TAVREL_PLUS_SRC_KNOWNTICKETS_H

#include <krb5.h>

#include <cstddef>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ApRequest.h"
#include "KeyRing.h"
#include "Secret.h"
#include "tavrel/plus/Identity.h"

namespace tavrel::plus {

// What a ticket says, whichever token it comes in.
struct OpenedTicket {
  krb5_keyblock key{};  // that opened it, of a ring
  Secret bytes;
  TicketPart part;  // points into `bytes`
  KrbKey session_key;
  std::optional<Authorization> authorization;  // of its PAC, verified; nothing: it has none
};

// Those that were used last. One thread at a time uses it.
class KnownTickets {
 public:
  // They take about `memory` bytes at most.
  explicit KnownTickets(std::size_t memory) : memory_(memory) {}

  // The ticket that was kept, when `ring` opened it; otherwise null. What another ring opened is
  // forgotten. `ticket` is all of it, the name of the service and the version of the key included.
  const OpenedTicket* Find(const std::shared_ptr<const KeyRing>& ring, std::string_view ticket);

  // Keeps a ticket that Find() did not know and `ring` opened, unless Find() was last given another
  // ring, or there is no memory.
  void Keep(const std::shared_ptr<const KeyRing>& ring, std::string_view ticket,
            OpenedTicket opened) noexcept;

 private:
  struct Entry {
    std::string ticket;
    OpenedTicket opened;
    std::size_t size;
  };
  using Entries = std::list<Entry>;  // the one used last first

  const std::size_t memory_;
  std::size_t used_ = 0;
  std::shared_ptr<const KeyRing> ring_;  // has the keys that are pointed to
  Entries entries_;
  std::unordered_map<std::string_view, Entries::iterator> by_ticket_;  // points into `entries_`
};

}  // namespace tavrel::plus

#endif
