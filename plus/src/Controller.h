// Which controllers a domain has, and where they are.
#ifndef TAVREL_PLUS_SRC_CONTROLLER_H
#define TAVREL_PLUS_SRC_CONTROLLER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Deadline.h"
#include "Failure.h"
#include "Socket.h"

namespace tavrel::plus {

struct Controller {
  std::string name;  // without a "." at its end
  std::uint16_t port = 389;
};

// One answer of DNS to the question for a service (RFC 2782).
struct ServiceRecord {
  std::uint16_t priority;
  std::uint16_t weight;
  Controller controller;
};

// Reads a list's entry, "dc1.corp.example.com" or "dc1.corp.example.com:389". False when that is no
// name of a host.
bool ParseController(std::string_view text, Controller& controller);

// Sorts by priority, and by weight among equals as RFC 2782 has it. `random` gives a number from 0
// up to its argument.
void Arrange(std::vector<ServiceRecord>& records,
             const std::function<std::uint32_t(std::uint32_t)>& random);

// The controllers of `domain` in the order to try them: those of `site` first, when it is not
// empty.
Failure FindControllers(const std::string& domain, const std::string& site,
                        const Deadline& deadline, std::vector<Controller>& controllers);

// The addresses of a host.
Failure Resolve(const std::string& name, const Deadline& deadline, std::vector<Address>& addresses);

// What `error`, an errno, means for a connection.
Failure ConnectionFailure(int error);

}  // namespace tavrel::plus

#endif
