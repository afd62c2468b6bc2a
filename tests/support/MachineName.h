// The name that the library takes this machine to have.
#ifndef TAVREL_TESTS_MACHINENAME_H
#define TAVREL_TESTS_MACHINENAME_H

#include <algorithm>
#include <string>

#include "Interpose.h"

namespace tavrel::tests {

// Names the machine while it lives.
class MachineName {
 public:
  explicit MachineName(const std::string& name)
      : stand_in_(calls::gethostname, [name](char* buffer, std::size_t size) {
          std::copy_n(name.c_str(), std::min(size, name.size() + 1), buffer);
          return 0;
        }) {}

 private:
  StandIn<Interposed<int(char*, std::size_t)>> stand_in_;
};

}  // namespace tavrel::tests

#endif
